// The readers of option values the commands share: each refuses bad text
// with one line naming the option.

#include <charconv>
#include <cmath>
#include <type_traits>
#include <variant>

#include "Cli.h"
#include "tarnwell/analytics/EventsOfDay.h"
#include "tarnwell/automation/URLScheme.h"

namespace tarnwell::cli {

using widgets::FocusType;

// `accepts` is a phrase of the table "Errors" as the callers write it. One
// they compose from names at run time is already in the user's language:
// found in no table, it reads as itself.
[[noreturn]] void refuse(const std::string& name, const std::string& text, const std::string& accepts) {
  throw refusal("%1$@: \"%2$@\" is not %3$@", {name, text, errorWords(accepts)});
}

double parseNumber(const std::string& name, const std::string& text) {
  double value = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
  if (error != std::errc() || end != text.data() + text.size() || !std::isfinite(value)) {
    refuse(name, text, "a number");
  }
  return value;
}

double parseNumberIn(const std::string& name, const std::string& text, double low, double high,
                     const std::string& accepts) {
  const double value = parseNumber(name, text);
  if (value < low || value > high) refuse(name, text, accepts);
  return value;
}

namespace {

// Whole hours, or whole days from two days on: "24 hours", "31 days".
std::string lengthWords(double seconds) {
  const auto whole = [](double value) { return static_cast<std::int64_t>(std::llround(value)); };
  if (seconds >= 2 * kOneDay) return formatString(errorWords("%lld days"), {whole(seconds / kOneDay)});
  return formatString(errorWords("%lld hours"), {whole(seconds / 3600)});
}

}  // namespace

Date checkInstant(std::string_view text, Date date) {
  if (date < kEarliestInstant || date >= kEndOfInstants) {
    throw refusal("\"%@\" is not between 1970 and 2099", {text});
  }
  return date;
}

Date parseInstant(std::string_view text) {
  const auto date = Date::parseISO8601(text);
  if (!date) throw refusal("\"%@\" is not an ISO 8601 date or time", {text});
  return checkInstant(text, *date);
}

Date parseInstantOrNow(const std::optional<std::string>& text) { return text ? parseInstant(*text) : Date::now(); }

void checkSpan(Date start, Date end, double longest) {
  if (end < start) throw refusal("the start %1$@ is after the end %2$@", {start.iso8601(), end.iso8601()});
  if (end - start > longest) {
    throw refusal("the span from %1$@ to %2$@ is longer than %3$@",
                  {start.iso8601(), end.iso8601(), lengthWords(longest)});
  }
}

std::string familyWord(WidgetFamily family) { return WidgetContext("", family).familyName(); }

WidgetFamily parseWidgetFamily(const std::string& name, const std::string& word) {
  for (int raw = 0; const auto family = widgetFamilyFromRawValue(raw); ++raw) {
    if (familyWord(*family) == word) return *family;
  }
  refuse(name, word, "small, medium, large, extra_large, corner, circular, rectangular or inline");
}

double parseSeconds(const std::string& name, const std::string& text, double most) {
  const auto whole = static_cast<std::int64_t>(std::llround(most));
  return parseNumberIn(name, text, 0, most, formatString(errorWords("a number of seconds from 0 to %lld"), {whole}));
}

bool parseBool(const std::string& name, const std::string& text) {
  if (text == "true") return true;
  if (text == "false") return false;
  refuse(name, text, "true or false");
}

namespace {

// A type the timer can run: a focus lasts more than nothing and at most a
// day, breaks and reminders are not negative. The app's pickers offer
// nothing else, so a value outside is a typing mistake, not a wish.
bool isRunnable(const FocusType& type) {
  const auto within = [](double seconds, double low) { return seconds >= low && seconds <= kOneDay; };
  const auto positive = [&within](double seconds) { return seconds > 0 && within(seconds, 0); };
  return std::visit(
      [&](const auto& p) {
        using P = std::decay_t<decltype(p)>;
        if constexpr (std::is_same_v<P, FocusType::Pomodoro>) {
          return positive(p.duration) && within(p.shortBreak, 0) && within(p.longBreak, 0) && p.longBreakInterval >= 0;
        } else if constexpr (std::is_same_v<P, FocusType::Countdown>) {
          return positive(p.duration) && within(p.reminderInterval, 0);
        } else {
          return within(p.duration, 0) && within(p.reminderInterval, 0);
        }
      },
      type.parameters());
}

FocusType readFocusType(const std::string& name, const std::string& text, const char* accepts) {
  if (!text.empty() && text.front() == '{') {
    try {
      return nlohmann::json::parse(text).get<FocusType>();
    } catch (const nlohmann::json::exception&) {
      refuse(name, text, accepts);
    }
  }
  const auto colon = text.find(':');
  const std::string kind = text.substr(0, colon);
  const auto abstract = widgets::abstractFocusTypeFromRawValue(kind);
  if (!abstract) refuse(name, text, accepts);
  double seconds = 0;
  if (colon != std::string::npos) {
    seconds = parseNumber(name, text.substr(colon + 1));
  } else if (*abstract != widgets::AbstractFocusType::addTime) {
    refuse(name, text, accepts);
  }
  switch (*abstract) {
    case widgets::AbstractFocusType::pomodoro: {
      // A new length keeps the usual breaks.
      const auto usual = std::get<FocusType::Pomodoro>(FocusType::defaultType().parameters());
      return FocusType::pomodoro(seconds, usual.shortBreak, usual.longBreak, usual.longBreakInterval);
    }
    case widgets::AbstractFocusType::countdown:
      return FocusType::countdown(seconds);
    case widgets::AbstractFocusType::addTime:
      return FocusType::addTime(seconds);
  }
  refuse(name, text, accepts);
}

}  // namespace

// "countdown:1500", "pomodoro:1500", "addTime" or the JSON form.
FocusType parseFocusType(const std::string& name, const std::string& text) {
  const FocusType type =
      readFocusType(name, text, "a focus type (pomodoro:SECONDS, countdown:SECONDS, addTime or JSON)");
  if (!isRunnable(type)) {
    refuse(name, text,
           "a focus a timer can run (more than 0 and at most 86400 seconds, breaks and reminders not negative)");
  }
  return type;
}

std::pair<Date, Date> parseSpan(const std::string& start, const std::string& end, double longest) {
  const Date from = parseInstant(start), to = parseInstant(end);
  if (to < from) throw refusal("the start %1$@ is after the end %2$@", {start, end});
  checkSpan(from, to, longest);
  return {from, to};
}

void RangeOptions::addTo(CLI::App* command, const std::string& fromHelp, const std::string& toHelp) {
  command->add_option("--from", from, fromHelp);
  command->add_option("--to", to, toHelp);
}

std::optional<DateInterval> RangeOptions::parse() const {
  if (!from && !to) return std::nullopt;
  const Date start = from ? parseInstant(*from) : Date::distantPast();
  const Date end = to ? parseInstant(*to) : Date::distantFuture();
  if (end < start) throw refusal("--from is after --to");
  return DateInterval(start, end);
}

std::vector<std::string> deviceIdsOrDefault(const std::vector<std::string>& asked) {
  return asked.empty() ? EventsOfDay::defaultDeviceIds() : asked;
}

}  // namespace tarnwell::cli

// `tarnwell day [DATE]`: every metric of one day, its night and its hours.

#include <algorithm>
#include <cmath>
#include <cstdio>

#include "Cli.h"
#include "tarnwell/analytics/EventsOfDay.h"
#include "tarnwell/modules/Database.h"

namespace tarnwell::cli {
namespace {

nlohmann::ordered_json intervalsJSON(const std::vector<DateInterval>& intervals) {
  nlohmann::ordered_json list = nlohmann::ordered_json::array();
  for (const auto& interval : intervals) list.push_back(intervalJSON(interval));
  return list;
}

// "1:05:09" for a span of time, "-" for nothing.
std::string clock(std::optional<double> seconds) {
  if (!seconds) return "-";
  const auto whole = static_cast<long long>(std::llround(*seconds));
  char text[32];
  std::snprintf(text, sizeof text, "%lld:%02lld:%02lld", whole / 3600, whole / 60 % 60, whole % 60);
  return text;
}

// The wall time of an instant, with the day and month when it is not `day`'s
// (the last pickup before the night is often the evening before), and the
// year when that is another too.
std::string wallTime(std::optional<Date> date, Date day) {
  if (!date) return "-";
  if (date->isSameDay(day)) return clockTime(*date);
  return dayAndClockTime(*date, date->startOfYear() != day.startOfYear());
}

// When the night fell asleep, only if the day has a night: without one the
// library answers 04:00, a placeholder that must not read as a measurement.
std::optional<Date> asleepAt(const EventsOfDay& day) {
  const auto slept = day.sleepTime();
  if (!slept || *slept <= 0) return std::nullopt;
  return day.asleepAt();
}

std::string span(const DateInterval& interval, Date day) {
  return wallTime(interval.start(), day) + " - " + wallTime(interval.end(), day) + " (" + clock(interval.duration()) +
         ")";
}

std::string spans(const std::vector<DateInterval>& intervals, Date day) {
  if (intervals.empty()) return words("Day.None");
  std::string text;
  for (const auto& interval : intervals) text += "\n    " + span(interval, day);
  return text;
}

// A bar of up to 30 cells for a share of an hour.
std::string bar(std::optional<double> seconds) {
  const int cells = seconds ? static_cast<int>(std::lround(*seconds / 120.0)) : 0;
  std::string text;
  for (int i = 0; i < cells; ++i) text += "\u2588";
  return text;
}

std::string dayText(const EventsOfDay& day) {
  const Date date = day.startOfDay();
  const DateInterval& interval = day.eventsOfInterval().interval();
  std::string text =
      words("Day.Header", {calendarDay(date), wallTime(interval.start(), date), wallTime(interval.end(), date)}) + "\n";
  std::vector<std::pair<std::string, std::string>> rows;
  const auto row = [&rows](std::string label, std::string value) {
    rows.emplace_back(std::move(label), std::move(value));
  };
  row(words("Metric.ScreenTime"), clock(day.screenTime()));
  row(localized("ScreenTime.Pickups"), day.pickupTimes() ? std::to_string(*day.pickupTimes()) : "-");
  row(words("Metric.LongestPickup"), clock(day.longestPickup()));
  row(words("Metric.CheckingEvery"), clock(day.checkingEvery()));
  row(words("Metric.Walking"), clock(day.walkingLife()));
  row(words("Metric.Indoor"), clock(day.indoorLife()));
  row(words("Metric.LongestUse"), day.continuouslyUsage() ? span(*day.continuouslyUsage(), date) : "-");
  row(words("Metric.BestBreak"), day.bestBreak() ? span(*day.bestBreak(), date) : "-");
  row(words("Metric.LastPickup"), wallTime(day.lastPickupDate(), date));
  row(words("Metric.FirstPickup"), wallTime(day.firstPickupDate(), date));
  row(words("Metric.AsleepAt"), wallTime(asleepAt(day), date));
  // The night's pieces follow on lines of their own; without a night there are none.
  const auto sleeps = day.sleeps();
  // Whose night it is matters only when there is one.
  row(localized("ScreenTime.SleepTime"),
      day.sleepTime() ? words("Day.SleepBy", {clock(day.sleepTime()), day.sleepSourceDisplayName()}) +
                            (sleeps.empty() ? std::string() : spans(sleeps, date))
                      : "-");
  row(words("Metric.Breaks"), std::to_string(day.breaks().size()));
  row(words("Metric.NoData"), spans(day.noDatas(), date));
  text += labeledRows(rows, 20) + "\n";
  text += words("Day.Hours") + "\n";
  const auto eventsOfHours = day.getEventsOfHours();
  // The hours' names differ in width on a twelve-hour clock ("9:00 AM", "10:00 AM").
  std::size_t hourWidth = 0;
  for (const auto& hour : *eventsOfHours) {
    hourWidth = std::max(hourWidth, columnsOf(clockTime(hour.interval.start(), false)));
  }
  for (const auto& hour : *eventsOfHours) {
    const std::string count = hour.pickupTimes() ? std::to_string(*hour.pickupTimes()) : "";
    text += "  " + padded(clockTime(hour.interval.start(), false), hourWidth + 2) +
            padded(clock(hour.screenTime()), 9) + count + std::string(5 - std::min<std::size_t>(count.size(), 4), ' ') +
            bar(hour.screenTime()) + "\n";
  }
  text.pop_back();
  return text;
}

struct DayArguments {
  std::optional<std::string> date;
  std::vector<std::string> devices;
};

}  // namespace

nlohmann::ordered_json dayJSON(const EventsOfDay& day) {
  nlohmann::ordered_json hours = nlohmann::ordered_json::array();
  const auto eventsOfHours = day.getEventsOfHours();
  for (const auto& hour : *eventsOfHours) {
    hours.push_back({{"interval", intervalJSON(hour.interval)},
                     {"screenTime", optionalJSON(hour.screenTime())},
                     {"pickupTimes", optionalJSON(hour.pickupTimes())},
                     {"checkingEvery", optionalJSON(hour.checkingEvery())},
                     {"walkingLife", optionalJSON(hour.walkingLife())}});
  }
  return {
      {"startOfDay", day.startOfDay().iso8601()},
      {"screenTime", optionalJSON(day.screenTime())},
      {"pickupTimes", optionalJSON(day.pickupTimes())},
      {"longestPickup", optionalJSON(day.longestPickup())},
      {"checkingEvery", optionalJSON(day.checkingEvery())},
      {"walkingLife", optionalJSON(day.walkingLife())},
      {"indoorLife", optionalJSON(day.indoorLife())},
      {"bestBreak", optionalJSON(day.bestBreak())},
      {"continuouslyUsage", optionalJSON(day.continuouslyUsage())},
      {"firstPickupDate", optionalJSON(day.firstPickupDate())},
      {"lastPickupDate", optionalJSON(day.lastPickupDate())},
      {"sleepTime", optionalJSON(day.sleepTime())},
      {"sleeps", intervalsJSON(day.sleeps())},
      {"asleepAt", optionalJSON(asleepAt(day))},
      {"breaks", intervalsJSON(day.breaks())},
      {"pickups", intervalsJSON(day.pickups())},
      {"walks", intervalsJSON(day.walks())},
      {"noDatas", intervalsJSON(day.noDatas())},
      {"hours", hours},
  };
}

View dayView(const EventsOfDay& day) { return {dayJSON(day), dayText(day)}; }

void printDay(const GlobalOptions& options, const EventsOfDay& day) {
  Output(options).print(dayJSON(day), dayText(day));
}

void addDayCommand(CLI::App& app, const GlobalOptions& options, Action& action) {
  auto arguments = std::make_shared<DayArguments>();
  auto* day = app.add_subcommand("day", "Every metric of a day, its night and its hours");
  day->add_option("DATE", arguments->date, "ISO 8601 date or time (default: today)");
  day->add_option("--devices", arguments->devices, "Device ids (default: this device and related ones)");
  onRun(
      day, action, [arguments] { return parseInstantOrNow(arguments->date); },
      [&options, arguments](Date date) {
        const EventsOfDay events(date, arguments->devices.empty()
                                           ? std::nullopt
                                           : std::optional<std::vector<std::string>>(arguments->devices));
        printDay(options, events);
      });
}

}  // namespace tarnwell::cli

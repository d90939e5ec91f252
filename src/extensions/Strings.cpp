#include "tarnwell/extensions/Strings.h"

#include <unicode/fieldpos.h>
#include <unicode/numberformatter.h>
#include <unicode/smpdtfmt.h>
#include <unicode/uchar.h>
#include <unicode/utf8.h>

#include <array>
#include <cmath>
#include <cstdio>
#include <limits>
#include <memory>

#include "platform/Icu.h"
#include "platform/RegionImpl.h"
#include "tarnwell/platform/DateFormatting.h"
#include "tarnwell/platform/FatalError.h"
#include "tarnwell/platform/Localization.h"
#include "tarnwell/platform/Region.h"
#include "tarnwell/settings/Settings.h"

namespace tarnwell {

namespace {

using date_formatting::format;
using date_formatting::formatFromTemplate;

std::string toUpper(std::string_view text) {
  icu::UnicodeString unicode = icu_support::fromUtf8(text);
  unicode.toUpper(icu::Locale::getRoot());
  return icu_support::toUtf8(unicode);
}

std::string uppercasingFirstCharacter(std::string_view text) {
  if (text.empty()) return {};
  std::size_t end = 0;
  UChar32 first = 0;
  U8_NEXT(text.data(), end, text.size(), first);
  return toUpper(text.substr(0, end)) + std::string(text.substr(end));
}

std::size_t codePointCount(std::string_view text) {
  std::size_t count = 0;
  for (const char c : text) {
    if ((static_cast<unsigned char>(c) & 0xC0) != 0x80) ++count;
  }
  return count;
}

std::string twoDigits(std::int64_t a, std::int64_t b) {
  char buffer[48];
  std::snprintf(buffer, sizeof buffer, "%02lld:%02lld", static_cast<long long>(a), static_cast<long long>(b));
  return buffer;
}

}  // namespace

// --- Durations ---

namespace duration {

std::int64_t intValue(double seconds) {
  if (!std::isfinite(seconds)) return 0;
  // 2^63 is the first double past the range; -2^63 itself is the minimum.
  if (seconds >= 0x1p63) return std::numeric_limits<std::int64_t>::max();
  if (seconds < -0x1p63) return std::numeric_limits<std::int64_t>::min();
  return static_cast<std::int64_t>(seconds);
}

std::int64_t days(double seconds) { return intValue(seconds) / 86400; }
std::int64_t hours(double seconds) { return intValue(seconds) % 86400 / 3600; }
std::int64_t minutes(double seconds) { return intValue(seconds) % 3600 / 60; }
std::int64_t seconds(double value) { return intValue(value) % 60; }
std::int64_t roundToMinutes(double seconds) { return intValue(seconds) / 60; }
std::int64_t roundToHours(double seconds) { return intValue(seconds) / 3600; }

Date dateTime(double seconds) { return Date::now().startOfDay() + seconds; }

}  // namespace duration

std::string getTimeIntervalString(double seconds, bool localized, bool alwaysShowSecond,
                                  const std::optional<std::string>& fallback) {
  const auto unit = [localized](std::string_view key, std::string_view literal) {
    return localized ? tarnwell::localized(key) : std::string(literal);
  };
  const std::int64_t whole = duration::intValue(seconds);
  std::string text;
  // Hours are never folded into days: a whole day reads "24h".
  if (whole >= 3600) text += std::to_string(whole / 3600) + unit("DateTime.h", "h");
  if (whole % 3600 >= 60) text += std::to_string(whole % 3600 / 60) + unit("DateTime.m", "m");
  if (!alwaysShowSecond) {
    if (!text.empty()) return text;
    if (duration::seconds(seconds) < 1) {
      if (fallback) return *fallback;
      return "0" + unit("DateTime.s", "s");
    }
  }
  return text + std::to_string(duration::seconds(seconds)) + unit("DateTime.s", "s");
}

AttributedString getAttributedTimeIntervalString(double seconds, const Font& numberFont, const Font& textFont,
                                                 const Color& textColor, bool localized,
                                                 const std::optional<std::string>& fallback) {
  return getAttributedNumberString(toUpper(getTimeIntervalString(seconds, localized, false, fallback)), numberFont,
                                   textFont, textColor);
}

std::string getDateTimeString(double seconds) {
  return getTimeString(duration::dateTime(seconds), Settings::using24HoursFormat());
}

AttributedString getAttributedDateTimeString(double seconds, const Font& numberFont, const Font& textFont,
                                             const Color& textColor) {
  return getAttributedNumberString(getDateTimeString(seconds), numberFont, textFont, textColor);
}

std::string getTimerString(double seconds) {
  const std::int64_t hours = duration::intValue(seconds) / 3600;
  const std::int64_t minutes = duration::minutes(seconds);
  const std::int64_t secs = duration::seconds(seconds);
  if (hours < 1) return twoDigits(minutes, secs);
  return std::to_string(hours) + ":" + twoDigits(minutes, secs);
}

std::string fileSizeString(double bytes) {
  static constexpr std::array<const char*, 9> units = {"bytes", "KB", "MB", "GB", "TB", "PB", "EB", "ZB", "YB"};
  double value = bytes;
  std::size_t unit = 0;
  while (value > 1024.0) {
    value *= 0.0009765625;
    if (++unit == units.size()) fatalError("A file size beyond the largest unit: " + formatDouble(bytes));
  }
  char buffer[64];
  std::snprintf(buffer, sizeof buffer, "%4.2f %s", value, units[unit]);
  return buffer;
}

std::optional<std::string> removeZerosFromEnd(double value, int maximumFractionDigits) {
  if (maximumFractionDigits < 0) return std::nullopt;
  UErrorCode status = U_ZERO_ERROR;
  const auto formatted = icu::number::NumberFormatter::withLocale(Date::defaultRegion().impl().locale)
                             .precision(icu::number::Precision::minMaxFraction(0, maximumFractionDigits))
                             .grouping(UNUM_GROUPING_OFF)
                             .roundingMode(UNUM_ROUND_HALFEVEN)
                             .formatDouble(value, status);
  if (U_FAILURE(status)) return std::nullopt;
  const icu::UnicodeString text = formatted.toString(status);
  if (U_FAILURE(status)) return std::nullopt;
  return icu_support::toUtf8(text);
}

// --- Counts ---

std::string getTimesString(std::int64_t count) {
  return localizedFormat(count < 2 ? "DateTime.%lldTime" : "DateTime.%lldTimes", {count});
}

AttributedString getAttributedTimesString(std::int64_t count, const Font& numberFont, const Font& textFont,
                                          const Color& textColor) {
  const std::string word = uppercasingFirstCharacter(localized(count < 2 ? "DateTime.time" : "DateTime.times"));
  return getAttributedNumberString(std::to_string(count) + word, numberFont, textFont, textColor);
}

AttributedString getAttributedNumberString(std::string_view text, const Font& numberFont, const Font& textFont,
                                           const Color& textColor) {
  AttributedString result{std::string(text), {}};
  // Any decimal digit counts, so digits a locale writes in its own script
  // stand out as well.
  std::size_t offset = 0;
  bool inDigits = false;
  while (offset < text.size()) {
    const std::size_t start = offset;
    UChar32 c = 0;
    U8_NEXT(text.data(), offset, text.size(), c);
    const bool digit = c >= 0 && u_isdigit(c);
    if (!result.runs.empty() && digit == inDigits) {
      result.runs.back().length += offset - start;
    } else {
      result.runs.push_back({start, offset - start, digit ? numberFont : textFont, textColor});
      inDigits = digit;
    }
  }
  return result;
}

// --- Clock times and captions ---

std::string getTimeString(Date date, bool using24HoursFormat) {
  if (using24HoursFormat) return twoDigits(date.hour(), date.minute());
  // The small hours carry a word of their own rather than the day period.
  const std::string suffix = date.hour() < 6 ? localized("DateTime.EarlyAM") : format(date, "a");
  return format(date, "h:mm") + suffix;
}

AttributedString getAttributedTimeString(Date date, const Font& numberFont, const Font& textFont,
                                         const Color& textColor) {
  return getAttributedNumberString(getTimeString(date, Settings::using24HoursFormat()), numberFont, textFont,
                                   textColor);
}

std::string getHourString(Date date, bool using24HoursFormat) {
  std::string hour = format(date, using24HoursFormat ? "HH" : "h");
  if (codePointCount(hour) == 1) hour.insert(0, "0");
  return hour;
}

std::string getMinString(Date date) { return format(date, "mm"); }
std::string getSecondString(Date date) { return format(date, "ss"); }

std::string getDateAndMonthString(Date date) { return formatFromTemplate(date, "dMMM"); }
std::string getDateAndMonthAndYearString(Date date) { return formatFromTemplate(date, "MMM d, yyyy"); }
std::string getMonthAbbreviationAndYearString(Date date) { return formatFromTemplate(date, "MMM, yyyy"); }
std::string getMonthAbbreviationString(Date date) { return format(date, "MMM"); }
std::string getDateInMonthString(Date date) { return format(date, "d"); }
std::string getWeekdayString(Date date) { return format(date, "EEEE"); }
std::string getShortWeekdayString(Date date) { return format(date, "E"); }
std::string getDebugString(Date date) { return format(date, "yyyy-MM-dd'T'HH:mm:ssZ"); }

std::string getDateString(Date date) { return getDateAndMonthString(date) + ", " + getWeekdayString(date); }
std::string getShortDateString(Date date) { return getDateAndMonthString(date) + ", " + getShortWeekdayString(date); }

std::string getWeekdayAbbreviationString(Date date) {
  return date.isTodayInCurrentRegion() ? localized("DateTime.Today") : getShortWeekdayString(date);
}

std::string getDateIntervalTimeString(const DateInterval& interval, bool withDate) {
  std::string text = getTimeString(interval.start(), true) + "~" + getTimeString(interval.end(), true);
  if (withDate) text.insert(0, getDateAndMonthString(interval.end()) + ", ");
  return text;
}

namespace {

// The caption of a span by its whole days: a day alone, the two ends of a
// week with their weekdays, of a month by day and month, of a longer span
// with the year of its start.
std::string dateIntervalCaption(const DateInterval& interval, std::string (*dayCaption)(Date)) {
  const std::int64_t days = duration::days(interval.duration());
  if (days < 2) return dayCaption(interval.start());
  if (days <= 7) return dayCaption(interval.start()) + " ~ " + dayCaption(interval.end());
  if (days <= 31) return getDateAndMonthString(interval.start()) + " ~ " + getDateAndMonthString(interval.end());
  return getDateAndMonthAndYearString(interval.start()) + " ~ " + getDateAndMonthString(interval.end());
}

}  // namespace

std::string getDateIntervalDateString(const DateInterval& interval) {
  return dateIntervalCaption(interval, &getDateString);
}

std::string getDateIntervalShortDateString(const DateInterval& interval) {
  return dateIntervalCaption(interval, &getShortDateString);
}

}  // namespace tarnwell

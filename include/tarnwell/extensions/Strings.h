// Layers, bottom to top: platform → healthkit → cloudkit → widgets → settings → [extensions] → records → store → sync → health → analytics → charts → modules → automation.
//
// The texts every number a user reads passes through: durations (1h30m),
// timer faces (25:00), clock times, date captions and counts.
//
// Durations are seconds as doubles, split on their whole seconds truncated
// toward zero; NaN and the infinities read as 0. Clock times and captions are
// read in Date::defaultRegion(), and texts come from the localization tables
// ("DateTime.h", "DateTime.EarlyAM", ...). Attributed forms are plain text
// with runs of font and colour: the digits take the number font.

#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "tarnwell/platform/Color.h"
#include "tarnwell/platform/Date.h"

namespace tarnwell {

struct Font {
  std::string name;
  double size = 0;
  friend bool operator==(const Font&, const Font&) = default;
};

// Text with runs of font and colour over byte ranges of its UTF-8.
struct AttributedString {
  struct Run {
    std::size_t location = 0;
    std::size_t length = 0;
    Font font;
    Color color;
    friend bool operator==(const Run&, const Run&) = default;
  };
  std::string text;
  // In order, covering the text without overlap.
  std::vector<Run> runs;
  friend bool operator==(const AttributedString&, const AttributedString&) = default;
};

// The splits of a duration. All work on its whole seconds (`intValue`),
// clamped to the range of int64.
namespace duration {
std::int64_t intValue(double seconds);
std::int64_t days(double seconds);
// Within the day: 0 to 23.
std::int64_t hours(double seconds);
// Within the hour: 0 to 59.
std::int64_t minutes(double seconds);
// Within the minute: 0 to 59.
std::int64_t seconds(double seconds);
// Whole minutes and whole hours: truncated, in spite of the names.
std::int64_t roundToMinutes(double seconds);
std::int64_t roundToHours(double seconds);
// Today's start of day plus `seconds`: a duration read as a clock time.
Date dateTime(double seconds);
constexpr double fromHours(double hours) { return hours * 60.0 * 60.0; }
constexpr double fromMinutes(double minutes) { return minutes * 60.0; }
}  // namespace duration

// "1h30m", "59m", "1h1m0s" (with seconds always), "24h" (hours never become
// days). Unlocalized, the units are "h", "m" and "s". A duration under one
// second without seconds shown gives `fallback`, or "0s".
std::string getTimeIntervalString(double seconds, bool localized = true, bool alwaysShowSecond = false,
                                  const std::optional<std::string>& fallback = std::nullopt);
// getTimeIntervalString without seconds, upper-cased, digits in `numberFont`.
AttributedString getAttributedTimeIntervalString(double seconds, const Font& numberFont, const Font& textFont,
                                                 const Color& textColor, bool localized = true,
                                                 const std::optional<std::string>& fallback = std::nullopt);
// The duration read as a clock time of today, in the user's clock format.
std::string getDateTimeString(double seconds);
AttributedString getAttributedDateTimeString(double seconds, const Font& numberFont, const Font& textFont,
                                             const Color& textColor);
// "25:00" under an hour, "1:00:00" from an hour on (hours may pass 23).
std::string getTimerString(double seconds);
// The largest size fileSizeString shows: 1024 YB, 2^90 bytes.
inline constexpr double kLargestFileSize = 1237940039285380274899124224.0;
// "1024.00 bytes", "1.00 KB", ... up to "YB". A larger size would need a
// unit after YB and stops the process: callers check against kLargestFileSize.
std::string fileSizeString(double bytes);
// The number with at most that many fraction digits and no trailing zeros.
std::optional<std::string> removeZerosFromEnd(double value, int maximumFractionDigits);

// "1 time", "3 times" from the localization tables.
std::string getTimesString(std::int64_t count);
AttributedString getAttributedTimesString(std::int64_t count, const Font& numberFont, const Font& textFont,
                                          const Color& textColor);

// The whole text in `textFont`, each run of digits in `numberFont`.
AttributedString getAttributedNumberString(std::string_view text, const Font& numberFont, const Font& textFont,
                                           const Color& textColor);

// --- Clock times and captions of an instant, in Date::defaultRegion() ---

// "09:05" on a 24-hour clock; otherwise "9:05" and the day period ("AM"),
// or the early-morning word before 06:00.
std::string getTimeString(Date date, bool using24HoursFormat);
// In the clock format of Settings::using24HoursFormat().
AttributedString getAttributedTimeString(Date date, const Font& numberFont, const Font& textFont,
                                         const Color& textColor);
// "09" or "9" (padded to "09").
std::string getHourString(Date date, bool using24HoursFormat);
std::string getMinString(Date date);
std::string getSecondString(Date date);

// Captions by template (the locale orders the fields) or by fixed pattern.
std::string getDateAndMonthString(Date date);              // template "dMMM": "Nov 22"
std::string getDateAndMonthAndYearString(Date date);       // template "MMM d, yyyy"
std::string getMonthAbbreviationAndYearString(Date date);  // template "MMM, yyyy"
std::string getMonthAbbreviationString(Date date);         // "MMM"
std::string getDateInMonthString(Date date);               // "d"
std::string getWeekdayString(Date date);                   // "EEEE"
std::string getShortWeekdayString(Date date);              // "E"
std::string getDebugString(Date date);                     // "yyyy-MM-dd'T'HH:mm:ssZ"
// getDateAndMonthString, ", ", and the weekday ("EEEE" or "E").
std::string getDateString(Date date);
std::string getShortDateString(Date date);
// The localized "Today" for an instant of today, else the short weekday.
std::string getWeekdayAbbreviationString(Date date);

// "09:00~10:30" on a 24-hour clock whatever the setting; with the date of
// the end before it when `withDate`.
std::string getDateIntervalTimeString(const DateInterval& interval, bool withDate);
// One day, a week's days, a month's or a longer span, by the whole days the
// interval lasts.
std::string getDateIntervalDateString(const DateInterval& interval);
std::string getDateIntervalShortDateString(const DateInterval& interval);

}  // namespace tarnwell

// An absolute instant and a span between two instants.
//
// A Date is a double number of seconds since the reference date 2001-01-01
// 00:00:00 UTC, the scale of the phone platforms this library grew up on. It
// carries no time zone: calendars and zones are applied by Region. All
// conversions to other scales (Unix seconds, ICU milliseconds) live here.

#pragma once

#include <compare>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace tarnwell {

class Region;
class DateInterval;

class Date {
 public:
  // Seconds between 1970-01-01 and 2001-01-01, both UTC.
  static constexpr double kTimeIntervalBetween1970AndReferenceDate = 978307200.0;

  // The reference date itself.
  constexpr Date() = default;

  static constexpr Date fromTimeIntervalSinceReferenceDate(double seconds) { return Date(seconds); }
  static constexpr Date fromTimeIntervalSince1970(double seconds) {
    return Date(seconds - kTimeIntervalBetween1970AndReferenceDate);
  }
  // ICU's UDate: milliseconds since 1970.
  static constexpr Date fromUDate(double milliseconds) { return fromTimeIntervalSince1970(milliseconds / 1000.0); }

  // The current instant of the installed Environment's clock.
  static Date now();
  // 0001-01-01 and 4001-01-01 UTC: bounds for "any time".
  static constexpr Date distantPast() { return Date(-63114076800.0); }
  static constexpr Date distantFuture() { return Date(63113904000.0); }

  constexpr double timeIntervalSinceReferenceDate() const { return seconds_; }
  constexpr double timeIntervalSince1970() const { return seconds_ + kTimeIntervalBetween1970AndReferenceDate; }
  constexpr double toUDate() const { return timeIntervalSince1970() * 1000.0; }

  constexpr Date addingTimeInterval(double seconds) const { return Date(seconds_ + seconds); }
  constexpr double timeIntervalSince(Date other) const { return seconds_ - other.seconds_; }

  friend constexpr Date operator+(Date date, double seconds) { return date.addingTimeInterval(seconds); }
  friend constexpr Date operator-(Date date, double seconds) { return date.addingTimeInterval(-seconds); }
  friend constexpr double operator-(Date a, Date b) { return a.timeIntervalSince(b); }
  friend constexpr auto operator<=>(Date, Date) = default;

  // "2026-11-22 19:15:47 +0000": the instant in UTC, whole seconds.
  std::string description() const;

  // ISO 8601 text in the given zone (an IANA id; empty means the current
  // region's zone), "2026-11-22T20:15:47+01:00". Fractions of a second are
  // printed only when present, to the millisecond.
  std::string iso8601(std::string_view timeZoneId = {}) const;

  // Reads "YYYY-MM-DD", "YYYY-MM-DDTHH:MM[:SS[.fff]]" with an optional "Z" or
  // "+HH:MM" / "+HHMM" offset (a space may stand for the "T"). Text without an
  // offset is local time in the given zone (empty: the current region's zone);
  // a date alone is that day's midnight. Nothing on failure.
  static std::optional<Date> parseISO8601(std::string_view text, std::string_view timeZoneId = {});

  // --- The calendar, in Date::defaultRegion() ---
  //
  // The week and bedtime rules also read the user's two calendar preferences
  // (CalendarPreferences.h). "Day" is always the calendar day of the region. The end of a
  // day, week, month or year is one second before the start of the next one
  // (23:59:59), so a whole day's interval lasts 86399 seconds.

  // The process-wide region: the installed Environment's.
  static Region defaultRegion();
  static void setDefaultRegion(const Region& region);

  Date startOfDay() const;
  Date endOfDay() const;
  // 1: the start of the next day; -1: the start of the previous day; any
  // other count, 0 included: calendar days added, keeping the time of day.
  Date addingDay(int days) const;
  // The starts of `count` days from this instant's day: addingDay(i).startOfDay()
  // for each i, in one walk of the calendar.
  std::vector<Date> startsOfDays(int count) const;
  // The starts of `count` months from this instant's month: for each i the
  // start of the month i months on, as startOfMonth() gives it, in one walk
  // of the calendar.
  std::vector<Date> startsOfMonths(int count) const;
  // The week starts on the locale's first weekday, except that a Monday
  // locale starts on Sunday when weekStartsFromMonday is false and
  // a Sunday locale on Monday when it is true; a Saturday locale is left be.
  Date startOfWeek() const;
  Date endOfWeek() const;
  Date startOfMonth() const;
  Date endOfMonth() const;
  Date startOfYear() const;
  Date endOfYear() const;

  // This day at that wall time; a time a daylight-saving change skips moves
  // to the next that exists, a repeated one takes its first occurrence.
  Date getTime(int hour, int minute, int second) const;
  Date eightAM() const { return getTime(8, 0, 0); }
  Date tenAM() const { return getTime(10, 0, 0); }
  Date eightPM() const { return getTime(20, 0, 0); }
  Date fourAM() const { return getTime(4, 0, 0); }
  // Twelve o'clock noon, whatever the name says.
  Date twelveAM() const { return getTime(12, 0, 0); }
  // The bedtime of the night this instant belongs to: after 04:00 this day's
  // start plus defaultTimeForBed, at 04:00 or before the day before's.
  Date timeForBed() const;

  int hour() const;
  int minute() const;
  int second() const;

  bool isTodayInCurrentRegion() const;
  bool isYesterdayInCurrentRegion() const;
  bool isSameDay(Date other) const;
  bool isSameMonth(Date other) const;
  // This instant lies on a strictly later day than `other`.
  bool isAfterDay(Date other) const;
  // `other` lies within this instant's week, both ends included.
  bool isSameWeek(Date other) const;

  int daysOfWeek() const { return 7; }
  int daysOfMonth() const;
  int daysOfYear() const;

  // The 24 hours of this day from its start, each exactly 3600 seconds long,
  // also on a day of 23 or 25 hours. Without the future, only the intervals
  // that start strictly before now.
  std::vector<DateInterval> dateIntervalsByHourOfThisDay(bool includingFuture) const;
  // The days of this week, month or year, each from its start to its end.
  std::vector<DateInterval> dateIntervalsByDayOfThisWeek(bool includingFuture) const;
  std::vector<DateInterval> dateIntervalsByDayOfThisMonth(bool includingFuture) const;
  std::vector<DateInterval> dateIntervalsByDayOfThisYear(bool includingFuture) const;

 private:
  explicit constexpr Date(double seconds) : seconds_(seconds) {}
  double seconds_ = 0;
};

// A closed span of time from start to end. start <= end always holds for the
// intervals this library builds; intervals sort by start, then by duration.
class DateInterval {
 public:
  constexpr DateInterval() = default;
  // end must not precede start.
  DateInterval(Date start, Date end);
  DateInterval(Date start, double duration) : DateInterval(start, start + duration) {}

  constexpr Date start() const { return start_; }
  constexpr Date end() const { return end_; }
  constexpr double duration() const { return end_ - start_; }

  // Both ends included.
  constexpr bool contains(Date date) const { return start_ <= date && date <= end_; }
  constexpr bool intersects(const DateInterval& other) const { return start_ <= other.end_ && other.start_ <= end_; }
  // The common part, or nothing when the two do not meet. Intervals that only
  // touch give a zero-length intersection.
  std::optional<DateInterval> intersection(const DateInterval& other) const;

  friend constexpr bool operator==(const DateInterval&, const DateInterval&) = default;
  friend constexpr std::weak_ordering operator<=>(const DateInterval& a, const DateInterval& b) {
    if (a.start_ != b.start_) return a.start_ < b.start_ ? std::weak_ordering::less : std::weak_ordering::greater;
    if (a.duration() == b.duration()) return std::weak_ordering::equivalent;
    return a.duration() < b.duration() ? std::weak_ordering::less : std::weak_ordering::greater;
  }

  // "<start> to <end>" in the form of Date::description().
  std::string description() const;

  // From the start of `date`'s day to the end of the day `days` - 1 later.
  static DateInterval getDateInterval(Date date, int days);
  // Where the last pickup of the evening before `date` is looked for: from
  // 20:00 of the day before to `asleepAt` when that is later, else to 04:00.
  static DateInterval getDateIntervalForFindingLastPickup(Date date, std::optional<Date> asleepAt);
  // Where the first pickup of `date` is looked for: from `asleepAt` when it
  // is before 20:00, else from 04:00, to 20:00.
  static DateInterval getDateIntervalForFindingFirstPickup(Date date, std::optional<Date> asleepAt);

  // The time of `subtracted` without the time of `subtraction`, sorted, with
  // no empty pieces. `subtraction` must not overlap itself.
  static std::vector<DateInterval> calculate(std::vector<DateInterval> subtracted,
                                             std::vector<DateInterval> subtraction);
  // Sorted, with each overlapping pair merged into one that runs from the
  // first's start to the second's end, even when the second lies inside the
  // first (the merged interval then ends earlier). Touching intervals stay apart.
  static std::vector<DateInterval> removeOverlaps(std::vector<DateInterval> intervals);

 private:
  Date start_;
  Date end_;
};

// Shortest text that reads back as the same double, with at least one
// fractional digit: 1500.0, 0.1, 1e+21.
std::string formatDouble(double value);

}  // namespace tarnwell

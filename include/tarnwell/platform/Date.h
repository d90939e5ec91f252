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

namespace tarnwell {

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

 private:
  Date start_;
  Date end_;
};

// Shortest text that reads back as the same double, with at least one
// fractional digit: 1500.0, 0.1, 1e+21.
std::string formatDouble(double value);

}  // namespace tarnwell

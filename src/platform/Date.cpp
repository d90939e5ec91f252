#include "tarnwell/platform/Date.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <cstdio>

#include "platform/Civil.h"
#include "platform/Icu.h"
#include "tarnwell/platform/Environment.h"
#include "tarnwell/platform/FatalError.h"

namespace tarnwell {
namespace {

// A small cursor over ISO 8601 text.
class Scanner {
 public:
  explicit Scanner(std::string_view text) : text_(text) {}
  bool atEnd() const { return pos_ == text_.size(); }
  bool consume(char c) {
    if (!atEnd() && text_[pos_] == c) {
      ++pos_;
      return true;
    }
    return false;
  }
  char peek() const { return atEnd() ? '\0' : text_[pos_]; }
  // Exactly `count` digits.
  std::optional<int> digits(std::size_t count) {
    if (text_.size() - pos_ < count) return std::nullopt;
    int value = 0;
    for (std::size_t i = 0; i < count; ++i) {
      const char c = text_[pos_ + i];
      if (c < '0' || c > '9') return std::nullopt;
      value = value * 10 + (c - '0');
    }
    pos_ += count;
    return value;
  }
  // One or more digits of a fraction, read as a value in [0, 1).
  std::optional<double> fraction() {
    double value = 0, scale = 0.1;
    std::size_t start = pos_;
    while (!atEnd() && text_[pos_] >= '0' && text_[pos_] <= '9') {
      value += (text_[pos_] - '0') * scale;
      scale /= 10;
      ++pos_;
    }
    if (pos_ == start) return std::nullopt;
    return value;
  }

 private:
  std::string_view text_;
  std::size_t pos_ = 0;
};

std::string zoneOrCurrent(std::string_view timeZoneId) {
  if (!timeZoneId.empty()) return std::string(timeZoneId);
  return Environment::current().region().timeZoneId();
}

// Lists of a day's intervals mostly come sorted already. Intervals that sort
// alike are equal, so skipping the sort changes nothing.
void sortIfNeeded(std::vector<DateInterval>& intervals) {
  if (!std::is_sorted(intervals.begin(), intervals.end())) std::sort(intervals.begin(), intervals.end());
}

}  // namespace

Date Date::now() { return Environment::current().clock().now(); }

std::string Date::description() const {
  const civil::Civil c = civil::fromUnixSeconds(std::floor(timeIntervalSince1970()));
  // Every write's log line carries one or two of these: digits by hand for
  // the years of four digits, a tenth of what snprintf costs.
  if (c.year >= 0 && c.year <= 9999) {
    std::string text = "0000-00-00 00:00:00 +0000";
    const auto put = [&text](std::size_t end, unsigned value, int digits) {
      for (int i = 1; i <= digits; ++i, value /= 10)
        text[end - static_cast<std::size_t>(i)] = static_cast<char>('0' + value % 10);
    };
    put(4, static_cast<unsigned>(c.year), 4);
    put(7, c.month, 2);
    put(10, c.day, 2);
    put(13, c.hour, 2);
    put(16, c.minute, 2);
    put(19, c.second, 2);
    return text;
  }
  char buffer[64];
  std::snprintf(buffer, sizeof buffer, "%04lld-%02u-%02u %02u:%02u:%02u +0000", static_cast<long long>(c.year), c.month,
                c.day, c.hour, c.minute, c.second);
  return buffer;
}

std::string Date::iso8601(std::string_view timeZoneId) const {
  const std::string zone = zoneOrCurrent(timeZoneId);
  const int offsetSeconds = icu_support::offsetFromGMT(zone, *this);
  const civil::Civil c = civil::fromUnixSeconds(timeIntervalSince1970() + offsetSeconds);
  char buffer[80];
  int n = std::snprintf(buffer, sizeof buffer, "%04lld-%02u-%02uT%02u:%02u:%02u", static_cast<long long>(c.year),
                        c.month, c.day, c.hour, c.minute, c.second);
  if (c.millisecond != 0) n += std::snprintf(buffer + n, sizeof buffer - n, ".%03u", c.millisecond);
  if (offsetSeconds == 0) {
    std::snprintf(buffer + n, sizeof buffer - n, "Z");
  } else {
    const int magnitude = std::abs(offsetSeconds) / 60;
    std::snprintf(buffer + n, sizeof buffer - n, "%c%02d:%02d", offsetSeconds < 0 ? '-' : '+', magnitude / 60,
                  magnitude % 60);
  }
  return buffer;
}

std::optional<Date> Date::parseISO8601(std::string_view text, std::string_view timeZoneId) {
  Scanner s(text);
  const auto year = s.digits(4);
  if (!year || !s.consume('-')) return std::nullopt;
  const auto month = s.digits(2);
  if (!month || !s.consume('-')) return std::nullopt;
  const auto day = s.digits(2);
  if (!day || *month < 1 || *month > 12 || *day < 1) return std::nullopt;
  static constexpr int kDaysInMonth[] = {31, 29, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
  const bool leap = (*year % 4 == 0 && *year % 100 != 0) || *year % 400 == 0;
  if (*day > kDaysInMonth[*month - 1] || (*month == 2 && *day == 29 && !leap)) return std::nullopt;

  int hour = 0, minute = 0, second = 0;
  double fraction = 0;
  if (s.consume('T') || s.consume(' ')) {
    const auto h = s.digits(2);
    if (!h || !s.consume(':')) return std::nullopt;
    const auto m = s.digits(2);
    if (!m) return std::nullopt;
    hour = *h;
    minute = *m;
    if (s.consume(':')) {
      const auto sec = s.digits(2);
      if (!sec) return std::nullopt;
      second = *sec;
      if (s.consume('.') || s.consume(',')) {
        const auto f = s.fraction();
        if (!f) return std::nullopt;
        fraction = *f;
      }
    }
    if (hour > 23 || minute > 59 || second > 59) return std::nullopt;
  }

  std::optional<int> offset;
  if (s.consume('Z') || s.consume('z')) {
    offset = 0;
  } else if (s.peek() == '+' || s.peek() == '-') {
    const int sign = s.consume('-') ? -1 : (s.consume('+'), 1);
    const auto oh = s.digits(2);
    if (!oh) return std::nullopt;
    s.consume(':');
    const auto om = s.digits(2);
    if (!om || *oh > 23 || *om > 59) return std::nullopt;
    offset = sign * (*oh * 3600 + *om * 60);
  }
  if (!s.atEnd()) return std::nullopt;

  if (offset) {
    const double unix = static_cast<double>(civil::daysFromCivil(*year, *month, *day)) * civil::kSecondsPerDay +
                        hour * 3600.0 + minute * 60.0 + second - *offset;
    return fromTimeIntervalSince1970(unix + fraction);
  }
  const auto local =
      icu_support::dateFromLocalTime(zoneOrCurrent(timeZoneId), *year, *month, *day, hour, minute, second);
  if (!local) return std::nullopt;
  return local->addingTimeInterval(fraction);
}

DateInterval::DateInterval(Date start, Date end) : start_(start), end_(end) {
  if (end < start)
    fatalError("DateInterval: the end " + end.description() + " precedes the start " + start.description());
}

std::optional<DateInterval> DateInterval::intersection(const DateInterval& other) const {
  if (!intersects(other)) return std::nullopt;
  return DateInterval(std::max(start_, other.start_), std::min(end_, other.end_));
}

std::string DateInterval::description() const { return start_.description() + " to " + end_.description(); }

std::vector<DateInterval> DateInterval::calculate(std::vector<DateInterval> subtracted,
                                                  std::vector<DateInterval> subtraction) {
  if (subtraction.empty()) {
    std::erase_if(subtracted, [](const DateInterval& interval) { return !(interval.duration() > 0.0); });
    sortIfNeeded(subtracted);
    return subtracted;
  }
  sortIfNeeded(subtracted);
  sortIfNeeded(subtraction);
  std::vector<DateInterval> result;
  std::vector<DateInterval> pieces;
  // When the ends rise with the starts (no interval inside another), the
  // intervals meeting x are one run: those from the first that ends at or
  // after x starts, up to the last that starts by x's end.
  const bool ordered = std::is_sorted(subtraction.begin(), subtraction.end(),
                                      [](const DateInterval& a, const DateInterval& b) { return a.end() < b.end(); });
  for (const DateInterval& x : subtracted) {
    pieces.clear();
    auto y = subtraction.begin();
    if (ordered) {
      y = std::lower_bound(y, subtraction.end(), x.start(),
                           [](const DateInterval& each, Date start) { return each.end() < start; });
    }
    for (; y != subtraction.end() && !(ordered && x.end() < y->start()); ++y) {
      if (const auto piece = x.intersection(*y)) pieces.push_back(*piece);
    }
    if (pieces.empty()) {
      result.push_back(x);
      continue;
    }
    sortIfNeeded(pieces);
    DateInterval current = x;
    for (std::size_t i = 0; i < pieces.size(); ++i) {
      const DateInterval& piece = pieces[i];
      if (!(piece.start() < current.start())) result.emplace_back(current.start(), piece.start());
      if (!(current.end() < piece.end())) {
        const DateInterval rest(piece.end(), current.end());
        if (i + 1 == pieces.size()) {
          result.push_back(rest);
        } else {
          current = rest;
        }
      }
    }
  }
  std::erase_if(result, [](const DateInterval& interval) { return !(interval.duration() > 0.0); });
  sortIfNeeded(result);
  return result;
}

std::vector<DateInterval> DateInterval::removeOverlaps(std::vector<DateInterval> intervals) {
  std::sort(intervals.begin(), intervals.end());
  std::vector<DateInterval> result;
  for (const DateInterval& interval : intervals) {
    if (result.empty() || !(interval.start() < result.back().end())) {
      result.push_back(interval);
    } else {
      // The merged end is this interval's end, not the later of the two.
      const Date start = result.back().start();
      result.back() = DateInterval(start, interval.end());
    }
  }
  return result;
}

std::string formatDouble(double value) {
  if (std::isnan(value)) return "nan";
  if (std::isinf(value)) return value < 0 ? "-inf" : "inf";
  char buffer[64];
  const auto result = std::to_chars(buffer, buffer + sizeof buffer, value);
  std::string text(buffer, result.ptr);
  if (text.find_first_of(".eE") == std::string::npos) text += ".0";
  return text;
}

}  // namespace tarnwell

// The calendar members of Date and DateInterval, on ICU, in the default region.

#include <unicode/basictz.h>
#include <unicode/gregocal.h>
#include <unicode/tztrans.h>

#include <cmath>
#include <limits>
#include <memory>
#include <optional>
#include <string>

#include "platform/Civil.h"
#include "platform/Icu.h"
#include "platform/RegionImpl.h"
#include "platform/RegionalCache.h"
#include "tarnwell/platform/CalendarPreferences.h"
#include "tarnwell/platform/Date.h"
#include "tarnwell/platform/Environment.h"
#include "tarnwell/platform/FatalError.h"
#include "tarnwell/platform/Region.h"

namespace tarnwell {
namespace {

// A Gregorian calendar in the default region, with the wall-time rules of
// this library: a skipped time moves forward, a repeated one is the first.
icu::Calendar& calendar() {
  return regional::perThread<icu::Calendar>([](const Region& region) {
    auto made = icu_support::makeGregorianCalendar(region.timeZoneId(), region.impl().locale);
    if (!made) fatalError("No Gregorian calendar for " + region.localeId() + " in " + region.timeZoneId());
    made->setSkippedWallTimeOption(UCAL_WALLTIME_NEXT_VALID);
    made->setRepeatedWallTimeOption(UCAL_WALLTIME_FIRST);
    return made;
  });
}

// The calendar set to `date`.
icu::Calendar& at(Date date) {
  icu::Calendar& c = calendar();
  UErrorCode status = U_ZERO_ERROR;
  c.setTime(date.toUDate(), status);
  return c;
}

Date timeOf(icu::Calendar& c) {
  UErrorCode status = U_ZERO_ERROR;
  const UDate millis = c.getTime(status);
  if (U_FAILURE(status)) fatalError("The calendar cannot tell the time");
  return Date::fromUDate(millis);
}

int field(Date date, UCalendarDateFields which) {
  UErrorCode status = U_ZERO_ERROR;
  const int value = at(date).get(which, status);
  if (U_FAILURE(status)) fatalError("The calendar has no such component");
  return value;
}

void setTimeOfDay(icu::Calendar& c, int hour, int minute, int second) {
  c.set(UCAL_HOUR_OF_DAY, hour);
  c.set(UCAL_MINUTE, minute);
  c.set(UCAL_SECOND, second);
  c.set(UCAL_MILLISECOND, 0);
}

// `days` calendar days added, the wall time kept.
Date addingDays(Date date, int days) {
  icu::Calendar& c = at(date);
  UErrorCode status = U_ZERO_ERROR;
  c.add(UCAL_DATE, days, status);
  return timeOf(c);
}

enum class Unit { day, week, month, year };

// The first instant of the unit holding `date`, as the region counts it.
Date regionStartOf(Date date, Unit unit) {
  icu::Calendar& c = at(date);
  UErrorCode status = U_ZERO_ERROR;
  switch (unit) {
    case Unit::day:
      break;
    case Unit::week:
      c.add(UCAL_DATE, -((c.get(UCAL_DAY_OF_WEEK, status) - c.getFirstDayOfWeek(status) + 7) % 7), status);
      break;
    case Unit::month:
      c.set(UCAL_DATE, 1);
      break;
    case Unit::year:
      c.set(UCAL_DAY_OF_YEAR, 1);
      break;
  }
  setTimeOfDay(c, 0, 0, 0);
  return timeOf(c);
}

// One second before the start of the next unit.
Date regionEndOf(Date date, Unit unit) {
  icu::Calendar& c = at(regionStartOf(date, unit));
  UErrorCode status = U_ZERO_ERROR;
  switch (unit) {
    case Unit::day:
      c.add(UCAL_DATE, 1, status);
      break;
    case Unit::week:
      c.add(UCAL_DATE, 7, status);
      break;
    case Unit::month:
      c.add(UCAL_MONTH, 1, status);
      break;
    case Unit::year:
      c.add(UCAL_YEAR, 1, status);
      break;
  }
  setTimeOfDay(c, 0, 0, 0);
  return timeOf(c) - 1.0;
}

bool isLeapYear(int year) { return (year % 4 == 0 && year % 100 != 0) || year % 400 == 0; }

struct YearMonthDay {
  int year, month, day;
  friend auto operator<=>(const YearMonthDay&, const YearMonthDay&) = default;
};

YearMonthDay ymd(Date date) {
  icu::Calendar& c = at(date);
  UErrorCode status = U_ZERO_ERROR;
  return {c.get(UCAL_EXTENDED_YEAR, status), c.get(UCAL_MONTH, status), c.get(UCAL_DATE, status)};
}

// The intervals of `count` days from `first`, each from its start to its end,
// without the future unless asked.
std::vector<DateInterval> daysFrom(Date first, int count, bool includingFuture) {
  std::vector<DateInterval> days;
  const Date now = Date::now();
  for (int i = 0; i < count; ++i) {
    const Date day = first.addingDay(i);
    const DateInterval interval(day.startOfDay(), day.endOfDay());
    if (includingFuture || interval.start() < now) days.push_back(interval);
  }
  return days;
}

}  // namespace

namespace calendar_preferences {

const defaults::Key<bool>& weekStartsFromMonday() {
  static const defaults::Key<bool> key{"SettingsModule.weekStartsFromMonday.inSuite", true, &UserDefaults::appGroup};
  return key;
}

const defaults::Key<double>& defaultTimeForBed() {
  static const defaults::Key<double> key{"SettingsModule.defaultTimeForBed", 82800, &UserDefaults::appGroup};
  return key;
}

}  // namespace calendar_preferences

Region Date::defaultRegion() { return Environment::current().region(); }
void Date::setDefaultRegion(const Region& region) { Environment::current().setRegion(region); }

Date Date::startOfDay() const { return regionStartOf(*this, Unit::day); }

Date Date::endOfDay() const { return regionEndOf(*this, Unit::day); }

Date Date::addingDay(int days) const {
  if (days == 1) return (endOfDay() + 1.0).startOfDay();
  if (days == -1) return (startOfDay() - 1.0).startOfDay();
  return addingDays(*this, days);
}

namespace {

// A stretch of time in which the zone's offset stays the same: there, the
// start of a later day is the start of this one plus whole days of 86400
// seconds, and the calendar need not be asked.
class SteadyOffset {
 public:
  explicit SteadyOffset(Date from) : zone_(dynamic_cast<const icu::BasicTimeZone*>(&calendar().getTimeZone())) {
    moveTo(from);
  }

  // Starts the stretch that holds `from`.
  void moveTo(Date from) {
    from_ = from.toUDate();
    until_ = -std::numeric_limits<UDate>::infinity();
    if (!zone_) return;
    std::int32_t raw = 0, saved = 0;
    UErrorCode status = U_ZERO_ERROR;
    zone_->getOffset(from_, false, raw, saved, status);
    if (U_FAILURE(status)) return;
    offset_ = raw + saved;
    icu::TimeZoneTransition transition;
    until_ = zone_->getNextTransition(from_, false, transition) ? transition.getTime()
                                                                : std::numeric_limits<UDate>::infinity();
  }

  // The wall-clock date of the stretch's start, in the proleptic Gregorian
  // calendar the region's calendar keeps, when that start is a midnight.
  std::optional<civil::Civil> midnight() const {
    if (!(until_ > from_)) return std::nullopt;
    const civil::Civil wall = civil::fromUnixSeconds((from_ + offset_) / 1000.0);
    if (wall.hour != 0 || wall.minute != 0 || wall.second != 0 || wall.millisecond != 0) return std::nullopt;
    return wall;
  }

  // `days` whole days after the stretch's start, while still inside it.
  std::optional<Date> after(std::int64_t days) const {
    const UDate later = from_ + static_cast<double>(days) * 86400000.0;
    if (later < until_) return Date::fromUDate(later);
    return std::nullopt;
  }

 private:
  const icu::BasicTimeZone* zone_;
  UDate from_ = 0, until_ = 0;
  double offset_ = 0;
};

}  // namespace

std::vector<Date> Date::startsOfDays(int count) const {
  std::vector<Date> starts;
  if (count <= 0) return starts;
  starts.reserve(static_cast<std::size_t>(count));
  starts.push_back(startOfDay());
  SteadyOffset steady(starts.back());
  bool midnight = steady.midnight().has_value();
  std::int64_t days = 0;
  for (int i = 1; i < count; ++i) {
    if (const auto next = midnight ? steady.after(++days) : std::nullopt) {
      starts.push_back(*next);
      continue;
    }
    starts.push_back(starts.back().addingDay(1));
    steady.moveTo(starts.back());
    midnight = steady.midnight().has_value();
    days = 0;
  }
  return starts;
}

std::vector<Date> Date::startsOfMonths(int count) const {
  std::vector<Date> starts;
  if (count <= 0) return starts;
  starts.reserve(static_cast<std::size_t>(count));
  starts.push_back(startOfMonth());
  SteadyOffset steady(starts.back());
  auto wall = steady.midnight();
  std::int64_t days = 0;
  for (int i = 1; i < count; ++i) {
    if (wall) {
      // The wall date moves a month on; the stretch counts days from its start.
      const std::int64_t year = wall->year + (wall->month == 12 ? 1 : 0);
      const unsigned month = wall->month == 12 ? 1 : wall->month + 1;
      days += civil::daysFromCivil(year, month, 1) - civil::daysFromCivil(wall->year, wall->month, 1);
      if (const auto next = steady.after(days)) {
        starts.push_back(*next);
        wall->year = year;
        wall->month = month;
        continue;
      }
    }
    icu::Calendar& c = at(starts.back());
    UErrorCode status = U_ZERO_ERROR;
    c.add(UCAL_MONTH, 1, status);
    setTimeOfDay(c, 0, 0, 0);
    starts.push_back(timeOf(c));
    steady.moveTo(starts.back());
    wall = steady.midnight();
    days = 0;
  }
  return starts;
}

Date Date::startOfWeek() const {
  // The weekday the locale's weeks start on: 1 Sunday, 2 Monday, 7 Saturday.
  UErrorCode status = U_ZERO_ERROR;
  const int weekday = calendar().getFirstDayOfWeek(status);
  const bool monday = calendar_preferences::weekStartsFromMonday().get();
  Date start;
  if (weekday == UCAL_MONDAY && !monday) {
    start = addingDays(regionStartOf(addingDays(*this, 1), Unit::week), -1);
  } else if (weekday == UCAL_SUNDAY && monday) {
    start = addingDays(regionStartOf(addingDays(*this, -1), Unit::week), 1);
  } else {
    start = regionStartOf(*this, Unit::week);
  }
  return start.startOfDay();
}

Date Date::endOfWeek() const { return addingDays(startOfWeek(), 6).endOfDay(); }
Date Date::startOfMonth() const { return regionStartOf(*this, Unit::month).startOfDay(); }
Date Date::endOfMonth() const { return regionEndOf(*this, Unit::month).endOfDay(); }
Date Date::startOfYear() const { return regionStartOf(*this, Unit::year).startOfDay(); }
Date Date::endOfYear() const { return regionEndOf(*this, Unit::year).endOfDay(); }

Date Date::getTime(int hour, int minute, int second) const {
  icu::Calendar& c = at(*this);
  setTimeOfDay(c, hour, minute, second);
  UErrorCode status = U_ZERO_ERROR;
  const UDate millis = c.getTime(status);
  return U_SUCCESS(status) ? Date::fromUDate(millis) : *this;
}

Date Date::timeForBed() const {
  const double bedtime = calendar_preferences::defaultTimeForBed().get();
  if (*this > fourAM()) return startOfDay() + bedtime;
  return addingDay(-1).startOfDay() + bedtime;
}

int Date::hour() const { return field(*this, UCAL_HOUR_OF_DAY); }
int Date::minute() const { return field(*this, UCAL_MINUTE); }
int Date::second() const { return field(*this, UCAL_SECOND); }

bool Date::isTodayInCurrentRegion() const { return isSameDay(Date::now()); }
bool Date::isYesterdayInCurrentRegion() const { return isSameDay(addingDays(Date::now(), -1)); }
bool Date::isSameDay(Date other) const { return ymd(*this) == ymd(other); }

bool Date::isSameMonth(Date other) const {
  const auto a = ymd(*this), b = ymd(other);
  return a.year == b.year && a.month == b.month;
}

bool Date::isAfterDay(Date other) const { return ymd(*this) > ymd(other); }

bool Date::isSameWeek(Date other) const { return DateInterval(startOfWeek(), endOfWeek()).contains(other); }

int Date::daysOfMonth() const {
  const auto day = ymd(*this);
  static constexpr int kDays[] = {31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
  return day.month == 1 && isLeapYear(day.year) ? 29 : kDays[day.month];
}

int Date::daysOfYear() const { return isLeapYear(ymd(*this).year) ? 366 : 365; }

std::vector<DateInterval> Date::dateIntervalsByHourOfThisDay(bool includingFuture) const {
  const Date start = startOfDay(), now = Date::now();
  std::vector<DateInterval> hours;
  for (int i = 0; i < 24; ++i) {
    const DateInterval hour(start + i * 3600.0, 3600.0);
    if (includingFuture || hour.start() < now) hours.push_back(hour);
  }
  return hours;
}

std::vector<DateInterval> Date::dateIntervalsByDayOfThisWeek(bool includingFuture) const {
  return daysFrom(startOfWeek(), 7, includingFuture);
}

std::vector<DateInterval> Date::dateIntervalsByDayOfThisMonth(bool includingFuture) const {
  return daysFrom(startOfMonth(), daysOfMonth(), includingFuture);
}

std::vector<DateInterval> Date::dateIntervalsByDayOfThisYear(bool includingFuture) const {
  return daysFrom(startOfYear(), daysOfYear(), includingFuture);
}

DateInterval DateInterval::getDateInterval(Date date, int days) {
  return DateInterval(date.startOfDay(), date.addingDay(days - 1).endOfDay());
}

DateInterval DateInterval::getDateIntervalForFindingLastPickup(Date date, std::optional<Date> asleepAt) {
  const Date evening = date.addingDay(-1).getTime(20, 0, 0);
  if (asleepAt && evening < *asleepAt) return DateInterval(evening, *asleepAt);
  return DateInterval(evening, date.getTime(4, 0, 0));
}

DateInterval DateInterval::getDateIntervalForFindingFirstPickup(Date date, std::optional<Date> asleepAt) {
  const Date evening = date.getTime(20, 0, 0);
  if (asleepAt && *asleepAt < evening) return DateInterval(*asleepAt, evening);
  return DateInterval(date.getTime(4, 0, 0), evening);
}

}  // namespace tarnwell

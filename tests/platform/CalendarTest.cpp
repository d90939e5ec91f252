// The calendar of Date and DateInterval, checked against plain civil-date
// arithmetic across daylight-saving changes and zones.

#include <gtest/gtest.h>

#include <algorithm>

#include <random>

#include "support/TestEnvironment.h"
#include "tarnwell/platform/Date.h"
#include "tarnwell/settings/Settings.h"

namespace tarnwell {
namespace {

class CalendarTest : public ::testing::Test {
 protected:
  explicit CalendarTest(std::string zone = "Europe/Berlin", std::string locale = "de_DE")
      : env({.timeZone = std::move(zone), .locale = std::move(locale)}) {}
  Date at(const char* local) const { return *Date::parseISO8601(local); }
  std::string text(Date date) const { return date.iso8601(); }

  testing::TestEnvironment env;
};

TEST_F(CalendarTest, DaysEndOneSecondBeforeTheNext) {
  const Date noon = at("2026-11-22T12:00:00");
  EXPECT_EQ(text(noon.startOfDay()), "2026-11-22T00:00:00+01:00");
  EXPECT_EQ(text(noon.endOfDay()), "2026-11-22T23:59:59+01:00");
  EXPECT_EQ(DateInterval::getDateInterval(noon, 1).duration(), 86399);
  EXPECT_EQ(text(noon.startOfMonth()), "2026-11-01T00:00:00+01:00");
  EXPECT_EQ(text(noon.endOfMonth()), "2026-11-30T23:59:59+01:00");
  EXPECT_EQ(text(noon.startOfYear()), "2026-01-01T00:00:00+01:00");
  EXPECT_EQ(text(noon.endOfYear()), "2026-12-31T23:59:59+01:00");
  EXPECT_EQ(text(noon.twelveAM()), "2026-11-22T12:00:00+01:00");  // noon, despite the name
}

TEST_F(CalendarTest, AddingDayHasThreeCases) {
  const Date afternoon = at("2026-11-22T15:00:00");
  EXPECT_EQ(text(afternoon.addingDay(1)), "2026-11-23T00:00:00+01:00");
  EXPECT_EQ(text(afternoon.addingDay(-1)), "2026-11-21T00:00:00+01:00");
  EXPECT_EQ(text(afternoon.addingDay(2)), "2026-11-24T15:00:00+01:00");
  EXPECT_EQ(afternoon.addingDay(0), afternoon);
  // Across the spring change the wall time is kept, so the day is 23 hours.
  EXPECT_EQ(text(at("2026-03-28T15:00:00").addingDay(2)), "2026-03-30T15:00:00+02:00");
}

TEST_F(CalendarTest, DaylightSavingDays) {
  const Date spring = at("2026-03-29T12:00:00");
  EXPECT_EQ(spring.endOfDay() - spring.startOfDay(), 23 * 3600 - 1);
  EXPECT_EQ(text(spring.getTime(2, 30, 0)), "2026-03-29T03:00:00+02:00");  // the next time that exists
  EXPECT_EQ(text(spring.fourAM()), "2026-03-29T04:00:00+02:00");
  const Date autumn = at("2026-10-25T12:00:00");
  EXPECT_EQ(autumn.endOfDay() - autumn.startOfDay(), 25 * 3600 - 1);
  EXPECT_EQ(text(autumn.getTime(2, 30, 0)), "2026-10-25T02:30:00+02:00");  // the first of the two
  // Always 24 hours of 3600 seconds, the last one reaching into the next day.
  const auto hours = autumn.dateIntervalsByHourOfThisDay(true);
  ASSERT_EQ(hours.size(), 24u);
  EXPECT_EQ(text(hours[23].end()), "2026-10-25T23:00:00+01:00");
}

TEST_F(CalendarTest, TimeForBedTurnsAtFourInTheMorning) {
  EXPECT_EQ(text(at("2026-11-22T03:59:00").timeForBed()), "2026-11-21T23:00:00+01:00");
  EXPECT_EQ(text(at("2026-11-22T04:00:00").timeForBed()), "2026-11-21T23:00:00+01:00");
  EXPECT_EQ(text(at("2026-11-22T04:00:01").timeForBed()), "2026-11-22T23:00:00+01:00");
  Settings::setDefaultTimeForBed(22.5 * 3600);
  EXPECT_EQ(text(at("2026-11-22T12:00:00").timeForBed()), "2026-11-22T22:30:00+01:00");
}

TEST_F(CalendarTest, HoursOfTheDayLeaveTheFutureOut) {
  env.clock().set(at("2026-11-22T00:00:00"));
  EXPECT_TRUE(at("2026-11-22T09:00:00").dateIntervalsByHourOfThisDay(false).empty());  // now is no later
  env.clock().set(at("2026-11-22T10:30:00"));
  EXPECT_EQ(at("2026-11-22T09:00:00").dateIntervalsByHourOfThisDay(false).size(), 11u);
  EXPECT_EQ(at("2026-11-21T09:00:00").dateIntervalsByHourOfThisDay(false).size(), 24u);
  EXPECT_TRUE(at("2026-11-23T09:00:00").dateIntervalsByHourOfThisDay(false).empty());
  EXPECT_EQ(at("2026-11-22T09:00:00").dateIntervalsByDayOfThisMonth(false).size(), 22u);
  EXPECT_EQ(at("2024-07-01T00:00:00").dateIntervalsByDayOfThisYear(true).size(), 366u);
  EXPECT_EQ(at("2024-02-10T00:00:00").daysOfMonth(), 29);
  EXPECT_EQ(at("2100-02-10T00:00:00").daysOfMonth(), 28);
  EXPECT_EQ(at("2000-02-10T00:00:00").daysOfYear(), 366);
}

TEST_F(CalendarTest, DayComparisons) {
  const Date late = at("2026-11-22T23:59:59"), early = at("2026-11-22T00:00:00");
  EXPECT_TRUE(late.isSameDay(early));
  EXPECT_FALSE(late.isAfterDay(early));
  EXPECT_TRUE((late + 1).isAfterDay(early));
  EXPECT_TRUE(late.isSameMonth(at("2026-11-01T00:00:00")));
  EXPECT_EQ(late.hour(), 23);
  EXPECT_EQ(late.minute(), 59);
  EXPECT_EQ(late.second(), 59);
  env.clock().set(at("2026-11-22T10:00:00"));
  EXPECT_TRUE(early.isTodayInCurrentRegion());
  EXPECT_TRUE((early - 1).isYesterdayInCurrentRegion());
}

// The week rule, over locales that start their weeks on Monday, Sunday and Saturday.
struct WeekCase {
  const char* locale;
  bool mondayFirst;
  const char* sundayWeekStart;  // the start of the week of Sunday 2026-11-22
};

class WeekTest : public ::testing::TestWithParam<WeekCase> {};

TEST_P(WeekTest, TheWeekOfASunday) {
  const WeekCase& c = GetParam();
  testing::TestEnvironment env({.timeZone = "UTC", .locale = c.locale});
  Settings::setWeekStartsFromMonday(c.mondayFirst);
  const Date sunday = *Date::parseISO8601("2026-11-22T12:00:00");
  EXPECT_EQ(sunday.startOfWeek().iso8601(), c.sundayWeekStart);
  EXPECT_EQ(sunday.endOfWeek() - sunday.startOfWeek(), 7 * 86400 - 1);
  EXPECT_TRUE(sunday.isSameWeek(sunday.startOfWeek()));
  EXPECT_EQ(sunday.dateIntervalsByDayOfThisWeek(true).front().start(), sunday.startOfWeek());
}

INSTANTIATE_TEST_SUITE_P(Locales, WeekTest,
                         ::testing::Values(WeekCase{"de_DE", true, "2026-11-16T00:00:00Z"},
                                           WeekCase{"de_DE", false, "2026-11-22T00:00:00Z"},  // Sunday starts its week
                                           WeekCase{"en_US", false, "2026-11-22T00:00:00Z"},
                                           WeekCase{"en_US", true,
                                                    "2026-11-16T00:00:00Z"},  // the week begun six days before
                                           WeekCase{"ar_EG", true, "2026-11-21T00:00:00Z"},  // Saturday weeks stay
                                           WeekCase{"ar_EG", false, "2026-11-21T00:00:00Z"}));

TEST_F(CalendarTest, PickupSearchSpans) {
  const Date day = at("2026-11-22T00:00:00");
  EXPECT_EQ(DateInterval::getDateIntervalForFindingLastPickup(day, std::nullopt),
            DateInterval(at("2026-11-21T20:00:00"), at("2026-11-22T04:00:00")));
  EXPECT_EQ(DateInterval::getDateIntervalForFindingLastPickup(day, at("2026-11-22T02:00:00")).end(),
            at("2026-11-22T02:00:00"));
  EXPECT_EQ(DateInterval::getDateIntervalForFindingFirstPickup(day, at("2026-11-22T06:00:00")),
            DateInterval(at("2026-11-22T06:00:00"), at("2026-11-22T20:00:00")));
  // An asleepAt later than 20:00 of the day is ignored.
  EXPECT_EQ(DateInterval::getDateIntervalForFindingFirstPickup(day, at("2026-11-22T21:00:00")).start(),
            at("2026-11-22T04:00:00"));
}

// startOfDay, endOfDay and addingDay agree with the local dates of a naive
// civil calendar, in zones with and without daylight saving.
TEST(CalendarModelTest, DaysAgreeWithCivilDates) {
  for (const char* zone : {"Europe/Berlin", "America/New_York", "Australia/Lord_Howe", "Asia/Kolkata", "UTC"}) {
    testing::TestEnvironment env({.timeZone = zone});
    std::mt19937 random(7);
    std::uniform_real_distribution<double> seconds(0, 4 * 365 * 86400.0);
    for (int i = 0; i < 300; ++i) {
      const Date instant = *Date::parseISO8601("2024-01-01T00:00:00Z") + seconds(random);
      const std::string day = instant.iso8601().substr(0, 10);
      const Date start = *Date::parseISO8601(day);
      ASSERT_EQ(instant.startOfDay(), start) << zone << " " << instant.iso8601();
      const Date next = instant.addingDay(1);
      EXPECT_GT(next, instant);
      EXPECT_EQ(next - 1.0, instant.endOfDay()) << zone << " " << day;
      EXPECT_NE(next.iso8601().substr(0, 10), day);
      EXPECT_EQ((instant.addingDay(-1) + 1.0).addingDay(1), start) << zone << " " << day;
    }
  }
}

// Runs of day and month starts are the one-at-a-time answers, also in zones
// whose clocks change at midnight (Santiago, Havana) and by half an hour
// (Lord Howe).
TEST(CalendarModelTest, RunsOfStartsAgreeWithOneAtATime) {
  // Zones whose clocks change at midnight and by half an hour; local mean
  // time and the Julian calendar before 1582; years past the zones' rules.
  for (const char* zone : {"Europe/Berlin", "America/Santiago", "America/Havana", "Australia/Lord_Howe", "UTC"}) {
    testing::TestEnvironment env({.timeZone = zone});
    for (const char* from :
         {"2023-12-30T17:00:00Z", "1581-11-15T12:00:00Z", "1891-06-03T23:30:00Z", "2098-02-27T05:00:00Z"}) {
      const Date first = *Date::parseISO8601(from);
      const auto starts = first.startsOfDays(3 * 366);
      ASSERT_EQ(starts.size(), 3u * 366);
      for (int i = 0; i < 3 * 366; ++i) {
        ASSERT_EQ(starts[static_cast<std::size_t>(i)], first.addingDay(i).startOfDay())
            << zone << from << ", day " << i;
      }
      const auto months = first.startsOfMonths(37);
      ASSERT_EQ(months.size(), 37u);
      Date month = first.startOfMonth();
      for (std::size_t i = 0; i < months.size(); month = month.endOfMonth() + 1.0, ++i) {
        ASSERT_EQ(months[i], month) << zone << from << ", month " << i;
      }
    }
  }
}

TEST(IntervalAlgebraTest, RemoveOverlapsKeepsItsQuirk) {
  const Date t = Date();
  EXPECT_EQ(DateInterval::removeOverlaps({DateInterval(t, t + 10), DateInterval(t + 2, t + 3)}),
            std::vector<DateInterval>{DateInterval(t, t + 3)});  // ends at the inner end
  EXPECT_EQ(DateInterval::removeOverlaps({DateInterval(t + 5, t + 6), DateInterval(t, t + 5)}),
            (std::vector<DateInterval>{DateInterval(t, t + 5), DateInterval(t + 5, t + 6)}));
  EXPECT_EQ(DateInterval::removeOverlaps({DateInterval(t, t + 5), DateInterval(t + 3, t + 8)}),
            std::vector<DateInterval>{DateInterval(t, t + 8)});
}

TEST(IntervalAlgebraTest, CalculateSubtracts) {
  const Date t = Date();
  const auto span = [t](double a, double b) { return DateInterval(t + a, t + b); };
  EXPECT_TRUE(DateInterval::calculate({span(0, 10)}, {span(0, 10)}).empty());
  EXPECT_EQ(DateInterval::calculate({span(0, 30)}, {span(10, 20)}), (std::vector{span(0, 10), span(20, 30)}));
  EXPECT_EQ(DateInterval::calculate({span(0, 30)}, {span(20, 40), span(-5, 5)}), std::vector{span(5, 20)});
  EXPECT_EQ(DateInterval::calculate({span(20, 30), span(0, 10)}, {}), (std::vector{span(0, 10), span(20, 30)}));
  EXPECT_EQ(DateInterval::calculate({span(0, 10)}, {span(10, 20)}),
            std::vector{span(0, 10)});  // a touch removes nothing
  EXPECT_EQ(DateInterval::calculate({span(0, 100)}, {span(10, 20), span(30, 40), span(50, 60)}),
            (std::vector{span(0, 10), span(20, 30), span(40, 50), span(60, 100)}));
}

// The subtraction looks only at the intervals near each piece when it can;
// it must give what trying every pair gives, overlapping, nested, touching
// and empty intervals included.
TEST(IntervalAlgebraTest, CalculateIsWhatTryingEveryPairGives) {
  const auto everyPair = [](std::vector<DateInterval> subtracted, std::vector<DateInterval> subtraction) {
    std::sort(subtracted.begin(), subtracted.end());
    std::sort(subtraction.begin(), subtraction.end());
    std::vector<DateInterval> result;
    for (const DateInterval& x : subtracted) {
      std::vector<DateInterval> pieces;
      for (const DateInterval& y : subtraction) {
        if (const auto piece = x.intersection(y)) pieces.push_back(*piece);
      }
      std::sort(pieces.begin(), pieces.end());
      DateInterval current = x;
      bool whole = true;
      for (std::size_t i = 0; i < pieces.size(); ++i) {
        whole = false;
        if (!(pieces[i].start() < current.start())) result.emplace_back(current.start(), pieces[i].start());
        if (!(current.end() < pieces[i].end())) {
          if (i + 1 == pieces.size())
            result.emplace_back(pieces[i].end(), current.end());
          else
            current = DateInterval(pieces[i].end(), current.end());
        }
      }
      if (whole) result.push_back(x);
    }
    std::erase_if(result, [](const DateInterval& each) { return !(each.duration() > 0.0); });
    std::sort(result.begin(), result.end());
    return result;
  };
  std::mt19937 random(31);
  const auto list = [&](std::size_t most, bool ordered) {
    std::vector<DateInterval> intervals;
    double at = 0;
    for (std::size_t n = random() % most; n > 0; --n) {
      at = ordered ? at + static_cast<double>(random() % 4) : static_cast<double>(random() % 60);
      intervals.emplace_back(Date() + at, Date() + at + static_cast<double>(random() % 8));
    }
    return intervals;
  };
  for (int i = 0; i < 2000; ++i) {
    const auto subtracted = list(6, i % 3 == 0), subtraction = list(12, i % 2 == 0);
    EXPECT_EQ(DateInterval::calculate(subtracted, subtraction), everyPair(subtracted, subtraction)) << i;
  }
}

}  // namespace
}  // namespace tarnwell

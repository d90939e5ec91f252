#include "tarnwell/platform/Date.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <vector>

#include "support/TestEnvironment.h"

namespace tarnwell {
namespace {

Date utc(const char* text) { return *Date::parseISO8601(text, "UTC"); }

TEST(DateTest, ScalesMeetAtTheReferenceDate) {
  EXPECT_EQ(Date().timeIntervalSince1970(), 978307200.0);
  EXPECT_EQ(Date::fromTimeIntervalSince1970(978307200.0), Date());
  EXPECT_EQ(Date::fromUDate(978307200000.0), Date());
  EXPECT_EQ(Date().description(), "2001-01-01 00:00:00 +0000");
  EXPECT_EQ(Date::fromTimeIntervalSinceReferenceDate(-1).description(), "2000-12-31 23:59:59 +0000");
  EXPECT_EQ(Date::fromTimeIntervalSinceReferenceDate(0.999).description(), "2001-01-01 00:00:00 +0000");
  // The years of four digits and those around them.
  EXPECT_EQ(utc("0000-01-01T00:00:00Z").description(), "0000-01-01 00:00:00 +0000");
  EXPECT_EQ((utc("0000-01-01T00:00:00Z") - 1).description(), "-001-12-31 23:59:59 +0000");
  EXPECT_EQ(utc("9999-12-31T23:59:59Z").description(), "9999-12-31 23:59:59 +0000");
  EXPECT_EQ((utc("9999-12-31T23:59:59Z") + 1).description(), "10000-01-01 00:00:00 +0000");
  EXPECT_EQ(utc("1987-06-05T04:03:02Z").description(), "1987-06-05 04:03:02 +0000");
}

TEST(DateTest, ISO8601TextCarriesTheZonesOffset) {
  const Date instant = utc("2026-03-29T00:30:00Z");
  EXPECT_EQ(instant.iso8601("UTC"), "2026-03-29T00:30:00Z");
  EXPECT_EQ(instant.iso8601("Europe/Berlin"), "2026-03-29T01:30:00+01:00");
  // An hour later Berlin has moved to summer time.
  EXPECT_EQ((instant + 3600).iso8601("Europe/Berlin"), "2026-03-29T03:30:00+02:00");
  EXPECT_EQ(instant.iso8601("America/St_Johns"), "2026-03-28T22:00:00-02:30");
  EXPECT_EQ((instant + 0.25).iso8601("UTC"), "2026-03-29T00:30:00.250Z");
}

TEST(DateTest, ParsingReadsOffsetsAndLocalTimes) {
  EXPECT_EQ(utc("2026-11-22T19:15:47+00:00"), utc("2026-11-22T19:15:47Z"));
  EXPECT_EQ(*Date::parseISO8601("2026-11-22T20:15:47+0100"), utc("2026-11-22T19:15:47Z"));
  EXPECT_EQ(*Date::parseISO8601("2026-11-22 14:15:47", "America/New_York"), utc("2026-11-22T19:15:47Z"));
  EXPECT_EQ(*Date::parseISO8601("2026-11-22", "Asia/Tokyo"), utc("2026-11-21T15:00:00Z"));
  EXPECT_DOUBLE_EQ(utc("2026-11-22T19:15:47.5Z") - utc("2026-11-22T19:15:47Z"), 0.5);
  EXPECT_EQ(utc("2024-02-29T00:00:00Z").description(), "2024-02-29 00:00:00 +0000");
}

TEST(DateTest, LocalTimesAroundDaylightSavingChanges) {
  // 02:30 does not exist on that night in Berlin: it moves forward by the hour skipped, to 03:30.
  EXPECT_EQ(*Date::parseISO8601("2026-03-29T02:30:00", "Europe/Berlin"), utc("2026-03-29T01:30:00Z"));
  // 02:30 happens twice in October: the first one counts.
  EXPECT_EQ(*Date::parseISO8601("2026-10-25T02:30:00", "Europe/Berlin"), utc("2026-10-25T00:30:00Z"));
}

TEST(DateTest, ParsingRefusesWhatIsNotAnInstant) {
  for (const char* text :
       {"", "2026", "2026-13-01", "2026-02-29", "2026-04-31", "2026-11-22T24:00:00", "2026-11-22T10:60",
        "2026-11-22T10:00:00+25:00", "2026-11-22T10:00:00 junk", "22.11.2026", "2026-11-22T", "2026-11-22T10:00:00."}) {
    EXPECT_FALSE(Date::parseISO8601(text, "UTC")) << text;
  }
}

TEST(DateTest, TheCurrentRegionZoneIsTheDefault) {
  testing::TestEnvironment env({.timeZone = "Asia/Kolkata"});
  EXPECT_EQ(Date::now(), testing::defaultTestNow());
  EXPECT_EQ(Date::now().iso8601(), "2026-11-22T15:30:00+05:30");
  EXPECT_EQ(*Date::parseISO8601("2026-11-22T15:30:00"), Date::now());
}

TEST(DateIntervalTest, IntersectionsIncludeTouchingEnds) {
  const DateInterval a(Date() + 0, Date() + 10), b(Date() + 10, Date() + 20), c(Date() + 5, Date() + 30);
  ASSERT_TRUE(a.intersection(b));
  EXPECT_EQ(a.intersection(b)->duration(), 0);
  EXPECT_EQ(*a.intersection(c), DateInterval(Date() + 5, Date() + 10));
  EXPECT_FALSE(a.intersection(DateInterval(Date() + 11, Date() + 12)));
  EXPECT_TRUE(a.contains(Date() + 10));
  EXPECT_FALSE(a.contains(Date() + 10.001));
}

TEST(DateIntervalTest, SortsByStartThenByDuration) {
  std::vector<DateInterval> intervals = {DateInterval(Date() + 5, 1.0), DateInterval(Date() + 0, 9.0),
                                         DateInterval(Date() + 0, 3.0)};
  std::sort(intervals.begin(), intervals.end());
  EXPECT_EQ(intervals[0], DateInterval(Date() + 0, 3.0));
  EXPECT_EQ(intervals[1], DateInterval(Date() + 0, 9.0));
  EXPECT_EQ(intervals[2], DateInterval(Date() + 5, 1.0));
  EXPECT_EQ(intervals[0].description(), "2001-01-01 00:00:00 +0000 to 2001-01-01 00:00:03 +0000");
}

TEST(DateIntervalDeathTest, AnEndBeforeTheStartIsAProgrammingError) {
  EXPECT_DEATH(DateInterval(Date() + 1, Date()), "precedes the start");
}

TEST(FormatDoubleTest, ShortestTextWithAFraction) {
  EXPECT_EQ(formatDouble(1500), "1500.0");
  EXPECT_EQ(formatDouble(0.1), "0.1");
  EXPECT_EQ(formatDouble(-2.5), "-2.5");
  EXPECT_EQ(formatDouble(1e21), "1e+21");
  EXPECT_EQ(formatDouble(1.0 / 3.0), "0.3333333333333333");
}

}  // namespace
}  // namespace tarnwell

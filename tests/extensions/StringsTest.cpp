// The texts of durations, counts, clock times and date captions, in fixed
// zones and locales.

#include "tarnwell/extensions/Strings.h"

#include <gtest/gtest.h>

#include <cmath>
#include <limits>

#include "support/TestEnvironment.h"
#include "tarnwell/platform/Region.h"
#include "tarnwell/settings/Settings.h"

namespace tarnwell {
namespace {

const Font kNumber{"Number", 20};
const Font kText{"Text", 12};
const Color kInk{1, 2, 3, 255};

class StringsTest : public ::testing::Test {
 protected:
  explicit StringsTest(std::string zone = "UTC", std::string locale = "en_US")
      : env({.timeZone = std::move(zone), .locale = std::move(locale)}) {}
  // A wall time of the test's zone.
  static Date at(const char* local) { return *Date::parseISO8601(local); }
  static std::string plain(double seconds, bool withSeconds = false,
                           const std::optional<std::string>& fallback = std::nullopt) {
    return getTimeIntervalString(seconds, false, withSeconds, fallback);
  }

  testing::TestEnvironment env;
};

class ChineseStringsTest : public StringsTest {
 protected:
  ChineseStringsTest() : StringsTest("Asia/Shanghai", "zh_CN") {}
};

TEST_F(StringsTest, DurationSplitsTruncateAndClamp) {
  EXPECT_EQ(duration::roundToMinutes(119), 1);
  EXPECT_EQ(duration::roundToHours(7199.9), 1);
  EXPECT_EQ(duration::hours(90061), 1);  // within the day
  EXPECT_EQ(duration::intValue(-0.9), 0);
  EXPECT_EQ(duration::intValue(-std::numeric_limits<double>::infinity()), 0);
  EXPECT_EQ(duration::intValue(1e300), std::numeric_limits<std::int64_t>::max());
  EXPECT_EQ(duration::intValue(-1e300), std::numeric_limits<std::int64_t>::min());
}

TEST_F(StringsTest, TimeIntervalsInHoursMinutesAndSeconds) {
  EXPECT_EQ(plain(5400), "1h30m");
  EXPECT_EQ(plain(86400), "24h");  // never days
  EXPECT_EQ(plain(3599), "59m");   // seconds dropped once a part exists
  EXPECT_EQ(plain(59.9), "59s");
  EXPECT_EQ(plain(3660, true), "1h1m0s");
  EXPECT_EQ(plain(30, true), "30s");
  EXPECT_EQ(plain(0, true), "0s");
  EXPECT_EQ(plain(0.4), "0s");
  EXPECT_EQ(plain(0.4, false, "--"), "--");
  EXPECT_EQ(plain(-120, false, "--"), "--");  // negative reads as under a second
  EXPECT_EQ(plain(std::nan(""), false, "--"), "--");
  EXPECT_EQ(plain(0.4, true, "--"), "0s");          // the fallback is only for hidden seconds
  EXPECT_EQ(getTimeIntervalString(5400), "1h30m");  // English units are the literals
}

TEST_F(StringsTest, TimerFaces) {
  EXPECT_EQ(getTimerString(59), "00:59");
  EXPECT_EQ(getTimerString(3600), "1:00:00");
  EXPECT_EQ(getTimerString(90000), "25:00:00");  // hours pass a day
  EXPECT_EQ(getTimerString(std::nan("")), "00:00");
}

TEST_F(StringsTest, FileSizesAndTrimmedNumbers) {
  EXPECT_EQ(fileSizeString(1024), "1024.00 bytes");
  EXPECT_EQ(fileSizeString(1025), "1.00 KB");
  EXPECT_EQ(fileSizeString(1.5 * 1024 * 1024), "1.50 MB");
  EXPECT_EQ(fileSizeString(1000 * std::pow(1024.0, 8)), "1000.00 YB");
  EXPECT_DEATH(fileSizeString(2048 * std::pow(1024.0, 8)), "beyond the largest unit");

  EXPECT_EQ(removeZerosFromEnd(1.50, 2), "1.5");
  EXPECT_EQ(removeZerosFromEnd(2.0, 2), "2");
  EXPECT_EQ(removeZerosFromEnd(1.256, 2), "1.26");
  EXPECT_EQ(removeZerosFromEnd(12345.5, 0), "12346");  // no grouping, half to even
  Date::setDefaultRegion(Region("UTC", "de_DE"));
  EXPECT_EQ(removeZerosFromEnd(1.5, 2), "1,5");
}

TEST_F(StringsTest, CountsTakeTheSingularBelowTwo) {
  EXPECT_EQ(getTimesString(0), "0 time");
  EXPECT_EQ(getTimesString(-3), "-3 time");
  EXPECT_EQ(getTimesString(2), "2 times");
  const auto times = getAttributedTimesString(12, kNumber, kText, kInk);
  EXPECT_EQ(times.text, "12Times");
  ASSERT_EQ(times.runs.size(), 2u);
  EXPECT_EQ(times.runs[0], (AttributedString::Run{0, 2, kNumber, kInk}));
  EXPECT_EQ(times.runs[1], (AttributedString::Run{2, 5, kText, kInk}));
}

TEST_F(StringsTest, DigitsTakeTheNumberFont) {
  using Run = AttributedString::Run;
  const auto interval = getAttributedTimeIntervalString(5400, kNumber, kText, kInk, false);
  EXPECT_EQ(interval.text, "1H30M");
  EXPECT_EQ(interval.runs,
            (std::vector<Run>{{0, 1, kNumber, kInk}, {1, 1, kText, kInk}, {2, 2, kNumber, kInk}, {4, 1, kText, kInk}}));
  // Byte ranges of the UTF-8, and digits of other scripts count as digits.
  EXPECT_EQ(getAttributedNumberString("约12小时", kNumber, kText, kInk).runs,
            (std::vector<Run>{{0, 3, kText, kInk}, {3, 2, kNumber, kInk}, {5, 6, kText, kInk}}));
  EXPECT_EQ(getAttributedNumberString("٣h", kNumber, kText, kInk).runs,
            (std::vector<Run>{{0, 2, kNumber, kInk}, {2, 1, kText, kInk}}));
}

TEST_F(StringsTest, ClockTimes) {
  const Date morning = at("2026-11-22T09:05:00");
  const Date evening = at("2026-11-22T21:40:07");
  EXPECT_EQ(getTimeString(morning, true), "09:05");
  EXPECT_EQ(getTimeString(evening, false), "9:40PM");
  EXPECT_EQ(getHourString(morning, false), "09");
  EXPECT_EQ(getHourString(evening, false), "09");
  EXPECT_EQ(getHourString(evening, true), "21");

  Settings::setUsing24HoursFormat(true);
  EXPECT_EQ(getDateTimeString(13.5 * 3600), "13:30");
  EXPECT_EQ(getAttributedTimeString(evening, kNumber, kText, kInk).text, "21:40");
  Settings::setUsing24HoursFormat(false);
  EXPECT_EQ(getDateTimeString(13.5 * 3600), "1:30PM");
  EXPECT_EQ(getAttributedDateTimeString(13.5 * 3600, kNumber, kText, kInk).runs.back().font, kText);
}

TEST_F(ChineseStringsTest, LocalizedUnitsAndAWordForTheSmallHours) {
  EXPECT_EQ(getTimeIntervalString(5400), "1小时30分钟");
  EXPECT_EQ(getTimesString(3), "3 次");
  EXPECT_EQ(getTimeString(at("2026-11-22T05:59:00"), false), "5:59凌晨");
  EXPECT_EQ(getTimeString(at("2026-11-22T06:00:00"), false), "6:00上午");
  EXPECT_EQ(getTimeString(at("2026-11-22T00:30:00"), false), "12:30凌晨");
  EXPECT_EQ(getTimeString(at("2026-11-22T05:59:00"), true), "05:59");
}

TEST_F(StringsTest, CaptionsFollowTheLocale) {
  const Date sunday = at("2026-11-22T11:00:00");
  EXPECT_EQ(getDateAndMonthString(sunday), "Nov 22");
  EXPECT_EQ(getDateString(sunday), "Nov 22, Sunday");
  EXPECT_EQ(getShortDateString(sunday), "Nov 22, Sun");
  EXPECT_EQ(getDateAndMonthAndYearString(sunday), "Nov 22, 2026");
  EXPECT_EQ(getWeekdayAbbreviationString(sunday), "Today");
  EXPECT_EQ(getWeekdayAbbreviationString(sunday - 86400), "Sat");

  // A text once made for an instant is not the instant's text in another zone.
  EXPECT_EQ(getTimeString(sunday, true), "11:00");
  Date::setDefaultRegion(Region("Asia/Tokyo", "en_US"));
  EXPECT_EQ(getTimeString(sunday, true), "20:00");

  // A change of region reaches formatters made before it.
  Date::setDefaultRegion(Region("Europe/Berlin", "de_DE"));
  EXPECT_EQ(getDateAndMonthString(sunday), "22. Nov.");
  EXPECT_EQ(getWeekdayString(sunday), "Sonntag");
  EXPECT_EQ(getDebugString(sunday), "2026-11-22T12:00:00+0100");
  // Gregorian years where the locale's own calendar counts others.
  Date::setDefaultRegion(Region("Asia/Bangkok", "th_TH"));
  EXPECT_NE(getDateAndMonthAndYearString(sunday).find("2026"), std::string::npos);
}

TEST_F(StringsTest, IntervalCaptionsByWholeDays) {
  const Date start = at("2026-11-22T00:00:00");
  const auto caption = [&](double seconds) { return getDateIntervalDateString(DateInterval(start, seconds)); };
  EXPECT_EQ(caption(2 * 86400 - 1), "Nov 22, Sunday");
  EXPECT_EQ(caption(2 * 86400), "Nov 22, Sunday ~ Nov 24, Tuesday");
  EXPECT_EQ(caption(6 * 86400 + 86399), "Nov 22, Sunday ~ Nov 28, Saturday");  // a whole week
  EXPECT_EQ(caption(8 * 86400), "Nov 22 ~ Nov 30");
  EXPECT_EQ(caption(31 * 86400 + 86399), "Nov 22 ~ Dec 23");
  EXPECT_EQ(caption(32 * 86400), "Nov 22, 2026 ~ Dec 24");
  EXPECT_EQ(getDateIntervalShortDateString(DateInterval(start, 6 * 86400 + 86399)), "Nov 22, Sun ~ Nov 28, Sat");

  Settings::setUsing24HoursFormat(false);  // time spans are on a 24-hour clock regardless
  const DateInterval session(at("2026-11-22T21:00:00"), at("2026-11-23T00:30:00"));
  EXPECT_EQ(getDateIntervalTimeString(session, false), "21:00~00:30");
  EXPECT_EQ(getDateIntervalTimeString(session, true), "Nov 23, 21:00~00:30");
}

}  // namespace
}  // namespace tarnwell

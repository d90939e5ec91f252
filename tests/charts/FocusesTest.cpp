// The focus snapshot: sessions by start, and their cuts into buckets.

#include "tarnwell/charts/Focuses.h"

#include <gtest/gtest.h>

#include "support/FocusFixture.h"

namespace tarnwell {
namespace {

using testing::t0;
using testing::today;

class FocusesTest : public testing::FocusFixture {};

TEST_F(FocusesTest, ASnapshotSelectsByStartAndCutsStrictlyAfterABucketsStart) {
  focus(1, 23.5, 3600);
  focus(0, 9, 1499, "working", 1500);
  const std::string inside = focus(0, 9.5, 1500, "working", 1500);
  focus(0, 10, 0, "studying", 0);  // no length

  const Focuses day = Focuses::days(t0, 1, std::nullopt);
  ASSERT_TRUE(day.focuses);
  ASSERT_EQ(day.focuses->size(), 3u);  // `early` began the day before
  EXPECT_EQ(day.failedTimes(), 1);
  EXPECT_EQ(day.totalTime(), 2999.0);
  EXPECT_EQ(Focuses::allTime("working").focuses->size(), 3u);
  // Both ends of a snapshot's interval are in it.
  EXPECT_EQ(Focuses::hours(today + 9 * 3600, 1, "studying").focuses->size(), 1u);

  // The session that starts at 09:00 sharp is in neither 08:00's nor 09:00's cut.
  const auto cut = [&day](double hour) {
    return Focuses::getFocusesStartsIn(today + hour * 3600, today + (hour + 1) * 3600, day.focuses);
  };
  EXPECT_TRUE(cut(8).focuses->empty());
  ASSERT_EQ(cut(9).focuses->size(), 1u);
  EXPECT_EQ(cut(9).focuses->front().id, inside);
  EXPECT_TRUE(cut(10).focuses->empty());  // the zero-length one
  EXPECT_EQ(cut(10).failedTimes(), std::nullopt);

  const Focuses none = Focuses::getFocusesStartsIn(today, today + 60, std::nullopt);
  EXPECT_FALSE(none.focuses);
  EXPECT_EQ(none.totalTime(), std::nullopt);
}

}  // namespace
}  // namespace tarnwell

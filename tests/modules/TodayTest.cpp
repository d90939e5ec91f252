// Database::eventsOfToday: the live day that every event write updates.

#include <gtest/gtest.h>

#include "support/DayFixture.h"
#include "tarnwell/platform/NotificationCenter.h"

namespace tarnwell {
namespace {

class TodayTest : public testing::DayFixture {
 protected:
  TodayTest() {
    env.clock().set(at("12:00"));
    for (auto name :
         {Database::NotificationName::eventsOfTodayDidChange, Database::NotificationName::dateOfTodayDidChange}) {
      tokens.push_back(NotificationCenter::defaultCenter().addObserver(
          std::string(name), nullptr, [this](const Notification& n) { ++posts[n.name]; }));
    }
  }
  int changed() { return posts[std::string(Database::NotificationName::eventsOfTodayDidChange)]; }
  int dateChanged() { return posts[std::string(Database::NotificationName::dateOfTodayDidChange)]; }
  // Lets Database.queue finish, then the main queue.
  void settle(double seconds = 0) {
    Database::queue().safeSync([] {});
    env.pump();
    if (seconds > 0) env.advance(seconds);
  }

  std::vector<NotificationToken> tokens;
  std::map<std::string, int> posts;
};

TEST_F(TodayTest, EachWriteUpdatesTodayWithoutARebuild) {
  EXPECT_FALSE(Database::eventsOfToday().pickupTimes());
  // Written behind the library's back: only a rebuild sees these.
  pickupOf(Settings::deviceId(), "08:00", "08:30");
  pickupOf(Settings::deviceId(), "08:40", "08:50");
  const std::string id = pickup("09:00", "09:10");
  EXPECT_EQ(Database::eventsOfToday().pickupTimes(), 1);
  Database::editPickup(id, at("09:20"));
  EXPECT_EQ(Database::eventsOfToday().screenTime(), 1200.0);
  walk("09:05", "09:15");
  EXPECT_EQ(Database::eventsOfToday().walkingLife(), 600.0);
  const std::string span = alive("07:00", "12:00");
  EXPECT_EQ(Database::eventsOfToday().eventsOfInterval().alives().size(), 1u);
  Database::editAlive(span, at("07:00"), at("08:00"));  // left as it was in today
  EXPECT_EQ(Database::eventsOfToday().eventsOfInterval().alives().front().end(), at("12:00"));
  Database::deletePickup(id);
  EXPECT_FALSE(Database::eventsOfToday().pickupTimes());
  Database::refreshEventsOfToday();
  settle();
  EXPECT_EQ(Database::eventsOfToday().pickupTimes(), 2);
}

TEST_F(TodayTest, TwoWritesWithinATenthOfASecondGiveOnePost) {
  pickup("09:00", "09:10");
  env.advance(0.05);
  pickup("09:20", "09:30");
  settle(0.099);
  EXPECT_EQ(changed(), 0);
  env.advance(0.002);
  EXPECT_EQ(changed(), 1);
  // Even without the main queue running in between.
  pickup("10:00", "10:01");
  pickup("10:02", "10:03");
  settle(1);
  EXPECT_EQ(changed(), 2);
}

TEST_F(TodayTest, AnEditOfAnUnknownIdStillReplacesTodayButADeletedOneDoesNot) {
  Database::editPickup("NOPE", at("09:00"));
  settle(1);
  EXPECT_EQ(changed(), 1);
  const std::string id = pickup("09:00", "09:10");
  Database::deletePickup(id);
  settle(1);
  EXPECT_EQ(changed(), 2);
  Database::deletePickup(id);
  settle(1);
  EXPECT_EQ(changed(), 2);
}

// Deleting an app runs the frame of a pickup's deletion to its end: a change
// named by the app's id, which finds no pickup, so today stays as it was and
// is announced all the same.
TEST_F(TodayTest, DeletingAnAppAnnouncesTodayUnchanged) {
  pickup("09:00", "09:10");
  const auto safari = *Database::addApp(AppStructure::make(AppStructure::SystemAppWithoutID::safari));
  settle(1);
  EXPECT_EQ(changed(), 1);
  Database::deleteApp(safari);
  settle(1);
  EXPECT_EQ(changed(), 2);
  EXPECT_EQ(Database::eventsOfToday().pickupTimes(), 1);
  Database::deleteApp(safari);  // already gone: no change
  settle(1);
  EXPECT_EQ(changed(), 2);
}

TEST_F(TodayTest, TheDayTimerFiresOneSecondAfterTheNextDaysStart) {
  env.clock().set(at("23:00"));
  Database::setupRefreshEventsOfTodayTimer();
  pickup("23:10", "23:20");
  EXPECT_EQ(Database::eventsOfToday().startOfDay(), at("00:00"));
  env.advance(at("+00:00:00") - at("23:00"));
  settle();
  EXPECT_EQ(dateChanged(), 0);
  env.advance(1.0);
  settle();
  EXPECT_EQ(dateChanged(), 1);
  EXPECT_EQ(Database::eventsOfToday().startOfDay(), at("+00:00"));
  EXPECT_FALSE(Database::eventsOfToday().pickupTimes());
  // And again the next night.
  env.advance(86400);
  settle();
  EXPECT_EQ(dateChanged(), 2);
}

}  // namespace
}  // namespace tarnwell

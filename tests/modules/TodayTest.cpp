// Database::eventsOfToday: the live day that every event write updates.

#include <gtest/gtest.h>

#include <random>
#include <thread>

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

// Today's night is read again only when a write may have moved it, yet
// after every write it is the night a new read of the same events gives:
// writes near the night and far from it, of other events, and behind the
// library's back, on this thread's connection and on another's.
TEST_F(TodayTest, TheLiveNightIsWhatReadingItAgainGives) {
  using Change = EventsOfInterval::EventsChangeType;
  std::mt19937 random(29);
  const auto uniform = [&random](double low, double high) {
    return std::uniform_real_distribution<double>(low, high)(random);
  };
  const auto addBehind = [](Date start, Date end) {
    store::Store::open().write([&](auto& t) { t.add(Pickup(start, end)); });
  };
  Date noon = at("12:00");
  std::vector<std::string> ids;
  int compared = 0;
  for (int step = 0; step < 400; ++step) {
    const EventsOfDay before = Database::eventsOfToday();
    if (before.inferredFirstPickupDate() && before.inferredLastPickupDate()) {
      // Settled for good: a new day, with its night still to come.
      noon = noon.addingDay(1);
      env.clock().set(noon);
      Database::refreshEventsOfToday();
      settle();
      continue;
    }
    const Date start =
        uniform(0, 1) < 0.7 ? noon + uniform(-17 * 3600.0, 9 * 3600.0) : noon.addingDay(-200) + uniform(0, 86400.0);
    const Date end = start + uniform(0, 3 * 3600.0);
    std::vector<Change> changes;
    switch (random() % 6) {
      case 0:
      case 1:
        ids.push_back(Database::addPickup(start, end));
        changes = {Change::pickup(ids.back())};
        break;
      case 2:
        if (ids.empty()) continue;
        changes = {Change::pickup(Database::editPickup(ids[random() % ids.size()], end))};
        break;
      case 3:
        changes = {Change::walk(Database::addWalk(start, end))};
        break;
      case 4:
        addBehind(start, end);
        continue;  // seen at the next write
      default:
        std::thread([&] { addBehind(start, end); }).join();
        continue;
    }
    const EventsOfDay reread = before.appliedChange(changes);
    const EventsOfDay live = Database::eventsOfToday();
    ASSERT_EQ(live.inferredLastPickupDate(), reread.inferredLastPickupDate()) << "step " << step;
    ASSERT_EQ(live.inferredFirstPickupDate(), reread.inferredFirstPickupDate()) << "step " << step;
    ++compared;
  }
  EXPECT_GT(compared, 200);
}

TEST_F(TodayTest, EveryPickupOfTwoWritingThreadsReachesToday) {
  const auto write = [this](int first) {
    for (int i = first; i < first + 25; ++i) Database::addPickup(at("09:00") + i * 120.0, at("09:01") + i * 120.0);
  };
  std::thread other(write, 0);
  write(25);
  other.join();
  EXPECT_EQ(Database::eventsOfToday().pickupTimes(), 50);
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

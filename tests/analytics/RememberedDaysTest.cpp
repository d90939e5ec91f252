// Remembered days against days computed from their events: random histories
// and random edits, over the end of summer time, zone changes, merged
// devices, excluded focus time and a later start of day.

#include "tarnwell/analytics/RememberedDays.h"

#include <gtest/gtest.h>
#include <sqlite3.h>

#include <bit>
#include <cmath>
#include <random>
#include <tuple>

#include "support/DayFixture.h"
#include "tarnwell/health/HealthManager.h"
#include "tarnwell/platform/BusyTimeout.h"
#include "tarnwell/platform/Region.h"

namespace tarnwell {
namespace {

constexpr char kOther[] = "other-device";
constexpr int kDays = 10;

std::size_t keptRows() {
  auto rows = store::Store::open().select("SELECT count(*) FROM \"DayMetrics\"");
  return rows.next() ? static_cast<std::size_t>(rows->int64(0)) : 0;
}

// One random history: ten days around 25 October 2026, when Berlin leaves
// summer time, in an installation of its own.
class History {
 public:
  explicit History(unsigned seed)
      : env_({.timeZone = "Europe/Berlin", .now = *Date::parseISO8601("2026-11-25T12:00:00Z")}), random_(seed) {
    Database::start();
  }

  bool chance(double p) { return std::bernoulli_distribution(p)(random_); }
  double length(double longest) { return std::uniform_real_distribution<double>(0.5, longest)(random_); }
  const std::string& any(const std::vector<std::string>& ids) {
    return ids[std::uniform_int_distribution<std::size_t>(0, ids.size() - 1)(random_)];
  }
  int below(int n) { return std::uniform_int_distribution<int>(0, n - 1)(random_); }

  // A record at a random time; given an id, the record of that id moved
  // there, as a fetch from the cloud moves it.
  template <class Record>
  std::string add(double longest, const std::string& device = Settings::deviceId(),
                  std::optional<std::string> id = std::nullopt) {
    const Date start = time();
    Record record(start, start + length(longest));
    record.deviceId = device;
    if (id) record.id = std::move(id);
    store::Store::open().write([&](store::WriteTransaction& t) { t.add(record); });
    return *record.id;
  }
  void addFocus() {
    const Date start = time(), end = start + length(5400.0);
    const Focus record(std::nullopt, start, end, std::nullopt, 0, end - start, std::nullopt, std::nullopt,
                       std::nullopt);
    store::Store::open().write([&](store::WriteTransaction& t) { t.add(record); });
  }

  // Every day of the run, kept or not, as computed from its events now.
  void expectComputedAlike(const std::string& when) const {
    const auto days = RememberedDays::days(first_, kDays);
    ASSERT_EQ(days.size(), static_cast<std::size_t>(kDays));
    for (const auto& day : days) {
      const EventsOfDay computed(day->startOfDay(), std::nullopt);
      ASSERT_EQ(day->metrics(), RememberedDay::metricsOf(computed))
          << when << ", the day of " << day->startOfDay().iso8601();
      // The summary reads the pickups once; each metric alone must agree.
      const widgets::ScreenTimeToday each{
          computed.startOfDay(),    computed.screenTime(),  computed.pickupTimes(),      computed.longestPickup(),
          computed.checkingEvery(), computed.walkingLife(), computed.firstPickupDate(),  computed.lastPickupDate(),
          computed.sleepTime(),     computed.bestBreak(),   computed.continuouslyUsage()};
      ASSERT_EQ(day->metrics().day, each) << when << ", the day of " << day->startOfDay().iso8601();
    }
  }

 private:
  Date time() {
    return first_.startOfDay() + std::uniform_real_distribution<double>(-86400.0, kDays * 86400.0)(random_);
  }

  testing::TestEnvironment env_;
  std::mt19937 random_;
  const Date first_ = *Date::parseISO8601("2026-10-20T12:00:00");
};

TEST(RememberedDaysHistoryTest, EveryDayReadsAsItsEventsAfterAnyEdit) {
  for (unsigned seed = 1; seed <= 200; ++seed) {
    SCOPED_TRACE("seed " + std::to_string(seed));
    History history(seed);
    std::vector<std::string> pickups;
    for (int i = 0; i < 40; ++i)
      pickups.push_back(history.add<Pickup>(1800.0, history.chance(0.8) ? Settings::deviceId() : kOther));
    for (int i = 0; i < 6; ++i) history.add<Walk>(3600.0);
    for (int i = 0; i < 8; ++i) history.add<Alive>(6 * 3600.0);
    for (int i = 0; i < 3; ++i) history.addFocus();
    if (history.chance(0.5)) Database::setCurrentDeviceRelation(kOther, true);
    if (history.chance(0.3)) Settings::setExcludeFocusTime(true);
    if (history.chance(0.3)) Settings::setStartOfDayScreenTime(3 * 3600.0);
    history.expectComputedAlike("at first");
    ASSERT_GT(keptRows(), 0u) << "past days are kept";

    for (int round = 0; round < 3; ++round) {
      switch (history.below(9)) {
        case 0:
          pickups.push_back(history.add<Pickup>(1800.0, history.chance(0.5) ? Settings::deviceId() : kOther));
          break;
        case 1: {
          const auto& id = history.any(pickups);
          Database::editPickup(id, *store::Store::open().object<Pickup>(id)->start + history.length(4 * 3600.0));
          break;
        }
        case 2:
          Database::deletePickup(history.any(pickups));
          break;
        case 3:
          history.add<Walk>(3600.0);
          history.add<Alive>(3600.0);
          break;
        case 4:
          history.addFocus();
          break;
        case 5:
          Database::setCurrentDeviceRelation(kOther, history.chance(0.5));
          break;
        case 6:
          Settings::setExcludeFocusTime(history.chance(0.5));
          Settings::setStartOfDayScreenTime(history.chance(0.5) ? 0.0 : 2 * 3600.0);
          break;
        case 7: {
          const auto& id = history.any(pickups);
          history.add<Pickup>(1800.0, store::Store::open().object<Pickup>(id)->deviceId, id);
          break;
        }
        default:
          Environment::current().setRegion(Region(history.chance(0.5) ? "America/New_York" : "Europe/Berlin", "en_US"));
          break;
      }
      history.expectComputedAlike("after edit " + std::to_string(round));
    }
  }
}

class RememberedDaysTest : public testing::DayFixture {};

TEST_F(RememberedDaysTest, TodayAndADayTheClockCanStillChangeAreNeverKept) {
  pickup("-23:00", "-23:10");
  pickup("08:00", "08:30");
  // The clock stands a little after the day's night search ends (20:00).
  env.clock().set(at("20:00") + 30.0);
  RememberedDays::days(at("-12:00"), 3);
  EXPECT_EQ(keptRows(), 1u) << "only the day before is settled";
  env.clock().set(at("+20:00"));
  RememberedDays::days(at("-12:00"), 3);
  EXPECT_EQ(keptRows(), 2u);
}

TEST_F(RememberedDaysTest, AWriteFromAnotherConnectionDropsTheDaysItTouches) {
  pickup("08:00", "08:30");
  env.clock().set(at("+23:00"));
  const auto before = RememberedDays::days(at("12:00"), 1).front();
  EXPECT_EQ(keptRows(), 1u);
  // A write drops the day in its own transaction, whichever connection makes it.
  sqlite::Connection other(store::Store::open().file());
  other.execute("UPDATE Pickup SET \"end\" = \"end\" + 600");
  EXPECT_EQ(keptRows(), 0u);
  EXPECT_EQ(*RememberedDays::days(at("12:00"), 1).front()->screenTime(), *before->screenTime() + 600.0);
}

// A write from another connection that lands after the days were read but
// before they are kept: what was computed from the older events is not kept.
TEST_F(RememberedDaysTest, DaysReadBeforeAnotherConnectionsWriteAreNotKept) {
  pickup("08:00", "08:30");
  env.clock().set(at("+23:00"));
  sqlite::Connection other(store::Store::open().file());
  other.execute("BEGIN IMMEDIATE");
  other.execute("UPDATE Pickup SET \"end\" = \"end\" + 600");
  // The keep waits for the other writer, which commits while it waits.
  struct Waiting {
    sqlite::Connection& other;
    bool committed = false;
  } waiting{other};
  sqlite3_busy_handler(
      store::Store::open().connection().handle(),
      [](void* context, int) {
        auto& w = *static_cast<Waiting*>(context);
        if (!w.committed) w.other.execute("COMMIT");
        w.committed = true;
        return 1;
      },
      &waiting);
  const auto computed = RememberedDays::days(at("12:00"), 1).front();
  store::Store::open().connection().setBusyTimeout(storeBusyTimeout());
  ASSERT_TRUE(waiting.committed) << "the days were kept without waiting for the other writer";
  EXPECT_EQ(*computed->screenTime(), 1800.0) << "read before the other write";
  EXPECT_EQ(keptRows(), 0u);
  EXPECT_EQ(*RememberedDays::days(at("12:00"), 1).front()->screenTime(), 2400.0);
}

// A store without the table (an older one opened read-only, say) computes
// every day from its events and keeps none.
TEST_F(RememberedDaysTest, AStoreWithoutTheTableComputesEveryDay) {
  pickup("08:00", "08:30");
  env.clock().set(at("+23:00"));
  store::Store::open().connection().execute("DROP TABLE \"DayMetrics\"");
  const auto days = RememberedDays::days(at("-12:00"), 2);
  ASSERT_EQ(days.size(), 2u);
  EXPECT_EQ(days[1]->metrics(), RememberedDay::metricsOf(today()));
  EXPECT_EQ(*days[1]->screenTime(), 1800.0);
  auto tables = store::Store::open().select("SELECT count(*) FROM sqlite_schema WHERE name = 'DayMetrics'");
  ASSERT_TRUE(tables.next());
  EXPECT_EQ(tables->int64(0), 0);
}

// A kept row damaged on disk is computed again, never trusted or fatal.
TEST_F(RememberedDaysTest, ADamagedRowIsComputedAgain) {
  pickup("08:00", "08:30");
  env.clock().set(at("+23:00"));
  RememberedDays::day(day());
  ASSERT_EQ(keptRows(), 1u);
  const auto damage = [](std::size_t value, double number, std::size_t size = 120) {
    std::vector<std::uint8_t> bytes(size, 0);
    for (std::size_t i = 0; i < 8 && i < size; ++i) bytes[i] = 0xff;  // every value present
    const auto word = std::bit_cast<std::uint64_t>(number);
    for (std::size_t i = 0; i < 8 && 8 * (value + 1) + i < size; ++i) {
      bytes[8 * (value + 1) + i] = static_cast<std::uint8_t>(word >> (8 * i));
    }
    auto& update = store::Store::open().connection().cached("UPDATE \"DayMetrics\" SET \"metrics\" = ?1");
    update.bind(1, std::span<const std::uint8_t>(bytes)).execute();
    update.reset();
  };
  // A best break ending before it starts, a count of pickups no int holds,
  // a row cut short.
  for (const auto& [value, number, size] :
       {std::tuple{11u, -5.0, 120u}, {1u, 1e300, 120u}, {1u, NAN, 120u}, {0u, 60.0, 64u}}) {
    damage(value, number, size);
    EXPECT_EQ(RememberedDays::day(day())->metrics(), RememberedDay::metricsOf(today())) << value << " " << number;
    EXPECT_EQ(*RememberedDays::day(day())->screenTime(), 1800.0);
  }
}

TEST_F(RememberedDaysTest, AKeptDayFollowsTheSleepApplicationsNights) {
  const SleepDataSource autoSleep{"AutoSleep", "com.tantsissa.AutoSleep"};
  Settings::setDefaultSleepDataSource(autoSleep);
  HealthManager::shared().setSleepDatas({{autoSleep, {DateInterval(at("-23:30"), at("07:00"))}}});
  pickup("-22:00", "-22:30");
  pickup("08:00", "08:30");
  env.clock().set(at("+23:00"));
  EXPECT_EQ(RememberedDays::day(day())->sleepTime(), 7.5 * 3600);
  EXPECT_EQ(keptRows(), 1u);
  // The application changes its night; no event of the store does.
  HealthManager::shared().setSleepDatas({{autoSleep, {DateInterval(at("00:30"), at("07:00"))}}});
  EXPECT_EQ(RememberedDays::day(day())->sleepTime(), 6.5 * 3600);
  EXPECT_EQ(RememberedDays::day(day())->metrics(), RememberedDay::metricsOf(today()));
}

}  // namespace
}  // namespace tarnwell

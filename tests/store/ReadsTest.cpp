// The shared reads: cursors that let go of the store however they end, the
// one rule for a store that fails, and the edge rules of the night's pickups
// and of the default devices.

#include "tarnwell/store/Reads.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <random>
#include <stdexcept>
#include <thread>

#include "support/TestEnvironment.h"
#include "tarnwell/modules/Database.h"
#include "tarnwell/settings/Settings.h"

namespace tarnwell {
namespace {

using store::Store;

const Date t0 = testing::defaultTestNow();

class ReadsTest : public testing::EnvironmentTest {
 protected:
  void SetUp() override { Database::start(); }
  std::vector<std::string> me() { return {Settings::deviceId()}; }

  // Writes a pickup on another thread, so on another connection.
  static void addPickupElsewhere(Date start, Date end) {
    std::thread([=] { Database::addPickup(start, end); }).join();
  }
  static std::size_t pickupCount() {
    return Database::getPickups(DateInterval(t0, t0 + 3600), {Settings::deviceId()}).size();
  }
};

// A statement that is stepped but never reset keeps its read open, and the
// connection then keeps seeing the store as it was: the next read would miss
// every later commit. Each way out of a cursor must let go.
TEST_F(ReadsTest, ACursorLeftEarlyOrByAThrowLetsGoOfItsRead) {
  Database::addPickup(t0, t0 + 10);
  Database::addPickup(t0 + 20, t0 + 30);
  const std::string sql = "SELECT id FROM Pickup ORDER BY rowid";
  {
    auto rows = Store::open().select(sql);
    ASSERT_TRUE(rows.next());  // one row of two, then left
  }
  addPickupElsewhere(t0 + 40, t0 + 50);
  EXPECT_EQ(pickupCount(), 3u);

  EXPECT_THROW(
      {
        for (auto rows = Store::open().select(sql); rows.next();) throw std::runtime_error("stop");
      },
      std::runtime_error);
  addPickupElsewhere(t0 + 60, t0 + 70);
  EXPECT_EQ(pickupCount(), 4u);
  // The cached statement comes back ready, from its first row.
  auto again = Store::open().select(sql);
  int count = 0;
  while (again.next()) ++count;
  EXPECT_EQ(count, 4);
}

TEST_F(ReadsTest, AFailingStoreReadsAsNoDataAndNothingElseIsSwallowed) {
  const auto empty = store::orNoData([]() -> std::vector<std::string> { throw sqlite::Error(11, "malformed"); });
  EXPECT_TRUE(empty.empty());
  EXPECT_EQ(store::orNoData([]() -> std::optional<Pickup> { throw sqlite::Error(5, "busy"); }), std::nullopt);
  EXPECT_THROW(store::orNoData([]() -> std::optional<int> { throw std::logic_error("a bug"); }), std::logic_error);
}

TEST_F(ReadsTest, OfEqualEndsTheLastPickupIsTheOneAddedLast) {
  const DateInterval evening(t0, t0 + 100);
  Database::addPickup(t0 + 10, t0 + 50);
  const std::string later = Database::addPickup(t0 + 30, t0 + 50);
  EXPECT_EQ(store::lastPickup(evening, me())->id, later);
  // The first is by start, whatever the order of adding.
  const std::string earliest = Database::addPickup(t0 + 5, t0 + 6);
  EXPECT_EQ(store::firstPickup(evening, me())->id, earliest);
}

TEST_F(ReadsTest, APickupWithoutAnIdBoundsNoNight) {
  Pickup stray(t0 + 10, t0 + 20);
  stray.id.reset();
  Store::open().write([&](auto& t) { t.add(stray, store::UpdatePolicy::error); });
  EXPECT_FALSE(store::firstPickup(DateInterval(t0, t0 + 100), me()));
  EXPECT_FALSE(store::lastPickup(DateInterval(t0, t0 + 100), me()));
}

// A store of pickups at random times over half an hour: equal starts and
// ends, empty and reversed rows, and rows deleted or of another device. For
// the night also rows ignored for sleep, without an id or without an end.
void addRandomPickups(std::mt19937& random, bool forTheNight) {
  Store::open().write([&](store::WriteTransaction& t) {
    for (int i = 0; i < 150; ++i) {
      const Date start = t0 + static_cast<double>(random() % 200) * 10.0;
      Pickup pickup(start, start + (static_cast<double>(random() % 40) - 5.0) * 10.0);
      pickup.isDeleted = random() % 7 == 0;
      if (random() % 6 == 0) pickup.deviceId = "TABLET";
      if (forTheNight) {
        pickup.isIgnoredForSleepTime = random() % 5 == 0;
        if (random() % 30 == 0) pickup.id.reset();
        if (random() % 30 == 0) pickup.end.reset();
      }
      t.add(pickup, store::UpdatePolicy::error);
    }
  });
}

DateInterval randomSpan(std::mt19937& random) {
  const Date a = t0 + static_cast<double>(random() % 210) * 10.0, b = t0 + static_cast<double>(random() % 210) * 10.0;
  return DateInterval(std::min(a, b), std::max(a, b));
}

// The rows `statement` reads with this device and the span's ends bound to ?1, ?2 and ?3.
sqlite::Cursor readMine(sqlite::Statement& statement, DateInterval span) {
  statement.bind(1, Settings::deviceId()).bind(2, span.start().timeIntervalSinceReferenceDate());
  statement.bind(3, span.end().timeIntervalSinceReferenceDate());
  return sqlite::Cursor(statement);
}

// The night's edges and the last pickup come from reads of one index range
// each; they must be what one read of the rows touching the span finds.
TEST_F(ReadsTest, TheNightsEdgesAreWhatOneReadOfEachSpanFinds) {
  std::mt19937 random(29);
  addRandomPickups(random, true);
  auto& lastRead = Store::open().connection().cached(
      "SELECT id, \"end\" FROM Pickup WHERE isDeleted = 0 AND deviceId = ?1 AND isIgnoredForSleepTime = 0 AND "
      "(start BETWEEN ?2 AND ?3 OR \"end\" BETWEEN ?2 AND ?3) ORDER BY \"end\" DESC, rowid DESC LIMIT 1");
  for (int i = 0; i < 300; ++i) {
    const DateInterval lastBetween = randomSpan(random), firstBetween = randomSpan(random);
    std::optional<std::string> lastId;
    std::optional<Date> lastEnd;
    for (auto rows = readMine(lastRead, lastBetween); rows.next();) {
      if (rows->isNull(0)) continue;
      lastId = rows->text(0);
      if (!rows->isNull(1)) lastEnd = Date::fromTimeIntervalSinceReferenceDate(rows->real(1));
    }
    const auto last = store::lastPickup(lastBetween, me());
    EXPECT_EQ(last ? last->id : std::nullopt, lastId) << i;
    const auto edges = store::nightEdges(lastBetween, firstBetween, me());
    EXPECT_EQ(edges.lastEnd, lastEnd) << i;
    EXPECT_EQ(edges.lastId, lastId) << i;
    const auto first = store::firstPickup(firstBetween, me());
    EXPECT_EQ(edges.firstStart, first ? first->start : std::nullopt) << i;
    EXPECT_EQ(edges.firstId, first ? first->id : std::nullopt) << i;
  }
}

// A span's events come from two reads by index; they must be the rows one
// read of either end finds, sorted by start and then by row.
TEST_F(ReadsTest, ASpansEventsAreWhatOneReadOfEitherEndFinds) {
  std::mt19937 random(30);
  addRandomPickups(random, false);
  auto& oneRead = Store::open().connection().cached(
      "SELECT id, start, \"end\" FROM Pickup WHERE isDeleted = 0 AND deviceId = ?1 AND "
      "(start BETWEEN ?2 AND ?3 OR \"end\" BETWEEN ?2 AND ?3) ORDER BY start, rowid");
  using Row = std::pair<std::string, DateInterval>;
  for (int i = 0; i < 200; ++i) {
    const DateInterval span = randomSpan(random);
    std::vector<Row> expected, found;
    for (auto rows = readMine(oneRead, span); rows.next();) {
      const Date start = Date::fromTimeIntervalSinceReferenceDate(rows->real(1));
      const Date end = Date::fromTimeIntervalSinceReferenceDate(rows->real(2));
      if (start < end) expected.emplace_back(rows->text(0), DateInterval(start, end));
    }
    store::forEachEvent<Pickup>(
        span, me(), [&](const std::string& id, const DateInterval& interval) { found.emplace_back(id, interval); });
    EXPECT_EQ(found, expected) << i;
  }
}

TEST_F(ReadsTest, TheDefaultDevicesAreThisOneThenTheRelatedOnes) {
  Database::setCurrentDeviceRelation("TABLET", true);
  EXPECT_EQ(store::defaultDeviceIds(), (std::vector<std::string>{Settings::deviceId(), "TABLET"}));
  // A store that cannot be read still has this device.
  std::filesystem::remove_all(Database::fileURL().parent_path());
  std::filesystem::create_directories(Database::fileURL());  // a folder where the file was
  Store::invalidate(Database::fileURL());
  EXPECT_THROW(store::currentDevice(), sqlite::Error);
  EXPECT_EQ(store::defaultDeviceIds(), std::vector<std::string>{Settings::deviceId()});
}

TEST_F(ReadsTest, FocusIdsAreByStartOnlyForATagsSpan) {
  const auto add = [](const std::string& tag, Date start) {
    return Database::addFocus(std::nullopt, start, start + 60, tag, 60, 60, std::nullopt, std::nullopt, std::nullopt);
  };
  const std::string late = add("working", t0 + 600), early = add("working", t0), other = add("studying", t0 + 300);
  const DateInterval hour(t0, t0 + 3600);
  EXPECT_EQ(store::focusIds("working", hour), (std::vector<std::string>{early, late}));
  EXPECT_EQ(store::focusIds(std::nullopt, hour), (std::vector<std::string>{late, early, other}));
  EXPECT_EQ(store::focusProgress("working", hour).count, 2u);
  EXPECT_EQ(store::firstFocusStart("working"), t0);
  EXPECT_EQ(store::firstFocusStart("reading"), std::nullopt);
}

}  // namespace
}  // namespace tarnwell

// Database: start-up, the set-aside of damaged files, and the event operations.

#include "tarnwell/modules/Database.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/file.h>
#include <unistd.h>

#include <algorithm>
#include <fstream>
#include <map>
#include <random>

#include "support/TestEnvironment.h"
#include "tarnwell/platform/BusyTimeout.h"
#include "tarnwell/platform/Sqlite.h"
#include "tarnwell/settings/Logger.h"
#include "tarnwell/settings/Settings.h"
#include "tarnwell/store/Store.h"

namespace tarnwell {
namespace {

const Date t0 = testing::defaultTestNow();

std::string read(const std::filesystem::path& file) {
  std::ifstream in(file);
  return {std::istreambuf_iterator<char>(in), {}};
}

class DatabaseTest : public testing::EnvironmentTest {
 protected:
  void SetUp() override { Database::start(); }
  std::vector<std::string> me() { return {Settings::deviceId()}; }
  DateInterval between(double from, double to) { return DateInterval(t0 + from, t0 + to); }
};

TEST_F(DatabaseTest, AFreshStoreHasThisDeviceAndTheInitialTags) {
  store::Store store = store::Store::open();
  EXPECT_EQ(store.connection().userVersion(), 13);
  EXPECT_EQ(Database::fileURL(), env.root() / "installation" / "group.org.vostra.tarnwell" / "Realm" / "default.realm");
  EXPECT_EQ(Database::getDevices(), me());
  EXPECT_EQ(Database::getCurrentDevice()->name, "Test Device");
  EXPECT_EQ(Database::getTags(false, false), (std::vector<std::string>{"default", "working", "studying"}));
  const auto defaultTag = Database::getTag("default");
  EXPECT_TRUE(defaultTag->isDefault);
  EXPECT_EQ(defaultTag->title, "No Tag");
  EXPECT_FALSE(Database::getTag("working")->isDefault);
  EXPECT_EQ(Database::getTag("working")->emoji, "👨‍💻");
  EXPECT_FALSE(Settings::shouldCreateDefaultTags());
}

TEST_F(DatabaseTest, StartingAgainChangesNothing) {
  Database::start();
  env.relaunch();
  Database::start();
  EXPECT_EQ(Database::getDevices().size(), 1u);
  EXPECT_EQ(Database::getTags(false, false).size(), 3u);
}

TEST_F(DatabaseTest, InitialTagsComeBackOnlyWhenTheTableIsEmptyOrAsked) {
  // Tags present and the key spent: a deleted default stays deleted.
  store::Store::open().write([](auto& t) {
    t.template update<Tag>({{"isDeleted", true}}, store::Query().filter("id = 'working'"));
  });
  Database::setupRealmData();
  EXPECT_FALSE(Database::getTag("working"));
  // No tag at all: they come back whatever the key says.
  store::Store::open().write([](auto& t) { t.template update<Tag>({{"isDeleted", true}}, store::Query()); });
  Database::setupRealmData();
  EXPECT_EQ(Database::getTags(false, false), (std::vector<std::string>{"default", "working", "studying"}));
}

TEST_F(DatabaseTest, CopiesOfDefaultTagsAreListedUnderThePlainId) {
  store::Store::open().write([](auto& t) {
    t.add(Tag("working-5C0FFEE", "Work", std::nullopt, "#ff954f", true, 7));
    t.add(Tag("reading-x", "Read", std::nullopt, "#72a7f1", true, 1));
    t.add(Tag("E621E1F8-C36C-495A-93FC-0C247A3E6E5F", "Mine", std::nullopt, "#000000", true, 3));
  });
  EXPECT_EQ(Database::getTags(false, false), (std::vector<std::string>{"default", "working", "reading", "studying",
                                                                       "E621E1F8-C36C-495A-93FC-0C247A3E6E5F"}));
  EXPECT_EQ(Database::getTags(false, true).front(), "working");
  EXPECT_TRUE(Database::getTags(true, false).empty());
}

// A fresh environment whose store gives up on a lock at once, and a second
// connection to play the other process.
class BrokenStoreTest : public testing::EnvironmentTest {
 protected:
  void SetUp() override { setStoreBusyTimeout(50); }
  void TearDown() override { setStoreBusyTimeout(previousTimeout); }
  const int previousTimeout = storeBusyTimeout();
  void breakStore(const std::string& contents) {
    Database::configureRealm();
    std::ofstream(Database::fileURL()) << contents;
    std::ofstream(Database::fileURL().string() + "-wal") << "stale journal";
  }
  std::filesystem::path folder() const { return Database::fileURL().parent_path(); }
  std::vector<std::string> backups() const {
    std::vector<std::string> names;
    for (const auto& entry : std::filesystem::directory_iterator(folder())) {
      if (entry.path().filename().string().starts_with("backup")) names.push_back(entry.path().filename().string());
    }
    std::sort(names.begin(), names.end());
    return names;
  }
  // Database::start()'s error, which must be one.
  Database::DatabaseError startError() {
    try {
      Database::start();
    } catch (const Database::DatabaseError& error) {
      return error;
    }
    ADD_FAILURE() << "the store started";
    return Database::DatabaseError::realm(0);
  }
};

TEST_F(BrokenStoreTest, GarbageIsSetAsideUnderANewNumberEachTime) {
  breakStore("this is not a database");
  auto first = startError();
  EXPECT_EQ(first.backup(), folder() / "backup.realm");
  EXPECT_EQ(std::string(first.what()),
            "the store was damaged and was set aside as backup.realm; the next run starts an empty store");
  EXPECT_FALSE(std::filesystem::exists(Database::fileURL()));
  EXPECT_FALSE(std::filesystem::exists(Database::fileURL().string() + "-wal"));

  env.relaunch();
  Database::start();
  EXPECT_EQ(store::Store::open().connection().userVersion(), 13);
  EXPECT_EQ(Database::getTags(false, false).size(), 3u);
  EXPECT_TRUE(
      Database::getPickups(DateInterval(Date::distantPast(), Date::distantFuture()), {Settings::deviceId()}).empty());

  env.relaunch();
  breakStore("garbage again");
  EXPECT_EQ(startError().backup(), folder() / "backup-2.realm");
  EXPECT_EQ(read(folder() / "backup.realm"), "this is not a database");
  EXPECT_EQ(read(folder() / "backup-2.realm"), "garbage again");
  EXPECT_EQ(Database::backupURL(), folder() / "backup-2.realm");
  // The same process goes on with an empty store.
  Database::start();
  EXPECT_EQ(Database::getDevices().size(), 1u);
}

TEST_F(BrokenStoreTest, ADamagedStoreAnotherProcessHasOpenStays) {
  breakStore("garbage");
  // A lock of its own on the same file, as another process would hold it.
  const int other = ::open((Database::fileURL().string() + ".lock").c_str(), O_RDONLY | O_CLOEXEC);
  ASSERT_GE(other, 0);
  ASSERT_EQ(::flock(other, LOCK_SH), 0);
  EXPECT_THAT(startError().what(),
              ::testing::HasSubstr("another tarnwell process has it open, so it was NOT set aside"));
  EXPECT_EQ(read(Database::fileURL()), "garbage");
  EXPECT_TRUE(backups().empty());
  ::close(other);
  EXPECT_EQ(startError().backup(), folder() / "backup.realm");
}

TEST_F(BrokenStoreTest, ABusyStoreIsRefusedInASentenceAndKeptWhole) {
  Database::start();
  const std::string id = Database::addPickup(t0, t0 + 60);
  // The other process's long transaction, as an import's.
  sqlite::Connection other(Database::fileURL());
  other.execute("BEGIN IMMEDIATE");

  // Reads go on; a write gives up after the busy timeout and says why.
  env.relaunch();
  Database::start();
  EXPECT_TRUE(Database::getPickup(id));
  try {
    Database::addPickup(t0 + 120, t0 + 180);
    ADD_FAILURE() << "the write went through a held lock";
  } catch (const sqlite::Error& error) {
    EXPECT_EQ(Database::describeFailure(error),
              "the store is busy: another tarnwell process is writing to it; try again when it ends");
  }
  // A store that needs migrating cannot be migrated now: refused, not set aside.
  other.setUserVersion(12);
  other.execute("COMMIT");
  other.execute("BEGIN IMMEDIATE");
  env.relaunch();
  const auto error = startError();
  EXPECT_EQ(std::string(error.what()),
            "the store is busy: another tarnwell process is writing to it; try again when it ends");
  EXPECT_TRUE(error.backup().empty());
  EXPECT_TRUE(backups().empty());

  other.execute("COMMIT");
  env.relaunch();
  Database::start();
  EXPECT_EQ(store::Store::open().connection().userVersion(), 13);
  EXPECT_TRUE(Database::getPickup(id));
}

TEST_F(BrokenStoreTest, AStoreFromANewerVersionIsRefusedAndKeptInPlace) {
  Database::start();
  const std::string id = Database::addPickup(t0, t0 + 1);
  store::Store::open().connection().setUserVersion(14);
  env.relaunch();
  EXPECT_EQ(std::string(startError().what()),
            "the store was written by a newer version of tarnwell; this version leaves it as it is");
  EXPECT_TRUE(backups().empty());
  sqlite::Connection kept(Database::fileURL(), sqlite::Connection::OpenMode::readOnly);
  EXPECT_EQ(kept.userVersion(), 14);
  auto select = kept.prepare("SELECT id FROM Pickup");
  ASSERT_TRUE(select.step());
  EXPECT_EQ(select.text(0), id);
}

TEST_F(BrokenStoreTest, ALegacyFileMovesIntoPlace) {
  const auto caches = env.root() / "installation" / "group.org.vostra.tarnwell" / "Library" / "Caches";
  std::filesystem::create_directories(caches);
  {
    sqlite::Connection legacy(caches / "default.realm");
    legacy.execute(store::createTableSQL<Pickup>());
    legacy.execute("INSERT INTO Pickup VALUES ('P', '" + Settings::deviceId() + "', 0, 60, 0, 0)");
    legacy.setUserVersion(13);
  }
  Database::start();
  EXPECT_EQ(Database::getScreenTime(Settings::deviceId()), 60);
  EXPECT_FALSE(std::filesystem::exists(caches / "default.realm"));
}

TEST_F(DatabaseTest, RangeQueriesIncludeBothBoundsButNotASpanOverTheWhole) {
  const std::string endsAtStart = Database::addPickup(t0 - 60, t0);
  const std::string startsAtEnd = Database::addPickup(t0 + 100, t0 + 160);
  const std::string inside = Database::addPickup(t0 + 10, t0 + 20);
  Database::addPickup(t0 - 10, t0 + 110);   // spans the whole interval: neither end inside
  Database::addPickup(t0 + 50, t0 + 50);    // zero length
  Database::addPickup(t0 + 200, t0 + 300);  // outside
  EXPECT_EQ(Database::getPickups(between(0, 100), me()), (std::vector<std::string>{endsAtStart, inside, startsAtEnd}));
}

TEST_F(DatabaseTest, ZeroLengthRecordsNeverLeaveARangeQuery) {
  const std::string pickup = Database::addPickup(t0, t0);
  Database::addWalk(t0, t0);
  Database::addAlive(t0, t0);
  EXPECT_TRUE(Database::getPickups(between(-1, 1), me()).empty());
  EXPECT_TRUE(Database::getWalks(between(-1, 1), me()).empty());
  EXPECT_TRUE(Database::getAlives(between(-1, 1), me()).empty());
  ASSERT_TRUE(Database::getPickup(pickup));  // stored all the same
  Database::editPickup(pickup, t0 + 1);
  EXPECT_EQ(Database::getPickups(between(-1, 1), me()), std::vector<std::string>{pickup});
}

TEST_F(DatabaseTest, OtherDevicesAreInvisibleUnlessAsked) {
  const std::string mine = Database::addPickup(t0, t0 + 10);
  Pickup theirs(t0 + 1, t0 + 11);
  theirs.deviceId = "OTHER";
  store::Store::open().write([&](auto& t) { t.add(theirs); });
  EXPECT_EQ(Database::getPickups(between(0, 20), me()), std::vector<std::string>{mine});
  EXPECT_EQ(Database::getPickups(between(0, 20), {"OTHER"}), std::vector<std::string>{*theirs.id});
  EXPECT_EQ(Database::getPickups(between(0, 20), {Settings::deviceId(), "OTHER"}).size(), 2u);
  EXPECT_EQ(Database::getLatestPickup(me())->id, mine);
  EXPECT_EQ(Database::getLatestPickup({"OTHER"})->id, theirs.id);
  EXPECT_EQ(Database::getScreenTime("OTHER"), 10);
}

TEST_F(DatabaseTest, IgnoredForSleepActsOnFirstAndLastPickupOnly) {
  const std::string early = Database::addPickup(t0 - 30, t0 + 10);  // begins before the span
  const std::string middle = Database::addPickup(t0 + 20, t0 + 30);
  const std::string late = Database::addPickup(t0 + 40, t0 + 50);
  EXPECT_EQ(Database::getFirstPickup(between(0, 100), me()), middle);  // only a start inside counts
  EXPECT_EQ(Database::getLastPickup(between(0, 100), me()), late);
  EXPECT_EQ(Database::getLastPickup(between(0, 15), me()), early);  // its end is what matters

  EXPECT_EQ(Database::editPickups(between(35, 100), true, me()), std::vector<std::string>{late});
  EXPECT_EQ(Database::getLastPickup(between(0, 100), me()), middle);
  EXPECT_EQ(Database::getPickups(between(0, 100), me()).size(), 3u);
  Database::editPickups(between(0, 100), true, me());
  EXPECT_FALSE(Database::getFirstPickup(between(0, 100), me()));
  Database::editPickups(between(0, 100), false, me());
  EXPECT_EQ(Database::getFirstPickup(between(0, 100), me()), middle);
}

TEST_F(DatabaseTest, AFindByEitherEndTakesTheFirstInStoreOrder) {
  const std::string first = Database::addPickup(t0, t0 + 10);
  Database::addPickup(t0 + 5, t0 + 10);
  EXPECT_EQ(Database::getPickup(t0 + 99, t0 + 10, me())->id, first);
  EXPECT_EQ(Database::getPickup(t0 + 5, t0 + 99, me())->end, t0 + 10);
  EXPECT_FALSE(Database::getPickup(t0 + 1, t0 + 2, me()));
}

TEST_F(DatabaseTest, EditsOfUnknownOrDeletedIdsAreQuietlySkipped) {
  EXPECT_EQ(Database::editPickup("NOPE", t0), "NOPE");
  EXPECT_EQ(Database::editWalk("NOPE", t0, t0 + 1), "NOPE");
  EXPECT_EQ(Database::editAlive("NOPE", t0, t0 + 1), "NOPE");
  Database::deletePickup("NOPE");

  const std::string id = Database::addPickup(t0, t0 + 10);
  Database::deletePickup(id);
  EXPECT_FALSE(Database::getPickup(id));
  EXPECT_FALSE(Database::getLatestPickup(me()));
  EXPECT_TRUE(Database::getPickups(between(0, 10), me()).empty());
  Database::editPickup(id, t0 + 99);
  const auto row = store::Store::open().object<Pickup>(id);
  ASSERT_TRUE(row);  // soft deletion: the row stays, unchanged
  EXPECT_TRUE(row->isDeleted);
  EXPECT_EQ(row->end, t0 + 10);
}

TEST_F(DatabaseTest, WalksAndAliveSpansMoveBothEnds) {
  const std::string walk = Database::addWalk(t0, t0 + 10);
  Database::editWalk(walk, t0 + 5, t0 + 50);
  EXPECT_EQ(Database::getWalk(walk)->interval(), between(5, 50));
  const std::string alive = Database::addAlive(t0, t0 + 10);
  Database::editAlive(alive, t0 - 5, t0 + 5);
  EXPECT_EQ(Database::getAlive(alive)->interval(), between(-5, 5));
  EXPECT_EQ(Database::getLatestAlive(me())->id, alive);

  const auto ids = Database::addWalks({between(100, 110), between(120, 130)});
  ASSERT_EQ(ids.size(), 2u);
  EXPECT_EQ(Database::getWalks(between(100, 130), me()), ids);
  EXPECT_EQ(Database::getLatestWalk(me())->id, ids[1]);
  EXPECT_TRUE(Database::addWalks({}).empty());
}

TEST_F(DatabaseTest, RepairDeletesBackwardAndFutureSpans) {
  const std::string good = Database::addPickup(t0 - 60, t0);
  const std::string backward = Database::addPickup(t0, t0 - 60);
  const std::string empty = Database::addWalk(t0, t0);
  const std::string future = Database::addAlive(t0, t0 + 60);
  Database::clearAlivePickupWalk();
  EXPECT_TRUE(Database::getPickup(good));
  EXPECT_FALSE(Database::getPickup(backward));
  EXPECT_FALSE(Database::getWalk(empty));
  EXPECT_FALSE(Database::getAlive(future));
}

TEST_F(DatabaseTest, ScreenTimeSumsEveryPresentInterval) {
  Database::addPickup(t0, t0 + 60);
  Database::addPickup(t0 + 30, t0 + 90);  // overlaps count twice
  Database::addPickup(t0, t0 - 10);       // no interval
  Database::deletePickup(Database::addPickup(t0, t0 + 1000));
  EXPECT_EQ(Database::getScreenTime(Settings::deviceId()), 120);
}

TEST_F(DatabaseTest, WritesLogTheirLine) {
  Logger::start();
  const std::string id = Database::addPickup(t0, t0 + 60);
  Database::editPickup(id, t0 + 90);
  Database::editPickups(between(0, 100), true, me());
  Database::deletePickup(id);
  Logger::flush();
  const std::string log = read(Logger::logFileURL());
  EXPECT_NE(log.find("addPickup(start:end:) > ✍️ Add Pickup: " + id +
                     " 2026-11-22 10:00:00 +0000 2026-11-22 10:01:00 +0000"),
            std::string::npos);
  EXPECT_NE(log.find("editPickup(id:end:) > ✍️ Edit Pickup: " + id + " 2026-11-22 10:01:30 +0000"),
            std::string::npos);
  EXPECT_NE(log.find("✍️ Edit Pickup Between: 2026-11-22 10:00:00 +0000 to 2026-11-22 10:01:40 +0000, "
                     "isIgnoredForSleepTime: true"),
            std::string::npos);
  EXPECT_NE(log.find("deletePickup(id:) > ✍️ Delete Pickup: " + id), std::string::npos);
}

// The function of a write's line is the operation's whole signature, so that
// two operations of one name (and their overloads) read apart in the log.
TEST_F(DatabaseTest, FocusAndTagWritesLogTheirSignatures) {
  Logger::start();
  const std::string focus =
      Database::addFocus(std::nullopt, t0, t0 + 60, "working", 60, 60, std::nullopt, std::nullopt, std::nullopt);
  Database::editFocus(focus, {.goal = 30});
  const std::string tag = Database::addTag("Read", "📖", Color(), widgets::FocusType::defaultType(), std::nullopt,
                                           std::nullopt, false, std::nullopt);
  Database::editTag(tag, {.title = "Reading"});
  Logger::flush();
  const std::string log = read(Logger::logFileURL());
  for (const char* line : {
           "addFocus(id:start:end:tagId:goal:progress:type:mode:watchDeviceName:) > ✍️ Add Focus:  "
           "2026-11-22 10:00:00 +0000 2026-11-22 10:01:00 +0000 working 60.0 60.0",
           "editFocus(id:tagId:start:progress:goal:type:mode:) > ✍️ Edit Focus: ",
           "addTag(title:emoji:color:focusType:focusGoal:notification:syncToMindfulness:"
           "stateOfMindAssociationsRawValue:) > ✍️ Add Tag: Read 📖",
           "editTag(id:title:emoji:color:focusType:updateFocusGoal:updateNotification:syncToMindfulness:"
           "stateOfMindAssociationsRawValue:) > ✍️ Edit Tag: ",
       }) {
    EXPECT_NE(log.find(line), std::string::npos) << line;
  }
}

TEST_F(DatabaseTest, TheCurrentDeviceRecordsItsLastSync) {
  EXPECT_EQ(Database::setCurrentDeviceLastSyncDate(t0), Settings::deviceId());
  EXPECT_EQ(Database::getCurrentDevice()->lastSyncDate, t0);
  EXPECT_EQ(Database::getDevicesRelatedToCurrentDevice(), std::vector<std::string>{});
}

TEST_F(DatabaseTest, SafeSyncRunsInlineWhenAlreadyOnTheQueue) {
  SafeSyncQueue& queue = Database::queue();
  const int nested = queue.safeSync([&queue] { return queue.safeSync([] { return 42; }); });
  EXPECT_EQ(nested, 42);
  EXPECT_EQ(queue.safeSync([] { return DispatchQueue::current()->label(); }), "org.vostra.tarnwell.database");
  EXPECT_THROW(queue.safeSync([]() -> int { throw std::logic_error("passed on"); }), std::logic_error);
}

// Random writes against a plain model: the range query must agree with a
// direct reading of its rule over the model.
TEST_F(DatabaseTest, RangeQueriesAgreeWithAModel) {
  struct Row {
    Date start, end;
    bool deleted = false;
    std::string device;
  };
  std::map<std::string, Row> model;
  std::vector<std::string> order;
  std::mt19937 random(20261122);
  std::uniform_int_distribution<int> minute(0, 600), length(-2, 30), action(0, 9);
  const std::vector<std::string> devices = {Settings::deviceId(), "OTHER"};
  for (int step = 0; step < 400; ++step) {
    const int what = action(random);
    if (what < 6 || order.empty()) {
      const Date start = t0 + 60.0 * minute(random), end = start + 60.0 * length(random);
      Pickup pickup(start, end);
      if (what == 5) pickup.deviceId = "OTHER";
      store::Store::open().write([&](auto& t) { t.add(pickup); });
      model[*pickup.id] = {start, end, false, pickup.deviceId};
      order.push_back(*pickup.id);
    } else if (what < 8) {
      const std::string& id = order[random() % order.size()];
      const Date end = model[id].start + 60.0 * length(random);
      Database::editPickup(id, end);
      if (!model[id].deleted) model[id].end = end;
    } else {
      const std::string& id = order[random() % order.size()];
      Database::deletePickup(id);
      model[id].deleted = true;
    }
  }
  for (int probe = 0; probe < 50; ++probe) {
    const Date from = t0 + 60.0 * minute(random), to = from + 60.0 * minute(random) / 4;
    const std::vector<std::string> asked = probe % 2 ? devices : std::vector<std::string>{Settings::deviceId()};
    std::vector<std::pair<Date, std::size_t>> expected;
    for (std::size_t i = 0; i < order.size(); ++i) {
      const Row& row = model[order[i]];
      const bool device = std::find(asked.begin(), asked.end(), row.device) != asked.end();
      const bool touches = (from <= row.start && row.start <= to) || (from <= row.end && row.end <= to);
      if (!row.deleted && device && touches && row.end > row.start) expected.emplace_back(row.start, i);
    }
    std::stable_sort(expected.begin(), expected.end(), [](auto& a, auto& b) { return a.first < b.first; });
    std::vector<std::string> ids;
    for (const auto& [start, i] : expected) ids.push_back(order[i]);
    EXPECT_EQ(Database::getPickups(DateInterval(from, to), asked), ids) << probe;
  }
}

}  // namespace
}  // namespace tarnwell

// Tags in the store: order, the folding of default-tag copies, deletion and
// archiving; allowed apps, device relations; reset and CSV export.

#include <gtest/gtest.h>

#include <fstream>
#include <limits>

#include "support/TestEnvironment.h"
#include "tarnwell/modules/Database.h"
#include "tarnwell/settings/Settings.h"
#include "tarnwell/store/Store.h"

namespace tarnwell {
namespace {

using store::Query;
using store::Store;
using store::WriteTransaction;

const Date t0 = testing::defaultTestNow();

std::string read(const std::filesystem::path& file) {
  std::ifstream in(file);
  return {std::istreambuf_iterator<char>(in), {}};
}

class TagOperationsTest : public testing::EnvironmentTest {
 protected:
  void SetUp() override { Database::start(); }

  std::string addTag(const std::string& title) {
    return Database::addTag(title, "🎯", Color::fromHex("#123456"), widgets::FocusType::countdown(1200), std::nullopt,
                            std::nullopt, false, std::nullopt);
  }
  // A row as another device or an older version left it.
  void put(Tag tag) {
    Store::open().write([&tag](WriteTransaction& t) { t.add(tag); });
  }
  std::string focus(const std::optional<std::string>& tagId, double at = 0) {
    return Database::addFocus(std::nullopt, t0 + at, t0 + at + 60, tagId, 60, 60, std::nullopt, std::nullopt,
                              std::nullopt);
  }
  std::vector<std::string> tags() { return Database::getTags(false, false); }
  // Lets a promise's stages on Database.queue and the main queue run.
  template <class T>
  void settle(const Promise<T>& promise) {
    while (promise.isPending()) {
      Database::queue().safeSync([] {});
      env.pump();
    }
    ASSERT_TRUE(promise.isFulfilled());
  }
};

TEST_F(TagOperationsTest, AddedTagsGoLastAndAnEmptyTableStartsAtZero) {
  const std::string id = addTag("Write");
  EXPECT_EQ(Database::getTag(id)->sort, 3);
  EXPECT_EQ(tags().back(), id);
  EXPECT_EQ(Database::getTag(id)->type(), widgets::FocusType::countdown(1200));

  Store::open().write([](WriteTransaction& t) { t.remove<Tag>(Query()); });
  EXPECT_EQ(Database::getTag(addTag("First"))->sort, 0);
}

TEST_F(TagOperationsTest, AMovedTagLandsBeforeItsTargetGoingUpAndBehindItGoingDown) {
  const std::string a = addTag("A"), b = addTag("B");  // sorts 3 and 4
  Database::moveTag(b, "working");
  EXPECT_EQ(tags(), (std::vector<std::string>{"default", b, "working", "studying", a}));
  EXPECT_EQ(Database::getTag(b)->sort, 0);
  EXPECT_EQ(Database::getTag(a)->sort, 3);

  Database::moveTag("working", a);
  EXPECT_EQ(tags(), (std::vector<std::string>{"default", b, "studying", a, "working"}));
  // Unknown targets and the same place change nothing.
  Database::moveTag("working", "NOPE");
  Database::moveTag("working", "working");
  EXPECT_EQ(tags(), (std::vector<std::string>{"default", b, "studying", a, "working"}));
}

TEST_F(TagOperationsTest, ACopyOfADefaultTagIsListedOnceAndFoldedWithItsSessions) {
  Tag copy("working-7F3A", "Deep work", "🔥", "#ff954f", true, 5);
  copy.created = t0 - 60;
  put(copy);
  const std::string moved = focus("working-7F3A");
  const std::string mine = focus("working");
  // Listed under the plain id; the twin sets off the fold.
  EXPECT_EQ(tags(), (std::vector<std::string>{"default", "working", "studying"}));
  EXPECT_FALSE(Database::getTag("working-7F3A"));
  EXPECT_EQ(Database::getFocus(moved)->tagId, "working");
  EXPECT_EQ(Database::getFocus(mine)->tagId, "working");
  // The rename made on the other device survives.
  EXPECT_EQ(Database::getTag("working")->title, "Deep work");
  EXPECT_EQ(Database::getTag("working")->emoji, "🔥");
}

TEST_F(TagOperationsTest, TheFoldMakesTheRealTagWhenOnlyCopiesOrSessionsExist) {
  Store::open().write([](WriteTransaction& t) {
    t.update<Tag>({{"isDeleted", true}}, Query().filter("id = 'working'"));
  });
  put(Tag("working-B", "Work", "👨‍💻", "#ff954f", true, 9));
  // A session of a removed default tag's copy, with no tag row at all.
  const std::string reading = focus("reading-C");
  // A user's tag that merely starts like a default id is a copy as well.
  const std::string user = focus("studyingGroup");
  Database::clearTags();
  EXPECT_TRUE(Database::getTag("working"));
  EXPECT_FALSE(Database::getTag("working-B"));
  EXPECT_EQ(Database::getFocus(reading)->tagId, "reading");
  EXPECT_EQ(Database::getTag("reading")->title, "Read");
  EXPECT_EQ(Database::getFocus(user)->tagId, "studying");
}

TEST_F(TagOperationsTest, TheFoldKeepsOneDefaultTag) {
  Tag other("6C1F0C0E-0000-4000-8000-000000000001", "No Tag", std::nullopt, "#63c7ba", true, 0);
  other.isDefault = true;
  put(other);
  const std::string id = focus(*other.id);
  Settings::setDefaultFocusTagId(*other.id);
  Database::clearTags();
  EXPECT_FALSE(Database::getTag(*other.id));
  EXPECT_EQ(Database::getFocus(id)->tagId, "default");
  EXPECT_EQ(Settings::defaultFocusTagId(), "default");
}

TEST_F(TagOperationsTest, UnplacedTagsGoLastInOrderOfCreationAndTheDefaultFirst) {
  Tag late("L", "Late", std::nullopt, "#000000", false, Tag::kUnplacedSort);
  late.created = t0 + 20;
  Tag early("E", "Early", std::nullopt, "#000000", false, Tag::kUnplacedSort);
  early.created = t0 + 10;
  put(late);
  put(early);
  Store::open().write([](WriteTransaction& t) {
    t.update<Tag>({{"sort", Tag::kUnplacedSort}}, Query().filter("id = 'default'"));
  });
  Database::resetInvalidateTagSort();
  EXPECT_EQ(Database::getTag("E")->sort, 3);
  EXPECT_EQ(Database::getTag("L")->sort, 4);
  EXPECT_EQ(Database::getTag("default")->sort, std::numeric_limits<std::int64_t>::min());
  EXPECT_EQ(Database::getTag(addTag("Next"))->sort, 5);
}

TEST_F(TagOperationsTest, DeletingATagMovesOrDeletesItsSessionsAndFreesTheDefaultChoice) {
  const std::string a = addTag("A"), b = addTag("B");
  const std::string f1 = focus(a), f2 = focus(b);
  Settings::setDefaultFocusTagId(a);
  Database::deleteTag(a, b);
  EXPECT_FALSE(Database::getTag(a));
  EXPECT_EQ(Database::getFocus(f1)->tagId, b);
  EXPECT_EQ(Settings::defaultFocusTagId(), "default");

  Database::deleteTag(b, std::nullopt);
  EXPECT_FALSE(Database::getFocus(f1));
  EXPECT_FALSE(Database::getFocus(f2));
}

TEST_F(TagOperationsTest, ArchivedTagsLeaveTheListAndTheDefaultChoice) {
  const std::string a = addTag("A");
  Settings::setDefaultFocusTagId(a);
  Database::archiveTags({a, "studying", "NOPE"}, true);
  EXPECT_EQ(tags(), (std::vector<std::string>{"default", "working"}));
  EXPECT_EQ(Database::getTags(true, false), (std::vector<std::string>{"studying", a}));
  EXPECT_EQ(Settings::defaultFocusTagId(), "default");
  Database::archiveTag(a, false);
  EXPECT_EQ(tags().back(), a);
}

TEST_F(TagOperationsTest, AnEditWritesOnlyWhatIsGiven) {
  const std::string a = addTag("A");
  TagEdit edit;
  edit.title = "Renamed";
  edit.focusGoal = FocusGoal::lessThanOrEqualTo(1800);
  edit.notification = std::optional<FocusNotification>();
  Database::editTag(a, edit);
  auto tag = Database::getTag(a);
  EXPECT_EQ(tag->title, "Renamed");
  EXPECT_EQ(tag->emoji, "🎯");
  EXPECT_EQ(tag->focusGoal(), FocusGoal::lessThanOrEqualTo(1800));
  // A cleared reminder is stored as a blob of null; a cleared goal as nothing.
  EXPECT_TRUE(tag->notificationData);
  EXPECT_FALSE(tag->notification());
  Database::editTag(a, {.focusGoal = std::optional<FocusGoal>()});
  EXPECT_FALSE(Database::getTag(a)->focusGoalData);
  // The default tag keeps no emoji.
  Database::editTag("default", {.emoji = "⭐️"});
  EXPECT_FALSE(Database::getTag("default")->emoji);
}

TEST_F(TagOperationsTest, AppsAreListedByCreationAndRevivedByAddingAgain) {
  AppStructure first, second;
  first.trackIdInNumber = 1;
  first.trackName = "One";
  second.trackIdInNumber = 2;
  second.trackName = "Two";
  Database::addApp(first);
  env.advance(1);
  Database::addApp(second);
  EXPECT_EQ(Database::getApps(), (std::vector<std::string>{"1", "2"}));
  Database::deleteApp("1");
  EXPECT_FALSE(Database::getApp("1"));
  env.advance(1);
  Database::addApp(first);
  EXPECT_EQ(Database::getApps(), (std::vector<std::string>{"2", "1"}));
}

TEST_F(TagOperationsTest, ARelationIsKeptOnceAndLeavesOutThisDevice) {
  Database::setCurrentDeviceRelation("PAD", true);
  Database::setCurrentDeviceRelation("PAD", true);
  Database::setCurrentDeviceRelation("WATCH", true);
  EXPECT_EQ(Database::getDevicesRelatedToCurrentDevice(), (std::vector<std::string>{"PAD", "WATCH"}));
  Database::setCurrentDeviceRelation("PAD", false);
  EXPECT_EQ(Database::getDevicesRelatedToCurrentDevice(), (std::vector<std::string>{"WATCH"}));
}

TEST_F(TagOperationsTest, AFocusResetOfAllDevicesMakesTheInitialTagsAnew) {
  const std::string a = addTag("A");
  const std::string f = focus(a);
  settle(Database::resetFocusData(true));
  EXPECT_FALSE(Database::getFocus(f));
  EXPECT_TRUE(Database::getTag(a));

  env.advance(60);
  settle(Database::resetFocusData(false));
  EXPECT_EQ(tags(), (std::vector<std::string>{"default", "working", "studying"}));
  EXPECT_FALSE(Database::getTag(a));
  EXPECT_EQ(Database::getTag("working")->created, t0 + 60);
  EXPECT_EQ(Database::getTag("studying")->sort, 2);
}

TEST_F(TagOperationsTest, AScreenTimeResetOfThisDeviceLeavesTheOthers) {
  Database::addPickup(t0 - 600, t0 - 300);
  Store::open().write([](WriteTransaction& t) {
    Pickup other(t0 - 900, t0 - 800);
    other.deviceId = "OTHER";
    t.add(other);
  });
  settle(Database::resetScreentimeData(true));
  EXPECT_TRUE(Database::getPickups(DateInterval(t0 - 3600, t0), {Settings::deviceId()}).empty());
  EXPECT_EQ(Database::getPickups(DateInterval(t0 - 3600, t0), {"OTHER"}).size(), 1u);
  EXPECT_FALSE(Database::eventsOfToday().pickupTimes());
}

TEST_F(TagOperationsTest, AnExportWritesSixFilesOfOneDateWithFieldsAsTheyStand) {
  addTag("Read, \"slowly\"");
  focus(std::nullopt);
  const auto files = Database::exportCSVFile(env.root());
  settle(files);
  ASSERT_EQ(files.value()->size(), 6u);
  const std::string date = t0.description();
  const char* names[] = {"Alive", "Device", "Focus", "Pickup", "Tag", "Walk"};
  for (std::size_t i = 0; i < 6; ++i) {
    EXPECT_EQ((*files.value())[i], env.root() / (date + "-" + names[i] + ".csv"));
  }
  EXPECT_EQ(read(env.root() / (date + "-Walk.csv")), "id,deviceId,start,end");
  // A session without a tag is an empty line.
  EXPECT_EQ(read((*files.value())[2]), "id,deviceId,tagId,start,end,goal,progress\n");
  EXPECT_NE(read((*files.value())[4]).find(",\"Read, \"slowly\"\",\"🎯\",false"), std::string::npos);
}

}  // namespace
}  // namespace tarnwell

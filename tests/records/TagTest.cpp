// The texts, goals, reminders and typed views of a tag, and its JSON form.

#include "tarnwell/records/Tag.h"

#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include "support/TestEnvironment.h"

namespace tarnwell {
namespace {

using Weekday = FocusNotification::Weekday;
using widgets::FocusType;

std::string textOf(const std::optional<Data>& blob) {
  return blob ? std::string(blob->begin(), blob->end()) : "<none>";
}
Data bytes(std::string_view text) { return Data(text.begin(), text.end()); }

class TagTest : public testing::EnvironmentTest {
 protected:
  static Tag titled(std::string title, std::optional<std::string> emoji = std::nullopt) {
    return Tag("T", std::move(title), std::move(emoji), "#ff954f", false, 0);
  }
  // 09:30 on the test's day, UTC.
  static Date nineThirty() { return *Date::parseISO8601("2026-11-22T09:30:00Z"); }
};

TEST_F(TagTest, ShortTitlesFitTenUnits) {
  EXPECT_EQ(titled("abcdefghi").shortDisplayTitle(), "abcdefghi");  // 9
  EXPECT_EQ(titled("abcdefghij").shortDisplayTitle(), "abcdefghi…");
  EXPECT_EQ(titled("学习和阅读").shortDisplayTitle(), "学习和阅…");  // 10: cut at the fifth
  // An emoji of several code points is one character of width 2.
  EXPECT_EQ(titled("ab👨‍💻cdefgh").shortDisplayTitle(), "ab👨‍💻cdefg…");
}

TEST_F(TagTest, DefaultTagShowsItsOwnTexts) {
  Tag none = titled("stored title");
  none.isDefault = true;
  EXPECT_EQ(none.displayTitle(), "No Tag");
  EXPECT_EQ(none.typeButtonTitleWithPrefix(), "Select Tag");

  const Tag study = titled("Study", "💡");
  EXPECT_EQ(study.typeButtonTitleWithPrefix(), "Focus on 💡Study");
  EXPECT_EQ(study.threadSafeTag().typeButtonTitleWithPrefix(), "Focus on 💡Study");

  Tag untitled;
  EXPECT_DEATH((void)untitled.displayTitle(), "no title");
}

TEST_F(TagTest, FocusGoalJSON) {
  // A goal has no empty state to decode into, hence from_json over a placeholder.
  const auto fromJSON = [](const nlohmann::json& json) {
    auto decoded = FocusGoal::lessThanOrEqualTo(-1);
    from_json(json, decoded);
    return decoded;
  };
  const auto goal = [&](const char* text) { return fromJSON(nlohmann::json::parse(text)); };
  EXPECT_EQ(goal("{}"), FocusGoal::moreThanOrEqualTo(5400));
  EXPECT_EQ(goal(R"({"moreThanOrEqualTo": 600})"), FocusGoal::moreThanOrEqualTo(600));
  EXPECT_EQ(goal(R"({"moreThanOrEqualTo": 600, "lessThanOrEqualTo": 1800.5})"), FocusGoal::lessThanOrEqualTo(1800.5));
  EXPECT_THROW(goal(R"({"lessThanOrEqualTo": "1800"})"), nlohmann::json::exception);
  EXPECT_THROW(goal(R"({"moreThanOrEqualTo": true})"), nlohmann::json::exception);

  for (const auto original : {FocusGoal::lessThanOrEqualTo(1800), FocusGoal::moreThanOrEqualTo(7200.5)}) {
    EXPECT_EQ(fromJSON(nlohmann::json(original)), original);
  }
  EXPECT_EQ(nlohmann::json(FocusGoal::lessThanOrEqualTo(1800)), nlohmann::json::parse(R"({"lessThanOrEqualTo":1800})"));
}

TEST_F(TagTest, FocusGoalTexts) {
  const auto limit = FocusGoal::lessThanOrEqualTo(1800);
  EXPECT_FALSE(limit.isGoal());
  EXPECT_EQ(limit.localizedDescription(), "≤ 30m");
  EXPECT_EQ(FocusGoal::defaultGoal().localizedDescription(), "≥ 1h30m");
  EXPECT_EQ(FocusGoal::defaultGoal().durationDescription(), "1h30m a day");
  EXPECT_EQ(limit.toWidgetFocusGoal(),
            (widgets::WidgetFocusGoal{widgets::WidgetFocusGoal::Kind::lessThanOrEqualTo, 1800}));
}

TEST_F(TagTest, ReminderDayTexts) {
  const auto describe = [](std::vector<Weekday> days) {
    const FocusNotification reminder(std::move(days), nineThirty());
    return reminder.localizedDescription().substr(reminder.localizedTime().size());
  };
  const std::vector<Weekday> workdays = {Weekday::monday, Weekday::tuesday, Weekday::wednesday, Weekday::thursday,
                                         Weekday::friday};
  EXPECT_EQ(describe(workdays), ", Workdays");
  // The same count with Sunday in and Friday out is no working week.
  EXPECT_EQ(describe({Weekday::monday, Weekday::tuesday, Weekday::wednesday, Weekday::thursday, Weekday::sunday}),
            ", Mon Tue Wed Thu Sun");
  EXPECT_EQ(describe({FocusNotification::oneWeek().begin(), FocusNotification::oneWeek().end()}), ", Every day");
  EXPECT_EQ(describe({}), ", ");
  EXPECT_EQ(veryShortSymbol(Weekday::thursday), "T");
}

TEST(TagChineseTest, ReminderTextsInChinese) {
  testing::TestEnvironment env({.timeZone = "Asia/Shanghai", .locale = "zh_CN"});
  const FocusNotification reminder({Weekday::monday, Weekday::sunday}, *Date::parseISO8601("2026-11-22T21:15:00"));
  // The days come first here: the summary picks its arguments by position.
  EXPECT_EQ(reminder.localizedDescription(), "周一 周日 " + reminder.localizedTime());
  EXPECT_NE(reminder.localizedTime().find("9:15"), std::string::npos);
  EXPECT_EQ(veryShortSymbol(Weekday::monday), "一");
}

TEST(TagWeekdayTest, TodayIsTheWeekdayOfTheRegion) {
  // 2026-11-22T10:00Z is a Sunday in UTC and already Monday at UTC+14.
  {
    testing::TestEnvironment utc;
    EXPECT_EQ(FocusNotification::today(), Weekday::sunday);
    const FocusNotification fresh;
    EXPECT_EQ(fresh.notificationDays, std::vector<Weekday>{Weekday::sunday});
    EXPECT_EQ(fresh.notificationTime, Date::now());
  }
  testing::TestEnvironment kiribati({.timeZone = "Pacific/Kiritimati"});
  EXPECT_EQ(FocusNotification::today(), Weekday::monday);
}

TEST_F(TagTest, ReminderJSONNeedsBothKeys) {
  const FocusNotification reminder({Weekday::monday, Weekday::friday}, nineThirty());
  const nlohmann::json json = reminder;
  EXPECT_EQ(json["notificationDays"], nlohmann::json::parse("[2, 6]"));
  EXPECT_EQ(json["notificationTime"], nineThirty().timeIntervalSinceReferenceDate());
  EXPECT_EQ(json.get<FocusNotification>(), reminder);
  for (const char* text : {R"({"notificationDays": [2]})", R"({"notificationTime": 0})",
                           R"({"notificationDays": [8], "notificationTime": 0})",
                           R"({"notificationDays": [2], "notificationTime": "now"})"}) {
    EXPECT_THROW(nlohmann::json::parse(text).get<FocusNotification>(), nlohmann::json::exception) << text;
  }
}

TEST_F(TagTest, TypedViewsOverTheBlobs) {
  Tag tag = titled("Work");
  EXPECT_EQ(tag.type(), FocusType::defaultType());
  tag.setType(FocusType::countdown(1800, 300));
  EXPECT_EQ(tag.type(), FocusType::countdown(1800, 300));
  EXPECT_EQ(tag.typeData, Tag::encode(FocusType::countdown(1800, 300)));
  tag.typeData = bytes("{broken");
  EXPECT_EQ(tag.type(), FocusType::defaultType());

  EXPECT_FALSE(tag.focusGoal());
  tag.setFocusGoal(FocusGoal::lessThanOrEqualTo(1800));
  EXPECT_EQ(tag.focusGoal(), FocusGoal::lessThanOrEqualTo(1800));
  tag.setFocusGoal(std::nullopt);
  EXPECT_FALSE(tag.focusGoalData);
  tag.focusGoalData = bytes(R"({"lessThanOrEqualTo": null, "moreThanOrEqualTo": "x"})");
  EXPECT_FALSE(tag.focusGoal());

  const FocusNotification reminder({Weekday::wednesday}, nineThirty());
  tag.setNotification(reminder);
  EXPECT_EQ(tag.notification(), reminder);
  // Clearing keeps a blob, so that the clearing travels too.
  tag.setNotification(std::nullopt);
  EXPECT_EQ(textOf(tag.notificationData), "null");
  EXPECT_FALSE(tag.notification());
}

TEST_F(TagTest, ThreadSafeCopyHoldsTypedValuesAndKeepsThem) {
  Tag tag = titled("Work", "💻");
  tag.stateOfMindAssociationsList = {3, 7};
  tag.setType(FocusType::addTime(0, 600));
  tag.setFocusGoal(FocusGoal::moreThanOrEqualTo(3600));
  tag.setNotification(FocusNotification({Weekday::monday}, nineThirty()));
  tag.typeData->push_back('!');  // undecodable: the copy takes the default

  const ThreadSafeTag copy = tag.threadSafeTag();
  EXPECT_EQ(copy.type, FocusType::defaultType());
  EXPECT_EQ(copy.color, Color::fromHex("#ff954f"));
  EXPECT_EQ(copy.focusGoal, FocusGoal::moreThanOrEqualTo(3600));
  EXPECT_EQ(copy.notification, FocusNotification({Weekday::monday}, nineThirty()));
  EXPECT_EQ(copy.stateOfMindAssociationsRawValue, (std::vector<std::int64_t>{3, 7}));

  tag.title = "Play";
  tag.setFocusGoal(std::nullopt);
  EXPECT_EQ(copy.title, "Work");
  EXPECT_TRUE(copy.focusGoal);
}

TEST_F(TagTest, JSONKeepsKeyOrderAndBlobsAsBase64) {
  Tag tag = titled("Work", "💻");
  tag.setFocusGoal(FocusGoal::defaultGoal());
  tag.setNotification(std::nullopt);
  tag.stateOfMindAssociationsList = {1, 2};
  const nlohmann::ordered_json json = tag;
  std::vector<std::string> keys;
  for (const auto& [key, value] : json.items()) keys.push_back(key);
  EXPECT_EQ(keys, (std::vector<std::string>{"id", "created", "title", "emoji", "syncToMindfulness", "sort", "isDefault",
                                            "isDeleted", "isArchived", "colorHex", "focusGoalData", "notificationData",
                                            "stateOfMindAssociationsList"}));  // no typeData: absent
  EXPECT_EQ(json["notificationData"], "bnVsbA==");                             // the text null
  EXPECT_EQ(json.get<Tag>(), tag);

  // Only the optional fields may be missing.
  const nlohmann::ordered_json bare = nlohmann::ordered_json::parse(
      R"({"syncToMindfulness": true, "sort": 4, "isDefault": false, "isDeleted": false, "isArchived": false,
          "colorHex": "#000000", "stateOfMindAssociationsList": []})");
  EXPECT_EQ(bare.get<Tag>().sort, 4);
  for (const char* required : {"syncToMindfulness", "sort", "isDefault", "isDeleted", "isArchived", "colorHex",
                               "stateOfMindAssociationsList"}) {
    auto missing = bare;
    missing.erase(required);
    EXPECT_THROW(missing.get<Tag>(), nlohmann::json::out_of_range) << required;
  }
}

}  // namespace
}  // namespace tarnwell

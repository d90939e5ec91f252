#include "tarnwell/widgets/FocusType.h"

#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include "support/TestEnvironment.h"

namespace tarnwell::widgets {
namespace {

TEST(FocusTypeTest, EveryKindSurvivesItsJSONForm) {
  for (const FocusType& type : {FocusType::pomodoro(1500, 300, 900, 4), FocusType::countdown(2700, 600),
                                FocusType::addTime(0, 1800), FocusType::defaultType()}) {
    const nlohmann::json json = type;
    EXPECT_EQ(json.size(), 1u);
    EXPECT_EQ(json.begin().key(), rawValue(type.abstractType()));
    EXPECT_EQ(json.get<FocusType>(), type) << json.dump();
  }
}

TEST(FocusTypeTest, JSONFormNamesTheParameters) {
  EXPECT_EQ(nlohmann::json(FocusType::countdown(1500)).dump(),
            R"({"countdown":{"duration":1500.0,"reminderInterval":0.0}})");
}

TEST(FocusTypeTest, DecodingRefusesOtherShapes) {
  for (const char* text : {R"({})", R"({"sprint":{"duration":1}})", R"({"countdown":{"duration":1}})",
                           R"({"countdown":{"duration":"1","reminderInterval":0}})",
                           R"({"countdown":{"duration":1,"reminderInterval":0},"addTime":{}})", "[]", "3",
                           // Counts an int cannot hold, or that are not counts, are no shape either.
                           R"({"pomodoro":{"duration":1,"shortBreak":0,"longBreak":0,"longBreakInterval":1e300}})",
                           R"({"pomodoro":{"duration":1,"shortBreak":0,"longBreak":0,"longBreakInterval":4.5}})",
                           R"({"pomodoro":{"duration":1,"shortBreak":0,"longBreak":0,"longBreakInterval":"4"}})"}) {
    EXPECT_THROW(nlohmann::json::parse(text).get<FocusType>(), nlohmann::json::exception) << text;
  }
}

TEST(FocusTypeTest, TheFirstParameterIsTheDuration) {
  EXPECT_EQ(FocusType::pomodoro(1200, 300, 900, 4).duration(), 1200);
  EXPECT_EQ(FocusType::countdown(90).duration(), 90);
  EXPECT_EQ(FocusType::addTime().duration(), 0);
  EXPECT_EQ(FocusType::defaultType(), FocusType::pomodoro(1500, 300, 900, 4));
  EXPECT_EQ(FocusType(), FocusType::defaultType());
}

TEST(FocusTypeTest, KindsReadBackFromTheirTexts) {
  for (const auto kind : kAllAbstractFocusTypes) EXPECT_EQ(abstractFocusTypeFromRawValue(rawValue(kind)), kind);
  EXPECT_FALSE(abstractFocusTypeFromRawValue("abc"));
  EXPECT_FALSE(abstractFocusTypeFromRawValue("Countdown"));
}

TEST(FocusTypeTest, TitlesAreLocalized) {
  testing::TestEnvironment env;
  EXPECT_EQ(title(AbstractFocusType::pomodoro), "Pomodoro");
  EXPECT_EQ(title(AbstractFocusType::addTime), "Add Time");
}

}  // namespace
}  // namespace tarnwell::widgets

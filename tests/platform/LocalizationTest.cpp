#include "tarnwell/platform/Localization.h"

#include <gtest/gtest.h>

#include "support/TestEnvironment.h"

namespace tarnwell {
namespace {

TEST(FormatStringTest, PrintfConversionsWithTextsAndPositions) {
  EXPECT_EQ(formatString("%lld Times", {3}), "3 Times");
  EXPECT_EQ(formatString("%@, %@", {"Countdown", "25m"}), "Countdown, 25m");
  EXPECT_EQ(formatString("%2$@ before %1$@", {"a", "b"}), "b before a");
  EXPECT_EQ(formatString("%.2f%%", {12.345}), "12.35%");
  EXPECT_EQ(formatString("%02d:%02d", {5, 7}), "05:07");
  EXPECT_EQ(formatString("%4.2f %@", {1.0, "KB"}), "1.00 KB");
  // A path or a title of any length is kept whole, padded or not.
  const std::string path(700, 'x');
  EXPECT_EQ(formatString("cannot read \"%1$@\"", {path}), "cannot read \"" + path + "\"");
  EXPECT_EQ(formatString("[%-702@]", {path}), "[" + path + "  ]");
}

TEST(FormatStringTest, MissingArgumentsAndStrayPercentsStayAsWritten) {
  EXPECT_EQ(formatString("%@ and %@", {"one"}), "one and %@");
  EXPECT_EQ(formatString("100% sure", {}), "100% sure");
  EXPECT_EQ(formatString("%", {}), "%");
}

TEST(LocalizedTest, KeysReadInTheLanguageOfTheLocaleThenEnglishThenAsThemselves) {
  testing::TestEnvironment env({.locale = "it_IT"});
  EXPECT_EQ(localized("Focus.Timer.Countdown"), "Countdown");  // no Italian table: English
  EXPECT_EQ(localized("No.Such.Key"), "No.Such.Key");
  EXPECT_EQ(localized("Focus.Timer.Countdown", "NoSuchTable"), "Focus.Timer.Countdown");
  EXPECT_EQ(localizedFormat("%@ %lld", {"x", 2}), "x 2");
}

}  // namespace
}  // namespace tarnwell

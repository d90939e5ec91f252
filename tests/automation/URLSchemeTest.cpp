// Deep links: their written form letter for letter, the widget context both
// ways (with its required asymmetry), the fatal join, and reading back.

#include <gtest/gtest.h>

#include "support/TestEnvironment.h"
#include "tarnwell/automation/URLScheme.h"

namespace tarnwell {
namespace {

using Link = URLScheme;

class URLSchemeTest : public testing::EnvironmentTest {
 protected:
  void playPlatform(int version) {
    auto configuration = env.configuration();
    configuration.device.platformVersion = version;
    Environment::install(std::make_unique<Environment>(configuration));
  }
  static URLParameters pairs(const Link& link) { return link.parameters().value_or(URLParameters{}); }
};

TEST_F(URLSchemeTest, TheDesignsExamplesHoldExactly) {
  EXPECT_EQ(Link(Link::OpenFromWidget{}).url().absoluteString(), "tarnwell://x-callback-url/open-from-widget");
  EXPECT_FALSE(Link(Link::OpenFromWidget{}).parameters().has_value());
  EXPECT_FALSE(Link(Link::ScheduleList{}).parameters().has_value());
  EXPECT_FALSE(Link(Link::StopLullTimeBreak{}).parameters().has_value());
  EXPECT_EQ(Link(Link::StopLullTimeBreak{}).url().absoluteString(), "tarnwell://x-callback-url/stop-lulltime-break");

  const Link allTags = Link::ViewFocus{TagType::all(), std::nullopt, std::nullopt};
  EXPECT_EQ(pairs(allTags), (URLParameters{{"tagId", "All"}, {"dateRange", "week"}}));
  EXPECT_EQ(allTags.action(), "view-focus-time");
  EXPECT_EQ(Link(Link::ViewFocus{TagType::tag("T1"), StatisticsDateRange::year, std::nullopt}).parameters(),
            (URLParameters{{"tagId", "T1"}, {"dateRange", "year"}}));
  // Without a tag the range is not written either; an empty map gives no "?".
  EXPECT_EQ(pairs(Link::ViewFocus{std::nullopt, StatisticsDateRange::day, std::nullopt}), URLParameters{});
  EXPECT_EQ(Link(Link::ViewFocus{}).url().absoluteString(), "tarnwell://x-callback-url/view-focus-time");

  const WidgetContext small("ScreenTime", WidgetFamily::systemSmall);
  EXPECT_EQ(pairs(Link::ViewScreenTime{std::nullopt, StatisticsDateRange::month, small}),
            (URLParameters{{"widget_name", "ScreenTime"}, {"widget_family", "small"}}));
  EXPECT_EQ(pairs(Link::ViewScreenTime{ScreenTimeDataType::Case::walkingLife, std::nullopt, std::nullopt}),
            (URLParameters{{"type", "walkingLife"}, {"dateRange", "week"}}));

  EXPECT_EQ(pairs(Link::ShareFocus{std::nullopt, std::nullopt, 0.5, 1800}),
            (URLParameters{{"progress", "0.5"}, {"goal", "1800.0"}}));
  EXPECT_EQ(pairs(Link::ShareFocus{"A1", "F1", 60, 60}),
            (URLParameters{{"progress", "60.0"}, {"goal", "60.0"}, {"focusID", "F1"}, {"activityID", "A1"}}));

  EXPECT_EQ(pairs(Link::CurrentFocus{CurrentFocusAction::startBreak}), (URLParameters{{"action", "startBreak"}}));
  EXPECT_EQ(pairs(Link::CurrentFocus{CurrentFocusAction::skipBreak}), (URLParameters{{"action", "skipBreak"}}));
  EXPECT_EQ(pairs(Link::StartFocusPopup{widgets::AbstractFocusType::addTime, std::nullopt}),
            (URLParameters{{"focusType", "addTime"}}));
  EXPECT_EQ(Link(Link::StartFocus{}).parameters(), URLParameters{});
  EXPECT_EQ(URLScheme::schemeURL().absoluteString(), "tarnwell://");
}

TEST_F(URLSchemeTest, PairsAreJoinedUnescapedAndEveryActionWordIsFixed) {
  const Link link = Link::StartFocus{"T-1", WidgetContext("Focus", WidgetFamily::accessoryInline)};
  EXPECT_EQ(link.text(), "tarnwell://x-callback-url/start-focus?tagId=T-1&widget_family=inline&widget_name=Focus");
  // A reader must take the pairs in any order.
  const auto url = URL::parse("tarnwell://x-callback-url/start-focus?widget_name=Focus&tagId=T-1&widget_family=inline");
  EXPECT_EQ(Link::fromURL(*url), link);

  const std::vector<std::pair<Link, std::string_view>> actions = {
      {Link::OpenFromWidget{}, "open-from-widget"},
      {Link::ViewScreenTime{}, "view-screen-time"},
      {Link::ViewFocus{}, "view-focus-time"},
      {Link::StartFocus{}, "start-focus"},
      {Link::StartFocusPopup{}, "start-focus-popup"},
      {Link::CurrentFocus{}, "current-focus"},
      {Link::ShareFocus{}, "share-focus"},
      {Link::ScheduleList{}, "schedule-list"},
      {Link::StopLullTimeBreak{}, "stop-lulltime-break"},
  };
  for (const auto& [value, word] : actions) EXPECT_EQ(value.action(), word);
}

TEST_F(URLSchemeTest, TextThatIsNotURLSafeStopsTheProcess) {
  const Link blank = Link::StartFocus{"my tag", std::nullopt};
  EXPECT_EQ(blank.text(), "tarnwell://x-callback-url/start-focus?tagId=my tag");
  EXPECT_FALSE(URL::parse(blank.text()));
  EXPECT_DEATH((void)blank.url(), "not URL-safe");
  EXPECT_DEATH((void)Link(Link::ShareFocus{"ä", std::nullopt, 1, 2}).url(), "not URL-safe");
  // "%" must begin an escape.
  EXPECT_DEATH((void)Link(Link::StartFocus{"100%", std::nullopt}).url(), "not URL-safe");
}

TEST_F(URLSchemeTest, OnlyValuesThatReadBackAsThemselvesMakeALink) {
  // Each of these parses as a URL once joined, but would not come back as
  // the value: a tag id could forge a widget context, an escape is undone.
  for (const char* value : {"T1&widget_name=Forged&widget_family=small", "a=b", "a#b", "a?b", "100%25", "[1]"}) {
    EXPECT_FALSE(Link::isSafeValue(value)) << value;
    const Link link = Link::StartFocus{value, std::nullopt};
    EXPECT_TRUE(URL::parse(link.text())) << value;
    EXPECT_DEATH((void)link.url(), "not URL-safe") << value;
  }
  EXPECT_DEATH((void)Link(Link::OpenFromWidget{WidgetContext("W&tagId=X", WidgetFamily::systemSmall)}).url(),
               "not URL-safe");
  const std::string allowed = "AZaz09-._~!$'()*+,;:@/";
  EXPECT_TRUE(Link::isSafeValue(allowed));
  const Link link = Link::StartFocus{allowed, WidgetContext(allowed, WidgetFamily::systemMedium)};
  EXPECT_EQ(Link::fromURL(link.url()), link);
}

TEST_F(URLSchemeTest, FamilyWordsAndTheirPlatformVersions) {
  const std::pair<WidgetFamily, const char*> words[] = {
      {WidgetFamily::systemSmall, "small"},
      {WidgetFamily::systemMedium, "medium"},
      {WidgetFamily::systemLarge, "large"},
      {WidgetFamily::systemExtraLarge, "extra_large"},
      {WidgetFamily::accessoryCorner, "corner"},
      {WidgetFamily::accessoryCircular, "circular"},
      {WidgetFamily::accessoryRectangular, "rectangular"},
      {WidgetFamily::accessoryInline, "inline"},
      {WidgetFamily::systemExtraLargePortrait, "unknown"},
  };
  for (const auto& [family, word] : words) EXPECT_EQ(WidgetContext("W", family).familyName(), word);

  WidgetContext nameless("W", WidgetFamily::systemSmall);
  nameless.familyRaw = 99;
  EXPECT_FALSE(nameless.family());
  EXPECT_EQ(nameless.familyName(), "nil");
  EXPECT_EQ(nameless.parameters().at("widget_family"), "nil");

  playPlatform(13);
  EXPECT_EQ(WidgetContext("W", WidgetFamily::systemMedium).familyName(), "nil");
}

TEST_F(URLSchemeTest, StandByWinsOverControlAndReadsBackAlone) {
  WidgetContext both("Clock", WidgetFamily::systemLarge, true);
  both.isControl = true;
  EXPECT_EQ(both.parameters().at("widget_family"), "stand_by");
  const auto back = WidgetContext::fromParameters(both.parameters());
  ASSERT_TRUE(back);
  EXPECT_TRUE(back->isStandBy);
  EXPECT_FALSE(back->isControl);
  EXPECT_EQ(back->family(), WidgetFamily::systemSmall);

  const auto control = WidgetContext::control("Start");
  EXPECT_EQ(control.parameters(), (URLParameters{{"widget_name", "Start"}, {"widget_family", "control"}}));
  EXPECT_EQ(WidgetContext::fromParameters(control.parameters()), control);
}

TEST_F(URLSchemeTest, ReadingAContextNeverFailsOnItsFamilyWord) {
  const auto read = [](const std::string& word) {
    return WidgetContext::fromParameters({{"widget_name", "W"}, {"widget_family", word}});
  };
  EXPECT_EQ(read("medium")->family(), WidgetFamily::systemMedium);
  EXPECT_EQ(read("extra_large")->family(), WidgetFamily::systemExtraLarge);
  EXPECT_EQ(read("rectangular")->family(), WidgetFamily::accessoryRectangular);
  // Written, never read back: the asymmetry is required.
  const WidgetContext corner("W", WidgetFamily::accessoryCorner);
  EXPECT_EQ(corner.parameters().at("widget_family"), "corner");
  EXPECT_EQ(WidgetContext::fromParameters(corner.parameters())->family(), WidgetFamily::systemSmall);
  for (const char* word : {"unknown", "nil", "gigantic", ""}) EXPECT_EQ(read(word)->familyRaw, 0) << word;

  EXPECT_FALSE(WidgetContext::fromParameters({}));
  EXPECT_FALSE(WidgetContext::fromParameters({{"widget_name", "W"}}));
  EXPECT_FALSE(WidgetContext::fromParameters({{"widget_family", "small"}}));

  // Words the platform is too old for read as small.
  playPlatform(15);
  EXPECT_EQ(read("extra_large")->family(), WidgetFamily::systemExtraLarge);
  EXPECT_EQ(read("inline")->family(), WidgetFamily::systemSmall);
  playPlatform(14);
  EXPECT_EQ(read("extra_large")->family(), WidgetFamily::systemSmall);
  EXPECT_EQ(read("large")->family(), WidgetFamily::systemLarge);
  playPlatform(13);
  EXPECT_EQ(read("large")->familyRaw, 0);
  EXPECT_TRUE(read("control")->isControl);
}

TEST_F(URLSchemeTest, EveryCaseReadsBackAsWritten) {
  const WidgetContext medium("Summary", WidgetFamily::systemMedium);
  const std::vector<Link> links = {
      Link::OpenFromWidget{medium},
      Link::OpenFromWidget{},
      Link::ViewScreenTime{ScreenTimeDataType::Case::sleepTime, StatisticsDateRange::month, medium},
      Link::ViewFocus{TagType::tag("5E2A"), StatisticsDateRange::day, std::nullopt},
      Link::ViewFocus{TagType::all(), StatisticsDateRange::week, WidgetContext::control("Focus")},
      Link::StartFocus{"working", medium},
      Link::StartFocusPopup{widgets::AbstractFocusType::countdown, std::nullopt},
      Link::CurrentFocus{CurrentFocusAction::resume},
      Link::ShareFocus{"A", "F", 0.1, 1500},
      Link::ScheduleList{medium},
      Link::StopLullTimeBreak{},
  };
  for (const auto& link : links) {
    const auto back = Link::fromURL(link.url());
    ASSERT_TRUE(back) << link.text();
    EXPECT_EQ(*back, link) << link.text();
  }
  // What the written form drops stays dropped.
  const Link rangeOnly = Link::ViewScreenTime{std::nullopt, StatisticsDateRange::year, std::nullopt};
  EXPECT_EQ(Link::fromURL(rangeOnly.url()), Link(Link::ViewScreenTime{}));
}

TEST_F(URLSchemeTest, ALinkTheAppCannotReadGivesNoValue) {
  for (const char* text : {
           "https://x-callback-url/open-from-widget",
           "tarnwell://elsewhere/open-from-widget",
           "tarnwell://x-callback-url/open-the-door",
           "tarnwell://x-callback-url/current-focus?action=Pause",
           "tarnwell://x-callback-url/current-focus",
           "tarnwell://x-callback-url/start-focus-popup?focusType=sprint",
           "tarnwell://x-callback-url/share-focus?progress=1.0",
           "tarnwell://x-callback-url/share-focus?progress=1.0&goal=ten",
           "tarnwell://x-callback-url/view-screen-time?type=Pickups&dateRange=week",
       }) {
    const auto url = URL::parse(text);
    ASSERT_TRUE(url) << text;
    EXPECT_FALSE(Link::fromURL(*url)) << text;
  }
  EXPECT_EQ(currentFocusActionFromRawValue("stop"), CurrentFocusAction::stop);
  EXPECT_FALSE(currentFocusActionFromRawValue("Stop"));
}

}  // namespace
}  // namespace tarnwell

// URL: what parses as a link, and its parts.

#include "tarnwell/platform/URL.h"

#include <gtest/gtest.h>

namespace tarnwell {
namespace {

TEST(URLTest, PartsOfALinkAndWhatIsNotOne) {
  const auto url = URL::parse("tarnwell://x-callback-url/share-focus?progress=0.5&goal=%31&flag#end");
  ASSERT_TRUE(url);
  EXPECT_EQ(url->scheme(), "tarnwell");
  EXPECT_EQ(url->host(), "x-callback-url");
  EXPECT_EQ(url->path(), "/share-focus");
  EXPECT_EQ(url->query(), "progress=0.5&goal=%31&flag");
  EXPECT_EQ(url->queryItems(),
            (std::vector<std::pair<std::string, std::string>>{{"progress", "0.5"}, {"goal", "1"}, {"flag", ""}}));
  EXPECT_EQ(URL::parse("tarnwell://")->host(), "");
  EXPECT_FALSE(URL::parse("tarnwell://x-callback-url/open-from-widget")->query());
  for (const char* bad : {"", "no scheme", "1x://a", "://a", "a:b c", "a:b\"", "a:{}", "a:%zz", "a:%4", "a:#1#2"}) {
    EXPECT_FALSE(URL::parse(bad)) << bad;
  }
}

}  // namespace
}  // namespace tarnwell

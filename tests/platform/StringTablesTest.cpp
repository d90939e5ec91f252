// The translated tables against the English one, read from the source tree,
// and through the library to show they are compiled in.

#include <gtest/gtest.h>

#include <algorithm>
#include <fstream>
#include <nlohmann/json.hpp>
#include <string>
#include <string_view>
#include <vector>

#include "support/TestEnvironment.h"
#include "tarnwell/platform/Localization.h"

namespace tarnwell {
namespace {

const std::vector<std::string> kLanguages = {"de", "es", "fr", "ja", "zh"};

// Every table of a language: the library's texts and the host's words.
nlohmann::json tables(const std::string& language) {
  std::ifstream file(std::string(TARNWELL_STRINGS) + "/" + language + ".json");
  EXPECT_TRUE(file) << language;
  return nlohmann::json::parse(file);
}

// The conversions of a printf format, as written, sorted: "%@" and "%lld"
// are different arguments, and "%%" is no argument at all.
std::vector<std::string> placeholders(std::string_view text) {
  std::vector<std::string> found;
  for (std::size_t i = 0; i < text.size(); ++i) {
    if (text[i] != '%') continue;
    if (i + 1 < text.size() && text[i + 1] == '%') {
      ++i;
      continue;
    }
    std::size_t end = i + 1;
    while (end < text.size() &&
           std::string_view("0123456789$.-+ #'hlLqjzt").find(text[end]) != std::string_view::npos) {
      ++end;
    }
    found.emplace_back(text.substr(i, std::min(end + 1, text.size()) - i));
    i = end;
  }
  std::sort(found.begin(), found.end());
  return found;
}

std::size_t codePoints(std::string_view text) {
  return std::count_if(text.begin(), text.end(), [](char c) { return (static_cast<unsigned char>(c) & 0xC0) != 0x80; });
}

TEST(StringTablesTest, PlaceholdersParseAsPrintfDoes) {
  using List = std::vector<std::string>;
  EXPECT_EQ(placeholders("%1$@ and %2$lld more"), (List{"%1$@", "%2$lld"}));
  EXPECT_EQ(placeholders("%.1f%% of %d"), (List{"%.1f", "%d"}));
  EXPECT_EQ(placeholders("%@ %@"), (List{"%@", "%@"}));
  EXPECT_NE(placeholders("%lld times"), placeholders("%d times"));
}

TEST(StringTablesTest, EveryLanguageHasTheEnglishKeysWithTheirPlaceholders) {
  const auto english = tables("en");
  ASSERT_TRUE(english.contains("Localizable"));
  for (const auto& language : kLanguages) {
    SCOPED_TRACE(language);
    const auto all = tables(language);
    for (const auto& [name, table] : all.items()) EXPECT_TRUE(english.contains(name)) << "extra table " << name;
    for (const auto& [name, table] : english.items()) {
      SCOPED_TRACE(name);
      const auto translated = all.value(name, nlohmann::json::object());
      for (const auto& [key, text] : table.items()) {
        if (!translated.contains(key)) {
          ADD_FAILURE() << "missing " << key;
          continue;
        }
        const auto mine = translated.at(key).get<std::string>();
        EXPECT_FALSE(mine.empty()) << key;
        EXPECT_EQ(placeholders(mine), placeholders(text.get<std::string>())) << key << ": " << mine;
      }
      for (const auto& [key, text] : translated.items()) EXPECT_TRUE(table.contains(key)) << "extra " << key;
    }
    // Each weekday takes one letter of it; a short string stops the app.
    EXPECT_EQ(codePoints(all.at("Localizable").at("Weekday.veryShortSymbols").get<std::string>()), 7u);
  }
}

TEST(StringTablesTest, TheLibraryReadsEachLanguageFromItsOwnTable) {
  const std::vector<std::string> locales = {"de_DE", "es_ES", "fr_FR", "ja_JP", "zh_CN"};
  const auto english = tables("en").at("Localizable");
  for (std::size_t i = 0; i < kLanguages.size(); ++i) {
    SCOPED_TRACE(locales[i]);
    testing::TestEnvironment env({.locale = locales[i]});
    const auto translated = tables(kLanguages[i]).at("Localizable");
    for (const char* key : {"ScreenTime.ScreenTime", "DateTime.Today", "Weekday.Everyday"}) {
      EXPECT_EQ(localized(key), translated.at(key).get<std::string>()) << key;
      EXPECT_NE(localized(key), english.at(key).get<std::string>()) << key;
    }
  }
}

}  // namespace
}  // namespace tarnwell

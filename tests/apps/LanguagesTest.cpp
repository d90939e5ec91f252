// What a person reads in German or Japanese holds no English: every command
// that shows a demo installation, its text output and its report, against
// the English words of the string tables.

#include <gtest/gtest.h>

#include <cctype>
#include <fstream>
#include <nlohmann/json.hpp>
#include <regex>
#include <set>
#include <sstream>

#include "support/CliProcess.h"
#include "support/TestEnvironment.h"

namespace tarnwell {
namespace {

// The runs of Latin letters, lower-cased; a character of another script
// ends a word as a blank does, so "Tarnwellレポート" holds "tarnwell".
std::vector<std::string> latinWords(const std::string& text) {
  std::vector<std::string> found(1);
  for (std::size_t i = 0; i < text.size(); ++i) {
    const auto byte = static_cast<unsigned char>(text[i]);
    if (std::isalpha(byte)) {
      found.back() += static_cast<char>(std::tolower(byte));
    } else if (byte >= 0xC3 && byte <= 0xC5 && i + 1 < text.size()) {  // "ä", "é", "ñ", "œ"
      found.back() += text.substr(i++, 2);
    } else if (!found.back().empty()) {
      found.emplace_back();
    }
  }
  if (found.back().empty()) found.pop_back();
  return found;
}

std::set<std::string> wordsOfTables(const std::string& language) {
  std::ifstream file(std::filesystem::path(TARNWELL_README).parent_path() / "resources" / "strings" /
                     (language + ".json"));
  const auto tables = nlohmann::json::parse(file);
  std::set<std::string> words;
  for (const auto& [name, table] : tables.items()) {
    for (const auto& [key, text] : table.items()) {
      for (auto& word : latinWords(text.get<std::string>())) words.insert(std::move(word));
    }
  }
  return words;
}

// The English words of four letters or more that the language does not
// share: "Limit" and "Pomodoro" are German too.
std::set<std::string> englishWordsFor(const std::string& language) {
  const auto theirs = wordsOfTables(language);
  std::set<std::string> english;
  for (const auto& word : wordsOfTables("en")) {
    if (word.size() >= 4 && !theirs.contains(word)) english.insert(word);
  }
  return english;
}

// The text of a page, without its style, its tags and their attributes.
std::string pageText(std::string html) {
  html.erase(html.find("<style>"), html.find("</style>") - html.find("<style>"));
  std::string text;
  bool inTag = false;
  for (const char c : html) {
    if (c == '<' || c == '>') {
      inTag = c == '<';
      text += ' ';
    } else if (!inTag) {
      text += c;
    }
  }
  return text;
}

class LanguagesTest : public ::testing::TestWithParam<const char*> {
 protected:
  testing::Outcome run(const std::string& arguments) {
    return testing::runShell(
        "cd '" + folder.path().string() + "' && XDG_DATA_HOME='" + (folder.path() / "xdg").string() + "' '" +
            testing::tarnwellBinary() + "' --container '" + (folder.path() / "phone").string() +
            "' --now 2026-11-25T20:00:00Z --tz Europe/Berlin --locale " + GetParam() + " " + arguments,
        folder.path());
  }
  testing::TemporaryFolder folder;
};

TEST_P(LanguagesTest, NoEnglishWordIsLeftInWhatTheCommandsPrint) {
  const std::string locale = GetParam();
  const auto english = englishWordsFor(locale.substr(0, 2));
  const testing::Outcome demo = run("demo");
  ASSERT_EQ(demo.status, 0) << demo.err;
  // Names, not words: what the devices are called, the tags' ids
  // ("default"), and the record types the unsent changes are counted by
  // ("Pickup 1769").
  std::vector<std::string> names;
  for (const auto& device : nlohmann::json::parse(run("--json device list").out)) {
    if (device["name"].is_string() && !device["name"].get<std::string>().empty()) names.push_back(device["name"]);
  }
  for (const auto& tag : nlohmann::json::parse(run("--json tag list").out)) names.push_back(tag["id"]);
  const std::regex recordCounts("(Device|Focus|Pickup|Tag|Walk) [0-9]+");
  for (const std::string command :
       {"demo", "day", "summary", "streaks", "chart screenTime --range week", "chart pickups --range day", "tag list",
        "focus list", "sync status", "report --out report.html"}) {
    const testing::Outcome result = command == "demo" ? demo : run(command);
    ASSERT_EQ(result.status, 0) << command << ": " << result.err;
    std::istringstream lines(command.starts_with("report") ? pageText(testing::readFile(folder.path() / "report.html"))
                                                           : result.out);
    std::set<std::string> reported;
    for (std::string line; std::getline(lines, line);) {
      // The demo's suggestions are commands to type, in the host's own names.
      if (line.find(testing::tarnwellBinary()) != std::string::npos) continue;
      std::string words = std::regex_replace(line, recordCounts, "");
      for (const auto& name : names) {
        for (auto at = words.find(name); at != std::string::npos; at = words.find(name)) words.erase(at, name.size());
      }
      for (const auto& word : latinWords(words)) {
        if (english.contains(word) && reported.insert(word).second) {
          ADD_FAILURE() << command << " in " << locale << " says \"" << word << "\": " << line;
        }
      }
    }
  }
}

// Help and refusals come before any installation is opened, in the
// language of --locale all the same. What the user types stays as it is:
// options, argument names, commands and values are taken out first.
TEST_P(LanguagesTest, HelpAndRefusalsSpeakTheLanguage) {
  const std::string locale = GetParam();
  const auto english = englishWordsFor(locale.substr(0, 2));
  const std::regex typed(
      R"(--?[A-Za-z][-A-Za-z0-9_]*|\b[A-Z][A-Z_:]+\b|^  +\S+|"[^"]*"|`[^`]*`|tarnwell( [a-z][-a-zA-Z]*)*)");
  for (const std::string command :
       {"--help", "day --help", "chart --help", "cloud --help", "focus add --help", "bogus", "day --bogus",
        "summary --count 0", "chart nosuch", "day 2026-02-30", "--tz", "tag add", "import .",
        "chart screenTime --range weird", "report --from 2026-11-20 --to 2026-11-10 --out r.html"}) {
    const testing::Outcome result = run(command);
    const bool help = command.ends_with("--help");
    if (help) {
      ASSERT_EQ(result.status, 0) << command << ": " << result.err;
    } else {
      ASSERT_NE(result.status, 0) << command;
    }
    const std::string text = help ? result.out : result.err;
    ASSERT_FALSE(text.empty()) << command;
    std::istringstream lines(text);
    for (std::string line; std::getline(lines, line);) {
      for (const auto& word : latinWords(std::regex_replace(line, typed, " "))) {
        if (english.contains(word))
          ADD_FAILURE() << command << " in " << locale << " says \"" << word << "\": " << line;
      }
    }
  }
}

INSTANTIATE_TEST_SUITE_P(GermanAndJapanese, LanguagesTest, ::testing::Values("de_DE", "ja_JP"));

}  // namespace
}  // namespace tarnwell

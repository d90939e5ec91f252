// The host's help and refusals are keyed by their English in the tables
// "Help" and "Errors": a text the English table lacks would reach every
// language in English, so each one the code can show must be a key there.
// (StringTablesTest holds every language to the English tables' keys.)

#include <gtest/gtest.h>

#include <fstream>
#include <nlohmann/json.hpp>
#include <regex>
#include <set>

#include "Cli.h"
#include "support/CliProcess.h"

namespace tarnwell {
namespace {

const std::filesystem::path kSources = std::filesystem::path(TARNWELL_README).parent_path();

std::set<std::string> englishKeys(const std::string& table) {
  std::ifstream file(kSources / "resources" / "strings" / "en.json");
  const auto tables = nlohmann::json::parse(file);
  std::set<std::string> keys;
  for (const auto& [key, text] : tables.at(table).items()) keys.insert(key);
  return keys;
}

void collectHelp(CLI::App& app, std::set<std::string>& texts) {
  texts.insert(app.get_description());
  texts.insert(app.get_group());
  for (const auto* option : app.get_options()) {
    texts.insert(option->get_description());
    texts.insert(option->get_group());
  }
  for (auto* command : app.get_subcommands([](CLI::App*) { return true; })) collectHelp(*command, texts);
}

// The string literal starting at `at` and those adjacent to it, joined and
// unescaped as the compiler does; `at` moves past them.
std::string literalAt(const std::string& source, std::size_t& at) {
  std::string text;
  while (at < source.size() && source[at] == '"') {
    for (++at; at < source.size() && source[at] != '"'; ++at) {
      if (source[at] == '\\') {
        ++at;
        text += source[at] == 'n' ? '\n' : source[at];
      } else {
        text += source[at];
      }
    }
    ++at;
    while (at < source.size() && std::isspace(static_cast<unsigned char>(source[at]))) ++at;
  }
  return text;
}

TEST(CatalogTest, EveryTextOfTheHelpIsAKey) {
  CLI::App app{"tarnwell: screen time, pickups, sleep and focus from the events of a phone's use"};
  cli::GlobalOptions options;
  cli::Action action;
  cli::addGlobalOptions(app, options);
  cli::addCommands(app, options, action);
  std::set<std::string> texts;
  collectHelp(app, texts);
  texts.erase("");
  const auto keys = englishKeys("Help");
  for (const auto& text : texts) EXPECT_TRUE(keys.contains(text)) << "\"Help\" has no " << nlohmann::json(text);
  EXPECT_GT(texts.size(), 200u);
}

// Every literal the code hands to refusal(), errorWords(), to refuse() as
// what a value should have been, to the sentences CLI11's messages become
// (Words.cpp), or as the import reader's problems (Import.cpp).
TEST(CatalogTest, EveryRefusalIsAKey) {
  const auto keys = englishKeys("Errors");
  const std::regex call(
      R"((refusal|errorWords)\(\s*"|refuse\([^;]*?,\s*"|sentence\("(?:[^"\\]|\\.)*",\s*"|\bbad\(\s*"|ImportFormatError\(\s*\{\s*")");
  std::size_t found = 0;
  for (const auto& entry : std::filesystem::directory_iterator(kSources / "apps" / "tarnwell")) {
    const std::string source = testing::readFile(entry.path());
    for (auto match = std::sregex_iterator(source.begin(), source.end(), call); match != std::sregex_iterator();
         ++match) {
      std::size_t at = static_cast<std::size_t>(match->position() + match->length()) - 1;
      const std::string key = literalAt(source, at);
      // refuse()'s value phrase is its last argument; an earlier literal is a name.
      if (match->str().starts_with("refuse") && source[at] != ')') continue;
      ++found;
      EXPECT_TRUE(keys.contains(key)) << entry.path().filename() << ": \"Errors\" has no " << nlohmann::json(key);
    }
  }
  EXPECT_GT(found, 60u);
}

}  // namespace
}  // namespace tarnwell

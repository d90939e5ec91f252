// The README's list of commands against the commands `tarnwell --help`
// shows: every command and subcommand is named there, and every command it
// names is one the host has.

#include <gtest/gtest.h>

#include <algorithm>
#include <cctype>
#include <map>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "support/CliProcess.h"
#include "support/TestEnvironment.h"

namespace tarnwell {
namespace {

// A command as words ("sync records"), and the names of its subcommands.
using Commands = std::map<std::string, std::set<std::string>>;

class ReadmeTest : public ::testing::Test {
 protected:
  // The subcommands a command's help lists: the names at the start of the
  // lines under "Subcommands:".
  std::set<std::string> subcommandsOf(const std::string& command) {
    const testing::Outcome help = testing::runShell("XDG_DATA_HOME='" + (folder.path() / "xdg").string() + "' '" +
                                                        testing::tarnwellBinary() + "' " + command + " --help",
                                                    folder.path());
    EXPECT_EQ(help.status, 0) << command << ": " << help.err;
    std::set<std::string> names;
    std::istringstream lines(help.out);
    bool listed = false;
    for (std::string line; std::getline(lines, line);) {
      if (line == "Subcommands:") {
        listed = true;
      } else if (listed && line.size() > 2 && line.starts_with("  ") && line[2] != ' ') {
        names.insert(line.substr(2, line.find(' ', 2) - 2));
      } else if (listed && !line.starts_with(" ")) {
        listed = false;
      }
    }
    return names;
  }

  // Every command under `command`, itself included, by walking the helps.
  void collect(const std::string& command, Commands& commands) {
    const auto names = subcommandsOf(command);
    commands[command] = names;
    for (const auto& name : names) collect(command.empty() ? name : command + " " + name, commands);
  }

  testing::TemporaryFolder folder;
};

// The command reference: the section on the host, up to the next section of
// the same level, without its fenced blocks.
std::string commandReference() {
  const std::string readme = testing::readFile(TARNWELL_README);
  const auto start = readme.find("\n## The `tarnwell` command");
  const auto end = readme.find("\n## ", start + 1);
  std::istringstream lines(readme.substr(start, end - start));
  std::string text;
  bool fenced = false;
  for (std::string line; std::getline(lines, line);) {
    if (line.starts_with("```")) {
      fenced = !fenced;
    } else if (!fenced) {
      text += line + "\n";
    }
  }
  return text;
}

// The words of each `code span`, each word's alternatives split at "|":
// `walk add|edit|list` is {{"walk"}, {"add", "edit", "list"}}.
std::vector<std::vector<std::vector<std::string>>> codeSpans(const std::string& text) {
  std::vector<std::vector<std::vector<std::string>>> spans;
  for (auto open = text.find('`'); open != std::string::npos; open = text.find('`', open + 1)) {
    const auto close = text.find('`', open + 1);
    if (close == std::string::npos) break;
    std::istringstream words(text.substr(open + 1, close - open - 1));
    open = close;
    std::vector<std::vector<std::string>> split;
    for (std::string word; words >> word;) {
      std::vector<std::string> alternatives;
      std::istringstream choices(word);
      for (std::string choice; std::getline(choices, choice, '|');) {
        if (!choice.empty()) alternatives.push_back(choice);
      }
      split.push_back(alternatives);
    }
    if (!split.empty() && !split[0].empty()) spans.push_back(split);
  }
  return spans;
}

// A word the README writes for a subcommand, not for an argument or option.
bool looksLikeName(const std::string& word) {
  return !word.empty() && std::islower(static_cast<unsigned char>(word[0])) &&
         std::all_of(word.begin(), word.end(),
                     [](char c) { return std::islower(static_cast<unsigned char>(c)) || c == '-'; });
}

TEST_F(ReadmeTest, EveryCommandIsNamedInTheReferenceAndEveryNamedOneExists) {
  Commands commands;
  collect("", commands);
  const auto& topLevel = commands.at("");
  ASSERT_GT(topLevel.size(), 20u) << "the helps were not read";
  ASSERT_TRUE(commands.contains("sync records"));

  const std::string reference = commandReference();
  ASSERT_FALSE(reference.empty());
  const auto spans = codeSpans(reference);
  std::set<std::string> named;
  for (const auto& span : spans) {
    if (!topLevel.contains(span[0][0]) || span[0].size() != 1) continue;
    // Walks down the span's words while they name subcommands: each is
    // named, and a word that looks like one but is none is a mistake.
    std::vector<std::string> parents{span[0][0]};
    named.insert(span[0][0]);
    for (std::size_t i = 1; i < span.size() && !parents.empty(); ++i) {
      std::vector<std::string> children;
      for (const auto& parent : parents) {
        const auto& subcommands = commands.at(parent);
        if (subcommands.empty()) continue;
        for (const auto& word : span[i]) {
          if (!looksLikeName(word)) continue;
          EXPECT_TRUE(subcommands.contains(word)) << "the README names `" << parent << " " << word << "`";
          if (!subcommands.contains(word)) continue;
          named.insert(parent + " " + word);
          children.push_back(parent + " " + word);
        }
      }
      parents = children;
    }
  }
  for (const auto& [command, subcommands] : commands) {
    if (command.empty()) continue;
    EXPECT_TRUE(named.contains(command)) << "the README does not name `" << command << "`";
  }

  // Each entry of the list opens with a command.
  std::istringstream lines(reference);
  for (std::string line; std::getline(lines, line);) {
    if (!line.starts_with("- `")) continue;
    const std::string first = line.substr(3, line.find_first_of(" `|", 3) - 3);
    EXPECT_TRUE(topLevel.contains(first)) << "an entry of the README is for `" << first << "`: " << line;
  }
}

}  // namespace
}  // namespace tarnwell

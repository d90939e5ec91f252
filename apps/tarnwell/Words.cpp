// The host's words in the user's language: its tables, the help of every
// command, and CLI11's complaints about the arguments.

#include <cstring>
#include <regex>

#include "Cli.h"
#include "tarnwell/platform/Region.h"

namespace tarnwell::cli {
namespace {

// Until an installation is open, the language speakAs() found.
std::string& languageBeforeOpening() {
  static std::string language = Region::system().languageCode();
  return language;
}

std::string language() {
  if (const auto* environment = Environment::currentIfInstalled()) return environment->region().languageCode();
  return languageBeforeOpening();
}

std::string inTable(std::string_view english, std::string_view table) {
  return english.empty() ? std::string() : localizedIn(language(), english, table);
}

std::string help(const std::string& english) { return inTable(english, "Help"); }

// CLI11's own words in its help: the headings and the kinds of values.
constexpr std::string_view kHelpLabels[] = {"Usage", "OPTIONS", "Positionals", "SUBCOMMAND", "SUBCOMMANDS", "TEXT",
                                            "INT",   "UINT",    "FLOAT",       "REQUIRED",   "Needs",       "Excludes"};

// CLI11 pads the option column by bytes; a Japanese kind of value or an
// accented label would push its description out of line.
class HelpFormatter : public CLI::Formatter {
 public:
  std::string make_option(const CLI::Option* option, bool positional) const override {
    const std::string name = "  " + make_option_name(option, positional) + make_option_opts(option);
    const std::string description = make_option_desc(option);
    const std::size_t width = get_column_width();
    std::string out = description.empty() ? name : padded(name, width);
    if (!description.empty() && columnsOf(name) >= width) out = name + "\n" + std::string(width, ' ');
    for (const char c : description) {
      out += c;
      if (c == '\n') out += std::string(width, ' ');
    }
    return out + "\n";
  }
};

void translateCommand(CLI::App& app, const std::shared_ptr<CLI::Formatter>& formatter) {
  app.formatter(formatter);
  app.description(help(app.get_description()));
  app.group(help(app.get_group()));
  for (auto* option : app.get_options()) {
    option->description(help(option->get_description()));
    option->group(help(option->get_group()));
  }
  for (auto* command : app.get_subcommands([](CLI::App*) { return true; })) translateCommand(*command, formatter);
}

// The messages of CLI11 2.x for arguments that do not fit, each with the
// sentence of the table "Errors" it becomes; the captures are its arguments.
struct ParseMessage {
  std::regex pattern;
  std::string_view english;
};

const std::vector<ParseMessage>& parseMessages() {
  static const std::vector<ParseMessage> messages = [] {
    std::vector<ParseMessage> all;
    const auto sentence = [&all](const char* pattern, std::string_view english) {
      all.push_back({std::regex(pattern), english});
    };
    sentence("A subcommand is required", "a command is needed");
    sentence("The following arguments? (?:was|were) not expected: (.*)", "unexpected argument: %@");
    sentence("(.+): \\d+ required \\S+ missing", "%@ needs a value");
    sentence("(.+) is required", "%@ is needed");
    sentence("Could not convert: (.+) = (.*)", "%1$@: \"%2$@\" is not a value it takes");
    sentence("(.+) requires (.+)", "%1$@ needs %2$@");
    sentence("(.+) excludes (.+)", "%1$@ cannot be given with %2$@");
    sentence("Expected exactly \\d+ arguments? to (.+), got \\d+", "%@ takes one value");
    sentence("(.+): too many inputs for a flag", "%@ takes no value");
    sentence("(.+): Should be true/false or a number", "%@ takes no value");
    return all;
  }();
  return messages;
}

}  // namespace

std::string words(std::string_view key) { return localizedIn(language(), key, "Host"); }

std::string words(std::string_view key, std::initializer_list<FormatArgument> arguments) {
  return formatString(words(key), arguments);
}

void speakAs(const std::vector<std::string>& arguments) {
  std::optional<std::string> locale;
  for (std::size_t i = 0; i < arguments.size(); ++i) {
    const std::string& argument = arguments[i];
    if (argument == "--") break;
    if (argument == "--locale" && i + 1 < arguments.size()) locale = arguments[i + 1];
    if (argument.starts_with("--locale=")) locale = argument.substr(std::strlen("--locale="));
  }
  if (!locale) return;
  try {
    languageBeforeOpening() = Region(Region::system().timeZoneId(), *locale).languageCode();
  } catch (const std::invalid_argument&) {
    // Refused when the installation is opened; until then, the system's.
  }
}

InputError refusal(std::string_view english, std::initializer_list<FormatArgument> arguments) {
  return InputError(formatString(inTable(english, "Errors"), arguments));
}

std::string errorWords(std::string_view english) { return inTable(english, "Errors"); }

void translateHelp(CLI::App& app) {
  const auto formatter = std::make_shared<HelpFormatter>();
  for (const auto label : kHelpLabels) formatter->label(std::string(label), help(std::string(label)));
  translateCommand(app, formatter);
}

std::string describeParseError(const CLI::ParseError& error) {
  const std::string message = error.what();
  std::smatch match;
  for (const auto& known : parseMessages()) {
    if (!std::regex_match(message, match, known.pattern)) continue;
    const auto captured = [&match](std::size_t i) { return i < match.size() ? match[i].str() : std::string(); };
    return formatString(inTable(known.english, "Errors"), {captured(1), captured(2)});
  }
  return message;
}

}  // namespace tarnwell::cli

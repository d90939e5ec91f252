// The pieces the commands of `tarnwell` share: options, output and errors.

#pragma once

#include <CLI/CLI.hpp>
#include <filesystem>
#include <functional>
#include <nlohmann/json.hpp>
#include <optional>
#include <sstream>
#include <stdexcept>
#include <string>
#include <string_view>
#include <type_traits>
#include <utility>

#include "Limits.h"
#include "tarnwell/cloudkit/Records.h"
#include "tarnwell/platform/Base64.h"
#include "tarnwell/platform/Date.h"
#include "tarnwell/platform/Environment.h"
#include "tarnwell/platform/Localization.h"
#include "tarnwell/platform/Promise.h"
#include "tarnwell/platform/WidgetCenter.h"
#include "tarnwell/records/Properties.h"
#include "tarnwell/widgets/FocusType.h"

namespace tarnwell {
class EventsCombo;
class EventsOfDay;
struct StatisticsData;
}  // namespace tarnwell

namespace tarnwell::cli {

// The host's own words in the user's language: the table "Host" of the
// string resources, looked up as the library's texts are. Before an
// installation is open (help, the arguments' errors) they are in the
// language speakAs() chose.
std::string words(std::string_view key);
std::string words(std::string_view key, std::initializer_list<FormatArgument> arguments);

// The language of the host's words until an installation is open: that of
// the --locale among `arguments` (the command line as typed), else the
// system's.
void speakAs(const std::vector<std::string>& arguments);

// Bad input from the user: printed as one line, exit status 1, nothing written.
class InputError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// A refusal in the user's language. The tables "Errors" and "Help" are
// keyed by their English, as a message catalog is: `english` is the key and
// the format of `arguments`, so the code reads as the message does.
InputError refusal(std::string_view english, std::initializer_list<FormatArgument> arguments = {});
// A phrase of the table "Errors" in the user's language, for a part of a
// refusal ("day, week, month or year").
std::string errorWords(std::string_view english);

// Every description, group and label of `app`'s help, its subcommands'
// included, in the user's language (the table "Help").
void translateHelp(CLI::App& app);

// What CLI11 found wrong with the arguments, in the user's language; a
// message of a kind the table "Errors" does not know stays as CLI11 says it.
std::string describeParseError(const CLI::ParseError& error);

struct GlobalOptions {
  std::optional<std::string> container;
  std::optional<std::string> now;
  std::optional<std::string> timeZone;
  std::optional<std::string> locale;
  bool json = false;
};

// What the chosen subcommand does once the Environment is installed.
using Action = std::function<void()>;

// Where the commands print: the standard output, or what a Session
// captures while it runs a command for a library host.
std::ostream& standardOutput();

// While alive, what the commands print on this thread goes to `text()`.
class CapturedOutput {
 public:
  CapturedOutput();
  ~CapturedOutput();
  CapturedOutput(const CapturedOutput&) = delete;
  CapturedOutput& operator=(const CapturedOutput&) = delete;
  std::string text() const;

 private:
  std::ostringstream stream_;
  std::ostream* before_;
};

class Output {
 public:
  explicit Output(const GlobalOptions& options) : options_(options) {}
  bool json() const { return options_.json; }
  // Prints `value` as JSON on one line, or `text` when JSON was not asked for.
  void print(const nlohmann::ordered_json& value, const std::string& text) const;

 private:
  const GlobalOptions& options_;
};

// A JSON value as a person reads it: text without quotes, numbers as JSON
// writes them (18000.0), "null" for nothing, structures as compact JSON.
std::string plainText(const nlohmann::ordered_json& value);

// An interval as {"start", "end"} in ISO 8601.
inline nlohmann::ordered_json intervalJSON(const DateInterval& interval) {
  return {{"start", interval.start().iso8601()}, {"end", interval.end().iso8601()}};
}

// A value that may be missing: null then; instants and intervals in ISO 8601.
template <class T>
nlohmann::ordered_json optionalJSON(const std::optional<T>& value) {
  if (!value) return nullptr;
  if constexpr (std::is_same_v<T, Date>) {
    return value->iso8601();
  } else if constexpr (std::is_same_v<T, DateInterval>) {
    return intervalJSON(*value);
  } else {
    return *value;
  }
}

// An ISO 8601 instant in the current region's zone, from 1970-01-01 up to
// 2100-01-01 (UTC); InputError otherwise. Years beyond are typing mistakes,
// and the analytics would walk every day up to them.
Date parseInstant(std::string_view text);
// `date`, read from `text`, when it lies in that window; InputError otherwise.
Date checkInstant(std::string_view text, Date date);
// The instant given, or now when none was.
Date parseInstantOrNow(const std::optional<std::string>& text);
// InputError unless `end` is not before `start` and at most `longest`
// seconds after it.
void checkSpan(Date start, Date end, double longest);
// Two instants, the start not after the end, at most `longest` seconds apart.
std::pair<Date, Date> parseSpan(const std::string& start, const std::string& end, double longest = kLongestSeconds);

// --from and --to of a command that reads a stretch of time, each end open
// when left out. Held with the command's arguments: the options write here.
struct RangeOptions {
  std::optional<std::string> from, to;
  void addTo(CLI::App* command, const std::string& fromHelp = "ISO 8601 (default: any time)",
             const std::string& toHelp = "ISO 8601 (default: any time)");
  // Nothing when neither was given; InputError for a bad instant or a --from after --to.
  std::optional<DateInterval> parse() const;
};

// Option values; InputError naming the option `name` otherwise.
[[noreturn]] void refuse(const std::string& name, const std::string& text, const std::string& accepts);
// A finite number: "nan", "inf" and numbers beyond a double are refused.
double parseNumber(const std::string& name, const std::string& text);
// A finite number from `low` to `high`; `accepts` says what is taken.
double parseNumberIn(const std::string& name, const std::string& text, double low, double high,
                     const std::string& accepts);
// A number of seconds from 0 to `most`.
double parseSeconds(const std::string& name, const std::string& text, double most = kLongestSeconds);
bool parseBool(const std::string& name, const std::string& text);
// "pomodoro:SECONDS", "countdown:SECONDS", "addTime" or the JSON form.
widgets::FocusType parseFocusType(const std::string& name, const std::string& text);

// A widget family's word as links write it ("small", "extra_large", ...),
// and the family of such a word, refused under the option `name` otherwise.
std::string familyWord(WidgetFamily family);
WidgetFamily parseWidgetFamily(const std::string& name, const std::string& word);

// The ids asked for, or this device and the devices it merges with.
std::vector<std::string> deviceIdsOrDefault(const std::vector<std::string>& asked);

// Writes `bytes` to `file` whole or not at all: into a new file beside it
// (made with the user's umask), then renamed over it. Only a regular file or
// a name not yet taken is written: a symbolic link, a folder, a device or a
// FIFO at `file` is refused and left as it is. InputError naming `option`
// when it cannot.
void writeFileAtomically(const std::string& option, const std::filesystem::path& file, std::string_view bytes);

// The lines joined by line feeds, or `empty` when there are none.
std::string joinLines(const std::vector<std::string>& lines, const std::string& empty = words("List.None"));

// Columns line up however wide the words of the user's language are: a
// character of Chinese or Japanese takes two columns of a terminal, an
// accented letter one (though two bytes), a combining mark none.
std::size_t columnsOf(const std::string& text);
// `text` padded with blanks to `columns`, or followed by one when it is as wide.
std::string padded(const std::string& text, std::size_t columns);

// Instants as the user reads them, in one way wherever the host shows one:
// the locale's own patterns, on the clock the user chose (a new installation
// takes it from the locale). "7:07:46 AM" in en_US, "07:07:46" in de_DE;
// "-" for none.
std::string clockTime(const std::optional<Date>& date, bool withSeconds = true);
// With the day and month before the time, for an instant that lies on
// another day than the one shown; and the year when nothing around says it.
std::string dayAndClockTime(Date date, bool withYear = false);
// A day as the locale writes it: "Nov 24, 2026", "24. Nov. 2026".
std::string calendarDay(Date date);

// Rows of a label and its value, one to a line, the values in one column
// at least `least` columns in and two past the widest label.
std::string labeledRows(const std::vector<std::pair<std::string, std::string>>& rows, std::size_t least = 0);

// Prints the rows of `ids` that `read` finds (soft-deleted ones are not):
// a JSON array of toJSON(row), or toLine(row) one after the other.
template <class Read, class ToJSON, class ToLine>
void printRows(const GlobalOptions& options, const std::vector<std::string>& ids, Read read, ToJSON toJSON,
               ToLine toLine) {
  nlohmann::ordered_json all = nlohmann::ordered_json::array();
  std::vector<std::string> lines;
  for (const auto& id : ids) {
    const auto row = read(id);
    if (!row) continue;
    all.push_back(toJSON(*row));
    lines.push_back(toLine(*row));
  }
  Output(options).print(all, joinLines(lines));
}

// Lets Database.queue and the main queue run until `promise` settles; its
// value, or its error thrown.
template <class T>
T await(const Promise<T>& promise);

// The same for a chain of the health manager, which may never settle (the
// user left an authorization unanswered): once nothing is left to run, the
// command gives up with one line.
template <class T>
T awaitHealth(const Promise<T>& promise, const std::string& command);

// A record as JSON with its property names as keys: dates in ISO 8601 with
// the zone's offset, nothing as null.
template <class Record>
nlohmann::ordered_json recordJSON(const Record& record);

// Launches the app as the phone does: joins the cloud this installation
// signed in to, starts the store (which starts the cloud service), lets what
// that set going run to its end (the first pull, the health manager's first
// reload), goes on with a background stretch an earlier process began, and
// hands over the silent pushes waiting for this device. A store that had to
// be set aside is reported as bad input in one line.
void launch();
// Lets what is due run, and the later work the run started and still owes:
// debounced announcements, cloud operations and the retries the cloud asked
// for, waited for on the clock (a pinned clock is moved instead).
void settleOperations();
// Before the process exits: settles, then ends a launch as the phone ends
// the app (a process in the background was only suspended).
void finishRun();

// Cloud records as `cloud records` prints them: type, zone, name and fields,
// or with --json objects of "recordName", "recordType", "zone", "fields".
void printCloudRecords(const GlobalOptions& options, const std::vector<CKRecord>& records);

// The cloud this installation signed in to, if any: its folder or its URL.
std::optional<std::string> signedInCloudName();
// Installs this device's container of that cloud, its silent pushes going to
// `handler`. A cloud that cannot be used is reported on the standard error
// and the launch goes on signed out.
void joinSignedInCloud(std::function<void(const nlohmann::json& userInfo)> handler);
// Hands the pushes other processes left for this device to the handler;
// says how many.
std::size_t deliverWaitingPushes();
// Waits up to `timeout` for the joined cloud to say pushes wait; see
// CloudEmulator::waitForPushes.
bool waitForPushes(std::chrono::milliseconds timeout);
// The cloud's part of launch() and finishRun().
void resumeLaunch();
void endLaunch();
// Told by the commands that change which cloud this installation signed in
// to: a launch joins its cloud once, so a Session launches again.
void signedInCloudChanged();
// Whether that happened since the last call.
bool takeSignedInCloudChanged();
// The cloud this process joined is left, as a launch ends for good.
void leaveJoinedCloud();

// The Environment of one installation as the global options describe it.
// InputError for a container that cannot be used, a zone or locale ICU does
// not know, or a --now that is not an instant.
std::unique_ptr<Environment> makeEnvironment(const GlobalOptions& options);

// The app starts: the Environment of `options` is installed, the log and
// the health manager start. The store starts with launch().
void startApp(const GlobalOptions& options);
// The log drains and the Environment goes, every thread joined.
void stopApp();

// The options of every command line, before the command: the
// installation's folder, clock, zone and locale, and --json.
void addGlobalOptions(CLI::App& app, GlobalOptions& options);

// Every command of the host, their options written into `options` and the
// chosen one's work into `action`. The global options are main's own.
void addCommands(CLI::App& app, const GlobalOptions& options, Action& action);

// The index of the first argument that is not valid UTF-8, if any: every
// text the store keeps is UTF-8, and one that is not would make the next
// launch set the whole store aside.
std::optional<std::size_t> firstNonUtf8(const std::vector<std::string>& arguments);

// The one line a host reports for a failed command: the store's failures
// in a sentence (what holds it, never its SQL), others as they say.
std::string describeFailure(const std::exception& error);

// When `command` is chosen, `action` becomes: `parse` the input, start the
// store, hand what `parse` returned to `body`. Bad input never opens the store.
template <class Parse, class Body>
void onRun(CLI::App* command, Action& action, Parse parse, Body body) {
  command->callback([&action, parse, body] {
    action = [parse, body] {
      if constexpr (std::is_void_v<decltype(parse())>) {
        parse();
        launch();
        body();
      } else {
        auto input = parse();
        launch();
        body(input);
      }
    };
  });
}

// A command with no input to check before the store starts.
template <class Body>
void onRun(CLI::App* command, Action& action, Body body) {
  const auto nothingToParse = [] {};
  onRun(command, action, nothingToParse, std::move(body));
}

// When `command` is chosen, `action` becomes `body` alone: for the commands
// that must not open the store (info, settings, format).
template <class Body>
void onRunWithoutStore(CLI::App* command, Action& action, Body body) {
  command->callback([&action, body] { action = body; });
}

// The line that shows how far a long run has come ("import: 42%, 120000
// rows"), redrawn in place on standard error when that is a terminal, at most
// ten times a second. When standard error is a file or a pipe it stays
// silent, so scripts and logs see the result alone.
class Progress {
 public:
  explicit Progress(std::string what);
  ~Progress();
  Progress(const Progress&) = delete;
  Progress& operator=(const Progress&) = delete;

  // `count` of `unit` so far, and the share done when it is known.
  void update(std::size_t count, std::string_view unit, std::optional<double> share = std::nullopt);
  // A message of its own line (a skipped row, say), kept above the progress line.
  void note(const std::string& line);

 private:
  void clear();

  std::string what_;
  bool terminal_;
  bool shown_ = false;
  std::int64_t lastDrawn_ = 0;
};

// What `chart`, `streaks` and `summary` print, for the commands that show
// them beside other things (demo, report): the JSON value and the text.
struct View {
  nlohmann::ordered_json json;
  std::string text;
};
// What `day --json` prints of `day`.
nlohmann::ordered_json dayJSON(const EventsOfDay& day);
View dayView(const EventsOfDay& day);
View chartView(const StatisticsData& chart);
View streaksView(const EventsCombo& combo);
// The `count` days from the start of `from`'s day.
View summaryView(Date from, int count);

// The totals and averages of `count` days from `from`'s day, as `summary`
// prints them: its JSON, and the rows a person reads (label, value).
struct DaysSummary {
  nlohmann::ordered_json json;
  std::vector<std::pair<std::string, std::string>> rows;
};
DaysSummary summarizeDays(Date from, int count);

// A tag's run of days back from `date`'s day, as `tag streak` prints it.
struct TagStreak {
  std::string kind;  // "streak", "fail" or "focus"
  int days = 0;
  std::string text() const;  // "streak 3 days"
};
std::optional<TagStreak> tagStreak(const std::string& tagId, Date date);
// `id` when a tag that is not deleted has it; InputError otherwise.
std::string requireTag(const std::string& id);

// The asleep samples, of every asleep value, that the application `bundle`
// wrote in `span`; `command` names the command when the health store does
// not answer.
std::vector<DateInterval> recordedSleeps(const std::string& bundle, const DateInterval& span,
                                         const std::string& command);

// Whether the health store holds a sleep sample the application `bundle` wrote.
bool healthStoreHasSleepFrom(const std::string& bundle);

// Today's or any day's metrics, night and hours.
void printDay(const GlobalOptions& options, const EventsOfDay& day);

void addInfoCommand(CLI::App& app, const GlobalOptions& options, Action& action);
void addSettingsCommands(CLI::App& app, const GlobalOptions& options, Action& action);
void addStoreCommands(CLI::App& app, const GlobalOptions& options, Action& action);
void addDayCommand(CLI::App& app, const GlobalOptions& options, Action& action);
void addImportCommand(CLI::App& app, const GlobalOptions& options, Action& action);
void addDemoCommand(CLI::App& app, const GlobalOptions& options, Action& action);
void addFocusCommands(CLI::App& app, const GlobalOptions& options, Action& action);
void addManageCommands(CLI::App& app, const GlobalOptions& options, Action& action);
void addFormatCommand(CLI::App& app, const GlobalOptions& options, Action& action);
void addChartCommands(CLI::App& app, const GlobalOptions& options, Action& action);
void addReportCommand(CLI::App& app, const GlobalOptions& options, Action& action);
// After addFocusCommands: it adds `focus state`.
void addWidgetCommands(CLI::App& app, const GlobalOptions& options, Action& action);
void addLinkCommands(CLI::App& app, const GlobalOptions& options, Action& action);
void addIntentCommands(CLI::App& app, const GlobalOptions& options, Action& action);
// After addFocusCommands: it adds `focus state-of-mind` too.
void addHealthCommands(CLI::App& app, const GlobalOptions& options, Action& action);
void addCloudCommands(CLI::App& app, const GlobalOptions& options, Action& action);
void addSyncCommands(CLI::App& app, const GlobalOptions& options, Action& action);

// Drains Database.queue, then runs what is due on the main queue and the
// background queues; how many blocks ran there.
std::size_t drainQueues();

namespace json_detail {
inline nlohmann::ordered_json value(const std::string& v) { return v; }
inline nlohmann::ordered_json value(Date v) { return v.iso8601(); }
inline nlohmann::ordered_json value(bool v) { return v; }
inline nlohmann::ordered_json value(std::int64_t v) { return v; }
inline nlohmann::ordered_json value(double v) { return v; }
inline nlohmann::ordered_json value(const Data& v) { return base64::encode(v); }
template <class T>
nlohmann::ordered_json value(const std::vector<T>& v) {
  return v;
}
template <class T>
nlohmann::ordered_json value(const std::optional<T>& v) {
  return v ? value(*v) : nlohmann::ordered_json(nullptr);
}
}  // namespace json_detail

template <class T>
T await(const Promise<T>& promise) {
  // Each round lets every stage of a chain on those two queues run.
  while (promise.isPending()) drainQueues();
  if (promise.isRejected()) std::rethrow_exception(promise.error());
  if constexpr (!std::is_void_v<T>) return *promise.value();
}

template <class T>
T awaitHealth(const Promise<T>& promise, const std::string& command) {
  while (promise.isPending()) {
    if (drainQueues() == 0 && promise.isPending()) {
      throw refusal("%@: the health store did not answer (was the request for authorization left open?)", {command});
    }
  }
  return await(promise);
}

template <class Record>
nlohmann::ordered_json recordJSON(const Record& record) {
  nlohmann::ordered_json json = nlohmann::ordered_json::object();
  records::forEachProperty<Record>(
      [&](const auto& p) { json[std::string(p.name)] = json_detail::value(record.*(p.member)); });
  return json;
}

}  // namespace tarnwell::cli

// The commands on the store: pickups, walks, alive spans, screen time, devices.

#include <optional>

#include "Cli.h"
#include "tarnwell/modules/Database.h"
#include "tarnwell/settings/Settings.h"

namespace tarnwell::cli {
namespace {

template <class Record>
nlohmann::ordered_json json(const std::optional<Record>& record) {
  return record ? recordJSON(*record) : nlohmann::ordered_json(nullptr);
}

// One line per record: id, start, end, length.
template <class Record>
std::string line(const Record& record) {
  std::string text = record.id.value_or("-") + "  " + (record.start ? record.start->iso8601() : "-") + "  " +
                     (record.end ? record.end->iso8601() : "-");
  if (record.start && record.end)
    text += "  " + formatDouble(*record.end - *record.start) + " " + localized("DateTime.s");
  if constexpr (std::is_same_v<Record, Pickup>) {
    if (record.isIgnoredForSleepTime) text += "  " + words("Store.IgnoredForSleep");
  }
  return text;
}

// What sets pickups, walks and alive spans apart. An edit moves only the end
// of a pickup (editEnd) but both ends of the others (editSpan).
template <class Record>
struct SpanKind {
  const char* name;
  const char* help;
  const char* one;   // "a pickup", in help texts
  const char* many;  // "Pickups"
  std::string (*add)(Date, Date);
  std::vector<std::string> (*list)(DateInterval, const std::vector<std::string>&);
  std::optional<Record> (*read)(const std::string&);
  std::string (*editEnd)(const std::string&, Date) = nullptr;
  std::string (*editSpan)(const std::string&, Date, Date) = nullptr;
  void (*remove)(const std::string&) = nullptr;
  // The longest span a record of the kind may cover.
  double longest = kOneDay;
};

const SpanKind<Pickup> kPickups{.name = "pickup",
                                .help = "Record and read pickups (stretches of phone use)",
                                .one = "a pickup",
                                .many = "Pickups",
                                .add = &Database::addPickup,
                                .list = &Database::getPickups,
                                .read = &Database::getPickup,
                                .editEnd = &Database::editPickup,
                                .remove = &Database::deletePickup};
const SpanKind<Walk> kWalks{.name = "walk",
                            .help = "Record and read walk spans",
                            .one = "a span",
                            .many = "Spans",
                            .add = &Database::addWalk,
                            .list = &Database::getWalks,
                            .read = &Database::getWalk,
                            .editSpan = &Database::editWalk};
const SpanKind<Alive> kAlives{.name = "alive",
                              .help = "Record and read alive spans",
                              .one = "a span",
                              .many = "Spans",
                              .add = &Database::addAlive,
                              .list = &Database::getAlives,
                              .read = &Database::getAlive,
                              .editSpan = &Database::editAlive,
                              .longest = kLongestAliveSpan};

constexpr const char* kDevicesHelp = "Device ids (default: this device and related ones)";

// Arguments of the span commands, kept alive with the command line.
struct SpanArguments {
  std::string id, start, end;
  RangeOptions range;
  std::vector<std::string> devices;
  bool off = false;
};

void printId(const GlobalOptions& options, const std::string& id) { Output(options).print({{"id", id}}, id); }

// `add START END`, `edit`, `delete ID` when the kind can be deleted, and
// `list`, under the kind's name; returns that command.
template <class Record>
CLI::App* addSpanCommands(CLI::App& app, const GlobalOptions& options, Action& action, const SpanKind<Record>& kind) {
  auto a = std::make_shared<SpanArguments>();
  auto* command = app.add_subcommand(kind.name, kind.help);
  command->require_subcommand(1);

  auto* add = command->add_subcommand("add", std::string("Record ") + kind.one + "; prints its id");
  add->add_option("START", a->start, "ISO 8601 start")->required();
  add->add_option("END", a->end, "ISO 8601 end")->required();
  onRun(
      add, action, [a, kind] { return parseSpan(a->start, a->end, kind.longest); },
      [&options, kind](const std::pair<Date, Date>& span) {
        const std::string id = kind.add(span.first, span.second);
        Output(options).print(json(kind.read(id)), id);
      });

  auto* edit = command->add_subcommand("edit", std::string(kind.editEnd ? "Move the end of " : "Move both ends of ") +
                                                   kind.one + "; an unknown id changes nothing");
  edit->add_option("ID", a->id)->required();
  if (kind.editSpan) edit->add_option("START", a->start)->required();
  edit->add_option("END", a->end)->required();
  if (kind.editEnd) {
    onRun(
        edit, action, [a] { return parseInstant(a->end); },
        [&options, a, kind](Date end) {
          // Only the end moves: its distance from the start kept is checked
          // once the record is read. An end before the start stays the
          // store's to repair, and an unknown id a quiet success.
          if (const auto row = kind.read(a->id); row && row->start && end >= *row->start) {
            checkSpan(*row->start, end, kind.longest);
          }
          printId(options, kind.editEnd(a->id, end));
        });
  } else {
    onRun(
        edit, action, [a, kind] { return parseSpan(a->start, a->end, kind.longest); },
        [&options, a, kind](const std::pair<Date, Date>& span) {
          printId(options, kind.editSpan(a->id, span.first, span.second));
        });
  }

  if (kind.remove) {
    auto* remove =
        command->add_subcommand("delete", std::string("Delete ") + kind.one + "; an unknown id changes nothing");
    remove->add_option("ID", a->id)->required();
    onRun(remove, action, [&options, a, kind] {
      kind.remove(a->id);
      printId(options, a->id);
    });
  }

  auto* list = command->add_subcommand("list", std::string(kind.many) + " with a start or end in a range, by start");
  a->range.addTo(list);
  list->add_option("--device", a->devices, kDevicesHelp);
  onRun(
      list, action, [a] { return a->range.parse().value_or(DateInterval(Date::distantPast(), Date::distantFuture())); },
      [&options, a, kind](const DateInterval& range) {
        printRows(options, kind.list(range, deviceIdsOrDefault(a->devices)), kind.read, recordJSON<Record>,
                  line<Record>);
      });
  return command;
}

// Pickups only: the sleep inference can be told to leave those of a span out.
void addIgnoreForSleepCommand(CLI::App* pickup, const GlobalOptions& options, Action& action) {
  auto a = std::make_shared<SpanArguments>();
  auto* ignore = pickup->add_subcommand("ignore-for-sleep", "Tell the sleep inference to ignore the pickups of a span");
  ignore->add_option("FROM", a->start, "ISO 8601")->required();
  ignore->add_option("TO", a->end, "ISO 8601")->required();
  ignore->add_flag("--off", a->off, "Count them again");
  ignore->add_option("--device", a->devices, kDevicesHelp);
  onRun(
      ignore, action, [a] { return parseSpan(a->start, a->end); },
      [&options, a](const std::pair<Date, Date>& span) {
        const auto ids =
            Database::editPickups(DateInterval(span.first, span.second), !a->off, deviceIdsOrDefault(a->devices));
        Output(options).print(ids, joinLines(ids, words("List.None")));
      });
}

}  // namespace

void addStoreCommands(CLI::App& app, const GlobalOptions& options, Action& action) {
  addIgnoreForSleepCommand(addSpanCommands(app, options, action, kPickups), options, action);
  addSpanCommands(app, options, action, kWalks);
  addSpanCommands(app, options, action, kAlives);

  auto device = std::make_shared<std::optional<std::string>>();
  auto* screenTime = app.add_subcommand("screen-time", "Seconds of all pickups of a device, ever");
  screenTime->add_option("--device", *device, "Device id (default: this device)");
  onRun(screenTime, action, [&options, device] {
    const std::string id = device->value_or(Settings::deviceId());
    const double seconds = Database::getScreenTime(id);
    Output(options).print({{"deviceId", id}, {"screenTime", seconds}}, formatDouble(seconds));
  });

  auto* store = app.add_subcommand("store", "Upkeep of the store");
  store->require_subcommand(1);
  onRun(store->add_subcommand("repair", "Delete spans that end before they start or in the future"), action,
        [&options] {
          Database::clearAlivePickupWalk();
          Output(options).print({{"repaired", true}}, words("Store.Repaired"));
        });
}

}  // namespace tarnwell::cli

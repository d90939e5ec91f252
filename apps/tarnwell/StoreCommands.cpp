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
  if (record.start && record.end) text += "  " + formatDouble(*record.end - *record.start) + " s";
  if constexpr (std::is_same_v<Record, Pickup>) {
    if (record.isIgnoredForSleepTime) text += "  ignored for sleep";
  }
  return text;
}

template <class Record>
void printRecords(const GlobalOptions& options, const std::vector<std::string>& ids,
                  std::optional<Record> (*read)(const std::string&)) {
  printRows(options, ids, read, recordJSON<Record>, line<Record>);
}

// Arguments of the span commands, kept alive with the command line.
struct SpanArguments {
  std::string id, start, end;
  std::optional<std::string> from, to;
  std::vector<std::string> devices;
  bool off = false;
};

// `add START END`, `edit ID START END` and `list` for walks and alive spans,
// whose edits move both dates.
template <class Record>
void addSpanCommands(CLI::App& parent, const GlobalOptions& options, Action& action, const char* noun,
                     std::string (*add)(Date, Date), std::string (*edit)(const std::string&, Date, Date),
                     std::vector<std::string> (*list)(DateInterval, const std::vector<std::string>&),
                     std::optional<Record> (*read)(const std::string&)) {
  auto arguments = std::make_shared<SpanArguments>();
  auto* command = parent.add_subcommand(noun, std::string("Record and read ") + noun + " spans");
  command->require_subcommand(1);

  auto* addCommand = command->add_subcommand("add", "Record a span; prints its id");
  addCommand->add_option("START", arguments->start, "ISO 8601 start")->required();
  addCommand->add_option("END", arguments->end, "ISO 8601 end")->required();
  addCommand->callback([&options, &action, arguments, add, read] {
    action = [&options, arguments, add, read] {
      const auto [start, end] = parseSpan(arguments->start, arguments->end);
      startStore();
      const std::string id = add(start, end);
      Output(options).print(json(read(id)), id);
    };
  });

  auto* editCommand = command->add_subcommand("edit", "Move both ends of a span; an unknown id changes nothing");
  editCommand->add_option("ID", arguments->id)->required();
  editCommand->add_option("START", arguments->start)->required();
  editCommand->add_option("END", arguments->end)->required();
  editCommand->callback([&options, &action, arguments, edit] {
    action = [&options, arguments, edit] {
      const auto [start, end] = parseSpan(arguments->start, arguments->end);
      startStore();
      const std::string id = edit(arguments->id, start, end);
      Output(options).print({{"id", id}}, id);
    };
  });

  auto* listCommand = command->add_subcommand("list", "Spans with a start or end in a range, by start");
  listCommand->add_option("--from", arguments->from, "ISO 8601 (default: any time)");
  listCommand->add_option("--to", arguments->to, "ISO 8601 (default: any time)");
  listCommand->add_option("--device", arguments->devices, "Device ids (default: this device and related ones)");
  listCommand->callback([&options, &action, arguments, list, read] {
    action = [&options, arguments, list, read] {
      const Date from = arguments->from ? parseInstant(*arguments->from) : Date::distantPast();
      const Date to = arguments->to ? parseInstant(*arguments->to) : Date::distantFuture();
      if (to < from) throw InputError("--from is after --to");
      startStore();
      printRecords(options, list(DateInterval(from, to), deviceIdsOrDefault(arguments->devices)), read);
    };
  });
}

void addPickupCommands(CLI::App& app, const GlobalOptions& options, Action& action) {
  auto arguments = std::make_shared<SpanArguments>();
  auto* pickup = app.add_subcommand("pickup", "Record and read pickups (stretches of phone use)");
  pickup->require_subcommand(1);

  auto* add = pickup->add_subcommand("add", "Record a pickup; prints its id");
  add->add_option("START", arguments->start, "ISO 8601 start")->required();
  add->add_option("END", arguments->end, "ISO 8601 end")->required();
  add->callback([&options, &action, arguments] {
    action = [&options, arguments] {
      const auto [start, end] = parseSpan(arguments->start, arguments->end);
      startStore();
      const std::string id = Database::addPickup(start, end);
      Output(options).print(json(Database::getPickup(id)), id);
    };
  });

  auto* edit = pickup->add_subcommand("edit", "Move the end of a pickup; an unknown id changes nothing");
  edit->add_option("ID", arguments->id)->required();
  edit->add_option("END", arguments->end)->required();
  edit->callback([&options, &action, arguments] {
    action = [&options, arguments] {
      const Date end = parseInstant(arguments->end);
      startStore();
      const std::string id = Database::editPickup(arguments->id, end);
      Output(options).print({{"id", id}}, id);
    };
  });

  auto* remove = pickup->add_subcommand("delete", "Delete a pickup; an unknown id changes nothing");
  remove->add_option("ID", arguments->id)->required();
  remove->callback([&options, &action, arguments] {
    action = [&options, arguments] {
      startStore();
      Database::deletePickup(arguments->id);
      Output(options).print({{"id", arguments->id}}, arguments->id);
    };
  });

  auto* list = pickup->add_subcommand("list", "Pickups with a start or end in a range, by start");
  list->add_option("--from", arguments->from, "ISO 8601 (default: any time)");
  list->add_option("--to", arguments->to, "ISO 8601 (default: any time)");
  list->add_option("--device", arguments->devices, "Device ids (default: this device and related ones)");
  list->callback([&options, &action, arguments] {
    action = [&options, arguments] {
      const Date from = arguments->from ? parseInstant(*arguments->from) : Date::distantPast();
      const Date to = arguments->to ? parseInstant(*arguments->to) : Date::distantFuture();
      if (to < from) throw InputError("--from is after --to");
      startStore();
      const auto ids = Database::getPickups(DateInterval(from, to), deviceIdsOrDefault(arguments->devices));
      printRecords<Pickup>(options, ids, &Database::getPickup);
    };
  });

  auto* ignore = pickup->add_subcommand("ignore-for-sleep", "Tell the sleep inference to ignore the pickups of a span");
  ignore->add_option("FROM", arguments->start, "ISO 8601")->required();
  ignore->add_option("TO", arguments->end, "ISO 8601")->required();
  ignore->add_flag("--off", arguments->off, "Count them again");
  ignore->add_option("--device", arguments->devices, "Device ids (default: this device and related ones)");
  ignore->callback([&options, &action, arguments] {
    action = [&options, arguments] {
      const auto [from, to] = parseSpan(arguments->start, arguments->end);
      startStore();
      const auto ids =
          Database::editPickups(DateInterval(from, to), !arguments->off, deviceIdsOrDefault(arguments->devices));
      Output(options).print(ids, joinLines(ids));
    };
  });
}

}  // namespace

void addStoreCommands(CLI::App& app, const GlobalOptions& options, Action& action) {
  addPickupCommands(app, options, action);
  addSpanCommands<Walk>(app, options, action, "walk", &Database::addWalk, &Database::editWalk, &Database::getWalks,
                        &Database::getWalk);
  addSpanCommands<Alive>(app, options, action, "alive", &Database::addAlive, &Database::editAlive, &Database::getAlives,
                         &Database::getAlive);

  auto device = std::make_shared<std::optional<std::string>>();
  auto* screenTime = app.add_subcommand("screen-time", "Seconds of all pickups of a device, ever");
  screenTime->add_option("--device", *device, "Device id (default: this device)");
  screenTime->callback([&options, &action, device] {
    action = [&options, device] {
      startStore();
      const std::string id = device->value_or(Settings::deviceId());
      const double seconds = Database::getScreenTime(id);
      Output(options).print({{"deviceId", id}, {"screenTime", seconds}}, formatDouble(seconds));
    };
  });

  auto* store = app.add_subcommand("store", "Upkeep of the store");
  store->require_subcommand(1);
  store->add_subcommand("repair", "Delete spans that end before they start or in the future")
      ->callback([&options, &action] {
        action = [&options] {
          startStore();
          Database::clearAlivePickupWalk();
          Output(options).print({{"repaired", true}}, "repaired");
        };
      });
}

}  // namespace tarnwell::cli

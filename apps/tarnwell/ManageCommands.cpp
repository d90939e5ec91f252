// `tarnwell app ...`, `device ...`, `reset ...`, `export csv` and `format ...`:
// the allowed apps, the relation between devices, the whole-store operations
// of the settings screens and the texts numbers are shown in.

#include <cmath>

#include "Cli.h"
#include "tarnwell/extensions/Strings.h"
#include "tarnwell/modules/Database.h"
#include "tarnwell/settings/Settings.h"

namespace tarnwell::cli {
namespace {

struct ManageArguments {
  std::string id, value;
  std::optional<std::string> name, artwork, genre, scheme, out;
  bool off = false, thisDevice = false;
};

void addAppCommands(CLI::App& app, const GlobalOptions& options, Action& action) {
  auto a = std::make_shared<ManageArguments>();
  auto* apps = app.add_subcommand("app", "The apps the user allows");
  apps->require_subcommand(1);

  onRun(apps->add_subcommand("list", "Allowed apps, in the order they were added"), action, [&options] {
    printRows(options, Database::getApps(), &Database::getApp, recordJSON<App>, [](const App& row) {
      return *row.trackId + "  " + row.trackName.value_or("-") + "  " + row.primaryGenreName.value_or("-");
    });
  });

  auto* add = apps->add_subcommand("add", "Allow an app: a store id with --name, or a system app's bundle id");
  add->add_option("TRACKID", a->id, "Store id, or the bundle id of a system app")->required();
  add->add_option("--name", a->name, "The app's name");
  add->add_option("--artwork", a->artwork, "URL of a 100-pixel icon");
  add->add_option("--genre", a->genre, "Genre, in English");
  add->add_option("--scheme", a->scheme, "URL scheme that opens the app");
  onRun(
      add, action,
      [a] {
        std::optional<AppStructure> data;
        for (const auto known : {AppStructure::SystemAppWithoutID::safari, AppStructure::SystemAppWithoutID::message,
                                 AppStructure::SystemAppWithoutID::health, AppStructure::SystemAppWithoutID::photos,
                                 AppStructure::SystemAppWithoutID::appStore}) {
          if (AppStructure::rawValue(known) == a->id) data = AppStructure::make(known);
        }
        if (!data) {
          if (!a->name || a->name->empty()) throw refusal("app add: --name is required for %@", {a->id});
          data.emplace();
          data->bundleId = a->id;
          if (a->id.find_first_not_of("0123456789") == std::string::npos && a->id.size() < 19) {
            data->trackIdInNumber = std::stoll(a->id);
          }
        }
        if (a->name) data->trackName = *a->name;
        if (a->artwork) data->artworkUrl100 = a->artwork;
        if (a->genre) data->primaryGenreNameInEnglish = a->genre;
        if (a->scheme) data->urlScheme = a->scheme;
        return *data;
      },
      [&options](const AppStructure& data) {
        const auto id = Database::addApp(data);
        const auto row = id ? Database::getApp(*id) : std::nullopt;
        Output(options).print(row ? recordJSON(*row) : nlohmann::ordered_json(nullptr), id.value_or("-"));
      });

  auto* remove = apps->add_subcommand("delete", "Stop allowing an app; an unknown id changes nothing");
  remove->add_option("TRACKID", a->id)->required();
  onRun(remove, action, [&options, a] {
    Database::deleteApp(a->id);
    Output(options).print({{"trackId", a->id}}, a->id);
  });
}

void addDeviceCommands(CLI::App& app, const GlobalOptions& options, Action& action) {
  auto a = std::make_shared<ManageArguments>();
  auto* devices = app.add_subcommand("device", "The devices that have written to this store");
  devices->require_subcommand(1);
  onRun(devices->add_subcommand("list", "Every device row, this device marked"), action, [&options] {
    const std::string current = Settings::deviceId();
    printRows(options, Database::getDevices(), &Database::getDevice, recordJSON<Device>, [&current](const Device& row) {
      std::string text = row.id.value_or("-") + "  " + row.name.value_or("-") + "  " +
                         (row.lastSyncDate ? row.lastSyncDate->iso8601() : words("Device.NeverSynced")) +
                         (row.id == current ? "  " + words("Device.ThisDevice") : "");
      for (const auto& related : row.deviceIds) text += "\n    " + words("Device.Merges", {related});
      return text;
    });
  });

  auto* relate = devices->add_subcommand("relate", "Merge another device's events into this device's views");
  relate->add_option("ID", a->id)->required();
  relate->add_flag("--off", a->off, "Stop merging it");
  onRun(
      relate, action,
      [a] {
        if (a->id.empty()) throw refusal("device relate: the device id is empty");
      },
      [&options, a] {
        if (a->id == Settings::deviceId()) throw refusal("a device is always merged with itself");
        const auto id = Database::setCurrentDeviceRelation(a->id, !a->off);
        if (!id) throw refusal("this device has no row in the store");
        const auto related = Database::getDevicesRelatedToCurrentDevice().value_or(std::vector<std::string>{});
        Output(options).print({{"deviceId", *id}, {"related", related}}, joinLines(related, words("List.None")));
      });

  onRun(devices->add_subcommand("related", "The devices this device merges into its views"), action, [&options] {
    const auto related = Database::getDevicesRelatedToCurrentDevice();
    Output(options).print(related ? nlohmann::ordered_json(*related) : nlohmann::ordered_json(nullptr),
                          joinLines(related.value_or(std::vector<std::string>{}), words("List.None")));
  });
}

void addResetAndExportCommands(CLI::App& app, const GlobalOptions& options, Action& action) {
  auto a = std::make_shared<ManageArguments>();
  auto* reset = app.add_subcommand("reset", "Delete usage or focus data");
  reset->require_subcommand(1);
  for (const bool focus : {false, true}) {
    auto* command = reset->add_subcommand(
        focus ? "focus" : "screen-time",
        focus ? "Delete focus sessions (and, for all devices, every tag: the initial ones come back)"
              : "Delete pickups, walks and alive spans");
    command->add_flag("--this-device", a->thisDevice, "Only this device's (default: every device's)");
    onRun(command, action, [&options, a, focus] {
      await(focus ? Database::resetFocusData(a->thisDevice) : Database::resetScreentimeData(a->thisDevice));
      Output(options).print({{"reset", focus ? "focus" : "screen-time"}, {"onlyCurrentDevice", a->thisDevice}},
                            words("Reset.Done"));
    });
  }

  auto* exportCommand = app.add_subcommand("export", "Write the store out");
  exportCommand->require_subcommand(1);
  auto* csv = exportCommand->add_subcommand("csv", "One CSV file per kind of record; prints their paths");
  csv->add_option("--out", a->out, "Folder (default: the installation's temporary folder)");
  onRun(
      csv, action,
      [a] {
        if (a->out && !std::filesystem::is_directory(*a->out)) throw refusal("--out: no folder %@", {*a->out});
      },
      [&options, a] {
        const auto files = await(Database::exportCSVFile(a->out.value_or("")));
        std::vector<std::string> paths;
        for (const auto& file : files) paths.push_back(file.string());
        Output(options).print(paths, joinLines(paths));
      });
}

}  // namespace

void addManageCommands(CLI::App& app, const GlobalOptions& options, Action& action) {
  addAppCommands(app, options, action);
  addDeviceCommands(app, options, action);
  addResetAndExportCommands(app, options, action);
}

void addFormatCommand(CLI::App& app, const GlobalOptions& options, Action& action) {
  auto a = std::make_shared<ManageArguments>();
  auto* format = app.add_subcommand("format", "Show a number of seconds as the app does");
  format->require_subcommand(1);
  const auto add = [&](const char* what, const char* help) {
    auto* command = format->add_subcommand(what, help);
    const bool size = std::string_view(what) == "size";
    command->add_option(size ? "BYTES" : "SECONDS", a->value)->required();
    onRunWithoutStore(command, action, [&options, a, what = std::string(what), size] {
      const double seconds =
          size ? parseNumberIn("BYTES", a->value, 0, kLargestFileSize, "a number of bytes from 0 to 2^90 (1024 YB)")
               : parseNumber("SECONDS", a->value);
      std::string text;
      if (what == "duration") {
        text = getTimeIntervalString(seconds);
      } else if (what == "timer") {
        text = getTimerString(seconds);
      } else if (what == "time") {
        text = getDateTimeString(seconds);
      } else {
        text = fileSizeString(seconds);
      }
      Output(options).print({{"seconds", seconds}, {what, text}}, text);
    });
  };
  add("duration", "1h30m: hours, minutes, and seconds under a minute");
  add("timer", "A timer face: 25:00, 1:00:00");
  add("time", "The clock time that many seconds after today's start");
  add("size", "A number of bytes: 1.00 KB");
}

}  // namespace tarnwell::cli

// `tarnwell import FILE`: events from a CSV file, in one transaction.
//
// Two formats:
//   tarnwell  "kind,start,end" rows, kind being pickup, walk or alive, the
//             times in ISO 8601 (a header row of those names is skipped).
//   aware     the AWARE framework's screen events: timestamp (milliseconds
//             since 1970), device_id and screen_status (0 off, 1 on,
//             2 locked, 3 unlocked), columns found by their header. A pickup
//             runs from an unlock to the next off or lock of that device.
//             Events are taken in time order per device. An off or lock
//             without an unlock before it, and the screen turning on, close
//             nothing. An unlock followed by another unlock before any off or
//             lock never ended: it is dropped and counted as unclosed, and
//             the later unlock opens the pickup. So is an unlock still open
//             at the end of the file.
// Bad rows are reported by line number and skipped; the good ones are kept.
// Everything is written in one transaction: a process that dies half-way
// has written nothing.

#include <algorithm>
#include <charconv>
#include <fstream>
#include <iostream>
#include <map>

#include "Cli.h"
#include "tarnwell/records/EventRecords.h"
#include "tarnwell/settings/Settings.h"
#include "tarnwell/store/Store.h"

namespace tarnwell::cli {
namespace {

// Splits a CSV line on commas; fields may be double-quoted ("" for a quote).
std::vector<std::string> splitCSV(std::string_view line) {
  std::vector<std::string> fields(1);
  bool quoted = false;
  for (std::size_t i = 0; i < line.size(); ++i) {
    const char c = line[i];
    if (quoted) {
      if (c == '"' && i + 1 < line.size() && line[i + 1] == '"') {
        fields.back() += '"';
        ++i;
      } else if (c == '"') {
        quoted = false;
      } else {
        fields.back() += c;
      }
    } else if (c == '"') {
      quoted = true;
    } else if (c == ',') {
      fields.emplace_back();
    } else if (c != '\r') {
      fields.back() += c;
    }
  }
  return fields;
}

struct Imported {
  std::vector<Pickup> pickups;
  std::vector<Walk> walks;
  std::vector<Alive> alives;
  std::size_t rows = 0;
  std::size_t skipped = 0;
  std::size_t unclosed = 0;
};

// The size of what is left to read, so that progress can be a share.
double remainingSize(std::istream& in) {
  const auto here = in.tellg();
  in.seekg(0, std::ios::end);
  const auto end = in.tellg();
  in.seekg(here);
  return here < 0 || end < here ? 0 : static_cast<double>(end - here);
}

void skip(Progress& progress, Imported& imported, std::size_t line, const std::string& why) {
  progress.note("tarnwell: line " + std::to_string(line) + ": " + why + "; skipped");
  ++imported.skipped;
}

void readTarnwell(std::istream& in, Progress& progress, Imported& imported) {
  std::string line;
  std::size_t number = 0;
  const double size = remainingSize(in);
  double read = 0;
  while (std::getline(in, line)) {
    ++number;
    read += static_cast<double>(line.size() + 1);
    progress.update(number, "rows", size > 0 ? std::optional(read / size) : std::nullopt);
    if (line.empty() || line == "\r") continue;
    const auto fields = splitCSV(line);
    if (number == 1 && !fields.empty() && fields[0] == "kind") continue;
    ++imported.rows;
    if (fields.size() != 3) {
      skip(progress, imported, number, "expected kind,start,end");
      continue;
    }
    const auto start = Date::parseISO8601(fields[1]), end = Date::parseISO8601(fields[2]);
    if (!start || !end) {
      skip(progress, imported, number, "a time is not ISO 8601");
      continue;
    }
    if (*end < *start) {
      skip(progress, imported, number, "the end is before the start");
      continue;
    }
    if (fields[0] == "pickup") {
      imported.pickups.emplace_back(*start, *end);
    } else if (fields[0] == "walk") {
      imported.walks.emplace_back(*start, *end);
    } else if (fields[0] == "alive") {
      imported.alives.emplace_back(*start, *end);
    } else {
      skip(progress, imported, number, "unknown kind \"" + fields[0] + "\" (pickup, walk or alive)");
    }
  }
}

void readAware(std::istream& in, Progress& progress, Imported& imported) {
  struct Event {
    double milliseconds;
    int status;
    std::size_t order;
  };
  std::map<std::string, std::vector<Event>> byDevice;
  std::string line;
  std::size_t number = 0;
  int timestampColumn = -1, deviceColumn = -1, statusColumn = -1;
  const double size = remainingSize(in);
  double read = 0;
  while (std::getline(in, line)) {
    ++number;
    read += static_cast<double>(line.size() + 1);
    progress.update(number, "rows", size > 0 ? std::optional(read / size) : std::nullopt);
    if (line.empty() || line == "\r") continue;
    const auto fields = splitCSV(line);
    if (timestampColumn < 0) {
      for (std::size_t i = 0; i < fields.size(); ++i) {
        if (fields[i] == "timestamp") timestampColumn = static_cast<int>(i);
        if (fields[i] == "device_id") deviceColumn = static_cast<int>(i);
        if (fields[i] == "screen_status") statusColumn = static_cast<int>(i);
      }
      if (timestampColumn < 0 || deviceColumn < 0 || statusColumn < 0) {
        throw InputError("line " + std::to_string(number) +
                         ": an AWARE file starts with a header naming timestamp, device_id and screen_status");
      }
      continue;
    }
    ++imported.rows;
    const auto column = [&fields](int index) -> const std::string& { return fields[static_cast<std::size_t>(index)]; };
    if (static_cast<int>(fields.size()) <= std::max({timestampColumn, deviceColumn, statusColumn})) {
      skip(progress, imported, number, "missing columns");
      continue;
    }
    double milliseconds = 0;
    int status = -1;
    const auto& timestamp = column(timestampColumn);
    const auto& statusText = column(statusColumn);
    const auto [timestampEnd, timestampError] =
        std::from_chars(timestamp.data(), timestamp.data() + timestamp.size(), milliseconds);
    const auto [statusEnd, statusError] =
        std::from_chars(statusText.data(), statusText.data() + statusText.size(), status);
    if (timestampError != std::errc() || timestampEnd != timestamp.data() + timestamp.size() ||
        statusError != std::errc() || statusEnd != statusText.data() + statusText.size() || status < 0 || status > 3) {
      skip(progress, imported, number, "timestamp or screen_status is not a number of the format");
      continue;
    }
    byDevice[column(deviceColumn)].push_back({milliseconds, status, number});
  }
  if (timestampColumn < 0 && number > 0) throw InputError("the file has no AWARE header");

  for (auto& [device, events] : byDevice) {
    std::stable_sort(events.begin(), events.end(),
                     [](const Event& a, const Event& b) { return a.milliseconds < b.milliseconds; });
    bool open = false;
    double unlockedAt = 0;
    for (const auto& event : events) {
      if (event.status == 3) {
        if (open) ++imported.unclosed;
        open = true;
        unlockedAt = event.milliseconds;
      } else if ((event.status == 0 || event.status == 2) && open) {
        imported.pickups.emplace_back(Date::fromTimeIntervalSince1970(unlockedAt / 1000.0),
                                      Date::fromTimeIntervalSince1970(event.milliseconds / 1000.0));
        open = false;
      }
    }
    if (open) ++imported.unclosed;
  }
}

struct ImportArguments {
  std::string file;
  std::string format = "tarnwell";
  std::optional<std::string> device;
};

}  // namespace

void addImportCommand(CLI::App& app, const GlobalOptions& options, Action& action) {
  auto arguments = std::make_shared<ImportArguments>();
  auto* command = app.add_subcommand("import", "Pickups, walks and alive spans from a CSV file");
  command->add_option("FILE", arguments->file, "CSV file")->required();
  command->add_option("--format", arguments->format, "tarnwell (kind,start,end) or aware (screen events)")
      ->check(CLI::IsMember({"tarnwell", "aware"}));
  command->add_option("--device", arguments->device, "Device the events belong to (default: this device)");
  onRun(
      command, action,
      [arguments] {
        std::ifstream in(arguments->file);
        if (!in) throw InputError("cannot read " + arguments->file);
        return in;
      },
      [&options, arguments](std::ifstream& in) {
        Imported imported;
        {
          Progress progress("import " + arguments->file);
          if (arguments->format == "aware") {
            readAware(in, progress, imported);
          } else {
            readTarnwell(in, progress, imported);
          }
        }
        if (arguments->device) {
          for (auto& pickup : imported.pickups) pickup.deviceId = *arguments->device;
          for (auto& walk : imported.walks) walk.deviceId = *arguments->device;
          for (auto& alive : imported.alives) alive.deviceId = *arguments->device;
        }
        store::Store::open().write([&imported](store::WriteTransaction& t) {
          for (const auto& pickup : imported.pickups) t.add(pickup, store::UpdatePolicy::error);
          for (const auto& walk : imported.walks) t.add(walk, store::UpdatePolicy::error);
          for (const auto& alive : imported.alives) t.add(alive, store::UpdatePolicy::error);
        });
        const nlohmann::ordered_json summary = {
            {"rows", imported.rows},
            {"pickups", imported.pickups.size()},
            {"walks", imported.walks.size()},
            {"alives", imported.alives.size()},
            {"skipped", imported.skipped},
            {"unclosed", imported.unclosed},
            {"deviceId", arguments->device.value_or(Settings::deviceId())},
        };
        std::string text = "Imported " + std::to_string(imported.pickups.size()) + " pickups, " +
                           std::to_string(imported.walks.size()) + " walks and " +
                           std::to_string(imported.alives.size()) + " alive spans from " +
                           std::to_string(imported.rows) + " rows";
        if (imported.skipped) text += "; " + std::to_string(imported.skipped) + " bad rows skipped";
        if (imported.unclosed) text += "; " + std::to_string(imported.unclosed) + " unlocks never closed";
        Output(options).print(summary, text + ".");
      });
}

}  // namespace tarnwell::cli

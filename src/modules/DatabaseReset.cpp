// The whole-store operations of the settings screens: wiping usage or focus
// data, and writing the store out as CSV files.

#include <fstream>

#include "modules/DatabaseSupport.h"
#include "tarnwell/modules/Database.h"
#include "tarnwell/platform/PrivateFiles.h"
#include "tarnwell/settings/Settings.h"

namespace tarnwell {

using namespace database_support;
using store::Query;
using store::Store;
using store::WriteTransaction;

namespace {

// The rows a reset marks: this device's or every device's.
Query resetSelection(bool onlyCurrentDevice) {
  Query query = store::liveRows();
  if (onlyCurrentDevice) query.filter("deviceId = ?", {Settings::deviceId()});
  return query;
}

// Runs `wipe` and then makes this device's row (and tags that are missing)
// again on `queue`; today is rebuilt afterwards. The first error rejects.
Promise<void> reset(std::function<void()> wipe) {
  return Promise<void>::fulfilled()
      .map(Database::queue().queue(),
           [wipe = std::move(wipe)] {
             wipe();
             Database::setupRealmData();
           })
      .then([] { return Database::refreshEventsOfToday(); });
}

// Writes `text` to `file` whole or not at all; `privately`, as 0600.
void writeAtomically(const std::filesystem::path& file, const std::string& text, bool privately) {
  const std::filesystem::path partial = file.string() + ".partial";
  {
    if (privately) makePrivateFile(partial);
    std::ofstream out(partial, std::ios::binary | std::ios::trunc);
    out << text;
    out.close();
    if (!out)
      throw std::filesystem::filesystem_error("cannot write", partial, std::make_error_code(std::errc::io_error));
  }
  std::filesystem::rename(partial, file);
}

template <class Record>
std::filesystem::path exportTable(Store& store, const std::filesystem::path& folder, const std::string& dateText,
                                  bool privately) {
  std::string text(Record::csvColumns);
  for (const auto& record : store.objects<Record>(store::liveRows())) {
    text += '\n';
    text += record.csvRecord();
  }
  const auto file = folder / (dateText + "-" + std::string(Record::className) + ".csv");
  writeAtomically(file, text, privately);
  return file;
}

}  // namespace

Promise<void> Database::resetScreentimeData(bool onlyCurrentDevice) {
  return reset([onlyCurrentDevice] {
    const Query selection = resetSelection(onlyCurrentDevice);
    Store::open().write([&selection](WriteTransaction& t) {
      t.update<Alive>({{"isDeleted", true}}, selection);
      t.update<Walk>({{"isDeleted", true}}, selection);
      t.update<Pickup>({{"isDeleted", true}}, selection);
    });
  });
}

Promise<void> Database::resetFocusData(bool onlyCurrentDevice) {
  return reset([onlyCurrentDevice] {
    Store store = Store::open();
    const Query selection = resetSelection(onlyCurrentDevice);
    store.write([&selection](WriteTransaction& t) { t.update<Focus>({{"isDeleted", true}}, selection); });
    // Tags belong to every device: only a reset of all of them takes them,
    // and the initial ones are then made anew.
    if (!onlyCurrentDevice) {
      store.write([](WriteTransaction& t) { t.update<Tag>({{"isDeleted", true}}, store::liveRows()); });
    }
  });
}

Promise<std::vector<std::filesystem::path>> Database::exportCSVFile(std::filesystem::path folder) {
  return Promise<void>::fulfilled().map(queue().queue(), [folder = std::move(folder)] {
    const auto target = folder.empty() ? Environment::current().temporaryDirectory() : folder;
    // Inside the installation the files are the user's alone; a folder the
    // caller names keeps its own rules.
    const bool privately = folder.empty();
    // One text for every file of this export.
    const std::string dateText = Date::now().description();
    Store store = Store::open();
    return std::vector<std::filesystem::path>{
        exportTable<Alive>(store, target, dateText, privately), exportTable<Device>(store, target, dateText, privately),
        exportTable<Focus>(store, target, dateText, privately), exportTable<Pickup>(store, target, dateText, privately),
        exportTable<Tag>(store, target, dateText, privately),   exportTable<Walk>(store, target, dateText, privately)};
  });
}

}  // namespace tarnwell

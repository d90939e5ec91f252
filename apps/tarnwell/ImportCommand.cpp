// `tarnwell import FILE`: events from a CSV file (see Import.h for the
// formats), in one transaction.
//
// Rows go into the store's write transaction as they are read, so memory
// stays the same whatever the size of the file, and a process that dies
// half-way has written nothing. Bad rows are reported by line number and
// skipped, the good ones kept; but a file with kMaxBadRows bad rows is not
// the file the user meant (a binary file, the wrong format): the import
// stops there, rolls back and writes nothing at all, exit status 1.

#include <sys/stat.h>

#include <cerrno>
#include <cstring>
#include <fstream>
#include <memory>

#include "Cli.h"
#include "Import.h"
#include "tarnwell/modules/CloudService.h"
#include "tarnwell/records/EventRecords.h"
#include "tarnwell/settings/Settings.h"
#include "tarnwell/store/Store.h"

namespace tarnwell::cli {
namespace {

// Why a row or a file was refused, in the user's language.
std::string inUserWords(const ImportProblem& problem) {
  return formatString(errorWords(problem.english), problem.arguments);
}

constexpr std::size_t kMaxBadRows = 100;

// Inserts a new record without the transaction keeping its key for
// observers: the keys of an import's millions of rows would be nearly all
// of its memory. The synced classes' outbox entries are made at the end, in
// one statement (journalImported).
template <class Record>
void insert(store::WriteTransaction& transaction, const Record& record) {
  static const std::string sql = [] {
    std::string placeholders;
    for (int i = 1; i <= store::propertyCount<Record>(); ++i) placeholders += (i > 1 ? ", ?" : "?");
    return "INSERT INTO " + store::quoteIdentifier(Record::className) + " (" + store::columnList<Record>() +
           ") VALUES (" + placeholders + ")";
  }();
  auto& statement = transaction.connection().cached(sql);
  store::bindRecord(statement, record);
  statement.execute();
}

template <class Record>
void insert(store::WriteTransaction& transaction, const ImportedEvent& event,
            const std::optional<std::string>& device) {
  Record record(event.start, event.end);
  if (device) record.deviceId = *device;
  insert(transaction, record);
}

// The file to read: a regular file that can be opened, refused in one line otherwise.
std::unique_ptr<std::ifstream> openImport(const std::string& file) {
  struct stat status {};
  if (::stat(file.c_str(), &status) != 0) {
    const int why = errno;  // before copying the name can touch it
    throw refusal("import: cannot read \"%1$@\": %2$@", {file, std::strerror(why)});
  }
  if (S_ISDIR(status.st_mode)) throw refusal("import: \"%@\" is a folder, not a file", {file});
  if (!S_ISREG(status.st_mode)) throw refusal("import: \"%@\" is not a regular file", {file});
  auto in = std::make_unique<std::ifstream>(file, std::ios::binary);
  if (!*in) throw refusal("import: cannot read \"%@\"", {file});
  return in;
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
      command, action, [arguments] { return openImport(arguments->file); },
      [&options, arguments](std::unique_ptr<std::ifstream>& in) {
        std::size_t pickups = 0, walks = 0, alives = 0, rows = 0, skipped = 0, unclosed = 0;
        // From the first event's start to the last one's end: the days the import touched.
        std::optional<DateInterval> span;
        const auto& device = arguments->device;
        std::error_code sizeError;
        const auto size = static_cast<double>(std::filesystem::file_size(arguments->file, sizeError));
        store::Store::open().write([&](store::WriteTransaction& t) {
          const auto pickupsBefore = t.lastRowid(Pickup::className);
          const auto walksBefore = t.lastRowid(Walk::className);
          Progress progress("import " + arguments->file);
          const std::string rowsRead = words("Import.Progress.Rows");
          ImportReader reader(
              arguments->format == "aware" ? ImportFormat::aware : ImportFormat::tarnwell,
              {[&](const ImportedEvent& event) {
                 span = span ? DateInterval(std::min(span->start(), event.start), std::max(span->end(), event.end))
                             : DateInterval(event.start, event.end);
                 switch (event.kind) {
                   case ImportedKind::pickup:
                     insert<Pickup>(t, event, device);
                     ++pickups;
                     break;
                   case ImportedKind::walk:
                     insert<Walk>(t, event, device);
                     ++walks;
                     break;
                   case ImportedKind::alive:
                     insert<Alive>(t, event, device);
                     ++alives;
                     break;
                 }
               },
               [&progress](std::size_t line, const ImportProblem& problem) {
                 progress.note("tarnwell: " +
                               words("Import.SkippedRow", {static_cast<std::int64_t>(line), inUserWords(problem)}));
               }});
          try {
            const bool whole = readImport(
                *in, reader, [&reader] { return reader.skipped() < kMaxBadRows; },
                [&](std::uint64_t bytesRead) {
                  const auto share = static_cast<double>(bytesRead) / size;
                  progress.update(reader.lines(), rowsRead,
                                  !sizeError && size > 0 ? std::optional(share) : std::nullopt);
                });
            if (!whole) {
              throw refusal(
                  "import: stopped at line %1$lld after %2$lld bad rows (is it a %3$@ CSV file?); nothing was imported",
                  {static_cast<std::int64_t>(reader.lines()), static_cast<std::int64_t>(kMaxBadRows),
                   arguments->format});
            }
          } catch (const ImportFormatError& error) {
            throw refusal("import: %@; nothing was imported", {inUserWords(error.problem())});
          }
          if (in->bad()) throw refusal("import: cannot read \"%@\"; nothing was imported", {arguments->file});
          rows = reader.rows();
          skipped = reader.skipped();
          unclosed = reader.unclosed();
          t.noteInsertedAfter(Pickup::className, pickupsBefore);
          t.noteInsertedAfter(Walk::className, walksBefore);
        });
        // Nobody heard of the rows: the cloud service sends them now.
        CloudService::sendUnsentChanges();
        const nlohmann::ordered_json summary = {
            {"rows", rows},
            {"pickups", pickups},
            {"walks", walks},
            {"alives", alives},
            {"skipped", skipped},
            {"unclosed", unclosed},
            {"deviceId", device.value_or(Settings::deviceId())},
            {"span", optionalJSON(span)},
        };
        // Each count in the form its number takes; bad rows and unclosed
        // unlocks are mentioned only when there are any.
        const auto counted = [](std::size_t count, const char* one, const char* many) {
          return words(count == 1 ? one : many, {static_cast<std::int64_t>(count)});
        };
        std::string notes;
        if (skipped) notes += counted(skipped, "Import.OneBadRow", "Import.BadRows");
        if (unclosed) notes += counted(unclosed, "Import.OneUnclosedUnlock", "Import.UnclosedUnlocks");
        Output(options).print(summary,
                              words("Import.Done", {counted(pickups, "Import.OnePickup", "Import.Pickups"),
                                                    counted(walks, "Import.OneWalk", "Import.Walks"),
                                                    counted(alives, "Import.OneAliveSpan", "Import.AliveSpans"),
                                                    counted(rows, "Import.OneRow", "Import.Rows"), notes}));
      });
}

}  // namespace tarnwell::cli

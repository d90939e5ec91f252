// The rows of an import file as events, read a line at a time.
//
// Two formats:
//   tarnwell  "kind,start,end" rows, kind being pickup, walk or alive, the
//             times in ISO 8601 (a header row of those names is skipped).
//   aware     the AWARE framework's screen events: timestamp (milliseconds
//             since 1970), device_id and screen_status (0 off, 1 on,
//             2 locked, 3 unlocked), columns found by their header. A pickup
//             runs from an unlock to the next off or lock of that device.
//             An off or lock without an unlock before it, and the screen
//             turning on, close nothing. An unlock followed by another unlock
//             before any off or lock never ended: it is dropped and counted
//             as unclosed, and the later unlock opens the pickup. So is an
//             unlock still open at the end of the file.
//
// The reader keeps nothing of a row once it is read, so memory stays the
// same whatever the size of the file: a tarnwell row is an event at once,
// and an AWARE file keeps only each device's last time and open unlock. That
// is why an AWARE device's rows must come in time order, as the framework
// writes them: a row earlier than the one before it of the same device is a
// bad row, not sorted in. For the same reason a file may name at most
// kMaxDevices devices, and a line is at most kMaxLineLength bytes (a longer
// one, a binary file's say, is a bad row, read past without being kept).
//
// An event the commands would refuse (a time outside 1970 to 2099, a pickup
// or walk longer than a day, an alive span longer than 31 days) is a bad row.
//
// A bad row is handed to the caller with its line number and skipped; the
// reader goes on. The caller decides when enough is enough.

#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <istream>
#include <map>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "tarnwell/platform/Date.h"
#include "tarnwell/platform/Localization.h"

namespace tarnwell::cli {

enum class ImportFormat { tarnwell, aware };

enum class ImportedKind { pickup, walk, alive };

// One span read from the file; the end is never before the start.
struct ImportedEvent {
  ImportedKind kind;
  Date start;
  Date end;
  friend bool operator==(const ImportedEvent&, const ImportedEvent&) = default;
};

// Why a row was skipped, or a file refused: a phrase of the host's table
// "Errors", keyed by its English, and the values its conversions take, so
// that the host says it in the user's language.
struct ImportProblem {
  std::string_view english;
  std::vector<FormatArgument> arguments;

  // In English, as a log or a test reads it.
  std::string text() const { return formatString(english, arguments); }
};

// A file that cannot be of its format at all (an AWARE file whose first row
// is not its header): one line, beginning with the line of the file.
class ImportFormatError : public std::runtime_error {
 public:
  explicit ImportFormatError(ImportProblem problem)
      : std::runtime_error(problem.text()), problem_(std::move(problem)) {}
  const ImportProblem& problem() const { return problem_; }

 private:
  ImportProblem problem_;
};

// Splits a CSV line on commas; fields may be double-quoted ("" for a quote).
// Carriage returns outside quotes are dropped.
std::vector<std::string> splitCSV(std::string_view line);

class ImportReader {
 public:
  static constexpr std::size_t kMaxLineLength = 64 * 1024;
  static constexpr std::size_t kMaxDevices = 10000;
  static constexpr std::size_t kMaxDeviceIdLength = 256;

  struct Handlers {
    std::function<void(const ImportedEvent&)> event;
    // A row that was skipped: its line (from 1) and why.
    std::function<void(std::size_t line, const ImportProblem& problem)> badRow;
  };

  ImportReader(ImportFormat format, Handlers handlers);

  // The next line, its line feed removed; `tooLong` when the line was longer
  // than kMaxLineLength and `text` is only its start. Throws ImportFormatError
  // for an AWARE file whose first row is not its header.
  void readLine(std::string_view text, bool tooLong = false);
  // After the last line: counts the unlocks still open.
  void finish();

  // Rows of data read (headers and empty lines are not rows), of which
  // skipped were bad, and unlocks never closed.
  std::size_t rows() const { return rows_; }
  std::size_t skipped() const { return skipped_; }
  std::size_t unclosed() const { return unclosed_; }
  // The lines read so far.
  std::size_t lines() const { return line_; }

 private:
  struct Device {
    double last;
    std::optional<double> unlockedAt;
  };
  void bad(std::string_view english, std::vector<FormatArgument> arguments = {});
  void take(const ImportedEvent& event);
  void readTarnwell(const std::vector<std::string>& fields);
  void readAware(const std::vector<std::string>& fields);

  ImportFormat format_;
  Handlers handlers_;
  std::size_t line_ = 0;
  std::size_t rows_ = 0;
  std::size_t skipped_ = 0;
  std::size_t unclosed_ = 0;
  int timestampColumn_ = -1, deviceColumn_ = -1, statusColumn_ = -1;
  std::map<std::string, Device, std::less<>> devices_;
};

// Reads `in` to its end (or until `keepGoing` says no after a line) into
// `reader`, line by line through a buffer of fixed size, then finishes the
// reader when the end was reached. `progress` hears of the bytes read after
// each line. False when `keepGoing` stopped it.
bool readImport(std::istream& in, ImportReader& reader, const std::function<bool()>& keepGoing,
                const std::function<void(std::uint64_t bytesRead)>& progress = {});

}  // namespace tarnwell::cli

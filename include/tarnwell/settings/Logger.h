// Logger: the file log "console.log" in the app group's container.
//
// Logger::start() is the one call a host makes at launch, before anything is
// logged: it gives `log` its only destination, a file that rotates at
// 2 MiB and keeps 3 archives ("console.1.log" newest to "console.3.log"),
// written on the logger's own queue so that no caller waits for the disk.
// A line reaches the file within half a second, or at Logger::flush().
// Debug lines are written in beta builds only.

#pragma once

#include <cstdint>
#include <filesystem>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "tarnwell/platform/DispatchQueue.h"
#include "tarnwell/platform/Log.h"

namespace tarnwell {

// A log file that moves itself aside when the next line would pass
// `maxFileSize`, keeping at most `targetMaxLogFiles` archives. Lines are
// gathered for half a second and written together on `queue`, in the order
// they came; flush() and the destructor write those waiting at once.
class AutoRotatingFileDestination final : public LogDestination {
 public:
  struct Options {
    std::filesystem::path writeToFile;
    std::string identifier;
    bool shouldAppend = true;
    // Written when an existing, non-empty file is appended to.
    std::string appendMarker;
    std::uintmax_t maxFileSize = 0;
    std::size_t targetMaxLogFiles = 0;
    LogLevel outputLevel = LogLevel::info;
    std::shared_ptr<DispatchQueue> queue;
  };

  explicit AutoRotatingFileDestination(Options options);
  ~AutoRotatingFileDestination() override;

  std::string_view identifier() const override { return identifier_; }
  LogLevel outputLevel() const override { return outputLevel_; }
  void write(const LogRecord& record) override;
  void flush() override;

  // The archives that exist, newest first.
  std::vector<std::filesystem::path> archivedFileURLs() const;

 private:
  struct Writer;

  std::string identifier_;
  LogLevel outputLevel_;
  std::filesystem::path file_;
  std::size_t targetMaxLogFiles_;
  std::shared_ptr<DispatchQueue> queue_;
  std::shared_ptr<Writer> writer_;
};

class Logger {
 public:
  Logger() = delete;

  static constexpr std::string_view kFileDestinationIdentifier = "advancedLogger.fileDestination";
  static constexpr std::uintmax_t kMaxFileSize = 2097152;
  static constexpr std::size_t kTargetMaxLogFiles = 3;

  // "console.log" in the app group's container; the process ends without one.
  static const std::filesystem::path& logFileURL();
  // The queue that file writes run on.
  static std::shared_ptr<DispatchQueue> logQueue();

  static void start();
  // logFileURL() first, then the archives of the file destination.
  static std::vector<std::filesystem::path> getArchivedFileURLs();
  // Waits until every line logged so far is in the file.
  static void flush() { log.flush(); }
};

}  // namespace tarnwell

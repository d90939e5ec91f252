#include "tarnwell/settings/Logger.h"

#include <spdlog/logger.h>
#include <spdlog/sinks/rotating_file_sink.h>
#include <spdlog/version.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <fstream>
#include <mutex>

#include "tarnwell/platform/Environment.h"
#include "tarnwell/platform/FatalError.h"
#include "tarnwell/platform/PrivateFiles.h"
#include "tarnwell/settings/AppEnvironment.h"
#include "tarnwell/settings/AppInfo.h"

namespace tarnwell {
namespace {

// The logger's parts that live as long as the Environment.
struct LoggerState {
  explicit LoggerState(Environment& environment)
      : queue(std::make_shared<DispatchQueue>("org.vostra.tarnwell.logger", environment.clock())) {
    const auto container = environment.containerURL(Environment::kAppGroupIdentifier);
    if (!container) fatalError("The app group container group.org.vostra.tarnwell cannot be found");
    logFileURL = *container / "console.log";
  }

  std::filesystem::path logFileURL;
  std::shared_ptr<DispatchQueue> queue;
};

LoggerState& loggerState() { return Environment::current().component<LoggerState>(); }

// "console.log" with index 2 is "console.2.log", as the rotating sink names its archives.
std::filesystem::path archiveName(const std::filesystem::path& file, std::size_t index) {
  auto archive = file;
  archive.replace_filename(file.stem().string() + "." + std::to_string(index) + file.extension().string());
  return archive;
}

void logAppDetails() {
  const std::string pid = std::to_string(::getpid());
  const LogOptions options{.function = "logAppDetails(selectedDestination:)"};
  log.info(AppInfo::displayName() + " Version: " + AppInfo::versionString() + " Build: " + AppInfo::buildString() +
               " PID: " + pid,
           options);
  log.info("spdlog Version: " + std::to_string(SPDLOG_VER_MAJOR) + "." + std::to_string(SPDLOG_VER_MINOR) + "." +
               std::to_string(SPDLOG_VER_PATCH) + " - Level: " +
               std::string(logLevelName(log.destination(Logger::kFileDestinationIdentifier)->outputLevel())),
           options);
  log.info("Logging to: " + Logger::logFileURL().string(), options);
}

}  // namespace

struct AutoRotatingFileDestination::Writer {
  // Lines wait this long on the queue, so that a burst of them, or a run of
  // writes each logging one, costs the queue's thread one wake, one write
  // and one flush. A flush, or this many lines, writes them at once.
  static constexpr double kLatency = 0.5;
  static constexpr std::size_t kBatch = 512;

  struct Line {
    LogRecord record;
    std::string zone;
  };

  // Writes the lines waiting, in the order they came, and flushes the file.
  void drain() {
    std::lock_guard writing(fileMutex);
    std::vector<Line> batch;
    {
      std::lock_guard guard(linesMutex);
      batch.swap(lines);
      scheduled = hurried = false;
    }
    if (batch.empty() || !logger) return;
    for (const auto& line : batch) logger->log(spdlog::level::info, formatLogRecord(line.record, line.zone));
    logger->flush();
  }

  std::shared_ptr<spdlog::logger> logger;
  // Held while the file is written: one writer at a time, and batches in order.
  std::mutex fileMutex;
  std::mutex linesMutex;
  std::vector<Line> lines;
  // A drain is on the queue for the lines waiting; and one that runs at once.
  bool scheduled = false;
  bool hurried = false;
};

AutoRotatingFileDestination::AutoRotatingFileDestination(Options options)
    : identifier_(std::move(options.identifier)),
      outputLevel_(options.outputLevel),
      file_(std::move(options.writeToFile)),
      targetMaxLogFiles_(options.targetMaxLogFiles),
      queue_(std::move(options.queue)),
      writer_(std::make_shared<Writer>()) {
  std::error_code error;
  if (!options.shouldAppend) std::filesystem::remove(file_, error);
  const bool appending = std::filesystem::file_size(file_, error) > 0 && !error;
  try {
    // The sink makes a new file at each rotation; each is the user's alone.
    spdlog::file_event_handlers handlers;
    handlers.after_open = [](const spdlog::filename_t&, std::FILE* stream) { ::fchmod(::fileno(stream), 0600); };
    auto sink = std::make_shared<spdlog::sinks::rotating_file_sink_st>(file_.string(), options.maxFileSize,
                                                                       options.targetMaxLogFiles, false, handlers);
    writer_->logger = std::make_shared<spdlog::logger>(identifier_, std::move(sink));
    writer_->logger->set_pattern("%v");
    writer_->logger->set_level(spdlog::level::trace);
    if (appending && !options.appendMarker.empty()) writer_->logger->log(spdlog::level::info, options.appendMarker);
  } catch (const spdlog::spdlog_ex& failure) {
    // The log is not worth stopping the app for: it is simply not written.
    std::fprintf(stderr, "The log file %s cannot be opened: %s\n", file_.c_str(), failure.what());
    writer_->logger.reset();
  }
}

// Lines still waiting reach the file: the queue drops a drain that was not due.
AutoRotatingFileDestination::~AutoRotatingFileDestination() { writer_->drain(); }

void AutoRotatingFileDestination::write(const LogRecord& record) {
  if (!writer_->logger) return;
  // The caller pays for the copy only; the text is made when the line is written.
  bool later = false, now = false;
  {
    std::lock_guard guard(writer_->linesMutex);
    writer_->lines.push_back({record, Region::current().timeZoneId()});
    later = !writer_->scheduled;
    now = writer_->lines.size() >= Writer::kBatch && !writer_->hurried;
    writer_->scheduled = true;
    writer_->hurried = writer_->hurried || now;
  }
  const auto drain = [writer = writer_] { writer->drain(); };
  if (now) queue_->async(drain);
  if (later) queue_->asyncAfter(Writer::kLatency, drain);
}

void AutoRotatingFileDestination::flush() { writer_->drain(); }

std::vector<std::filesystem::path> AutoRotatingFileDestination::archivedFileURLs() const {
  std::vector<std::filesystem::path> archives;
  for (std::size_t index = 1; index <= targetMaxLogFiles_; ++index) {
    auto archive = archiveName(file_, index);
    if (std::filesystem::exists(archive)) archives.push_back(std::move(archive));
  }
  return archives;
}

const std::filesystem::path& Logger::logFileURL() { return loggerState().logFileURL; }

std::shared_ptr<DispatchQueue> Logger::logQueue() { return loggerState().queue; }

void Logger::start() {
  const auto& file = logFileURL();
  try {
    makePrivateFile(file);
  } catch (const std::filesystem::filesystem_error&) {
    // The failure shows up when the destination opens the file.
  }
  for (std::size_t index = 1; index <= kTargetMaxLogFiles; ++index) tightenFile(archiveName(file, index));

  auto destination = std::make_shared<AutoRotatingFileDestination>(AutoRotatingFileDestination::Options{
      .writeToFile = file,
      .identifier = std::string(kFileDestinationIdentifier),
      .shouldAppend = true,
      .appendMarker = "-- ** ** ** --",
      .maxFileSize = kMaxFileSize,
      .targetMaxLogFiles = kTargetMaxLogFiles,
      .outputLevel = AppEnvironment::isTestFlight() ? LogLevel::debug : LogLevel::info,
      .queue = logQueue(),
  });
  log.add(std::move(destination));
  logAppDetails();

  const DeviceInfo& device = Environment::current().device();
  log.info("=== Device Information ===\nName: " + device.name + "\nSystem Name: " + device.systemName +
               "\nSystem Version: " + device.systemVersion + "\nModel: " + device.model + "\nLocalized Model: " +
               device.localizedModel + "\nIdentifier for Vender: " + device.identifierForVendor.value_or("-"),
           {.function = "configureLogger()"});
}

std::vector<std::filesystem::path> Logger::getArchivedFileURLs() {
  std::vector<std::filesystem::path> files{logFileURL()};
  const auto destination =
      std::dynamic_pointer_cast<AutoRotatingFileDestination>(log.destination(kFileDestinationIdentifier));
  if (destination) {
    for (auto& archive : destination->archivedFileURLs()) files.push_back(std::move(archive));
  }
  return files;
}

}  // namespace tarnwell

// log: the one logger of the process.
//
//   log.info("✍️ Add Pickup: " + id, {.function = "addPickup(start:end:)"});
//   log.warning("identifierForVendor is nil, will use random UUID", {.tag = "Settings"});
//
// A call composes one record on the caller's thread (time, level, thread or
// queue, file, line, function) and hands it to each destination whose output
// level admits it. Destinations belong to the installed Environment; with
// none, as before Logger::start(), nothing is written.

#pragma once

#include <memory>
#include <source_location>
#include <string>
#include <string_view>
#include <vector>

#include "tarnwell/platform/Date.h"

namespace tarnwell {

enum class LogLevel { debug, info, warning, error };

std::string_view logLevelName(LogLevel level);

struct LogRecord {
  Date date;
  LogLevel level;
  std::string threadName;
  std::string fileName;
  int line = 0;
  std::string function;
  std::string message;
};

// Text of a record as the file log shows it:
// "2026-11-22 20:15:47.123 [Info] [main] [Settings.cpp:120] deviceId() > text".
// The time is local to `timeZoneId`.
std::string formatLogRecord(const LogRecord& record, std::string_view timeZoneId);

class LogDestination {
 public:
  virtual ~LogDestination() = default;
  virtual std::string_view identifier() const = 0;
  virtual LogLevel outputLevel() const = 0;
  // Called on the logging thread; a destination that writes slowly hands the
  // work to a queue of its own.
  virtual void write(const LogRecord& record) = 0;
  // Returns once everything written so far is stored.
  virtual void flush() {}
};

struct LogOptions {
  // The name shown as the function; the caller's own function when empty.
  std::string_view function = {};
  // A subject shown in brackets before the message.
  std::string_view tag = {};
};

class AdvancedLogger {
 public:
  explicit AdvancedLogger(std::string identifier) : identifier_(std::move(identifier)) {}

  const std::string& identifier() const { return identifier_; }

  void debug(std::string_view message, LogOptions options = {},
             std::source_location site = std::source_location::current()) {
    write(LogLevel::debug, message, options, site);
  }
  void info(std::string_view message, LogOptions options = {},
            std::source_location site = std::source_location::current()) {
    write(LogLevel::info, message, options, site);
  }
  void warning(std::string_view message, LogOptions options = {},
               std::source_location site = std::source_location::current()) {
    write(LogLevel::warning, message, options, site);
  }
  void error(std::string_view message, LogOptions options = {},
             std::source_location site = std::source_location::current()) {
    write(LogLevel::error, message, options, site);
  }

  // Whether some destination would write a record of `level`; lets callers
  // skip composing expensive messages.
  bool isEnabledFor(LogLevel level) const;

  // Destinations of the installed Environment.
  void add(std::shared_ptr<LogDestination> destination);
  std::shared_ptr<LogDestination> destination(std::string_view identifier) const;
  void removeAll();
  // Waits until every destination has stored what it was given.
  void flush();

  void write(LogLevel level, std::string_view message, LogOptions options, const std::source_location& site);

 private:
  std::string identifier_;
};

// The process's logger, identifier "advancedLogger".
extern AdvancedLogger log;

}  // namespace tarnwell

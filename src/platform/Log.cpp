#include "tarnwell/platform/Log.h"

#include <pthread.h>

#include <algorithm>
#include <cstdio>
#include <functional>
#include <mutex>
#include <thread>

#include "platform/Civil.h"
#include "platform/Icu.h"
#include "tarnwell/platform/DispatchQueue.h"
#include "tarnwell/platform/Environment.h"

namespace tarnwell {

AdvancedLogger log("advancedLogger");

namespace {

// The destinations of one Environment.
struct LogDestinations {
  mutable std::mutex mutex;
  std::vector<std::shared_ptr<LogDestination>> all;

  std::vector<std::shared_ptr<LogDestination>> snapshot() const {
    std::lock_guard lock(mutex);
    return all;
  }
};

std::string currentThreadName() {
  if (DispatchQueue* queue = DispatchQueue::current()) {
    Environment* environment = Environment::currentIfInstalled();
    if (environment && queue == &environment->mainQueue()) return "main";
    return queue->label();
  }
  char name[32] = {};
  if (pthread_getname_np(pthread_self(), name, sizeof name) == 0 && name[0] != '\0') return name;
  return "thread-" + std::to_string(std::hash<std::thread::id>{}(std::this_thread::get_id()) % 100000);
}

// "void tarnwell::Settings::setColorTheme(ColorTheme)" reads as "setColorTheme()".
std::string shortFunctionName(std::string_view pretty) {
  std::string_view name = pretty.substr(0, pretty.find('('));
  if (const auto colons = name.rfind("::"); colons != std::string_view::npos) name.remove_prefix(colons + 2);
  if (const auto space = name.rfind(' '); space != std::string_view::npos) name.remove_prefix(space + 1);
  return std::string(name) + "()";
}

std::string_view baseName(std::string_view path) {
  const auto slash = path.rfind('/');
  return slash == std::string_view::npos ? path : path.substr(slash + 1);
}

}  // namespace

std::string_view logLevelName(LogLevel level) {
  switch (level) {
    case LogLevel::debug:
      return "Debug";
    case LogLevel::info:
      return "Info";
    case LogLevel::warning:
      return "Warning";
    case LogLevel::error:
      return "Error";
  }
  return "Unknown";
}

std::string formatLogRecord(const LogRecord& record, std::string_view timeZoneId) {
  const int offset = icu_support::offsetFromGMT(timeZoneId, record.date);
  const civil::Civil c = civil::fromUnixSeconds(record.date.timeIntervalSince1970() + offset);
  char stamp[48];
  std::snprintf(stamp, sizeof stamp, "%04lld-%02u-%02u %02u:%02u:%02u.%03u", static_cast<long long>(c.year), c.month,
                c.day, c.hour, c.minute, c.second, c.millisecond);
  std::string line = stamp;
  line += " [";
  line += logLevelName(record.level);
  line += "] [";
  line += record.threadName;
  line += "] [";
  line += record.fileName;
  line += ':';
  line += std::to_string(record.line);
  line += "] ";
  line += record.function;
  line += " > ";
  line += record.message;
  return line;
}

bool AdvancedLogger::isEnabledFor(LogLevel level) const {
  Environment* environment = Environment::currentIfInstalled();
  if (!environment) return false;
  const auto destinations = environment->component<LogDestinations>().snapshot();
  return std::any_of(destinations.begin(), destinations.end(),
                     [level](const auto& d) { return level >= d->outputLevel(); });
}

void AdvancedLogger::add(std::shared_ptr<LogDestination> destination) {
  auto& destinations = Environment::current().component<LogDestinations>();
  std::lock_guard lock(destinations.mutex);
  std::erase_if(destinations.all, [&](const auto& d) { return d->identifier() == destination->identifier(); });
  destinations.all.push_back(std::move(destination));
}

std::shared_ptr<LogDestination> AdvancedLogger::destination(std::string_view identifier) const {
  for (auto& destination : Environment::current().component<LogDestinations>().snapshot()) {
    if (destination->identifier() == identifier) return destination;
  }
  return nullptr;
}

void AdvancedLogger::removeAll() {
  auto& destinations = Environment::current().component<LogDestinations>();
  std::lock_guard lock(destinations.mutex);
  destinations.all.clear();
}

void AdvancedLogger::flush() {
  Environment* environment = Environment::currentIfInstalled();
  if (!environment) return;
  for (auto& destination : environment->component<LogDestinations>().snapshot()) destination->flush();
}

void AdvancedLogger::write(LogLevel level, std::string_view message, LogOptions options,
                           const std::source_location& site) {
  Environment* environment = Environment::currentIfInstalled();
  if (!environment) return;
  auto destinations = environment->component<LogDestinations>().snapshot();
  std::erase_if(destinations, [level](const auto& d) { return level < d->outputLevel(); });
  if (destinations.empty()) return;

  LogRecord record;
  record.date = environment->clock().now();
  record.level = level;
  record.threadName = currentThreadName();
  record.fileName = baseName(site.file_name());
  record.line = static_cast<int>(site.line());
  record.function = options.function.empty() ? shortFunctionName(site.function_name()) : std::string(options.function);
  if (!options.tag.empty()) {
    record.message = "[";
    record.message += options.tag;
    record.message += "] ";
  }
  record.message += message;
  for (auto& destination : destinations) destination->write(record);
}

}  // namespace tarnwell

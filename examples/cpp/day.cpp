// day: the metrics of one day of an installation, through the C++ API.
//
//   day [--tz ZONE] [--now INSTANT] CONTAINER [DATE]
//
// Plays the app as the command-line host does: installs an Environment for
// the installation whose folder is CONTAINER, starts the log, the health
// manager and the store, reads the day of DATE (ISO 8601; default: today)
// and prints its metrics as one JSON object, with the keys and values of
// `tarnwell --container CONTAINER --json day DATE`. The day's lists (sleeps,
// breaks, pickups, walks, noDatas) and its hours are left out: this shows
// the metrics. --tz is the IANA zone the day is cut in (default: the
// system's), --now pins the clock. On failure it prints why and exits with 1.
//
// Unlike the host, it does not join the cloud the installation signed in
// to: it reads what the store holds, which is what the last launch pulled.

#include <filesystem>
#include <iostream>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <stdexcept>
#include <string>
#include <type_traits>

#include "tarnwell/analytics/EventsOfDay.h"
#include "tarnwell/health/HealthManager.h"
#include "tarnwell/modules/Database.h"
#include "tarnwell/platform/Clock.h"
#include "tarnwell/platform/Date.h"
#include "tarnwell/platform/Environment.h"
#include "tarnwell/platform/Region.h"
#include "tarnwell/settings/Logger.h"

using namespace tarnwell;

namespace {

struct Arguments {
  std::string container;
  std::optional<std::string> date, zone, now;
};

std::optional<Arguments> parseArguments(int argc, char** argv) {
  Arguments arguments;
  bool haveContainer = false;
  for (int i = 1; i < argc; ++i) {
    const std::string word = argv[i];
    if ((word == "--tz" || word == "--now") && i + 1 < argc) {
      (word == "--tz" ? arguments.zone : arguments.now) = argv[++i];
    } else if (word.size() > 1 && word[0] == '-') {
      return std::nullopt;
    } else if (!haveContainer) {
      arguments.container = word;
      haveContainer = true;
    } else if (!arguments.date) {
      arguments.date = word;
    } else {
      return std::nullopt;
    }
  }
  if (!haveContainer) return std::nullopt;
  return arguments;
}

Date parseDate(const std::string& option, const std::string& text, const std::string& zone) {
  const auto date = Date::parseISO8601(text, zone);
  if (!date) throw std::invalid_argument(option + ": \"" + text + "\" is not an ISO 8601 date or time");
  return *date;
}

std::unique_ptr<Environment> makeEnvironment(const Arguments& arguments) {
  auto configuration = Environment::Configuration::system(std::filesystem::path(arguments.container));
  const Region system = Region::system();
  configuration.region = Region(arguments.zone.value_or(system.timeZoneId()), system.localeId());
  if (arguments.now) {
    configuration.clock =
        std::make_shared<ManualClock>(parseDate("--now", *arguments.now, configuration.region->timeZoneId()));
  }
  // The health manager's and the health store's queues run when this thread
  // pumps them, so the launch's first reload is done before the day is read.
  configuration.backgroundQueueMode = DispatchQueue::Mode::pumped;
  // The library takes a missing app-group container for a broken install
  // and stops the process: a folder that cannot be made is told here, once
  // every other argument was found good.
  try {
    std::filesystem::create_directories(configuration.appGroupContainer);
    std::filesystem::create_directories(configuration.privateFolder);
  } catch (const std::filesystem::filesystem_error& error) {
    throw std::runtime_error("\"" + arguments.container + "\" cannot be used: " + error.code().message());
  }
  return std::make_unique<Environment>(std::move(configuration));
}

// Until nothing is left: what one block leaves for the store's queue or the
// main queue may set the other going again.
void drainQueues() {
  do {
    Database::queue().safeSync([] {});
  } while (Environment::current().runPending() > 0);
}

// While alive, the app runs in the installed Environment. On the way out,
// however it is left, the log is written and every thread joined before
// static objects go away.
class Launch {
 public:
  explicit Launch(const Arguments& arguments) {
    Environment::install(makeEnvironment(arguments));
    try {
      Logger::start();
      HealthManager::shared().start();
      Database::start();
      drainQueues();
    } catch (...) {
      stop();
      throw;
    }
  }
  ~Launch() { stop(); }
  Launch(const Launch&) = delete;
  Launch& operator=(const Launch&) = delete;

  // What the launch set going (the announcements of the store's start, the
  // health store's writes), with the deadlines of the next second.
  void finish() { Environment::current().finish(1.0); }

 private:
  static void stop() {
    if (Environment::currentIfInstalled()) Logger::flush();
    Environment::install(nullptr);
  }
};

template <class T>
nlohmann::ordered_json optionalJSON(const std::optional<T>& value) {
  if (!value) return nullptr;
  if constexpr (std::is_same_v<T, Date>) {
    return value->iso8601();
  } else if constexpr (std::is_same_v<T, DateInterval>) {
    return {{"start", value->start().iso8601()}, {"end", value->end().iso8601()}};
  } else {
    return *value;
  }
}

nlohmann::ordered_json metricsJSON(const EventsOfDay& day) {
  return {
      {"startOfDay", day.startOfDay().iso8601()},
      {"screenTime", optionalJSON(day.screenTime())},
      {"pickupTimes", optionalJSON(day.pickupTimes())},
      {"longestPickup", optionalJSON(day.longestPickup())},
      {"checkingEvery", optionalJSON(day.checkingEvery())},
      {"walkingLife", optionalJSON(day.walkingLife())},
      {"indoorLife", optionalJSON(day.indoorLife())},
      {"bestBreak", optionalJSON(day.bestBreak())},
      {"continuouslyUsage", optionalJSON(day.continuouslyUsage())},
      {"firstPickupDate", optionalJSON(day.firstPickupDate())},
      {"lastPickupDate", optionalJSON(day.lastPickupDate())},
      {"sleepTime", optionalJSON(day.sleepTime())},
      {"asleepAt", day.asleepAt().iso8601()},
  };
}

}  // namespace

int main(int argc, char** argv) {
  const auto arguments = parseArguments(argc, argv);
  if (!arguments) {
    std::cerr << "usage: day [--tz ZONE] [--now INSTANT] CONTAINER [DATE]\n";
    return 2;
  }
  try {
    Launch launch(*arguments);
    // Read in the installation's zone: a date alone is its midnight there.
    const Date date = arguments->date ? parseDate("DATE", *arguments->date, {}) : Date::now();
    const EventsOfDay day(date, std::nullopt);
    std::cout << metricsJSON(day).dump() << '\n';
    launch.finish();
  } catch (const std::exception& error) {
    std::cerr << "day: " << error.what() << '\n';
    return 1;
  }
  return 0;
}

#include <iostream>

#include "Cli.h"
#include "tarnwell/automation/WidgetDatabase.h"
#include "tarnwell/modules/CloudService.h"
#include "tarnwell/modules/Database.h"

namespace tarnwell::cli {

void Output::print(const nlohmann::ordered_json& value, const std::string& text) const {
  if (options_.json) {
    std::cout << value.dump() << '\n';
  } else {
    std::cout << text << '\n';
  }
}

std::string plainText(const nlohmann::ordered_json& value) {
  if (value.is_string()) return value.get<std::string>();
  return value.dump();
}

Date parseInstant(std::string_view text) {
  if (auto date = Date::parseISO8601(text)) return *date;
  throw InputError("\"" + std::string(text) + "\" is not an ISO 8601 date or time");
}

Date parseInstantOrNow(const std::optional<std::string>& text) { return text ? parseInstant(*text) : Date::now(); }

std::string joinLines(const std::vector<std::string>& lines, const std::string& empty) {
  if (lines.empty()) return empty;
  std::string text;
  for (const auto& line : lines) text += line + "\n";
  text.pop_back();
  return text;
}

std::size_t drainQueues() {
  Database::queue().safeSync([] {});
  return Environment::current().runPending();
}

namespace {

// Seconds of deadlines a run waits for before it exits: the 0.1-second
// debounce of announcements, not the day timer. Work the run still owes
// (a retry the cloud asked for) is waited for whatever its deadline.
constexpr double kSettleHorizon = 1.0;

bool launched = false;

void drainDueWork() {
  while (drainQueues() > 0) {
  }
}

}  // namespace

void launch() {
  joinSignedInCloud([](const nlohmann::json& userInfo) { CloudService::handleRemoteNotification(userInfo); });
  // The app publishes for its widgets wherever the store announces a change.
  WidgetDatabase::connectToDatabase();
  try {
    Database::start();
  } catch (const std::exception& error) {
    throw InputError(std::string("the store could not be opened and was set aside as ") +
                     Database::backupURL().filename().string() + " (" + error.what() +
                     "); the next run starts an empty store");
  }
  launched = true;
  drainDueWork();
  resumeLaunch();
  drainDueWork();
}

void settleOperations() {
  if (launched) Database::queue().safeSync([] {});
  Environment::current().finish(kSettleHorizon);
}

void finishRun() {
  settleOperations();
  if (launched) endLaunch();
}

}  // namespace tarnwell::cli

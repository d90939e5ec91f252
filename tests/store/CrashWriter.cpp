// A process that adds pickups until it is killed, printing each id once
// addPickup has returned it. Used by the crash-safety test:
//   store_crash_writer INSTALLATION KEYCHAIN COUNT

#include <unistd.h>

#include <cstdlib>
#include <string>

#include "tarnwell/modules/Database.h"
#include "tarnwell/platform/Environment.h"

int main(int argc, char** argv) {
  if (argc != 4) return 2;
  using namespace tarnwell;
  const std::filesystem::path installation = argv[1];
  Environment::Configuration configuration;
  configuration.appGroupContainer = installation / Environment::kAppGroupIdentifier;
  configuration.privateFolder = installation / "org.vostra.tarnwell";
  configuration.keychainFolder = argv[2];
  configuration.region = Region("UTC", "en_US");
  configuration.device.identifierForVendor = "6D1A2B3C-4D5E-4F60-8A7B-9C0D1E2F3A4B";
  Environment::install(std::make_unique<Environment>(std::move(configuration)));
  Database::start();
  const int count = std::atoi(argv[3]);
  const Date start = Date::fromTimeIntervalSinceReferenceDate(800000000);
  for (int i = 0; i < count; ++i) {
    const std::string line = Database::addPickup(start + i * 60.0, start + i * 60.0 + 30) + "\n";
    // One write of under PIPE_BUF bytes: the reader gets whole lines only.
    if (::write(STDOUT_FILENO, line.data(), line.size()) != static_cast<ssize_t>(line.size())) return 1;
  }
  return 0;
}

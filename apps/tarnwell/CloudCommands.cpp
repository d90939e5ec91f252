// `tarnwell cloud`: the user's private cloud, a folder that the
// installations of one user on this machine sign in to or the user's schema
// on a PostgreSQL server for devices on several machines, and the switches
// that make a folder fail the way a real cloud does.

#include <termios.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <memory>

#include "Cli.h"
#include "tarnwell/cloudkit/CloudEmulator.h"
#include "tarnwell/modules/CloudService.h"
#include "tarnwell/settings/Settings.h"

namespace tarnwell::cli {
namespace {

// Where this installation remembers the cloud it signed in to: a folder,
// or a server's URL (its password is in the keychain, under the URL).
constexpr std::string_view kCloudFolderKey = "TarnwellHost.cloudFolder";
constexpr std::string_view kCloudServerKey = "TarnwellHost.cloudServer";
constexpr std::string_view kPasswordService = "org.vostra.tarnwell.cloud";

struct CloudArguments {
  std::string target, status, code, kind, zone;
  std::optional<std::string> type, on, retryAfter;
  int times = 1;
  int count = 0;
};

// This installation's device in `cloud`, in the app's container.
std::shared_ptr<EmulatedContainer> thisDevice(CloudEmulator& cloud) {
  return cloud.container(Settings::deviceId(), std::string(CloudService::containerIdentifier));
}

std::shared_ptr<DispatchQueue> cloudQueue() { return Environment::current().makeQueue("org.vostra.tarnwell.cloud"); }

std::optional<CloudServer> signedInServer() {
  const auto url = UserDefaults::standard().stringForKey(kCloudServerKey);
  if (!url) return std::nullopt;
  auto server = CloudServer::parse(*url);
  if (!server) return std::nullopt;
  try {
    if (const auto password = Environment::current().keychain().get(kPasswordService, *url)) {
      server->password.assign(password->begin(), password->end());
    }
  } catch (const KeychainError& error) {
    throw refusal("Cannot read the cloud's password from the keychain: %@", {error.what()});
  }
  return server;
}

std::optional<std::filesystem::path> signedInFolder() {
  const auto folder = UserDefaults::standard().stringForKey(kCloudFolderKey);
  if (!folder) return std::nullopt;
  return std::filesystem::path(*folder);
}

// The cloud this installation signed in to, or nullptr when none.
std::shared_ptr<CloudEmulator> openSignedInCloud() {
  try {
    if (const auto server = signedInServer()) return CloudEmulator::connect(*server, false, cloudQueue());
    if (const auto folder = signedInFolder()) return CloudEmulator::open(*folder, false, cloudQueue());
  } catch (const CloudFolderError& error) {
    throw InputError(error.what());
  }
  return nullptr;
}

// The cloud this installation signed in to; InputError when there is none.
std::shared_ptr<CloudEmulator> signedInCloud(const std::string& command) {
  auto cloud = openSignedInCloud();
  if (!cloud) throw refusal("%@: this installation is not signed in to a cloud (cloud sign-in DIR|URL)", {command});
  return cloud;
}

// The cloud this process joined at launch, which `sync watch` waits on.
std::shared_ptr<CloudEmulator>& joinedCloud() {
  static std::shared_ptr<CloudEmulator> cloud;
  return cloud;
}

// What the terminal types without showing it.
std::string askPassword(const std::string& prompt) {
  std::cerr << prompt << std::flush;
  termios before{};
  const bool terminal = ::tcgetattr(STDIN_FILENO, &before) == 0;
  if (terminal) {
    termios quiet = before;
    quiet.c_lflag &= ~static_cast<tcflag_t>(ECHO);
    ::tcsetattr(STDIN_FILENO, TCSAFLUSH, &quiet);
  }
  std::string password;
  std::getline(std::cin, password);
  if (terminal) ::tcsetattr(STDIN_FILENO, TCSAFLUSH, &before);
  std::cerr << "\n";
  return password;
}

// A field of a password file line, up to an unescaped colon.
std::optional<std::string> passFileField(std::string_view& line) {
  std::string field;
  while (!line.empty()) {
    const char c = line.front();
    line.remove_prefix(1);
    if (c == ':') return field;
    if (c == '\\' && !line.empty()) {
      field += line.front();
      line.remove_prefix(1);
      continue;
    }
    field += c;
  }
  return std::nullopt;
}

// The password libpq would take from PGPASSFILE for `server`: the first
// line whose host, port, database and user match, "*" matching anything.
std::optional<std::string> passFilePassword(const CloudServer& server) {
  const char* file = std::getenv("PGPASSFILE");
  if (!file || !*file) return std::nullopt;
  std::ifstream in(file);
  if (!in) throw refusal("Cannot read PGPASSFILE %@", {file});
  const std::string wanted[] = {server.host, std::to_string(server.port), server.database, server.user};
  for (std::string line; std::getline(in, line);) {
    if (line.empty() || line.front() == '#') continue;
    std::string_view rest = line;
    bool matches = true;
    for (const std::string& each : wanted) {
      const auto field = passFileField(rest);
      if (!field) {
        matches = false;
        break;
      }
      matches = matches && (*field == "*" || *field == each);
    }
    if (!matches) continue;
    // The password is the rest of the line, with its escapes undone.
    std::string password;
    for (std::size_t index = 0; index < rest.size(); ++index) {
      if (rest[index] == '\\' && index + 1 < rest.size()) ++index;
      password += rest[index];
    }
    return password;
  }
  return std::nullopt;
}

void signInToServer(const GlobalOptions& options, CloudServer server) {
  if (auto password = passFilePassword(server)) {
    server.password = std::move(*password);
  } else if (::isatty(STDIN_FILENO)) {
    server.password = askPassword(words("Cloud.PasswordPrompt", {server.url()}));
  }
  bool ready = false;
  try {
    ready = CloudEmulator::serverHoldsCloud(server);
  } catch (const CloudFolderError& error) {
    throw InputError(error.what());
  }
  try {
    auto& keychain = Environment::current().keychain();
    if (server.password.empty()) {
      keychain.remove(kPasswordService, server.url());
    } else {
      keychain.set(kPasswordService, server.url(), Data(server.password.begin(), server.password.end()));
    }
  } catch (const KeychainError& error) {
    throw refusal("Cannot keep the cloud's password in the keychain: %@", {error.what()});
  }
  if (ready) {
    thisDevice(*CloudEmulator::connect(server, false, cloudQueue()))->setAccountStatus(CKAccountStatus::available);
  }
  UserDefaults::standard().set(kCloudServerKey, server.url());
  UserDefaults::standard().removeObject(kCloudFolderKey);
  signedInCloudChanged();
  Output(options).print({{"server", server.url()}, {"deviceId", Settings::deviceId()}, {"ready", ready}},
                        ready ? words("Cloud.SignedIn.Server", {server.url()})
                              : words("Cloud.SignedIn.ServerWithoutCloud", {server.url(), server.user}));
}

void signInToFolder(const GlobalOptions& options, const std::string& target) {
  const auto folder = std::filesystem::absolute(target).lexically_normal();
  try {
    thisDevice(*CloudEmulator::open(folder, true, cloudQueue()))->setAccountStatus(CKAccountStatus::available);
  } catch (const CloudFolderError& error) {
    throw InputError(error.what());
  }
  UserDefaults::standard().set(kCloudFolderKey, folder.string());
  UserDefaults::standard().removeObject(kCloudServerKey);
  signedInCloudChanged();
  Output(options).print({{"folder", folder.string()}, {"deviceId", Settings::deviceId()}},
                        words("Cloud.SignedIn.Folder", {folder.string()}));
}

void initServer(const GlobalOptions& options) {
  const auto server = signedInServer();
  if (!server) throw refusal("cloud init-server: this installation is not signed in to a server (cloud sign-in URL)");
  try {
    const bool existed = CloudEmulator::serverHoldsCloud(*server);
    thisDevice(*CloudEmulator::connect(*server, true, cloudQueue()))->setAccountStatus(CKAccountStatus::available);
    signedInCloudChanged();
    Output(options).print(
        {{"server", server->url()}, {"schema", server->schemaName()}, {"made", !existed}},
        words(existed ? "Cloud.InitServer.Existed" : "Cloud.InitServer.Made", {server->user, server->url()}));
  } catch (const CloudFolderError& error) {
    throw InputError(error.what());
  }
}

// This device's view of the cloud in the process: the installed container.
std::shared_ptr<EmulatedContainer> joinedContainer() {
  return std::dynamic_pointer_cast<EmulatedContainer>(CKContainer::installedPointer());
}

nlohmann::ordered_json fieldJSON(const CKRecordValue& value);

template <class T>
nlohmann::ordered_json arrayJSON(const std::vector<T>& values) {
  nlohmann::ordered_json array = nlohmann::ordered_json::array();
  for (const auto& value : values) array.push_back(fieldJSON(CKRecordValue(value)));
  return array;
}

nlohmann::ordered_json fieldJSON(const CKRecordValue& value) {
  return std::visit(
      [](const auto& held) -> nlohmann::ordered_json {
        using T = std::decay_t<decltype(held)>;
        if constexpr (std::is_same_v<T, std::int64_t> || std::is_same_v<T, double> || std::is_same_v<T, std::string>) {
          return held;
        } else if constexpr (std::is_same_v<T, Data>) {
          return base64::encode(held);
        } else if constexpr (std::is_same_v<T, Date>) {
          return held.iso8601();
        } else if constexpr (std::is_same_v<T, CKReference>) {
          return {{"recordName", held.recordID.recordName}, {"zone", held.recordID.zoneID.zoneName}};
        } else if constexpr (std::is_same_v<T, CKAsset>) {
          return held.fileURL ? nlohmann::ordered_json(held.fileURL->string()) : nlohmann::ordered_json();
        } else {
          return arrayJSON(held);
        }
      },
      value);
}

void showRecords(const GlobalOptions& options, const std::optional<std::string>& type) {
  printCloudRecords(options, signedInCloud("cloud records")->records(CKDatabaseScope::privateScope, type));
}

CloudFault parseFault(const CloudArguments& a) {
  const auto code = errorCodeNamed(a.code);
  if (!code) refuse("code", a.code, "a cloud error code, by name (zoneBusy) or number (23)");
  CloudFault fault{.code = static_cast<int>(*code), .retryAfter = std::nullopt, .times = a.times, .on = std::nullopt};
  if (a.retryAfter) {
    fault.retryAfter = parseNumber("--retry-after", *a.retryAfter);
    if (*fault.retryAfter < 0) refuse("--retry-after", *a.retryAfter, "seconds, 0 or more");
  }
  if (a.times < 1) refuse("--times", std::to_string(a.times), "a count of 1 or more");
  if (a.on) {
    fault.on = operationKindNamed(*a.on);
    if (!fault.on) refuse("--on", *a.on, "modify, fetch-database, fetch-zone, modify-zones, subscriptions or query");
  }
  return fault;
}

std::string faultText(const CloudFault& fault) {
  const bool one = fault.times == 1;
  if (!fault.on) {
    return words(one ? "Cloud.Fault.One" : "Cloud.Fault.Many", {fault.times, fault.code});
  }
  return words(one ? "Cloud.Fault.OneOfKind" : "Cloud.Fault.ManyOfKind",
               {fault.times, std::string(name(*fault.on)), fault.code});
}

}  // namespace

void printCloudRecords(const GlobalOptions& options, const std::vector<CKRecord>& records) {
  nlohmann::ordered_json all = nlohmann::ordered_json::array();
  std::vector<std::string> lines;
  for (const auto& record : records) {
    nlohmann::ordered_json fields = nlohmann::ordered_json::object();
    for (const auto& [key, value] : record.fields()) {
      if (value) fields[key] = fieldJSON(*value);
    }
    lines.push_back(record.recordType() + "  " + record.recordID().zoneID.zoneName + "  " +
                    record.recordID().recordName + "  " + fields.dump());
    all.push_back({{"recordName", record.recordID().recordName},
                   {"recordType", record.recordType()},
                   {"zone", record.recordID().zoneID.zoneName},
                   {"fields", std::move(fields)}});
  }
  Output(options).print(all, joinLines(lines, words("List.None")));
}

std::optional<std::string> signedInCloudName() {
  if (const auto url = UserDefaults::standard().stringForKey(kCloudServerKey)) return url;
  if (const auto folder = signedInFolder()) return folder->string();
  return std::nullopt;
}

void joinSignedInCloud(std::function<void(const nlohmann::json& userInfo)> handler) {
  try {
    auto cloud = openSignedInCloud();
    if (!cloud) return;
    auto container = thisDevice(*cloud);
    container->setRemoteNotificationHandler(std::move(handler));
    CKContainer::install(std::move(container));
    joinedCloud() = std::move(cloud);
  } catch (const std::exception& error) {
    // The phone goes on without a cloud it cannot reach (or one that did not
    // answer in time); so does a run, and its writes are stored all the same.
    std::cerr << "tarnwell: " << error.what() << "; this run goes on signed out\n";
  }
}

std::size_t deliverWaitingPushes() {
  const auto container = joinedContainer();
  if (!container) return 0;
  try {
    return container->deliverPendingPushes();
  } catch (const std::exception& error) {
    // A server that does not answer holds back no command: the pushes wait
    // there for the next run, or the next turn of a watch.
    std::cerr << "tarnwell: " << error.what() << "; the pushes waiting for this device are handed over later\n";
    return 0;
  }
}

void leaveJoinedCloud() { joinedCloud().reset(); }

bool waitForPushes(std::chrono::milliseconds timeout) {
  const auto cloud = joinedCloud();
  if (!cloud) throw refusal("this installation is not signed in to a cloud (cloud sign-in DIR|URL)");
  return cloud->waitForPushes(timeout);
}

void addCloudCommands(CLI::App& app, const GlobalOptions& options, Action& action) {
  auto a = std::make_shared<CloudArguments>();
  auto* cloud = app.add_subcommand(
      "cloud", "The user's private cloud: a folder the installations of one user share, or a PostgreSQL server");
  cloud->require_subcommand(1);

  auto* signIn = cloud->add_subcommand(
      "sign-in",
      "Use the cloud in DIR (made there if new) or on the server "
      "postgresql://USER@HOST:PORT/DB[?sslmode=MODE&connect_timeout=SECONDS&sslrootcert=FILE] from now on");
  signIn->add_option("cloud", a->target, "The cloud's folder, or the server's URL")->required();
  onRunWithoutStore(signIn, action, [&options, a] {
    if (a->target.find("://") == std::string::npos) return signInToFolder(options, a->target);
    std::string problem;
    auto server = CloudServer::parse(a->target, &problem);
    if (!server) throw refusal("cloud sign-in: %@", {problem});
    signInToServer(options, std::move(*server));
  });

  auto* init = cloud->add_subcommand("init-server", "Make this user's cloud on the server signed in to");
  onRunWithoutStore(init, action, [&options] { initServer(options); });

  auto* signOut = cloud->add_subcommand("sign-out", "No cloud account from now on");
  onRunWithoutStore(signOut, action, [&options] {
    // The password goes with the account.
    if (const auto url = UserDefaults::standard().stringForKey(kCloudServerKey)) {
      try {
        Environment::current().keychain().remove(kPasswordService, *url);
      } catch (const KeychainError& error) {
        throw refusal("Cannot remove the cloud's password from the keychain: %@", {error.what()});
      }
    }
    UserDefaults::standard().removeObject(kCloudFolderKey);
    UserDefaults::standard().removeObject(kCloudServerKey);
    signedInCloudChanged();
    Output(options).print({{"folder", nullptr}}, words("Cloud.SignedOut"));
  });

  auto* account = cloud->add_subcommand("account", "Force what the account status reads for this installation");
  account
      ->add_option("status", a->status, "couldNotDetermine, available, restricted, noAccount or temporarilyUnavailable")
      ->required();
  onRunWithoutStore(account, action, [&options, a] {
    const auto status = accountStatusNamed(a->status);
    if (!status) {
      refuse("status", a->status, "couldNotDetermine, available, restricted, noAccount or temporarilyUnavailable");
    }
    thisDevice(*signedInCloud("cloud account"))->setAccountStatus(*status);
    signedInCloudChanged();
    Output(options).print({{"accountStatus", a->status}}, words("Cloud.AccountStatus", {a->status}));
  });

  auto* records = cloud->add_subcommand("records", "What the private database holds");
  records->add_option("--type", a->type, "Only records of this type (Pickup, Walk, Focus, Tag, Device)");
  onRunWithoutStore(records, action, [&options, a] { showRecords(options, a->type); });

  auto* fault = cloud->add_subcommand("fault", "Fail the next operations with a cloud error code");
  fault->add_option("code", a->code, "A code by name (zoneBusy) or number (23); `clear` removes every fault")
      ->required();
  fault->add_option("--retry-after", a->retryAfter, "Seconds the error asks the client to wait");
  fault->add_option("--times", a->times, "How many operations fail (default 1)");
  fault->add_option("--on", a->on, "modify, fetch-database, fetch-zone, modify-zones, subscriptions or query");
  onRunWithoutStore(fault, action, [&options, a] {
    if (a->code == "clear") {
      signedInCloud("cloud fault")->clearFaults();
      return Output(options).print({{"faults", nlohmann::ordered_json::array()}}, words("Cloud.Fault.None"));
    }
    const CloudFault parsed = parseFault(*a);
    signedInCloud("cloud fault")->addFault(parsed);
    Output(options).print({{"code", parsed.code},
                           {"retryAfter", parsed.retryAfter ? nlohmann::ordered_json(*parsed.retryAfter) : nullptr},
                           {"times", parsed.times},
                           {"on", parsed.on ? nlohmann::ordered_json(name(*parsed.on)) : nullptr}},
                          faultText(parsed));
  });

  auto* expire = cloud->add_subcommand("expire-tokens", "Every change token handed out so far expires");
  onRunWithoutStore(expire, action, [&options] {
    signedInCloud("cloud expire-tokens")->expireTokens();
    Output(options).print({{"expired", true}}, words("Cloud.TokensExpired"));
  });

  auto* dropPushes = cloud->add_subcommand("drop-pushes", "The next N pushes never arrive");
  dropPushes->add_option("count", a->count, "How many")->required()->check(CLI::NonNegativeNumber);
  onRunWithoutStore(dropPushes, action, [&options, a] {
    signedInCloud("cloud drop-pushes")->dropPushes(a->count);
    Output(options).print({{"dropPushes", a->count}},
                          words(a->count == 1 ? "Cloud.DropPushes.One" : "Cloud.DropPushes.Many", {a->count}));
  });

  // Both backings keep these switches in the cloud itself, so a server takes
  // them as a folder does and every device signed in meets them.
  auto* dropCompletions = cloud->add_subcommand("drop-completions", "The next N operations call no completion");
  dropCompletions->add_option("count", a->count, "How many")->required()->check(CLI::NonNegativeNumber);
  onRunWithoutStore(dropCompletions, action, [&options, a] {
    signedInCloud("cloud drop-completions")->dropCompletions(a->count);
    Output(options).print(
        {{"dropCompletions", a->count}},
        words(a->count == 1 ? "Cloud.DropCompletions.One" : "Cloud.DropCompletions.Many", {a->count}));
  });

  auto* deleteZone = cloud->add_subcommand("delete-zone", "The user deletes a zone of the private database");
  deleteZone->add_option("zone", a->zone, "Zone name, as `cloud records` shows it")->required();
  onRunWithoutStore(deleteZone, action, [&options, a] {
    CKRecordZoneID zone;
    zone.zoneName = a->zone;
    if (zone.isDefault()) refuse("zone", a->zone, "a zone other than the default one");
    signedInCloud("cloud delete-zone")->deleteZone(CKDatabaseScope::privateScope, zone);
    Output(options).print({{"deletedZone", a->zone}}, words("Cloud.ZoneDeleted", {a->zone}));
  });
}

}  // namespace tarnwell::cli

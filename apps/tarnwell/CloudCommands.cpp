// `tarnwell cloud`: the user's private cloud on this machine, a folder that
// the installations of one user sign in to, and the switches that make it
// fail the way a real one does.

#include <filesystem>
#include <iostream>
#include <memory>

#include "Cli.h"
#include "tarnwell/cloudkit/CloudEmulator.h"
#include "tarnwell/modules/CloudService.h"
#include "tarnwell/settings/Settings.h"

namespace tarnwell::cli {
namespace {

// Where this installation remembers the cloud it signed in to.
constexpr std::string_view kCloudFolderKey = "TarnwellHost.cloudFolder";

struct Arguments {
  std::string folder, status, code, kind;
  std::optional<std::string> type, on, retryAfter;
  int times = 1;
  int count = 0;
};

std::shared_ptr<CloudEmulator> openCloud(const std::filesystem::path& folder, bool create) {
  try {
    return CloudEmulator::open(folder, create, Environment::current().makeQueue("org.vostra.tarnwell.cloud"));
  } catch (const CloudFolderError& error) {
    throw InputError(error.what());
  }
}

// The cloud this installation signed in to; InputError when there is none.
std::shared_ptr<CloudEmulator> signedInCloud(const std::string& command) {
  const auto folder = signedInCloudFolder();
  if (!folder) throw InputError(command + ": this installation is not signed in to a cloud (cloud sign-in DIR)");
  return openCloud(*folder, false);
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

CloudFault parseFault(const Arguments& a) {
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
  Output(options).print(all, joinLines(lines));
}

std::optional<std::filesystem::path> signedInCloudFolder() {
  const auto folder = UserDefaults::standard().stringForKey(kCloudFolderKey);
  if (!folder) return std::nullopt;
  return std::filesystem::path(*folder);
}

void joinSignedInCloud(std::function<void(const nlohmann::json& userInfo)> handler) {
  const auto folder = signedInCloudFolder();
  if (!folder) return;
  try {
    auto container =
        openCloud(*folder, false)->container(Settings::deviceId(), std::string(CloudService::containerIdentifier));
    container->setRemoteNotificationHandler(std::move(handler));
    CKContainer::install(std::move(container));
  } catch (const InputError& error) {
    // The phone goes on without a cloud it cannot reach; so does a run.
    std::cerr << "tarnwell: " << error.what() << "; this run goes on signed out\n";
  }
}

void deliverWaitingPushes() {
  if (const auto container = joinedContainer()) container->deliverPendingPushes();
}

void addCloudCommands(CLI::App& app, const GlobalOptions& options, Action& action) {
  auto a = std::make_shared<Arguments>();
  auto* cloud = app.add_subcommand("cloud", "The user's private cloud: a folder the installations of one user share");
  cloud->require_subcommand(1);

  auto* signIn = cloud->add_subcommand("sign-in", "Use the cloud in DIR from now on (made there if new)");
  signIn->add_option("folder", a->folder, "The cloud's folder")->required();
  onRunWithoutStore(signIn, action, [&options, a] {
    const auto folder = std::filesystem::absolute(a->folder).lexically_normal();
    openCloud(folder, true)
        ->container(Settings::deviceId(), std::string(CloudService::containerIdentifier))
        ->setAccountStatus(CKAccountStatus::available);
    UserDefaults::standard().set(kCloudFolderKey, folder.string());
    Output(options).print({{"folder", folder.string()}, {"deviceId", Settings::deviceId()}},
                          "Signed in to the cloud in " + folder.string());
  });

  auto* signOut = cloud->add_subcommand("sign-out", "No cloud account from now on");
  onRunWithoutStore(signOut, action, [&options] {
    UserDefaults::standard().removeObject(kCloudFolderKey);
    Output(options).print({{"folder", nullptr}}, "Signed out");
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
    signedInCloud("cloud account")
        ->container(Settings::deviceId(), std::string(CloudService::containerIdentifier))
        ->setAccountStatus(*status);
    Output(options).print({{"accountStatus", a->status}}, "The account status reads " + a->status);
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
      return Output(options).print({{"faults", nlohmann::ordered_json::array()}}, "No faults");
    }
    const CloudFault parsed = parseFault(*a);
    signedInCloud("cloud fault")->addFault(parsed);
    Output(options).print({{"code", parsed.code},
                           {"retryAfter", parsed.retryAfter ? nlohmann::ordered_json(*parsed.retryAfter) : nullptr},
                           {"times", parsed.times},
                           {"on", parsed.on ? nlohmann::ordered_json(name(*parsed.on)) : nullptr}},
                          "The next " + std::to_string(parsed.times) + " operations" +
                              (parsed.on ? " of kind " + std::string(name(*parsed.on)) : "") + " fail with code " +
                              std::to_string(parsed.code));
  });

  auto* expire = cloud->add_subcommand("expire-tokens", "Every change token handed out so far expires");
  onRunWithoutStore(expire, action, [&options] {
    signedInCloud("cloud expire-tokens")->expireTokens();
    Output(options).print({{"expired", true}}, "Every change token handed out so far has expired");
  });

  auto* dropPushes = cloud->add_subcommand("drop-pushes", "The next N pushes never arrive");
  dropPushes->add_option("count", a->count, "How many")->required()->check(CLI::NonNegativeNumber);
  onRunWithoutStore(dropPushes, action, [&options, a] {
    signedInCloud("cloud drop-pushes")->dropPushes(a->count);
    Output(options).print({{"dropPushes", a->count}}, "The next " + std::to_string(a->count) + " pushes are dropped");
  });
}

}  // namespace tarnwell::cli

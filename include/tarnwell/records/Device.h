// Device: one row for each installation that has ever synced, this one included.

#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <tuple>
#include <vector>

#include "tarnwell/platform/Date.h"
#include "tarnwell/records/Properties.h"

namespace tarnwell {

struct Device {
  static constexpr std::string_view className = "Device";
  static constexpr std::string_view csvColumns = "id,name,lastSyncDate";

  // The Settings::deviceId of that installation.
  std::optional<std::string> id;
  // The device's name when the row was made.
  std::optional<std::string> name;
  // The end of that device's last cloud sync.
  std::optional<Date> lastSyncDate;
  bool isDeleted = false;
  // The other devices whose events this device merges into its views. Each
  // id at most once; the relation is not symmetric.
  std::vector<std::string> deviceIds;

  Device() = default;
  Device(std::string deviceId, std::string deviceName) : id(std::move(deviceId)), name(std::move(deviceName)) {}

  // Appends `deviceId` unless it is there already.
  void appendDeviceId(const std::string& deviceId);

  // id,name,"lastSyncDate": empty without an id or a name; a missing
  // lastSyncDate is written as the current date.
  std::string csvRecord() const;

  static constexpr auto properties() {
    return std::tuple{records::primaryKey("id", &Device::id), records::property("name", &Device::name),
                      records::property("lastSyncDate", &Device::lastSyncDate),
                      records::property("isDeleted", &Device::isDeleted),
                      records::property("deviceIds", &Device::deviceIds)};
  }
  friend bool operator==(const Device&, const Device&) = default;
};

}  // namespace tarnwell

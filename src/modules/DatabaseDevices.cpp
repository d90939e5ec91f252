// This device's row, its last sync and the devices it merges with.

#include <algorithm>

#include "modules/DatabaseSupport.h"
#include "tarnwell/modules/Database.h"
#include "tarnwell/platform/Log.h"
#include "tarnwell/store/Reads.h"

namespace tarnwell {

using namespace database_support;
using store::Store;
using store::WriteTransaction;

namespace {

// This device's row for an edit of it: a store that does not open reads as
// no row, which the edit then skips.
std::optional<Device> currentDeviceForEdit() { return store::orNoData(store::currentDevice); }

}  // namespace

std::optional<Device> Database::getCurrentDevice() { return store::currentDevice(); }

std::optional<std::string> Database::setCurrentDeviceLastSyncDate(Date date) {
  const auto device = currentDeviceForEdit();
  if (!device) return std::nullopt;
  log.info("✍️ Edit Device: " + *device->id + ", updated at " + date.description(),
           {.function = "setCurrentDeviceLastSyncDate(_:)"});
  Store::open().write([&](WriteTransaction& t) { t.updateObject<Device>(*device->id, {{"lastSyncDate", date}}); });
  return device->id;
}

std::vector<std::string> Database::getDevices() { return store::selectIds(Device::className, "id", store::liveRows()); }

std::optional<Device> Database::getDevice(const std::string& id) { return store::liveObject<Device>(id); }

std::optional<std::vector<std::string>> Database::getDevicesRelatedToCurrentDevice() {
  const auto device = getCurrentDevice();
  if (!device) return std::nullopt;
  return device->deviceIds;
}

std::optional<std::string> Database::setCurrentDeviceRelation(const std::string& deviceId, bool isRelated) {
  const auto device = currentDeviceForEdit();
  if (!device) return std::nullopt;
  log.info("✍️ Edit Device: " + *device->id + (isRelated ? ", Merge with " : ", Unmerge with ") + deviceId,
           {.function = "setCurrentDeviceRelation(with:isRelated:)"});
  Store store = Store::open();
  store.write([&](WriteTransaction& t) {
    // Read again inside the transaction: the list is replaced whole.
    auto current = store.object<Device>(*device->id);
    if (!current) return;
    auto ids = current->deviceIds;
    const auto found = std::find(ids.begin(), ids.end(), deviceId);
    if (isRelated && found == ids.end()) ids.push_back(deviceId);
    if (!isRelated && found != ids.end()) ids.erase(found);
    if (ids != current->deviceIds) t.updateObject<Device>(*device->id, {{"deviceIds", ids}});
  });
  return device->id;
}

}  // namespace tarnwell

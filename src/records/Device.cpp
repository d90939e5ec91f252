#include "tarnwell/records/Device.h"

#include <algorithm>

#include "tarnwell/records/EventRecords.h"

namespace tarnwell {

void Device::appendDeviceId(const std::string& deviceId) {
  if (std::find(deviceIds.begin(), deviceIds.end(), deviceId) == deviceIds.end()) deviceIds.push_back(deviceId);
}

std::string Device::csvRecord() const {
  if (!id || !name) return {};
  return *id + "," + *name + "," + records::quotedField(lastSyncDate.value_or(Date::now()).description());
}

}  // namespace tarnwell

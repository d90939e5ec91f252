#include "tarnwell/health/HealthManager.h"

#include <algorithm>

#include "tarnwell/platform/Environment.h"

namespace tarnwell {

HealthManager& HealthManager::shared() { return Environment::current().component<HealthManager>(); }

std::vector<SleepDataWithDataSource> HealthManager::sleepDatas() const {
  std::lock_guard lock(mutex_);
  return *sleepDatas_;
}

void HealthManager::setSleepDatas(std::vector<SleepDataWithDataSource> sleepDatas) {
  auto replacement = std::make_shared<const std::vector<SleepDataWithDataSource>>(std::move(sleepDatas));
  std::lock_guard lock(mutex_);
  sleepDatas_ = std::move(replacement);
}

std::optional<SleepDataWithDataSource> HealthManager::getSleepData(const SleepDataSource& source, Date date) const {
  std::shared_ptr<const std::vector<SleepDataWithDataSource>> all;
  {
    std::lock_guard lock(mutex_);
    all = sleepDatas_;
  }
  const auto entry =
      std::find_if(all->begin(), all->end(), [&](const auto& data) { return data.dataSource == source; });
  if (entry == all->end()) return std::nullopt;
  const DateInterval window(date.addingDay(-1).getTime(20, 0, 0), date.getTime(10, 0, 0));
  std::vector<DateInterval> sleeps;
  for (const auto& sleep : entry->sleeps) {
    if (sleep.intersects(window) && sleep.duration() > 0) sleeps.push_back(sleep);
  }
  sleeps = DateInterval::removeOverlaps(std::move(sleeps));
  if (sleeps.empty()) return std::nullopt;
  return SleepDataWithDataSource{entry->dataSource, std::move(sleeps)};
}

}  // namespace tarnwell

// Layers, bottom to top: platform → widgets → settings → extensions → records → store → [health] → analytics → charts → modules.
//
// HealthManager: the one object that talks to the health store.
//
// When the user picks another application as the source of sleep, its
// samples replace the inference from phone use. The manager keeps every
// source's asleep intervals in memory (`sleepDatas`, replaced whole by each
// reload) and answers a day's night from them without reading the store.

#pragma once

#include <memory>
#include <mutex>
#include <optional>
#include <vector>

#include "tarnwell/platform/Date.h"
#include "tarnwell/settings/SleepDataSource.h"

namespace tarnwell {

class HealthManager {
 public:
  // The manager of the installed Environment.
  static HealthManager& shared();

  // The asleep samples of every source, as the last reload grouped them.
  std::vector<SleepDataWithDataSource> sleepDatas() const;
  // Replaces them whole; a reader sees the old list or the new one.
  void setSleepDatas(std::vector<SleepDataWithDataSource> sleepDatas);

  // The night of `date` as `source` wrote it: that source's intervals that
  // meet the window from 20:00 of the day before to 10:00 of `date` (a touch
  // counts; they are not clipped), of positive length, with overlaps merged.
  // Nothing when the source has no entry or nothing is left. Never a mix of
  // sources.
  std::optional<SleepDataWithDataSource> getSleepData(const SleepDataSource& source, Date date) const;

 private:
  mutable std::mutex mutex_;
  std::shared_ptr<const std::vector<SleepDataWithDataSource>> sleepDatas_ =
      std::make_shared<const std::vector<SleepDataWithDataSource>>();
};

}  // namespace tarnwell

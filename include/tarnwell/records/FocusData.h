// FocusData: one focus session as a plain value, for snapshots.

#pragma once

#include <optional>
#include <string>

#include "tarnwell/platform/Date.h"

namespace tarnwell {

struct Focus;

struct FocusData {
  std::optional<std::string> id;
  std::optional<std::string> tagId;
  // The session's own interval, not clipped to any day.
  DateInterval interval;
  // Seconds focused.
  double progress = 0;
  // The goal was not reached, as it stood when the snapshot was made.
  bool failed = false;

  // The session of a record with both dates, as it stands now.
  static FocusData of(const Focus& focus);

  friend bool operator==(const FocusData&, const FocusData&) = default;
};

}  // namespace tarnwell

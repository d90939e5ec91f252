// Focuses: a snapshot of focus sessions as plain values, for charts and
// widgets on any thread.
//
// A session belongs to an interval by its start alone: one that began before
// the interval is not in it, one that ran past its end is in it whole.

#pragma once

#include <optional>
#include <string>
#include <vector>

#include "tarnwell/platform/Date.h"
#include "tarnwell/records/FocusData.h"

namespace tarnwell {

struct Focuses {
  // The interval asked for; none means all time.
  std::optional<DateInterval> interval;
  // By start (ties in store order). None when the store could not be read;
  // empty when it could and nothing matched.
  std::optional<std::vector<FocusData>> focuses;

  // Reads the sessions starting in `interval` (all when none) of the tag
  // (every tag when none; the match is exact). Never throws.
  Focuses(std::optional<DateInterval> interval, const std::optional<std::string>& tagId);
  // All time.
  static Focuses allTime(const std::optional<std::string>& tagId) { return Focuses(std::nullopt, tagId); }
  // From the start of `start`'s day through `days` days.
  static Focuses days(Date start, int days, const std::optional<std::string>& tagId);
  // `hours` hours of 3600 seconds from `start`.
  static Focuses hours(Date start, int hours, const std::optional<std::string>& tagId);

  // The sessions of `focuses` that start strictly after `start` and overlap
  // [start, end] for a positive time: one starting exactly at `start` is in
  // neither this cut nor the one before. No store access.
  static Focuses getFocusesStartsIn(Date start, Date end, const std::optional<std::vector<FocusData>>& focuses);

  // How many sessions missed their goal; none without sessions.
  std::optional<int> failedTimes() const;
  // Seconds focused in all; none without sessions.
  std::optional<double> totalTime() const;

 private:
  Focuses(DateInterval cut, std::optional<std::vector<FocusData>> kept) : interval(cut), focuses(std::move(kept)) {}
};

}  // namespace tarnwell

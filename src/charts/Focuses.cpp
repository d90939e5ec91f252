#include "tarnwell/charts/Focuses.h"

#include <algorithm>
#include <cstdint>

#include "tarnwell/platform/FatalError.h"
#include "tarnwell/store/Reads.h"

namespace tarnwell {

namespace {

void sortByStart(std::vector<FocusData>& focuses) {
  std::stable_sort(focuses.begin(), focuses.end(),
                   [](const FocusData& a, const FocusData& b) { return a.interval.start() < b.interval.start(); });
}

}  // namespace

Focuses::Focuses(std::optional<DateInterval> asked, const std::optional<std::string>& tagId) : interval(asked) {
  const auto ids = store::orNoData([&] { return std::optional(store::focusIds(tagId, asked)); });
  if (!ids) return;  // no snapshot: `focuses` stays empty-handed
  std::vector<FocusData> datas;
  datas.reserve(ids->size());
  for (const auto& id : *ids) {
    // The list and the records are not read in one transaction: a session
    // deleted in between is skipped.
    const auto focus = store::orNoData([&id] { return store::liveObject<Focus>(id); });
    if (focus && focus->start && focus->end) datas.push_back(FocusData::of(*focus));
  }
  sortByStart(datas);
  focuses = std::move(datas);
}

Focuses Focuses::days(Date start, int days, const std::optional<std::string>& tagId) {
  return Focuses(DateInterval::getDateInterval(start, days), tagId);
}

Focuses Focuses::hours(Date start, int hours, const std::optional<std::string>& tagId) {
  std::int64_t seconds = 0;
  if (__builtin_mul_overflow(static_cast<std::int64_t>(hours), std::int64_t{3600}, &seconds)) {
    fatalError("Focuses::hours: " + std::to_string(hours) + " hours overflow");
  }
  return Focuses(DateInterval(start, static_cast<double>(seconds)), tagId);
}

Focuses Focuses::getFocusesStartsIn(Date start, Date end, const std::optional<std::vector<FocusData>>& focuses) {
  const DateInterval bucket(start, end);
  if (!focuses) return Focuses(bucket, std::nullopt);
  std::vector<FocusData> kept;
  for (const auto& focus : *focuses) {
    const auto common = focus.interval.intersection(bucket);
    if (common && common->duration() > 0 && focus.interval.start() > start) kept.push_back(focus);
  }
  sortByStart(kept);
  return Focuses(bucket, std::move(kept));
}

std::optional<int> Focuses::failedTimes() const {
  if (!focuses || focuses->empty()) return std::nullopt;
  return static_cast<int>(std::count_if(focuses->begin(), focuses->end(), [](const FocusData& f) { return f.failed; }));
}

std::optional<double> Focuses::totalTime() const {
  if (!focuses || focuses->empty()) return std::nullopt;
  double total = 0;
  for (const auto& focus : *focuses) total += focus.progress;
  return total;
}

}  // namespace tarnwell

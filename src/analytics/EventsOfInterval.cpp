#include "tarnwell/analytics/EventsOfInterval.h"

#include <algorithm>

#include "tarnwell/analytics/Metrics.h"
#include "tarnwell/settings/Settings.h"
#include "tarnwell/store/Reads.h"

namespace tarnwell {
namespace {

std::vector<DateInterval> intervalsOf(const std::vector<EventsOfInterval::EventData>& events) {
  std::vector<DateInterval> intervals;
  intervals.reserve(events.size());
  for (const auto& event : events) intervals.push_back(event.interval);
  return intervals;
}

void removeId(std::vector<EventsOfInterval::EventData>& events, const std::string& id) {
  std::erase_if(events, [&id](const auto& event) { return event.id == id; });
}

// Reads one kind of the span, each event clipped to it; a store that cannot
// be read leaves the kind empty.
template <class Read>
std::vector<EventsOfInterval::EventData> readKind(const DateInterval& span, Read read) {
  return store::orNoData([&] {
    std::vector<EventsOfInterval::EventData> events;
    read([&](const std::string& id, const DateInterval& interval) {
      if (auto clipped = interval.intersection(span)) events.push_back({id, *clipped});
    });
    return events;
  });
}

// The record's interval again, by key: nothing when it is gone or deleted
// (`found` false), or when it has no interval. A record just written comes
// with its interval.
template <class Record>
std::optional<DateInterval> reread(const EventsOfInterval::EventsChangeType& change, bool& found) {
  if (change.written()) {
    found = true;
    return change.written();
  }
  const std::string& id = change.id();
  const auto record = store::orNoData([&id] { return store::liveObject<Record>(id); });
  found = record.has_value();
  if (!record) return std::nullopt;
  return record->interval();
}

}  // namespace

EventsOfInterval::EventsOfInterval(DateInterval interval, const std::optional<std::vector<std::string>>& deviceIds)
    : interval_(interval),
      deviceIds_(deviceIds ? *deviceIds : store::defaultDeviceIds()),
      excludeFocusTime_(Settings::excludeFocusTime()) {
  aliveEvents = readKind(interval_, [&](auto each) { store::forEachEvent<Alive>(interval_, deviceIds_, each); });
  pickupEvents = readKind(interval_, [&](auto each) { store::forEachEvent<Pickup>(interval_, deviceIds_, each); });
  walkEvents = readKind(interval_, [&](auto each) { store::forEachEvent<Walk>(interval_, deviceIds_, each); });
  focusEvents = readKind(interval_, [&](auto each) { store::forEachFocus(interval_, deviceIds_, each); });
}

std::vector<DateInterval> EventsOfInterval::walks() const { return intervalsOf(walkEvents); }
std::vector<DateInterval> EventsOfInterval::alives() const { return intervalsOf(aliveEvents); }

std::vector<DateInterval> EventsOfInterval::excludedFocuses() const {
  if (!excludeFocusTime_) return {};
  return intervalsOf(focusEvents);
}

std::vector<DateInterval> EventsOfInterval::pickups() const {
  if (!excludeFocusTime_) return intervalsOf(pickupEvents);
  return DateInterval::calculate(intervalsOf(pickupEvents), intervalsOf(focusEvents));
}

std::vector<DateInterval> EventsOfInterval::noDatas() const {
  const auto alive = alives();
  if (alive.empty()) return {};
  const Date start = alive.front().start(), end = alive.back().end();
  if (!(start < end)) return {};
  auto gaps = DateInterval::calculate({DateInterval(start, end)}, alive);
  std::erase_if(gaps, [](const DateInterval& gap) { return gap.duration() < 120.0; });
  return gaps;
}

std::vector<DateInterval> EventsOfInterval::breaks() const {
  const auto used = pickups();
  std::vector<DateInterval> base;
  if (!used.empty() && used.front().start() < used.back().end()) {
    base.emplace_back(used.front().start(), used.back().end());
  }
  base = DateInterval::calculate(std::move(base), used);
  base = DateInterval::calculate(std::move(base), excludedFocuses());
  return DateInterval::calculate(std::move(base), noDatas());
}

std::optional<double> EventsOfInterval::screenTime() const { return metrics::screenTime(pickups()); }

std::optional<int> EventsOfInterval::pickupTimes() const { return metrics::pickupTimes(pickups()); }

void EventsOfInterval::apply(const std::vector<EventsChangeType>& changes) {
  using Kind = EventsChangeType::Kind;
  for (const auto& change : changes) {
    if (change.kind() == Kind::modifiedLatestPickup) {
      if (pickupEvents.empty()) continue;
      // The latest end; of equal ends the first stands.
      auto latest = pickupEvents.begin();
      for (auto it = pickupEvents.begin(); it != pickupEvents.end(); ++it) {
        if (it->interval.end() > latest->interval.end()) latest = it;
      }
      if (!(latest->interval.start() < change.end())) continue;
      const auto clipped = DateInterval(latest->interval.start(), change.end()).intersection(interval_);
      if (!clipped) continue;
      const std::string id = latest->id;
      removeId(pickupEvents, id);
      pickupEvents.push_back({id, *clipped});
      continue;
    }

    std::vector<EventData>* list = nullptr;
    std::optional<DateInterval> interval;
    bool found = false;
    switch (change.kind()) {
      case Kind::alive:
        list = &aliveEvents;
        interval = reread<Alive>(change, found);
        break;
      case Kind::pickup:
        list = &pickupEvents;
        interval = reread<Pickup>(change, found);
        break;
      case Kind::walk:
        list = &walkEvents;
        interval = reread<Walk>(change, found);
        break;
      case Kind::focus:
        list = &focusEvents;
        interval = reread<Focus>(change, found);
        break;
      case Kind::modifiedLatestPickup:
        break;
    }
    if (!list) continue;
    if (!found) {
      removeId(*list, change.id());
      continue;
    }
    // A record that no longer meets the span leaves an older entry in place.
    const auto clipped = interval ? interval->intersection(interval_) : std::nullopt;
    if (!clipped) continue;
    removeId(*list, change.id());
    list->push_back({change.id(), *clipped});
  }
}

}  // namespace tarnwell

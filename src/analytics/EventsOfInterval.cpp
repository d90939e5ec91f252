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

// readKind() of each span, from one read of the run: a record meets a span
// when its start or its end lies in it, and the run is read by start, so
// each span's list comes out in the order of its own read.
template <class Record>
std::vector<std::vector<EventsOfInterval::EventData>> readKindOfSpans(const std::vector<DateInterval>& spans,
                                                                      const std::vector<std::string>& deviceIds) {
  using Lists = std::vector<std::vector<EventsOfInterval::EventData>>;
  const DateInterval run(spans.front().start(), spans.back().end());
  Lists lists = store::orNoData([&] {
    Lists read(spans.size());
    std::vector<std::size_t> holding;
    const auto hold = [&](Date point) {
      // The last span starting at or before the point, and an earlier one
      // that ends on it.
      auto at = std::upper_bound(spans.begin(), spans.end(), point,
                                 [](Date date, const DateInterval& span) { return date < span.start(); });
      while (at != spans.begin() && !(std::prev(at)->end() < point)) {
        --at;
        holding.push_back(static_cast<std::size_t>(at - spans.begin()));
      }
    };
    store::forEachEvent<Record>(run, deviceIds, [&](const std::string& id, const DateInterval& interval) {
      holding.clear();
      hold(interval.start());
      hold(interval.end());
      std::sort(holding.begin(), holding.end());
      holding.erase(std::unique(holding.begin(), holding.end()), holding.end());
      for (const std::size_t index : holding) {
        if (auto clipped = interval.intersection(spans[index])) read[index].push_back({id, *clipped});
      }
    });
    return read;
  });
  if (lists.empty()) lists.resize(spans.size());
  return lists;
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

EventsOfInterval::EventsOfInterval(DateInterval interval, std::vector<std::string> deviceIds, bool excludeFocusTime)
    : interval_(interval), deviceIds_(std::move(deviceIds)), excludeFocusTime_(excludeFocusTime) {}

EventsOfInterval::EventsOfInterval(DateInterval interval, const std::optional<std::vector<std::string>>& deviceIds)
    : EventsOfInterval(std::move(ofSpans({interval}, deviceIds ? *deviceIds : store::defaultDeviceIds()).front())) {}

std::vector<EventsOfInterval> EventsOfInterval::ofSpans(const std::vector<DateInterval>& spans,
                                                        const std::vector<std::string>& deviceIds) {
  if (spans.empty()) return {};
  const bool excludeFocusTime = Settings::excludeFocusTime();
  auto alive = readKindOfSpans<Alive>(spans, deviceIds);
  auto pickup = readKindOfSpans<Pickup>(spans, deviceIds);
  auto walk = readKindOfSpans<Walk>(spans, deviceIds);
  std::vector<EventsOfInterval> snapshots;
  snapshots.reserve(spans.size());
  for (std::size_t i = 0; i < spans.size(); ++i) {
    auto& events = snapshots.emplace_back(EventsOfInterval(spans[i], deviceIds, excludeFocusTime));
    events.alive_ = std::move(alive[i]);
    events.pickup_ = std::move(pickup[i]);
    events.walk_ = std::move(walk[i]);
    // Sessions are few, and are listed in the order of their own read.
    events.focus_ = readKind(spans[i], [&](auto each) { store::forEachFocus(spans[i], deviceIds, each); });
    events.derive();
  }
  return snapshots;
}

void EventsOfInterval::derive() {
  pickups_ =
      excludeFocusTime_ ? DateInterval::calculate(intervalsOf(pickup_), intervalsOf(focus_)) : intervalsOf(pickup_);
  breaks_ = std::make_shared<Breaks>();
}

const std::vector<DateInterval>& EventsOfInterval::breaks() const {
  std::call_once(breaks_->worked, [this] {
    std::vector<DateInterval> gaps;
    if (!pickups_.empty() && pickups_.front().start() < pickups_.back().end()) {
      gaps.emplace_back(pickups_.front().start(), pickups_.back().end());
    }
    gaps = DateInterval::calculate(std::move(gaps), pickups_);
    gaps = DateInterval::calculate(std::move(gaps), excludedFocuses());
    breaks_->breaks = DateInterval::calculate(std::move(gaps), noDatas());
  });
  return breaks_->breaks;
}

std::vector<DateInterval> EventsOfInterval::walks() const { return intervalsOf(walk_); }
std::vector<DateInterval> EventsOfInterval::alives() const { return intervalsOf(alive_); }

std::vector<DateInterval> EventsOfInterval::excludedFocuses() const {
  if (!excludeFocusTime_) return {};
  return intervalsOf(focus_);
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

std::optional<double> EventsOfInterval::screenTime() const { return metrics::screenTime(pickups()); }

std::optional<int> EventsOfInterval::pickupTimes() const { return metrics::pickupTimes(pickups()); }

void EventsOfInterval::apply(const std::vector<EventsChangeType>& changes) {
  using Kind = EventsChangeType::Kind;
  for (const auto& change : changes) {
    if (change.kind() == Kind::modifiedLatestPickup) {
      if (pickup_.empty()) continue;
      // The latest end; of equal ends the first stands.
      auto latest = pickup_.begin();
      for (auto it = pickup_.begin(); it != pickup_.end(); ++it) {
        if (it->interval.end() > latest->interval.end()) latest = it;
      }
      if (!(latest->interval.start() < change.end())) continue;
      const auto clipped = DateInterval(latest->interval.start(), change.end()).intersection(interval_);
      if (!clipped) continue;
      const std::string id = latest->id;
      removeId(pickup_, id);
      pickup_.push_back({id, *clipped});
      continue;
    }

    std::vector<EventData>* list = nullptr;
    std::optional<DateInterval> interval;
    bool found = false;
    switch (change.kind()) {
      case Kind::alive:
        list = &alive_;
        interval = reread<Alive>(change, found);
        break;
      case Kind::pickup:
        list = &pickup_;
        interval = reread<Pickup>(change, found);
        break;
      case Kind::walk:
        list = &walk_;
        interval = reread<Walk>(change, found);
        break;
      case Kind::focus:
        list = &focus_;
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
  derive();
}

}  // namespace tarnwell

// EventsOfInterval: what the store holds for one span and one list of devices.
//
// A snapshot in plain values of the alive spans, pickups, walks and focus
// sessions that meet the span, each clipped to it. It is where stored records
// become intervals that metrics add up. A change that names one record makes
// the snapshot read that record again, so a live snapshot follows the store
// without a rebuild. Devices are not merged: two devices' overlapping pickups
// stand side by side and both count.
//
// Construction never fails: a kind that cannot be read is empty.

#pragma once

#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <variant>
#include <vector>

#include "tarnwell/platform/Date.h"

namespace tarnwell {

class EventsOfInterval {
 public:
  // One record's interval, clipped to the span.
  struct EventData {
    std::string id;
    DateInterval interval;
    friend bool operator==(const EventData&, const EventData&) = default;
  };

  // What changed: a record of a kind, by id, or the new end of the pickup
  // under way (the latest one), which needs no read of the store. A record
  // this process has just written may come with its interval (`written`),
  // which spares the read of it again.
  class EventsChangeType {
   public:
    enum class Kind { alive, pickup, modifiedLatestPickup, walk, focus };

    static EventsChangeType alive(std::string id, std::optional<DateInterval> written = std::nullopt) {
      return {Kind::alive, std::move(id), {}, written};
    }
    static EventsChangeType pickup(std::string id, std::optional<DateInterval> written = std::nullopt) {
      return {Kind::pickup, std::move(id), {}, written};
    }
    static EventsChangeType modifiedLatestPickup(Date end) { return {Kind::modifiedLatestPickup, {}, end, {}}; }
    static EventsChangeType walk(std::string id, std::optional<DateInterval> written = std::nullopt) {
      return {Kind::walk, std::move(id), {}, written};
    }
    static EventsChangeType focus(std::string id) { return {Kind::focus, std::move(id), {}, {}}; }

    Kind kind() const { return kind_; }
    const std::string& id() const { return id_; }
    Date end() const { return end_; }
    const std::optional<DateInterval>& written() const { return written_; }

   private:
    EventsChangeType(Kind kind, std::string id, Date end, std::optional<DateInterval> written)
        : kind_(kind), id_(std::move(id)), end_(end), written_(written) {}
    Kind kind_;
    std::string id_;
    Date end_;
    std::optional<DateInterval> written_;
  };

  // Reads the span's events of `deviceIds`; nothing means this device and the
  // devices it merges with.
  EventsOfInterval(DateInterval interval, const std::optional<std::vector<std::string>>& deviceIds);
  // The snapshots of `spans`, in order, each what the constructor reads for
  // it, with the pickups, walks and alive spans of all of them read at once.
  // The spans are in time order and meet at most at an end, as days do; a run
  // of many is read as one, so hand it a month at a time.
  static std::vector<EventsOfInterval> ofSpans(const std::vector<DateInterval>& spans,
                                               const std::vector<std::string>& deviceIds);

  const DateInterval& interval() const { return interval_; }
  const std::vector<std::string>& deviceIds() const { return deviceIds_; }

  // By start (equal starts in the store's order) as read; a change
  // appends its record at the end, so after one the lists are no longer in
  // time order.
  const std::vector<EventData>& aliveEvents() const { return alive_; }
  const std::vector<EventData>& pickupEvents() const { return pickup_; }
  const std::vector<EventData>& walkEvents() const { return walk_; }
  // In the store's order.
  const std::vector<EventData>& focusEvents() const { return focus_; }

  std::vector<DateInterval> walks() const;
  std::vector<DateInterval> alives() const;
  // The focus sessions, while focus time is excluded (Settings::excludeFocusTime(),
  // as it stood when the snapshot was made: a later change of the setting
  // reaches only new snapshots); else none.
  std::vector<DateInterval> excludedFocuses() const;
  // The pickups, with focus time cut out (sorted, a pickup a session splits
  // counting twice) while focus time is excluded; otherwise as listed.
  const std::vector<DateInterval>& pickups() const { return pickups_; }
  // Stretches of two minutes or more between the first and last alive spans
  // in which monitoring was not alive.
  std::vector<DateInterval> noDatas() const;
  // Between the first and the last pickup: no use, no excluded focus, no
  // stretch without data. Worked out at the first call, safely from any
  // thread, and kept until the next change.
  const std::vector<DateInterval>& breaks() const;

  // Seconds of the pickups, each rounded to a whole second first; nothing without pickups.
  std::optional<double> screenTime() const;
  std::optional<int> pickupTimes() const;

  bool excludesFocusTime() const { return excludeFocusTime_; }

  // Applies the changes in order, reading each named record again.
  void apply(const std::vector<EventsChangeType>& changes);

 private:
  EventsOfInterval(DateInterval interval, std::vector<std::string> deviceIds, bool excludeFocusTime);
  // Every metric starts from the pickups, and many from the breaks: they are
  // worked out once for each state of the lists rather than for each
  // question, the breaks only when asked for, as a live day is changed far
  // more often than its breaks are read.
  void derive();
  struct Breaks {
    std::once_flag worked;
    std::vector<DateInterval> breaks;
  };

  DateInterval interval_;
  std::vector<std::string> deviceIds_;
  bool excludeFocusTime_;
  std::vector<EventData> alive_, pickup_, walk_, focus_;
  std::vector<DateInterval> pickups_;
  // Shared by copies until one of them changes.
  std::shared_ptr<Breaks> breaks_;
};

}  // namespace tarnwell

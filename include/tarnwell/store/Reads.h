// The reads of records that Database and the analytics share.
//
// Database answers the host with these, and a day's events, its night, the
// focus snapshots and the streaks are read through them as well, so that the
// store is read one way: a soft-deleted row is absent, an event belongs to
// the device that wrote it, and a record lies in a span when its start or its
// end does, both ends of the span included. Each read runs on the calling
// thread's connection and throws sqlite::Error when the store fails.
//
// orNoData() is the one rule for callers that may read such a failure as no
// data (the metrics, and the edits that skip what they cannot read).

#pragma once

#include <array>
#include <cstddef>
#include <optional>
#include <string>
#include <string_view>
#include <type_traits>
#include <vector>

#include "tarnwell/platform/Date.h"
#include "tarnwell/records/Device.h"
#include "tarnwell/records/EventRecords.h"
#include "tarnwell/records/Focus.h"
#include "tarnwell/store/Store.h"

namespace tarnwell::store {

// `read()`, or when the store fails the empty value of its type (nothing, an
// empty list, no rows). Other exceptions pass.
template <class Read>
std::invoke_result_t<Read&> orNoData(Read&& read) {
  try {
    return read();
  } catch (const sqlite::Error&) {
    return {};
  }
}

// By primary key; nothing when absent or soft-deleted.
template <class Record>
std::optional<Record> liveObject(std::string_view primaryKey) {
  auto record = Store::open().object<Record>(primaryKey);
  if (record && record->isDeleted) return std::nullopt;
  return record;
}

// The first column of the rows `query` selects from the class's table, as
// texts, nulls skipped: the ids that lists leave the store as.
std::vector<std::string> selectIds(std::string_view className, std::string_view column, const Query& query);

// --- Events: alive spans, pickups, walks and focus sessions ---

// Rows not soft-deleted: the first filter of every read of records.
Query liveRows();
// Live rows of these devices: the first filter of every event read.
Query liveEvents(const std::vector<std::string>& deviceIds);
// Adds the rows with a start or an end inside `span`, both ends included. A
// row that starts before and ends after meets neither and is left out.
Query& touching(Query& query, DateInterval span);
// Adds the rows that start inside `span`, both ends included.
Query& startingInside(Query& query, DateInterval span);

// The two reads forEachEvent() makes of a span, in its order: the rows that
// end inside the span but start before it (or have no start), then those
// that start inside it. Each is one range of an index in the order wanted,
// where a single read of either kind would be sorted after.
std::array<Query, 2> eventReads(DateInterval span, const std::vector<std::string>& deviceIds);

// Calls each(id, interval) for the alive spans, pickups or walks of
// `deviceIds` touching `span`, by start and then in the order of the table's
// rows, that have an id and an interval of positive length. One read gives
// what reading the ids and then each record by key would.
template <class Record, class Each>
void forEachEvent(DateInterval span, const std::vector<std::string>& deviceIds, Each&& each) {
  Store store = Store::open();
  for (const Query& query : eventReads(span, deviceIds)) {
    for (auto rows = store.select(Record::className, "id, start, \"end\"", query); rows.next();) {
      Record record;
      readValue(*rows, 0, record.id);
      readValue(*rows, 1, record.start);
      readValue(*rows, 2, record.end);
      const auto interval = record.interval();
      if (interval && interval->duration() > 0.0 && record.id) each(*record.id, *interval);
    }
  }
}

// Calls each(id, interval) for the focus sessions of `deviceIds` touching
// `span`, in store order; only an id is required of them.
template <class Each>
void forEachFocus(DateInterval span, const std::vector<std::string>& deviceIds, Each&& each) {
  Query query = liveEvents(deviceIds);
  touching(query, span);
  Store store = Store::open();
  for (auto rows = store.select(Focus::className, "id, start, \"end\", progress", query); rows.next();) {
    Focus focus;
    readValue(*rows, 0, focus.id);
    readValue(*rows, 1, focus.start);
    readValue(*rows, 2, focus.end);
    readValue(*rows, 3, focus.progress);
    if (focus.id) each(*focus.id, focus.interval());
  }
}

// The pickups that bound a night, of those not ignored for sleep. A row found
// without an id counts as none.
// The earliest one starting inside `between`.
std::optional<Pickup> firstPickup(DateInterval between, const std::vector<std::string>& deviceIds);
// The one that ends last among those starting or ending inside `between`;
// of equal ends the one added last.
std::optional<Pickup> lastPickup(DateInterval between, const std::vector<std::string>& deviceIds);
// The end of lastPickup(`lastBetween`) and the start of firstPickup(`firstBetween`),
// read together in one statement: a night's two edges at the cost of one read.
struct NightEdges {
  std::optional<Date> lastEnd;
  std::optional<Date> firstStart;
  // The pickups they are the end and the start of.
  std::optional<std::string> lastId;
  std::optional<std::string> firstId;
};
NightEdges nightEdges(DateInterval lastBetween, DateInterval firstBetween, const std::vector<std::string>& deviceIds);

// --- Devices ---

// This device's row, unless soft-deleted.
std::optional<Device> currentDevice();
// This device, then the devices its row merges with; this device alone when
// it has no row or the store cannot be read.
std::vector<std::string> defaultDeviceIds();

// --- Focus sessions of a tag ---

// Ids of the live sessions starting inside `startsBetween` (at any time when
// nothing) of the tag (of every tag when nothing; the match is exact). By
// start when both are given, otherwise in store order.
std::vector<std::string> focusIds(const std::optional<std::string>& tagId,
                                  const std::optional<DateInterval>& startsBetween);

// The sessions of a tag that start inside a span: how many, and their
// progress added in order of start.
struct FocusProgress {
  std::size_t count = 0;
  double seconds = 0;
};
FocusProgress focusProgress(const std::string& tagId, DateInterval startsBetween);

// When the tag's first live session starts; nothing without sessions.
std::optional<Date> firstFocusStart(const std::string& tagId);

}  // namespace tarnwell::store

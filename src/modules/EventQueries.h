// The reads of the events that meet a span, shared by Database's range
// queries and the snapshots of the analytics.

#pragma once

#include <string>
#include <vector>

#include "tarnwell/platform/Date.h"
#include "tarnwell/records/EventRecords.h"
#include "tarnwell/records/Focus.h"
#include "tarnwell/store/Store.h"

namespace tarnwell::event_queries {

// Rows not soft-deleted of these devices: the first filter of every event read.
inline store::Query live(const std::vector<std::string>& deviceIds) {
  store::Query query;
  query.filter("isDeleted = 0").filterIn("deviceId", deviceIds);
  return query;
}

// Rows with a start or an end inside the interval, both ends included. A row
// that starts before and ends after meets neither and is left out.
inline store::Query& touching(store::Query& query, DateInterval interval) {
  return query.filter("(start BETWEEN ? AND ? OR \"end\" BETWEEN ? AND ?)",
                      {interval.start(), interval.end(), interval.start(), interval.end()});
}

// Calls each(id, interval) for the alive spans, pickups or walks touching
// `span`, by start, that have an id and an interval of positive length.
// One read gives what reading the ids and then each record by key would.
template <class Record, class Each>
void forEachInSpan(DateInterval span, const std::vector<std::string>& deviceIds, Each&& each) {
  store::Store store = store::Store::open();
  store::Query query = live(deviceIds);
  touching(query, span).sorted("start ASC");
  auto& select = store.statement(store::Store::selectSQL(Record::className, "id, start, \"end\"", query));
  store::Store::bind(select, query.arguments);
  try {
    while (select.step()) {
      Record record;
      store::readValue(select, 0, record.id);
      store::readValue(select, 1, record.start);
      store::readValue(select, 2, record.end);
      const auto interval = record.interval();
      if (interval && interval->duration() > 0.0 && record.id) each(*record.id, *interval);
    }
  } catch (...) {
    select.reset();
    throw;
  }
  select.reset();
}

// Calls each(id, interval) for the focus sessions touching `span`, in store
// order; only an id is required of them.
template <class Each>
void forEachFocusInSpan(DateInterval span, const std::vector<std::string>& deviceIds, Each&& each) {
  store::Store store = store::Store::open();
  store::Query query = live(deviceIds);
  touching(query, span);
  auto& select = store.statement(store::Store::selectSQL(Focus::className, "id, start, \"end\", progress", query));
  store::Store::bind(select, query.arguments);
  try {
    while (select.step()) {
      Focus focus;
      store::readValue(select, 0, focus.id);
      store::readValue(select, 1, focus.start);
      store::readValue(select, 2, focus.end);
      store::readValue(select, 3, focus.progress);
      if (focus.id) each(*focus.id, focus.interval());
    }
  } catch (...) {
    select.reset();
    throw;
  }
  select.reset();
}

}  // namespace tarnwell::event_queries

// Focus sessions: reads, writes, the copy clean-up and the two summaries of a
// tag (its run of days and today's progress).

#include <algorithm>
#include <cmath>

#include "modules/DatabaseSupport.h"
#include "tarnwell/health/HealthManager.h"
#include "tarnwell/modules/Database.h"
#include "tarnwell/platform/Log.h"
#include "tarnwell/store/Reads.h"

namespace tarnwell {

using namespace database_support;
using store::Query;
using store::QueryValue;
using store::Store;
using store::UpdatePolicy;
using store::WriteTransaction;

namespace {

std::string describe(const std::optional<std::string>& text) { return text.value_or("nil"); }

void updateEventsOfTodayWithFocus(const std::string& id) {
  updateEventsOfToday({EventsOfInterval::EventsChangeType::focus(id)});
}

}  // namespace

std::vector<std::string> Database::getFocuses() { return store::focusIds(std::nullopt, std::nullopt); }

std::vector<std::string> Database::getFocuses(const DateInterval& interval) {
  return store::focusIds(std::nullopt, interval);
}

std::vector<std::string> Database::getFocuses(const std::string& tagId) { return store::focusIds(tagId, std::nullopt); }

std::vector<std::string> Database::getFocuses(const std::string& tagId, const DateInterval& interval) {
  return store::focusIds(tagId, interval);
}

std::vector<std::string> Database::getFocuses(const DateInterval& between, const std::vector<std::string>& deviceIds) {
  Query query = store::liveEvents(deviceIds);
  return store::selectIds(Focus::className, "id", store::touching(query, between));
}

std::optional<Focus> Database::getFocus(const std::string& id) { return store::liveObject<Focus>(id); }

std::optional<Focus> Database::getFocus(Date start, Date end) {
  return Store::open().first<Focus>(store::liveRows().filter("(start = ? OR \"end\" = ?)", {start, end}));
}

std::optional<Focus> Database::getRecentFocus(Date date) {
  Query query = store::liveRows();
  store::startingInside(query, DateInterval(date.startOfDay(), date.endOfDay()));
  // The last of those sorted by start ascending: ties go to the later row.
  return Store::open().first<Focus>(query.sorted("start DESC, rowid DESC"));
}

std::string Database::addFocus(const std::optional<std::string>& id, Date start, Date end,
                               const std::optional<std::string>& tagId, double goal, double progress,
                               const std::optional<widgets::FocusType>& type, const std::optional<FocusMode>& mode,
                               const std::optional<std::string>& watchDeviceName) {
  const Focus focus(id, start, end, tagId, goal, progress, type, mode, watchDeviceName);
  Store::open().write([&focus](WriteTransaction& t) { t.add(focus, UpdatePolicy::all); });
  log.info("✍️ Add Focus:  " + start.description() + " " + end.description() + " " + describe(tagId) + " " +
               formatDouble(goal) + " " + formatDouble(progress),
           {.function = "addFocus(id:start:end:tagId:goal:progress:type:mode:watchDeviceName:)"});
  // Mirrored to the health store in the background; the caller does not hear how it went.
  HealthManager::shared().syncFocusToHealthKit(*focus.id);
  updateEventsOfTodayWithFocus(*focus.id);
  return *focus.id;
}

void Database::editFocus(const std::string& id, const FocusEdit& edit) {
  // An edit of something that cannot be read is skipped.
  if (const auto focus = store::orNoData([&id] { return getFocus(id); })) {
    std::vector<std::pair<std::string_view, QueryValue>> assignments;
    if (edit.tagId) assignments.emplace_back("tagId", *edit.tagId);
    if (edit.start) assignments.emplace_back("start", *edit.start);
    if (edit.progress) {
      assignments.emplace_back("progress", *edit.progress);
      // The end follows the length: a pause the old end held is lost.
      if (const auto start = edit.start ? edit.start : focus->start)
        assignments.emplace_back("end", *start + *edit.progress);
    }
    if (edit.goal) assignments.emplace_back("goal", *edit.goal);
    if (edit.type) assignments.emplace_back("typeString", std::string(widgets::rawValue(*edit.type)));
    if (edit.mode) assignments.emplace_back("modeString", std::string(rawValue(*edit.mode)));
    if (!assignments.empty()) {
      Store::open().write([&](WriteTransaction& t) { t.updateObject<Focus>(id, assignments, "isDeleted = 0"); });
    }
    log.info("✍️ Edit Focus: " + id, {.function = "editFocus(id:tagId:start:progress:goal:type:mode:)"});
  }
  HealthManager::shared().syncFocusToHealthKit(id);
  updateEventsOfTodayWithFocus(id);
}

void Database::deleteFocus(const std::string& id) {
  editLiveObject<Focus>(id, {{"isDeleted", true}}, "✍️ Delete Focus: " + id, "deleteFocus(id:)");
  HealthManager::shared().removeFocusFromHealthKit(id, std::nullopt, std::nullopt);
  updateEventsOfTodayWithFocus(id);
}

void Database::clearFocuses() {
  Store store = Store::open();
  struct Row {
    std::string id;
    std::optional<Date> start, end;
  };
  std::vector<Row> rows;
  for (auto select = store.select("SELECT id, start, \"end\" FROM Focus ORDER BY rowid"); select.next();) {
    Row row;
    std::optional<std::string> id;
    store::readValue(*select, 0, id);
    store::readValue(*select, 1, row.start);
    store::readValue(*select, 2, row.end);
    row.id = id.value_or("");
    rows.push_back(std::move(row));
  }
  // Of rows starting less than a second apart, the first to arrive stays
  // unless a later one ends later; then that one takes its place at the back.
  std::vector<const Row*> survivors;
  for (const auto& row : rows) {
    const auto twin = std::find_if(survivors.begin(), survivors.end(), [&row](const Row* survivor) {
      return row.start && survivor->start && std::fabs(*survivor->start - *row.start) < 1.0;
    });
    if (twin == survivors.end()) {
      survivors.push_back(&row);
    } else if (row.end && (!(*twin)->end || *row.end > *(*twin)->end)) {
      survivors.erase(twin);
      survivors.push_back(&row);
    }
  }
  std::vector<std::string> toRemove;
  for (const auto& row : rows) {
    const bool survives =
        std::any_of(survivors.begin(), survivors.end(), [&row](const Row* survivor) { return survivor->id == row.id; });
    if (!survives) toRemove.push_back(row.id);
  }
  log.info("focusesToRemove: " + std::to_string(toRemove.size()), {.function = "clearFocuses()"});
  store.write([&toRemove](WriteTransaction& t) {
    for (const auto& id : toRemove) t.updateObject<Focus>(id, {{"isDeleted", true}});
  });
}

std::optional<FocusCombo> Database::getFocusCombo(const std::string& tagId, Date relativeDate) {
  return FocusCombo::of(tagId, relativeDate);
}

std::optional<double> Database::getGoalProgress(const std::string& tagId, Date date) {
  const auto tag = store::orNoData([&tagId] { return store::liveObject<Tag>(tagId); });
  const auto goal = tag ? tag->focusGoal() : std::nullopt;
  if (!goal) return std::nullopt;
  // A failed read counts as a day without sessions.
  const auto sum = store::orNoData([&] { return store::focusProgress(tagId, DateInterval::getDateInterval(date, 1)); });
  return sum.seconds / goal->duration();
}

}  // namespace tarnwell

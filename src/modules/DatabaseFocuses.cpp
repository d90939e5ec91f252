// Focus sessions: reads, writes, the copy clean-up and the two summaries of a
// tag (its run of days and today's progress).

#include <cmath>

#include "modules/DatabaseSupport.h"
#include "tarnwell/modules/Database.h"
#include "tarnwell/platform/Log.h"

namespace tarnwell {

using namespace database_support;
using store::Query;
using store::QueryValue;
using store::Store;
using store::UpdatePolicy;
using store::WriteTransaction;

namespace {

Query liveFocuses() { return Query().filter("isDeleted = 0"); }

Query& startsBetween(Query& query, const DateInterval& interval) {
  return query.filter("start BETWEEN ? AND ?", {interval.start(), interval.end()});
}

Query ofTag(const std::string& tagId, const DateInterval& interval) {
  Query query = liveFocuses().filter("tagId = ?", {tagId});
  return startsBetween(query, interval).sorted("start ASC");
}

// The count and the summed progress of the sessions `query` selects, added
// in the query's order: what reading each of them by key would give.
struct ProgressSum {
  std::size_t count = 0;
  double seconds = 0;
};

ProgressSum sumProgress(const Query& query) {
  Store store = Store::open();
  auto& select = store.statement(Store::selectSQL(Focus::className, "id, progress", query));
  Store::bind(select, query.arguments);
  ProgressSum sum;
  try {
    while (select.step()) {
      if (select.isNull(0)) continue;
      ++sum.count;
      sum.seconds += select.isNull(1) ? 0.0 : select.real(1);
    }
  } catch (...) {
    select.reset();
    throw;
  }
  select.reset();
  return sum;
}

std::string describe(const std::optional<std::string>& text) { return text.value_or("nil"); }

void updateEventsOfTodayWithFocus(const std::string& id) {
  updateEventsOfToday({EventsOfInterval::EventsChangeType::focus(id)});
}

}  // namespace

std::vector<std::string> Database::getFocuses() { return selectIds(Focus::className, "id", liveFocuses()); }

std::vector<std::string> Database::getFocuses(const DateInterval& interval) {
  Query query = liveFocuses();
  return selectIds(Focus::className, "id", startsBetween(query, interval));
}

std::vector<std::string> Database::getFocuses(const std::string& tagId) {
  return selectIds(Focus::className, "id", liveFocuses().filter("tagId = ?", {tagId}));
}

std::vector<std::string> Database::getFocuses(const std::string& tagId, const DateInterval& interval) {
  return selectIds(Focus::className, "id", ofTag(tagId, interval));
}

std::vector<std::string> Database::getFocuses(const DateInterval& between, const std::vector<std::string>& deviceIds) {
  Query query = liveFocuses();
  query.filterIn("deviceId", deviceIds)
      .filter("(start BETWEEN ? AND ? OR \"end\" BETWEEN ? AND ?)",
              {between.start(), between.end(), between.start(), between.end()});
  return selectIds(Focus::className, "id", query);
}

std::optional<Focus> Database::getFocus(const std::string& id) { return liveObject<Focus>(id); }

std::optional<Focus> Database::getFocus(Date start, Date end) {
  auto focuses =
      Store::open().objects<Focus>(liveFocuses().filter("(start = ? OR \"end\" = ?)", {start, end}).limited(1));
  if (focuses.empty()) return std::nullopt;
  return std::move(focuses.front());
}

std::optional<Focus> Database::getRecentFocus(Date date) {
  Query query = liveFocuses();
  startsBetween(query, DateInterval(date.startOfDay(), date.endOfDay()));
  // The last of those sorted by start ascending: ties go to the later row.
  auto focuses = Store::open().objects<Focus>(query.sorted("start DESC, rowid DESC").limited(1));
  if (focuses.empty()) return std::nullopt;
  return std::move(focuses.front());
}

std::string Database::addFocus(const std::optional<std::string>& id, Date start, Date end,
                               const std::optional<std::string>& tagId, double goal, double progress,
                               const std::optional<widgets::FocusType>& type, const std::optional<FocusMode>& mode,
                               const std::optional<std::string>& watchDeviceName) {
  const Focus focus(id, start, end, tagId, goal, progress, type, mode, watchDeviceName);
  Store::open().write([&focus](WriteTransaction& t) { t.add(focus, UpdatePolicy::all); });
  log.info("✍️ Add Focus:  " + start.description() + " " + end.description() + " " + describe(tagId) + " " +
               formatDouble(goal) + " " + formatDouble(progress),
           {.function = "addFocus"});
  updateEventsOfTodayWithFocus(*focus.id);
  return *focus.id;
}

void Database::editFocus(const std::string& id, const FocusEdit& edit) {
  std::optional<Focus> focus;
  try {
    focus = getFocus(id);
  } catch (const sqlite::Error&) {
    // An edit of something that cannot be read is skipped.
  }
  if (focus) {
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
    log.info("✍️ Edit Focus: " + id, {.function = "editFocus"});
  }
  updateEventsOfTodayWithFocus(id);
}

void Database::deleteFocus(const std::string& id) {
  editLiveObject<Focus>(id, {{"isDeleted", true}}, "✍️ Delete Focus: " + id, "deleteFocus(id:)");
  updateEventsOfTodayWithFocus(id);
}

void Database::clearFocuses() {
  Store store = Store::open();
  struct Row {
    std::string id;
    std::optional<Date> start, end;
  };
  std::vector<Row> rows;
  {
    auto& select = store.statement("SELECT id, start, \"end\" FROM Focus ORDER BY rowid");
    while (select.step()) {
      Row row;
      std::optional<std::string> id;
      store::readValue(select, 0, id);
      store::readValue(select, 1, row.start);
      store::readValue(select, 2, row.end);
      row.id = id.value_or("");
      rows.push_back(std::move(row));
    }
    select.reset();
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
  const auto tag = liveObject<Tag>(tagId);
  const auto tagGoal = tag ? tag->focusGoal() : std::nullopt;
  const bool hasGoal = tagGoal.has_value();
  const FocusGoal goal = tagGoal.value_or(FocusGoal::defaultGoal());

  // Days before the tag's first session are all empty. A real goal or limit
  // ends the walk at the first of them anyway; a goal of 0 seconds, which
  // every empty day would reach, ends there too instead of never.
  std::optional<Date> earliest;
  {
    Store store = Store::open();
    auto& select = store.statement("SELECT MIN(start) FROM Focus WHERE isDeleted = 0 AND tagId = ?1");
    select.bind(1, std::string_view(tagId));
    if (select.step()) store::readValue(select, 0, earliest);
    select.reset();
  }

  int combo = 0, focusDays = 0;
  bool onlyFocusDays = false, skipFocusDays = false;
  Date dayStart = relativeDate.startOfDay();
  for (bool isFirst = true; earliest && dayStart + 86400.0 >= *earliest; isFirst = false) {
    const DateInterval day(dayStart, 86400.0);
    dayStart = (dayStart - 1.0).startOfDay();

    if (!hasGoal || onlyFocusDays) {
      const std::size_t count = getFocuses(tagId, day).size();
      if (count > 0) {
        ++focusDays;
        continue;
      }
      if (isFirst) continue;
      break;
    }

    const ProgressSum sum = sumProgress(ofTag(tagId, day));
    if (sum.count > 0 && !skipFocusDays) ++focusDays;
    const bool hit = goal.isGoal() ? sum.seconds >= goal.duration() : sum.seconds > goal.duration();
    const bool blank = sum.count == 0 || skipFocusDays;
    if (hit) {
      ++combo;
      skipFocusDays = isFirst ? false : blank;
      continue;
    }
    onlyFocusDays = false;
    skipFocusDays = false;
    if (blank) {
      if (isFirst) continue;
      break;
    }
    // Today is not over: a day below the goal only ends the run from yesterday
    // on, and from there only days with sessions count.
    if (!isFirst) onlyFocusDays = true;
  }

  if (hasGoal && combo >= 1) return goal.isGoal() ? FocusCombo::streak(combo) : FocusCombo::fail(combo);
  if (focusDays > 0) return FocusCombo::focus(focusDays);
  return std::nullopt;
}

std::optional<double> Database::getGoalProgress(const std::string& tagId, Date date) {
  double goalDuration = 0;
  try {
    const auto tag = liveObject<Tag>(tagId);
    const auto goal = tag ? tag->focusGoal() : std::nullopt;
    if (!goal) return std::nullopt;
    goalDuration = goal->duration();
  } catch (const sqlite::Error&) {
    return std::nullopt;
  }
  ProgressSum sum;
  try {
    sum = sumProgress(ofTag(tagId, DateInterval::getDateInterval(date, 1)));
  } catch (const sqlite::Error&) {
    // A failed read counts as a day without sessions.
  }
  return sum.seconds / goalDuration;
}

}  // namespace tarnwell

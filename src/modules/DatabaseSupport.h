// What the files of Database share: its per-Environment state and the frames
// of reads and writes.

#pragma once

#include <filesystem>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "tarnwell/analytics/EventsOfDay.h"
#include "tarnwell/modules/Database.h"
#include "tarnwell/platform/Environment.h"
#include "tarnwell/platform/Log.h"
#include "tarnwell/platform/Timer.h"
#include "tarnwell/store/Reads.h"
#include "tarnwell/store/Store.h"

namespace tarnwell::database_support {

// The parts of Database that live as long as the Environment.
struct DatabaseState {
  explicit DatabaseState(Environment& environment);
  ~DatabaseState();
  DatabaseState(const DatabaseState&) = delete;
  DatabaseState& operator=(const DatabaseState&) = delete;

  // The lock file beside the store, held shared while this process may use
  // the store (-1 until configureRealm, or when it cannot be had). Setting
  // the store aside needs it exclusively: no other process may have it open.
  int lockFile = -1;

  SafeSyncQueue queue;
  std::filesystem::path folder, fileURL, legacyURL;
  // "backup.realm", the first of the numbered backups; and the last that
  // Database::backupURL() found or testRealm made.
  std::filesystem::path firstBackupURL, backupURL;
  std::vector<std::filesystem::path> fileURLs;

  // Guarded by `queue`.
  std::optional<EventsOfDay> eventsOfToday;

  std::mutex timersMutex;
  std::shared_ptr<Timer> dayTimer;
  std::shared_ptr<Timer> eventsOfTodayPost;
  std::shared_ptr<Timer> focusesPost;

  // The focus and tag observations of start(); main queue only.
  std::vector<store::ObserverToken> observers;

  // Set before start(); read on the main queue and `queue`.
  Database::PublishingHooks publishing;
};

DatabaseState& state();

// Carries changes of the store into today without a rebuild, in place and
// under `queue`, so that the changes of two writers both arrive. `commit` is
// the write that made exactly these changes, when there was one.
void updateEventsOfToday(const std::vector<EventsOfInterval::EventsChangeType>& changes,
                         const std::optional<store::Commit>& commit = std::nullopt);
// Installs a new today and announces it; only through `queue`.
void setEventsOfToday(EventsOfDay today);

// What an edit wrote: the record's interval as written, if it has one, and
// the write itself.
struct Written {
  std::optional<DateInterval> interval;
  std::optional<store::Commit> commit;
};

// The edit frame: a record that cannot be read (the store does not open, the
// id is unknown or soft-deleted) is skipped quietly; otherwise `assignments`
// are written and `line` logged. Returns whether it wrote; `written`, when
// given, receives what it wrote.
template <class Record>
bool editLiveObject(std::string_view id, const std::vector<std::pair<std::string_view, store::QueryValue>>& assignments,
                    const std::string& line, std::string_view function, Written* written = nullptr) {
  auto store = store::orNoData([] { return std::optional<store::Store>(store::Store::open()); });
  if (!store) return false;
  // Reading the record and writing it, fused: the row changes only when it
  // exists and is not soft-deleted, which is the edit's own condition.
  bool edited = false;
  store->write([&](store::WriteTransaction& t) {
    if (!written) {
      edited = t.template updateObject<Record>(id, assignments, "isDeleted = 0");
      return;
    }
    const store::Snapshot before = t.snapshot();
    edited = t.template updateObject<Record>(id, assignments, "isDeleted = 0");
    // Read in the same transaction: the row as this edit left it.
    if constexpr (requires(const Record& record) { record.interval(); }) {
      if (edited) {
        if (const auto record = store->template object<Record>(id)) written->interval = record->interval();
      }
    }
    written->commit = store::Commit{before, t.snapshot()};
  });
  if (edited) log.info(line, {.function = function});
  return edited;
}

// A default tag as a new installation makes it.
Tag makeDefaultTag(DefaultTagType type);

// The debounce of the day and focus posts: the pending timer in `slot`, if
// any, is invalidated at once, and a new one of 0.1 seconds is armed on the
// main queue, running `fire`. A burst of calls gives one `fire`.
void debounce(std::shared_ptr<Timer> DatabaseState::*slot, std::function<void()> fire);

}  // namespace tarnwell::database_support

// Database: the one facade of the store.
//
// Everything persistent goes through these static members. Database::start()
// opens and migrates the store (setting a broken file aside), and makes the
// device row and the initial tags; it must run once, on the main thread,
// before anything else here. Every read and write then runs on the caller's
// thread with that thread's own connection: records leave as plain values,
// and range queries return ids. An edit or deletion of an id that is unknown
// or soft-deleted is not an error: it is skipped and the id returned.
//
// Failures of the store throw sqlite::Error (SQLite's code inside);
// Database::start() reports a store it had to set aside as DatabaseError.

#pragma once

#include <cstdint>
#include <filesystem>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <type_traits>
#include <vector>

#include "tarnwell/analytics/EventsOfDay.h"
#include "tarnwell/platform/Date.h"
#include "tarnwell/platform/DispatchQueue.h"
#include "tarnwell/platform/Promise.h"
#include "tarnwell/records/Device.h"
#include "tarnwell/records/EventRecords.h"
#include "tarnwell/records/Tag.h"

namespace tarnwell {

namespace sqlite {
class Connection;
}

// A serial background queue whose safeSync may be called from a block that
// already runs on it: that call runs inline instead of waiting for itself.
class SafeSyncQueue {
 public:
  explicit SafeSyncQueue(std::string label);

  DispatchQueue& queue() { return queue_; }
  const DispatchSpecificKey<std::string>& queueKey() const { return queueKey_; }

  // Runs `block` on the queue and returns its result (or rethrows).
  template <class F>
  std::invoke_result_t<F&> safeSync(F&& block) {
    if (DispatchQueue::getSpecific(queueKey_) == label_) return block();
    return queue_.sync(std::forward<F>(block));
  }

 private:
  std::string label_;
  DispatchQueue queue_;
  DispatchSpecificKey<std::string> queueKey_;
};

class Database {
 public:
  Database() = delete;

  // The store's own error, as start() reports it: SQLite's code, or -1 for a
  // failure that did not come from the store.
  class DatabaseError : public std::runtime_error {
   public:
    static DatabaseError realm(int errorCode);
    int errorCode() const { return errorCode_; }

   private:
    DatabaseError(int errorCode, const std::string& message) : std::runtime_error(message), errorCode_(errorCode) {}
    int errorCode_;
  };

  struct NotificationName {
    static constexpr std::string_view eventsOfTodayDidChange = "Database.NotificationName.eventsOfTodayDidChange";
    static constexpr std::string_view focusesDidChange = "Database.NotificationName.focusesDidChange";
    static constexpr std::string_view dateOfTodayDidChange = "Database.NotificationName.dateOfTodayDidChange";
    static constexpr std::string_view updateRelevantShortcuts = "Database.NotificationName.updateRelevantShortcuts";
  };

  static constexpr std::uint64_t kSchemaVersion = 13;

  // --- Start-up ---

  // configureRealm, testRealm, setupRealmData, setupRefreshEventsOfTodayTimer,
  // in that order; the first error ends it.
  static void start();
  // Makes the store's folder, moves a legacy file into place, and makes the
  // store configuration (version, migration, compaction) the default.
  static void configureRealm();
  // Opens the store. A file that cannot be opened is set aside as
  // "backup.realm" and the call throws; the next start builds an empty store.
  static void testRealm();
  // Makes this device's row and, on a new installation, the initial tags.
  static void setupRealmData();

  // Compact a file of more than 50 MiB that is less than 40% used.
  static bool shouldCompactOnLaunch(std::uint64_t totalBytes, std::uint64_t usedBytes);
  // The steps from an older schema version, run inside the opening transaction.
  static void migrate(sqlite::Connection& connection, std::uint64_t oldSchemaVersion);

  // "Realm/default.realm" in the app group's container, the file set aside
  // beside it, and the store's files in removal order.
  static const std::filesystem::path& fileURL();
  static const std::filesystem::path& backupURL();
  static const std::vector<std::filesystem::path>& fileURLs();

  // Serial, background, "org.vostra.tarnwell.database".
  static SafeSyncQueue& queue();

  // --- Today ---

  // The day of now, for the default devices: built on first use, then kept
  // up to date by every event write, and rebuilt a second after each day's
  // start. Read and replaced whole through `queue`, so a reader never sees
  // half a value; of two concurrent updates the later wins and the next one
  // repairs the loss.
  static EventsOfDay eventsOfToday();
  // Rebuilds today on `queue`, then posts dateOfTodayDidChange on the main queue.
  static Promise<void> refreshEventsOfToday();
  // Arms the one-shot timer that refreshes today one second after the next
  // day's start, and arms itself again when it fires.
  static void setupRefreshEventsOfTodayTimer();
  // Posts eventsOfTodayDidChange on the main queue 0.1 seconds after the last
  // call: a burst of writes gives one post.
  static void notifyEventsOfTodayChanged();

  // --- Devices ---

  // This device's row, unless soft-deleted.
  static std::optional<Device> getCurrentDevice();
  // Stamps this device's row; its id, or nothing without a row.
  static std::optional<std::string> setCurrentDeviceLastSyncDate(Date date);
  // Ids of the rows not soft-deleted.
  static std::vector<std::string> getDevices();
  static std::optional<Device> getDevice(const std::string& id);
  // The ids this device merges into its views; nothing without a row.
  static std::optional<std::vector<std::string>> getDevicesRelatedToCurrentDevice();

  // --- Tags (the part the store's start needs) ---

  // Ids of the tags not soft-deleted, archived or not: the default tag first,
  // then by `sort`. A copy of a default tag with a suffix ("working-2") is
  // listed once, under the plain id.
  static std::vector<std::string> getTags(bool archived, bool discardDefault);
  // By primary key; nothing when absent or soft-deleted.
  static std::optional<Tag> getTag(const std::string& id);

  // --- Pickups ---

  // Ids of the records with `start` or `end` inside `between` (both ends
  // included), by start. A record spanning the whole interval has neither end
  // inside and is not listed; a record of zero length never is.
  static std::vector<std::string> getPickups(DateInterval between, const std::vector<std::string>& deviceIds);
  static std::optional<Pickup> getPickup(const std::string& id);
  // The earliest pickup starting inside `between`, not ignored for sleep.
  static std::optional<std::string> getFirstPickup(DateInterval between, const std::vector<std::string>& deviceIds);
  // The pickup that ends last among those starting or ending inside
  // `between`, not ignored for sleep.
  static std::optional<std::string> getLastPickup(DateInterval between, const std::vector<std::string>& deviceIds);
  // The first pickup, in store order, that starts at `start` or ends at `end`.
  static std::optional<Pickup> getPickup(Date start, Date end, const std::vector<std::string>& deviceIds);
  // The pickup that ends last.
  static std::optional<Pickup> getLatestPickup(const std::vector<std::string>& deviceIds);
  // Seconds of all of a device's pickups over the life of the store.
  static double getScreenTime(const std::string& deviceId);

  // A new pickup of this device; its id.
  static std::string addPickup(Date start, Date end);
  // Moves the end of a pickup under way. Returns `id`.
  static std::string editPickup(const std::string& id, Date end);
  // Marks the pickups that start or end inside `between`; their ids.
  static std::vector<std::string> editPickups(DateInterval between, bool isIgnoredForSleepTime,
                                              const std::vector<std::string>& deviceIds);
  // Soft-deletes a pickup.
  static void deletePickup(const std::string& id);

  // --- Walks ---

  static std::vector<std::string> getWalks(DateInterval between, const std::vector<std::string>& deviceIds);
  static std::optional<Walk> getWalk(const std::string& id);
  static std::optional<Walk> getLatestWalk(const std::vector<std::string>& deviceIds);
  static std::string addWalk(Date start, Date end);
  // Many walks in one transaction; their ids in order.
  static std::vector<std::string> addWalks(const std::vector<DateInterval>& intervals);
  static std::string editWalk(const std::string& id, Date start, Date end);

  // --- Alive spans ---

  static std::vector<std::string> getAlives(DateInterval between, const std::vector<std::string>& deviceIds);
  static std::optional<Alive> getAlive(const std::string& id);
  static std::optional<Alive> getLatestAlive(const std::vector<std::string>& deviceIds);
  static std::string addAlive(Date start, Date end);
  static std::string editAlive(const std::string& id, Date start, Date end);

  // Soft-deletes alive spans, pickups and walks that end before they start
  // (or at it) or end in the future, which only a wrong clock makes.
  static void clearAlivePickupWalk();
};

}  // namespace tarnwell

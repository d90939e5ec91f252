// Layers, bottom to top: platform → healthkit → cloudkit → widgets → settings → extensions → records → store → sync → health → analytics → charts → [modules] → automation.
//
// Database: the one facade of the store.
//
// Everything persistent goes through these static members. Database::start()
// opens and migrates the store (setting a damaged file aside), and makes the
// device row and the initial tags; it must run once, on the main thread,
// before anything else here. Every read and write then runs on the caller's
// thread with that thread's own connection: records leave as plain values,
// and range queries return ids. An edit or deletion of an id that is unknown
// or soft-deleted is not an error: it is skipped and the id returned. The
// reads rest on the store's shared ones (store/Reads.h), which the analytics
// use too; the writes of events keep today (eventsOfToday) up to date.
//
// Failures of the store throw sqlite::Error (SQLite's code inside);
// Database::start() reports a store it could not open as DatabaseError.
//
// A store is set aside only when it is shown to be damaged: SQLite finds it
// is no database or is corrupt, or its quick check fails. A store that is
// busy (another process writing, an import's long transaction), locked,
// read-only, out of reach or of a newer version is never touched: a write
// waits for the Environment's storeBusyTimeout, and start() then refuses
// with a sentence that says what holds the store. Nor is a store set aside
// while another process has it open: every process holds a shared lock on
// "default.realm.lock" while it uses the store, and setting aside needs that
// lock alone. Backups are numbered, "backup.realm", "backup-2.realm" and on,
// each with its side files, and none is ever overwritten.

#pragma once

#include <cstdint>
#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <type_traits>
#include <vector>

#include "tarnwell/analytics/EventsOfDay.h"
#include "tarnwell/analytics/FocusCombo.h"
#include "tarnwell/platform/Color.h"
#include "tarnwell/platform/Date.h"
#include "tarnwell/platform/DispatchQueue.h"
#include "tarnwell/platform/Promise.h"
#include "tarnwell/records/App.h"
#include "tarnwell/records/Device.h"
#include "tarnwell/records/EventRecords.h"
#include "tarnwell/records/Focus.h"
#include "tarnwell/records/Tag.h"

namespace tarnwell {

namespace sqlite {
class Connection;
class Error;
}  // namespace sqlite

// A serial background queue whose safeSync may be called from a block that
// already runs on it: that call runs inline instead of waiting for itself.
class SafeSyncQueue {
 public:
  explicit SafeSyncQueue(std::string label);

  DispatchQueue& queue() { return *queue_; }
  const DispatchSpecificKey<std::string>& queueKey() const { return queueKey_; }

  // Runs `block` on the queue and returns its result (or rethrows).
  template <class F>
  std::invoke_result_t<F&> safeSync(F&& block) {
    if (DispatchQueue::getSpecific(queueKey_) == label_) return block();
    return queue_->sync(std::forward<F>(block));
  }

 private:
  std::string label_;
  // The Environment's, so that it is closed before the state it reaches goes.
  std::shared_ptr<DispatchQueue> queue_;
  DispatchSpecificKey<std::string> queueKey_;
};

// The fields editFocus changes; those left empty stay as they are.
struct FocusEdit {
  std::optional<std::string> tagId = std::nullopt;
  std::optional<Date> start = std::nullopt;
  // Also moves the end to start + progress: a pause the old end held is lost.
  std::optional<double> progress = std::nullopt;
  std::optional<double> goal = std::nullopt;
  std::optional<widgets::AbstractFocusType> type = std::nullopt;
  std::optional<FocusMode> mode = std::nullopt;
};

// The fields editTag changes; those left empty stay as they are. The goal and
// the reminder can be cleared: give them as an empty value.
struct TagEdit {
  std::optional<std::string> title = std::nullopt;
  // Ignored for the default tag, which has no emoji.
  std::optional<std::string> emoji = std::nullopt;
  std::optional<Color> color = std::nullopt;
  std::optional<widgets::FocusType> focusType = std::nullopt;
  std::optional<std::optional<FocusGoal>> focusGoal = std::nullopt;
  std::optional<std::optional<FocusNotification>> notification = std::nullopt;
  std::optional<bool> syncToMindfulness = std::nullopt;
  std::optional<std::vector<std::int64_t>> stateOfMindAssociationsRawValue = std::nullopt;
};

class Database {
 public:
  Database() = delete;

  // The store's own error, as start() reports it: SQLite's code, or -1 for a
  // failure that did not come from the store.
  // Its message is one plain sentence for the user, never a statement.
  class DatabaseError : public std::runtime_error {
   public:
    static DatabaseError realm(int errorCode);
    // The store was left as it was; `sentence` says why.
    static DatabaseError refused(int errorCode, const std::string& sentence);
    // The damaged store was moved to `backup`.
    static DatabaseError setAside(int errorCode, const std::filesystem::path& backup);
    int errorCode() const { return errorCode_; }
    // Where the store went; empty when it stayed.
    const std::filesystem::path& backup() const { return backup_; }

   private:
    DatabaseError(int errorCode, const std::string& message) : std::runtime_error(message), errorCode_(errorCode) {}
    int errorCode_;
    std::filesystem::path backup_;
  };

  // A failure of the store as one sentence for the user: what holds the
  // store (another process, a read-only file, a full disk), without SQL.
  static std::string describeFailure(const sqlite::Error& error);

  struct NotificationName {
    static constexpr std::string_view eventsOfTodayDidChange = "Database.NotificationName.eventsOfTodayDidChange";
    static constexpr std::string_view focusesDidChange = "Database.NotificationName.focusesDidChange";
    static constexpr std::string_view dateOfTodayDidChange = "Database.NotificationName.dateOfTodayDidChange";
    static constexpr std::string_view updateRelevantShortcuts = "Database.NotificationName.updateRelevantShortcuts";
  };

  static constexpr std::uint64_t kSchemaVersion = 13;

  // --- Start-up ---

  // configureRealm, testRealm, the cloud service, setupRealmData, the tag
  // repairs (on `queue`), setupRefreshEventsOfTodayTimer,
  // observeFocusAndTagDataChanges and updateTagsDisplayInIntent, in that
  // order; the first error ends it.
  static void start();
  // Makes the store's folder, moves a legacy file into place, and makes the
  // store configuration (version, migration, compaction) the default.
  static void configureRealm();
  // Opens the store. A damaged file that no other process has open is set
  // aside under the next free backup name and the call throws
  // DatabaseError::setAside; the next start builds an empty store. Any other
  // failure throws DatabaseError::refused and changes nothing.
  static void testRealm();
  // Makes this device's row and, on a new installation, the initial tags.
  static void setupRealmData();
  // The tag repairs: clearTags, then resetInvalidateTagSort.
  static void clearRealmDatabase();
  // Watches focuses and tags: any change of either, and the first delivery,
  // brings one debounced focusesDidChange; a change of tags also brings
  // updateTagsDisplayInIntent on the main queue.
  static void observeFocusAndTagDataChanges();
  // Publishes the tags shortcuts and widget settings offer (neither archived
  // nor the default tag, newest first) and asks the focus widgets to redraw.
  static void updateTagsDisplayInIntent();

  // What the layer that publishes for widgets runs where the app does: the
  // first two after today is rebuilt, the first after the debounced
  // eventsOfTodayDidChange, the last two after the debounced focusesDidChange.
  // Empty hooks do nothing; they last as long as the Environment.
  struct PublishingHooks {
    std::function<void()> refreshScreenTimeToday;
    std::function<void()> refreshFocusTimeToday;
    std::function<void()> updateFocusTags;
  };
  static void setPublishingHooks(PublishingHooks hooks);

  // Compact a file of more than 50 MiB that is less than 40% used.
  static bool shouldCompactOnLaunch(std::uint64_t totalBytes, std::uint64_t usedBytes);
  // The steps from an older schema version, run inside the opening transaction.
  static void migrate(sqlite::Connection& connection, std::uint64_t oldSchemaVersion);

  // "Realm/default.realm" in the app group's container; the newest backup
  // beside it ("backup.realm" while there is none); and the store's files in
  // removal order.
  static const std::filesystem::path& fileURL();
  static const std::filesystem::path& backupURL();
  static const std::vector<std::filesystem::path>& fileURLs();

  // Serial, background, "org.vostra.tarnwell.database".
  static SafeSyncQueue& queue();

  // --- Today ---

  // The day of now, for the default devices: built on first use, then kept
  // up to date by every event write, and rebuilt a second after each day's
  // start. Read and changed only through `queue`, so a reader never sees
  // half a value, and each of two concurrent updates arrives.
  static EventsOfDay eventsOfToday();
  // Rebuilds today on `queue`, then posts dateOfTodayDidChange on the main queue.
  static Promise<void> refreshEventsOfToday();
  // Arms the one-shot timer that refreshes today one second after the next
  // day's start, and arms itself again when it fires.
  static void setupRefreshEventsOfTodayTimer();
  // Posts eventsOfTodayDidChange on the main queue 0.1 seconds after the last
  // call: a burst of writes gives one post.
  static void notifyEventsOfTodayChanged();
  // Posts focusesDidChange on the main queue 0.1 seconds after the last call.
  static void notifyFocusesChanged();

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
  // Adds `deviceId` to this device's merged devices (once) or removes it.
  // This device's id, or nothing without a row. The relation is one-way.
  static std::optional<std::string> setCurrentDeviceRelation(const std::string& deviceId, bool isRelated);

  // --- Tags ---

  // Ids of the tags not soft-deleted, archived or not: the default tag first,
  // then by `sort`. A copy of a default tag with a suffix ("working-2") is
  // listed under the plain id, once; when that hides a twin, clearTags runs.
  static std::vector<std::string> getTags(bool archived, bool discardDefault);
  // By primary key; nothing when absent or soft-deleted.
  static std::optional<Tag> getTag(const std::string& id);
  // The tag "default", made when missing; returned even when soft-deleted.
  static Tag getDefaultTag();
  // A new tag with a UUID id, placed after every other; its id.
  static std::string addTag(const std::string& title, const std::optional<std::string>& emoji, const Color& color,
                            const widgets::FocusType& focusType, const std::optional<FocusGoal>& focusGoal,
                            const std::optional<FocusNotification>& notification, bool syncToMindfulness,
                            const std::optional<std::vector<std::int64_t>>& stateOfMindAssociationsRawValue);
  static std::string editTag(const std::string& id, const TagEdit& edit);
  // Puts the tag in the place of `after`: just before it when moving up the
  // list, just behind it when moving down. Only the rows between the two
  // places are renumbered, from the smallest `sort` among them.
  static void moveTag(const std::string& id, const std::string& after);
  // Soft-deletes the tag. Its sessions move to `migrateTo`, or are deleted.
  static void deleteTag(const std::string& id, const std::optional<std::string>& migrateTo);
  static void archiveTag(const std::string& id, bool archive);
  // In one transaction; unknown ids are skipped.
  static void archiveTags(const std::vector<std::string>& ids, bool archive);
  // Folds copies of the default tags ("working-<suffix>") and their sessions
  // into the tag of the plain id, which is made when missing.
  static void clearTags();
  // Places the tags that have no place yet (kUnplacedSort) after all others,
  // in order of creation; the default tag goes first.
  static void resetInvalidateTagSort();

  // --- Focus sessions ---

  // Ids, in store order unless said otherwise; a session belongs to an
  // interval by its start, both ends included.
  static std::vector<std::string> getFocuses();
  static std::vector<std::string> getFocuses(const DateInterval& startsBetween);
  static std::vector<std::string> getFocuses(const std::string& tagId);
  // By start.
  static std::vector<std::string> getFocuses(const std::string& tagId, const DateInterval& startsBetween);
  // The sessions of these devices with a start or an end inside `between`.
  static std::vector<std::string> getFocuses(const DateInterval& between, const std::vector<std::string>& deviceIds);
  static std::optional<Focus> getFocus(const std::string& id);
  // The first session, in store order, that starts at `start` or ends at `end`.
  static std::optional<Focus> getFocus(Date start, Date end);
  // The latest session that began on `date`'s day.
  static std::optional<Focus> getRecentFocus(Date date);

  // A session of this device; a given id that exists is replaced. Its id.
  static std::string addFocus(const std::optional<std::string>& id, Date start, Date end,
                              const std::optional<std::string>& tagId, double goal, double progress,
                              const std::optional<widgets::FocusType>& type, const std::optional<FocusMode>& mode,
                              const std::optional<std::string>& watchDeviceName);
  static void editFocus(const std::string& id, const FocusEdit& edit);
  static void deleteFocus(const std::string& id);
  // Soft-deletes copies that sync let pile up: of sessions starting less
  // than a second apart, the one that ends last stays.
  static void clearFocuses();

  // The tag's run of days back from `relativeDate`'s day; today is not over,
  // so a day below the goal today does not end it. Nothing without sessions.
  static std::optional<FocusCombo> getFocusCombo(const std::string& tagId, Date relativeDate);
  // Seconds focused with the tag on `date`'s day over its goal's duration;
  // nothing for a tag that is unknown or has no goal.
  static std::optional<double> getGoalProgress(const std::string& tagId, Date date);

  // --- Allowed apps ---

  // trackIds, by creation.
  static std::vector<std::string> getApps();
  static std::optional<App> getApp(const std::string& trackId);
  // Adds the app, or revives it; its trackId.
  static std::optional<std::string> addApp(const AppStructure& data);
  static void deleteApp(const std::string& trackId);

  // --- Reset and export (on `queue`) ---

  // Soft-deletes the alive spans, pickups and walks of this device or of
  // all, makes this device's row again, then rebuilds today.
  static Promise<void> resetScreentimeData(bool onlyCurrentDevice);
  // Soft-deletes the focus sessions of this device or of all; for all, also
  // every tag, so that the initial tags are made anew.
  static Promise<void> resetFocusData(bool onlyCurrentDevice);
  // Writes "<date>-Alive.csv", -Device, -Focus, -Pickup, -Tag and -Walk into
  // `folder` (the process's temporary folder when empty); their paths.
  static Promise<std::vector<std::filesystem::path>> exportCSVFile(std::filesystem::path folder = {});

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

// Layers, bottom to top: platform → healthkit → cloudkit → widgets → settings → extensions → records → store → sync → [health] → analytics → charts → modules → automation.
//
// HealthManager: the one object that talks to the health store.
//
// Sleep comes in: when the user picks another application as the source of
// sleep, its samples replace the inference from phone use. The manager keeps
// every source's asleep intervals in memory (`sleepDatas`, replaced whole by
// each reload, which an observer query starts whenever the store changes) and
// answers a day's night from them without reading the store.
//
// Samples go out: a mindful session per focus whose tag asks for it, one
// sleep sample for the night the system inferred, and the state of mind a
// user gives a focus. Each write finds what an earlier write left (by the
// focus id in the metadata, by this application's source for the night) and
// replaces it, so that repeating a write converges.
//
// Every step runs on the manager's serial queue; callers are handed promises
// and never wait. Authorization may never answer (the user closed the sheet):
// such a chain stays pending for good, and nothing may block on it.
//
// The manager sits below the day caches and the Database it serves. What it
// needs from them (recompute today after a reload, today's night) it gets
// through hooks that Database registers at start.

#pragma once

#include <exception>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "tarnwell/healthkit/HealthStore.h"
#include "tarnwell/platform/Application.h"
#include "tarnwell/platform/Date.h"
#include "tarnwell/platform/DispatchQueue.h"
#include "tarnwell/platform/NotificationCenter.h"
#include "tarnwell/platform/Promise.h"
#include "tarnwell/settings/SleepDataSource.h"

namespace tarnwell {

class Environment;

// Why a chain of the manager was rejected, when the store gave no error of
// its own. Thrown as the plain value. requestAuthorizationDenied, tagIsNil,
// sleepTimeIsNil and querySleepAnalysisFailed are never raised; callers may
// switch on them all the same.
enum class SaveToHealthKitError {
  requestAuthorizationFailed,
  requestAuthorizationDenied,
  typeIsNil,
  focusIsNil,
  tagIsNil,
  saveMindfulSessionFailed,
  sleepTimeIsNil,
  querySleepAnalysisFailed,
  saveSleepAnalysisFailed,
  deleteSamplesFailed,
};
std::string_view description(SaveToHealthKitError error);
// The text of a rejection: a SaveToHealthKitError's case, or the error's own message.
std::string describeHealthError(const std::exception_ptr& error);

class HealthManager : public std::enable_shared_from_this<HealthManager> {
 public:
  enum class RequestType { share, read, shareAndRead };

  // What the layers above do for the manager.
  struct Hooks {
    // After a reload replaced `sleepDatas`: forget cached days, recompute today.
    std::function<void()> sleepDatasDidReload;
    // Today's night as the cached day has it: its last pickup before the
    // night (the start) and its first pickup after (the end).
    std::function<std::pair<std::optional<Date>, std::optional<Date>>()> nightOfToday;
  };

  static constexpr std::string_view kQueueLabel = "org.vostra.tarnwell.HealthManager.queue";
  // The notifications the manager listens to once started.
  static constexpr std::string_view kEventsOfTodayDidChange = "Database.NotificationName.eventsOfTodayDidChange";
  static constexpr std::string_view kDefaultSleepSourceDidChange =
      "Settings.NotificationName.defaultSleepSourceDidChange";
  // The metadata key that ties a state of mind to its focus.
  static constexpr std::string_view kFocusIdMetadataKey = "focus_id";

  // The manager of the installed Environment, over its health store.
  static HealthManager& shared();
  explicit HealthManager(Environment& environment);
  ~HealthManager();
  HealthManager(const HealthManager&) = delete;
  HealthManager& operator=(const HealthManager&) = delete;

  // Once at launch: starts observing the chosen source's sleep, and listens
  // for changes of today and of the chosen source.
  void start();
  void setHooks(Hooks hooks);

  DispatchQueue& queue() { return *queue_; }
  HKHealthStore& healthStore() { return *healthStore_; }
  // Absent where the platform has no such type.
  const std::optional<HKSampleType>& mindfulSessionType() const { return mindfulSessionType_; }
  const std::optional<HKSampleType>& sleepAnalysisType() const { return sleepAnalysisType_; }
  const std::optional<HKSampleType>& stateOfMindType() const { return stateOfMindType_; }

  // --- Sleep in ---

  // The sources that wrote sleep in the last 7 days, by weight of their
  // known application (unknown ones as found, newest first), with this
  // application in front when it is not among them. Never empty.
  Promise<std::vector<SleepDataSource>> getSleepSources();
  // The last answer of getSleepSources; empty before the first.
  std::vector<SleepDataSource> sleepSources() const;

  // The asleep samples of every source, as the last reload grouped them.
  std::vector<SleepDataWithDataSource> sleepDatas() const;
  // Replaces them whole; a reader sees the old list or the new one.
  void setSleepDatas(std::vector<SleepDataWithDataSource> sleepDatas);

  // The night of `date` as `source` wrote it: that source's intervals that
  // meet the window from 20:00 of the day before to 10:00 of `date` (a touch
  // counts; they are not clipped), of positive length, with overlaps merged.
  // Nothing when the source has no entry or nothing is left. Never a mix of
  // sources. Reads memory only.
  std::optional<SleepDataWithDataSource> getSleepData(const SleepDataSource& source, Date date) const;

  // Stops a running observer query; starts one when a source other than
  // this application is chosen and sleep may be read.
  void observeSleepAnalysisSamplesIfNeeded();
  // Reads every asleep (value 1) sample of the store into `sleepDatas`, then
  // calls the hook that recomputes today. A failure leaves them as they were.
  Promise<void> reloadSleepDatas();
  void handleSleepSourceChanged();

  // --- Authorization ---

  // The step every read and write goes through. Status 2 and a share
  // request fulfils without asking; otherwise the store is asked, and an
  // answer of no success and no error leaves the promise pending for good.
  Promise<void> requestAuthorization(std::optional<HKSampleType> type, RequestType requestType);
  Promise<void> requestSleepAnalysisAuthorization();
  Promise<void> requestMindfulSessionAuthorization();
  Promise<void> requestStateOfMindAuthorization();
  // Of sharing; not determined where the type is absent.
  HKAuthorizationStatus sleepAnalysisAuthorized() const;
  HKAuthorizationStatus mindfulSessionAuthorizationStatus() const;
  HKAuthorizationStatus stateOfMindAuthorizationStatus() const;
  // "x-apple-health://".
  void openHealthApp(Application& application);

  // --- Samples out ---

  // The focus as one mindful session, replacing the ones it left before;
  // nothing when its tag does not ask for mindful time. Rejects with
  // focusIsNil for a focus that is absent or deleted.
  Promise<void> syncFocusToHealthKit(const std::string& id);
  // Deletes the focus's mindful sessions within the dates (open where absent).
  Promise<void> removeFocusFromHealthKit(const std::string& id, std::optional<Date> start, std::optional<Date> end);
  // Today's inferred night as this application's one sleep sample for it.
  void handleEventsChanged();
  Promise<void> syncSleepAnalysisToHealthKit(Date start, Date end);
  // One state of mind per focus: the new one replaces what was saved before.
  Promise<void> saveStateOfMindForFocus(const std::string& focusID, Date date, double valence,
                                        const std::vector<HKStateOfMindLabel>& labels,
                                        const std::vector<HKStateOfMindAssociation>& associations);
  Promise<std::vector<HKSample>> fetchSavedStateOfMind(const std::string& focusID);
  // On the main queue: the first saved sample if it is a state of mind,
  // nothing for none, or the error.
  void fetchSavedStateOfMind(const std::string& focusID,
                             std::function<void(std::optional<HKSample> sample, std::exception_ptr error)> completion);

 private:
  // A sample query with one sort on the start, newest first.
  Promise<std::vector<HKSample>> querySamples(std::optional<HKSampleType> type,
                                              std::optional<HKQueryPredicate> predicate, bool newestFirst = true);
  Promise<void> saveSample(HKSample sample, SaveToHealthKitError failure);
  Promise<void> deleteSamples(std::vector<HKSample> samples);
  HKAuthorizationStatus statusOf(const std::optional<HKSampleType>& type) const;

  std::shared_ptr<DispatchQueue> queue_;
  std::shared_ptr<HKHealthStore> healthStore_;
  std::optional<HKSampleType> mindfulSessionType_;
  std::optional<HKSampleType> sleepAnalysisType_;
  std::optional<HKSampleType> stateOfMindType_;

  mutable std::mutex mutex_;
  std::shared_ptr<const std::vector<SleepDataSource>> sleepSources_;
  std::shared_ptr<const std::vector<SleepDataWithDataSource>> sleepDatas_;
  std::shared_ptr<HKObserverQuery> observingQuery_;
  Hooks hooks_;
  std::vector<NotificationToken> tokens_;
};

}  // namespace tarnwell

#include "tarnwell/health/HealthManager.h"

#include <algorithm>
#include <set>

#include "tarnwell/platform/Environment.h"
#include "tarnwell/platform/FatalError.h"
#include "tarnwell/platform/Log.h"
#include "tarnwell/records/Focus.h"
#include "tarnwell/records/Tag.h"
#include "tarnwell/settings/Settings.h"
#include "tarnwell/store/Store.h"

namespace tarnwell {

namespace {

constexpr int kSleepSourcesDays = 7;

template <class Value>
Promise<Value> rejection(SaveToHealthKitError error) {
  return Promise<Value>::rejected(std::make_exception_ptr(error));
}

// The samples an earlier sync of the focus left: metadata "id" is its id, as text.
std::vector<HKSample> samplesOfFocus(const std::vector<HKSample>& samples, const std::string& id) {
  std::vector<HKSample> matching;
  for (const auto& sample : samples) {
    if (!sample.metadata.is_object()) continue;
    const auto found = sample.metadata.find("id");
    if (found != sample.metadata.end() && found->is_string() && found->get_ref<const std::string&>() == id) {
      matching.push_back(sample);
    }
  }
  return matching;
}

// One interval a source, in order of the sources' first samples.
std::vector<SleepDataWithDataSource> asleepBySource(const std::vector<HKSample>& samples) {
  std::vector<SleepDataWithDataSource> datas;
  for (const auto& sample : samples) {
    if (!sample.isCategorySample() ||
        *sample.categoryValue != static_cast<std::int64_t>(HKCategoryValueSleepAnalysis::asleepUnspecified)) {
      continue;  // in bed, awake and the staged values stay out
    }
    if (sample.endDate < sample.startDate) continue;  // no store keeps one; a broken one is no night
    const SleepDataSource source{sample.source.name, sample.source.bundleIdentifier};
    auto group = std::find_if(datas.begin(), datas.end(), [&](const auto& data) { return data.dataSource == source; });
    if (group == datas.end()) group = datas.insert(datas.end(), SleepDataWithDataSource{source, {}});
    group->sleeps.emplace_back(sample.startDate, sample.endDate);
  }
  return datas;
}

}  // namespace

std::string_view description(SaveToHealthKitError error) {
  switch (error) {
    case SaveToHealthKitError::requestAuthorizationFailed:
      return "requestAuthorizationFailed";
    case SaveToHealthKitError::requestAuthorizationDenied:
      return "requestAuthorizationDenied";
    case SaveToHealthKitError::typeIsNil:
      return "typeIsNil";
    case SaveToHealthKitError::focusIsNil:
      return "focusIsNil";
    case SaveToHealthKitError::tagIsNil:
      return "tagIsNil";
    case SaveToHealthKitError::saveMindfulSessionFailed:
      return "saveMindfulSessionFailed";
    case SaveToHealthKitError::sleepTimeIsNil:
      return "sleepTimeIsNil";
    case SaveToHealthKitError::querySleepAnalysisFailed:
      return "querySleepAnalysisFailed";
    case SaveToHealthKitError::saveSleepAnalysisFailed:
      return "saveSleepAnalysisFailed";
    case SaveToHealthKitError::deleteSamplesFailed:
      return "deleteSamplesFailed";
  }
  return "unknown";
}

std::string describeHealthError(const std::exception_ptr& error) {
  try {
    std::rethrow_exception(error);
  } catch (SaveToHealthKitError failure) {
    return std::string(description(failure));
  } catch (const std::exception& failure) {
    return failure.what();
  } catch (...) {
    return "an unknown error";
  }
}

HealthManager& HealthManager::shared() { return Environment::current().component<HealthManager>(); }

HealthManager::HealthManager(Environment& environment)
    : queue_(environment.makeQueue(std::string(kQueueLabel))),
      healthStore_(HKHealthStore::installedPointer()),
      sleepSources_(std::make_shared<const std::vector<SleepDataSource>>()),
      sleepDatas_(std::make_shared<const std::vector<SleepDataWithDataSource>>()) {
  if (healthStore_->isAvailable(HKSampleType::mindfulSession)) mindfulSessionType_ = HKSampleType::mindfulSession;
  if (healthStore_->isAvailable(HKSampleType::sleepAnalysis)) sleepAnalysisType_ = HKSampleType::sleepAnalysis;
  if (healthStore_->isAvailable(HKSampleType::stateOfMind)) stateOfMindType_ = HKSampleType::stateOfMind;
}

HealthManager::~HealthManager() {
  tokens_.clear();
  if (observingQuery_) healthStore_->stop(observingQuery_);
}

void HealthManager::start() {
  observeSleepAnalysisSamplesIfNeeded();
  auto& center = NotificationCenter::defaultCenter();
  tokens_.push_back(center.addObserver(std::string(kEventsOfTodayDidChange), nullptr,
                                       [this](const Notification&) { handleEventsChanged(); }));
  tokens_.push_back(center.addObserver(std::string(kDefaultSleepSourceDidChange), nullptr,
                                       [this](const Notification&) { handleSleepSourceChanged(); }));
}

void HealthManager::setHooks(Hooks hooks) {
  std::lock_guard lock(mutex_);
  hooks_ = std::move(hooks);
}

// --- Sleep in ---

Promise<std::vector<SleepDataSource>> HealthManager::getSleepSources() {
  const Date now = Date::now();
  const HKSource own = healthStore_->defaultSource();
  return requestAuthorization(sleepAnalysisType_, RequestType::shareAndRead)
      .then(*queue_,
            [this, now] {
              return querySamples(sleepAnalysisType_,
                                  HKQueryPredicate::forSamples(now.addingDay(-kSleepSourcesDays), now));
            })
      .map(*queue_, [this, own](const std::vector<HKSample>& samples) {
        std::vector<SleepDataSource> sources;
        for (const auto& sample : samples) {
          SleepDataSource source{sample.source.name, sample.source.bundleIdentifier};
          if (std::find(sources.begin(), sources.end(), source) == sources.end()) sources.push_back(std::move(source));
        }
        std::stable_sort(sources.begin(), sources.end(),
                         [](const auto& a, const auto& b) { return a.sortWeight() > b.sortWeight(); });
        const SleepDataSource ownSource{own.name, own.bundleIdentifier};
        if (std::find(sources.begin(), sources.end(), ownSource) == sources.end()) {
          sources.insert(sources.begin(), ownSource);
        }
        auto kept = std::make_shared<const std::vector<SleepDataSource>>(sources);
        std::lock_guard lock(mutex_);
        sleepSources_ = std::move(kept);
        return sources;
      });
}

std::vector<SleepDataSource> HealthManager::sleepSources() const {
  std::lock_guard lock(mutex_);
  return *sleepSources_;
}

std::vector<SleepDataWithDataSource> HealthManager::sleepDatas() const {
  std::lock_guard lock(mutex_);
  return *sleepDatas_;
}

void HealthManager::setSleepDatas(std::vector<SleepDataWithDataSource> sleepDatas) {
  auto replacement = std::make_shared<const std::vector<SleepDataWithDataSource>>(std::move(sleepDatas));
  std::lock_guard lock(mutex_);
  sleepDatas_ = std::move(replacement);
}

std::optional<SleepDataWithDataSource> HealthManager::getSleepData(const SleepDataSource& source, Date date) const {
  std::shared_ptr<const std::vector<SleepDataWithDataSource>> all;
  {
    std::lock_guard lock(mutex_);
    all = sleepDatas_;
  }
  const auto entry =
      std::find_if(all->begin(), all->end(), [&](const auto& data) { return data.dataSource == source; });
  if (entry == all->end()) return std::nullopt;
  const DateInterval window(date.addingDay(-1).getTime(20, 0, 0), date.getTime(10, 0, 0));
  std::vector<DateInterval> sleeps;
  for (const auto& sleep : entry->sleeps) {
    if (sleep.intersects(window) && sleep.duration() > 0) sleeps.push_back(sleep);
  }
  sleeps = DateInterval::removeOverlaps(std::move(sleeps));
  if (sleeps.empty()) return std::nullopt;
  return SleepDataWithDataSource{entry->dataSource, std::move(sleeps)};
}

void HealthManager::observeSleepAnalysisSamplesIfNeeded() {
  {
    std::lock_guard lock(mutex_);
    if (observingQuery_) {
      healthStore_->stop(observingQuery_);
      observingQuery_.reset();
    }
  }
  if (Settings::defaultSleepDataSource().isBuiltIn()) return;  // inferred: nothing to observe
  if (!sleepAnalysisType_) return;
  const HKSampleType type = *sleepAnalysisType_;
  const std::weak_ptr<HealthManager> weak = weak_from_this();
  requestAuthorization(sleepAnalysisType_, RequestType::shareAndRead)
      .done(*queue_,
            [this, weak, type] {
              auto query = std::make_shared<HKObserverQuery>(
                  type, std::nullopt,
                  [weak](HKObserverQuery&, HKObserverQuery::CompletionHandler completion, std::exception_ptr error) {
                    if (error) {
                      log.error(describeHealthError(error), {.function = "observeSleepAnalysisSamplesIfNeeded()"});
                      return;  // the platform's completion stays uncalled, as on an error it should
                    }
                    const auto self = weak.lock();
                    if (!self) return;
                    self->reloadSleepDatas().ensure(*self->queue_, [completion] { completion(); });
                  });
              healthStore_->execute(query);
              std::lock_guard lock(mutex_);
              // Two quick changes of source may both get here: one query at a time.
              if (observingQuery_) healthStore_->stop(observingQuery_);
              observingQuery_ = std::move(query);
            })
      .catchError(*queue_, [](const std::exception_ptr& error) {
        log.error(describeHealthError(error), {.function = "observeSleepAnalysisSamplesIfNeeded()"});
      });
}

Promise<void> HealthManager::reloadSleepDatas() {
  return requestAuthorization(sleepAnalysisType_, RequestType::shareAndRead)
      .then(*queue_, [this] { return querySamples(sleepAnalysisType_, std::nullopt); })
      .map(*queue_, [this](const std::vector<HKSample>& samples) {
        setSleepDatas(asleepBySource(samples));
        std::function<void()> didReload;
        {
          std::lock_guard lock(mutex_);
          didReload = hooks_.sleepDatasDidReload;
        }
        if (didReload) didReload();
      });
}

void HealthManager::handleSleepSourceChanged() { observeSleepAnalysisSamplesIfNeeded(); }

// --- Authorization ---

Promise<void> HealthManager::requestAuthorization(std::optional<HKSampleType> type, RequestType requestType) {
  if (!type) return rejection<void>(SaveToHealthKitError::typeIsNil);
  const HKAuthorizationStatus status = healthStore_->authorizationStatus(*type);
  std::optional<std::set<HKSampleType>> toShare, toRead;
  if (requestType != RequestType::read) toShare = std::set{*type};
  if (requestType != RequestType::share) toRead = std::set{*type};
  switch (status) {
    case HKAuthorizationStatus::notDetermined:
    case HKAuthorizationStatus::sharingDenied:
      break;
    case HKAuthorizationStatus::sharingAuthorized:
      // Sharing is all a share request needs; reading is never told, so it is asked for again.
      if (requestType == RequestType::share) return Promise<void>::fulfilled();
      break;
    default:
      return rejection<void>(SaveToHealthKitError::requestAuthorizationFailed);
  }
  auto [promise, resolver] = Promise<void>::pending();
  healthStore_->requestAuthorization(
      toShare, toRead,
      [store = healthStore_, type = *type, requestType, resolver = resolver](bool success, std::exception_ptr error) {
        if (!success) {
          // No success and no error settles nothing: the promise stays pending for good.
          if (error) resolver.reject(error);
          return;
        }
        if (requestType == RequestType::read) return resolver.fulfill();
        if (store->authorizationStatus(type) == HKAuthorizationStatus::sharingAuthorized) return resolver.fulfill();
        resolver.reject(SaveToHealthKitError::requestAuthorizationFailed);
      });
  return promise;
}

Promise<void> HealthManager::requestSleepAnalysisAuthorization() {
  return requestAuthorization(sleepAnalysisType_, RequestType::shareAndRead);
}

Promise<void> HealthManager::requestMindfulSessionAuthorization() {
  return requestAuthorization(mindfulSessionType_, RequestType::share);
}

Promise<void> HealthManager::requestStateOfMindAuthorization() {
  return requestAuthorization(stateOfMindType_, RequestType::share);
}

HKAuthorizationStatus HealthManager::statusOf(const std::optional<HKSampleType>& type) const {
  return type ? healthStore_->authorizationStatus(*type) : HKAuthorizationStatus::notDetermined;
}

HKAuthorizationStatus HealthManager::sleepAnalysisAuthorized() const { return statusOf(sleepAnalysisType_); }

HKAuthorizationStatus HealthManager::mindfulSessionAuthorizationStatus() const { return statusOf(mindfulSessionType_); }

HKAuthorizationStatus HealthManager::stateOfMindAuthorizationStatus() const { return statusOf(stateOfMindType_); }

void HealthManager::openHealthApp(Application& application) { application.open("x-apple-health://"); }

// --- Samples out ---

Promise<void> HealthManager::syncFocusToHealthKit(const std::string& id) {
  // The records are read here, on the caller's thread, before the chain begins.
  std::optional<Focus> focus;
  try {
    focus = store::Store::open().object<Focus>(id);
  } catch (const std::exception&) {
    focus.reset();
  }
  if (!focus || focus->isDeleted) return rejection<void>(SaveToHealthKitError::focusIsNil);
  if (!focus->tagId) return Promise<void>::fulfilled();  // a focus without a tag is no error
  std::optional<Tag> tag;
  try {
    tag = store::Store::open().object<Tag>(*focus->tagId);
  } catch (const std::exception&) {
    tag.reset();
  }
  if (!tag || tag->isDeleted || !tag->syncToMindfulness) return Promise<void>::fulfilled();
  if (!focus->start || !focus->end) fatalError("HealthManager: the focus " + id + " has no start or no end");

  const Date start = *focus->start, end = *focus->end;
  const HKMetadata metadata = focus->metadata().value_or(nullptr);
  return requestAuthorization(mindfulSessionType_, RequestType::share)
      .then(*queue_,
            [this, start, end] { return querySamples(mindfulSessionType_, HKQueryPredicate::forSamples(start, end)); })
      .then(*queue_, [this, id, start, end, metadata](const std::vector<HKSample>& samples) {
        // Saved before the old ones go: a failed delete leaves both, and the next sync removes the surplus.
        return whenFulfilled(std::vector<Promise<void>>{
            saveSample(HKSample::category(*mindfulSessionType_, kHKCategoryValueNotApplicable, start, end, metadata),
                       SaveToHealthKitError::saveMindfulSessionFailed),
            deleteSamples(samplesOfFocus(samples, id))});
      });
}

Promise<void> HealthManager::removeFocusFromHealthKit(const std::string& id, std::optional<Date> start,
                                                      std::optional<Date> end) {
  return requestAuthorization(mindfulSessionType_, RequestType::share)
      .then(*queue_,
            [this, start, end] { return querySamples(mindfulSessionType_, HKQueryPredicate::forSamples(start, end)); })
      .then(*queue_,
            [this, id](const std::vector<HKSample>& samples) { return deleteSamples(samplesOfFocus(samples, id)); });
}

void HealthManager::handleEventsChanged() {
  std::function<std::pair<std::optional<Date>, std::optional<Date>>()> nightOfToday;
  {
    std::lock_guard lock(mutex_);
    nightOfToday = hooks_.nightOfToday;
  }
  if (!nightOfToday) return;
  const auto [start, end] = nightOfToday();
  if (!start || !end) return;
  // Nobody waits for the write, and nobody hears how it went.
  syncSleepAnalysisToHealthKit(*start, *end);
}

Promise<void> HealthManager::syncSleepAnalysisToHealthKit(Date start, Date end) {
  if (!Settings::syncToHealthKitSleepAnalysis()) return Promise<void>::fulfilled();
  const HKSource own = healthStore_->defaultSource();
  return requestAuthorization(sleepAnalysisType_, RequestType::shareAndRead)
      .then(*queue_,
            [this, start, end] { return querySamples(sleepAnalysisType_, HKQueryPredicate::forSamples(start, end)); })
      .then(*queue_, [this, own, start, end](const std::vector<HKSample>& samples) {
        std::vector<HKSample> matching, toDelete;
        for (const auto& sample : samples) {
          if (sample.source != own) continue;  // another application's sleep is never touched
          (sample.startDate == start && sample.endDate == end ? matching : toDelete).push_back(sample);
        }
        if (matching.size() > 1) toDelete.insert(toDelete.end(), matching.begin() + 1, matching.end());
        auto save = matching.empty()
                        ? saveSample(HKSample::category(
                                         *sleepAnalysisType_,
                                         static_cast<std::int64_t>(HKCategoryValueSleepAnalysis::asleepUnspecified),
                                         start, end),
                                     SaveToHealthKitError::saveSleepAnalysisFailed)
                        : Promise<void>::fulfilled();
        return whenFulfilled(std::vector<Promise<void>>{save, deleteSamples(std::move(toDelete))});
      });
}

Promise<void> HealthManager::saveStateOfMindForFocus(const std::string& focusID, Date date, double valence,
                                                     const std::vector<HKStateOfMindLabel>& labels,
                                                     const std::vector<HKStateOfMindAssociation>& associations) {
  const HKSample sample = HKSample::stateOfMindSample(
      date, HKStateOfMind{HKStateOfMindKind::momentaryEmotion, valence, labels, associations},
      HKMetadata{{std::string(kFocusIdMetadataKey), focusID}});
  return requestAuthorization(stateOfMindType_, RequestType::share)
      .then(*queue_, [this, focusID] { return fetchSavedStateOfMind(focusID); })
      .then(*queue_, [this, sample](const std::vector<HKSample>& saved) {
        return whenFulfilled(std::vector<Promise<void>>{
            saveSample(sample, SaveToHealthKitError::saveMindfulSessionFailed), deleteSamples(saved)});
      });
}

Promise<std::vector<HKSample>> HealthManager::fetchSavedStateOfMind(const std::string& focusID) {
  return querySamples(stateOfMindType_,
                      HKQueryPredicate::forObjects(std::string(kFocusIdMetadataKey), {nlohmann::json(focusID)}), false);
}

void HealthManager::fetchSavedStateOfMind(
    const std::string& focusID,
    std::function<void(std::optional<HKSample> sample, std::exception_ptr error)> completion) {
  fetchSavedStateOfMind(focusID)
      .done(DispatchQueue::main(),
            [completion](const std::vector<HKSample>& samples) {
              if (!samples.empty() && samples.front().stateOfMind) return completion(samples.front(), nullptr);
              completion(std::nullopt, nullptr);
            })
      .catchError(DispatchQueue::main(),
                  [completion](const std::exception_ptr& error) { completion(std::nullopt, error); });
}

// --- The store's calls as promises ---

Promise<std::vector<HKSample>> HealthManager::querySamples(std::optional<HKSampleType> type,
                                                           std::optional<HKQueryPredicate> predicate,
                                                           bool newestFirst) {
  if (!type) return rejection<std::vector<HKSample>>(SaveToHealthKitError::typeIsNil);
  auto [promise, resolver] = Promise<std::vector<HKSample>>::pending();
  std::vector<HKSortDescriptor> sort;
  if (newestFirst) sort.push_back({HKSortKey::startDate, false});
  healthStore_->execute(std::make_shared<HKSampleQuery>(
      *type, std::move(predicate), HKSampleQuery::kNoLimit, std::move(sort),
      [resolver = resolver](std::optional<std::vector<HKSample>> samples, std::exception_ptr error) {
        if (error) return resolver.reject(error);
        resolver.fulfill(samples.value_or(std::vector<HKSample>()));
      }));
  return promise;
}

Promise<void> HealthManager::saveSample(HKSample sample, SaveToHealthKitError failure) {
  auto [promise, resolver] = Promise<void>::pending();
  healthStore_->save(std::move(sample), [resolver = resolver, failure](bool success, std::exception_ptr error) {
    if (error) return resolver.reject(error);
    if (success) return resolver.fulfill();
    resolver.reject(failure);
  });
  return promise;
}

Promise<void> HealthManager::deleteSamples(std::vector<HKSample> samples) {
  if (samples.empty()) return Promise<void>::fulfilled();
  auto [promise, resolver] = Promise<void>::pending();
  healthStore_->deleteObjects(std::move(samples), [resolver = resolver](bool success, std::exception_ptr error) {
    if (error) return resolver.reject(error);
    if (success) return resolver.fulfill();
    resolver.reject(SaveToHealthKitError::deleteSamplesFailed);
  });
  return promise;
}

}  // namespace tarnwell

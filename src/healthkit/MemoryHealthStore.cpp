#include "tarnwell/healthkit/MemoryHealthStore.h"

#include <algorithm>
#include <atomic>
#include <map>
#include <mutex>
#include <utility>

#include "healthkit/HealthStoreCore.h"

namespace tarnwell {

namespace {

struct StoredSample {
  std::uint64_t sequence;
  HKSample sample;
};

}  // namespace

// The platform's side: one per store, shared by every application's handle.
struct MemoryHealthStore::Shared final : healthkit::HealthStorage {
  std::atomic<bool> stateOfMindAvailable{true};

  mutable std::mutex mutex;
  std::vector<StoredSample> samples;  // in insertion order
  std::uint64_t nextSequence = 0;
  std::map<std::pair<std::string, HKSampleType>, healthkit::Authorization> authorizations;
  std::map<std::pair<std::string, HKSampleType>, HKAuthorizationAnswer> answers;

  bool isAvailable(HKSampleType type) const override {
    return type != HKSampleType::stateOfMind || stateOfMindAvailable.load();
  }

  healthkit::Authorization authorization(const std::string& bundleIdentifier, HKSampleType type) override {
    std::lock_guard lock(mutex);
    const auto found = authorizations.find({bundleIdentifier, type});
    return found == authorizations.end() ? healthkit::Authorization{} : found->second;
  }

  void applyAuthorizations(const std::string& bundleIdentifier,
                           const std::vector<healthkit::AuthorizationDecision>& decisions) override {
    std::lock_guard lock(mutex);
    for (const auto& decision : decisions) {
      auto& authorization = authorizations[{bundleIdentifier, decision.type}];
      if (decision.sharing) authorization.sharing = *decision.sharing;
      if (decision.readable) authorization.readable = *decision.readable;
    }
  }

  std::optional<HKAuthorizationAnswer> scriptedAnswer(const std::string& bundleIdentifier, HKSampleType type) override {
    std::lock_guard lock(mutex);
    const auto found = answers.find({bundleIdentifier, type});
    if (found == answers.end()) return std::nullopt;
    return found->second;
  }

  void setScriptedAnswer(const std::string& bundleIdentifier, HKSampleType type,
                         HKAuthorizationAnswer answer) override {
    std::lock_guard lock(mutex);
    answers[{bundleIdentifier, type}] = answer;
  }

  void insert(const HKSample& sample) override {
    {
      std::lock_guard lock(mutex);
      samples.push_back({nextSequence++, sample});
    }
    publish({sample.sampleType});
  }

  healthkit::Removal remove(const std::string& bundleIdentifier, const std::vector<std::string>& uuids) override {
    healthkit::Removal removal;
    {
      std::lock_guard lock(mutex);
      const auto named = [&uuids](const StoredSample& stored) {
        return std::find(uuids.begin(), uuids.end(), stored.sample.uuid) != uuids.end();
      };
      for (const StoredSample& stored : samples) {
        if (named(stored) && stored.sample.source.bundleIdentifier != bundleIdentifier) return {true, {}};
      }
      std::erase_if(samples, [&](const StoredSample& stored) {
        if (!named(stored)) return false;
        removal.types.insert(stored.sample.sampleType);
        return true;
      });
    }
    publish(removal.types);
    return removal;
  }

  std::vector<HKSample> select(const healthkit::SampleSelection& selection) override {
    const HKSampleQuery& query = selection.query;
    std::vector<const StoredSample*> chosen;
    std::lock_guard lock(mutex);
    for (const StoredSample& stored : samples) {
      const HKSample& sample = stored.sample;
      if (sample.sampleType != query.type) continue;
      if (selection.onlyBundleIdentifier && sample.source.bundleIdentifier != *selection.onlyBundleIdentifier) continue;
      if (query.predicate && !query.predicate->evaluate(sample)) continue;
      chosen.push_back(&stored);
    }
    std::sort(chosen.begin(), chosen.end(), [&query](const StoredSample* a, const StoredSample* b) {
      return healthkit::precedes(a->sample, a->sequence, b->sample, b->sequence, query.sortDescriptors);
    });
    if (query.limit != HKSampleQuery::kNoLimit && chosen.size() > query.limit) chosen.resize(query.limit);
    std::vector<HKSample> result;
    result.reserve(chosen.size());
    for (const StoredSample* stored : chosen) result.push_back(stored->sample);
    return result;
  }

  std::vector<HKSample> everything() const {
    std::vector<StoredSample> copy;
    {
      std::lock_guard lock(mutex);
      copy = samples;
    }
    const std::vector<HKSortDescriptor> byStart{{HKSortKey::startDate, true}};
    std::sort(copy.begin(), copy.end(), [&byStart](const StoredSample& a, const StoredSample& b) {
      return healthkit::precedes(a.sample, a.sequence, b.sample, b.sequence, byStart);
    });
    std::vector<HKSample> result;
    result.reserve(copy.size());
    for (auto& stored : copy) result.push_back(std::move(stored.sample));
    return result;
  }
};

MemoryHealthStore::MemoryHealthStore(std::optional<HKSource> source)
    : MemoryHealthStore(std::make_shared<Shared>(), source ? std::move(*source) : healthkit::ownApplication()) {}

MemoryHealthStore::MemoryHealthStore(std::shared_ptr<Shared> shared, HKSource source)
    : shared_(std::move(shared)), core_(std::make_unique<healthkit::HealthStoreCore>(shared_, std::move(source))) {}

MemoryHealthStore::~MemoryHealthStore() = default;

std::shared_ptr<MemoryHealthStore> MemoryHealthStore::application(HKSource source) {
  return std::shared_ptr<MemoryHealthStore>(new MemoryHealthStore(shared_, std::move(source)));
}

void MemoryHealthStore::setStateOfMindAvailable(bool available) { shared_->stateOfMindAvailable = available; }

void MemoryHealthStore::setAuthorizationAnswer(HKSampleType type, HKAuthorizationAnswer answer) {
  core_->setAuthorizationAnswer(type, answer);
}

void MemoryHealthStore::failNext(HKOperation operation, HKSampleType type, int count, bool withError) {
  core_->failNext(operation, type, count, withError);
}

std::vector<HKSample> MemoryHealthStore::allSamples() const { return shared_->everything(); }

bool MemoryHealthStore::isAvailable(HKSampleType type) const { return core_->isAvailable(type); }

HKAuthorizationStatus MemoryHealthStore::authorizationStatus(HKSampleType type) const {
  return core_->authorizationStatus(type);
}

void MemoryHealthStore::requestAuthorization(std::optional<std::set<HKSampleType>> typesToShare,
                                             std::optional<std::set<HKSampleType>> typesToRead, Completion completion) {
  core_->requestAuthorization(std::move(typesToShare), std::move(typesToRead), std::move(completion));
}

void MemoryHealthStore::execute(std::shared_ptr<HKSampleQuery> query) { core_->execute(std::move(query)); }

void MemoryHealthStore::execute(std::shared_ptr<HKObserverQuery> query) { core_->execute(std::move(query)); }

void MemoryHealthStore::stop(const std::shared_ptr<HKObserverQuery>& query) { core_->stop(query); }

void MemoryHealthStore::save(HKSample sample, Completion completion) {
  core_->save(std::move(sample), std::move(completion));
}

void MemoryHealthStore::deleteObjects(std::vector<HKSample> samples, Completion completion) {
  core_->deleteObjects(std::move(samples), std::move(completion));
}

HKSource MemoryHealthStore::defaultSource() const { return core_->source(); }

}  // namespace tarnwell

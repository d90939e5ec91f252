// MemoryHealthStore: a health store in memory, for tests.
//
// It behaves as the platform's store does (authorization, overlapping-date
// and metadata predicates, sorting, observers, own-source deletes) and lets
// a test script what the platform would otherwise decide: the user's answer
// to an authorization request per type, and failures of save, delete and
// query per type. Other applications write through a handle of their own
// made by `application()`, which shares the samples and the observers.
//
// Completions run on a queue of the store's own, made by the Environment,
// so that a test pumps them with everything else.

#pragma once

#include <memory>

#include "tarnwell/healthkit/HealthStore.h"

namespace tarnwell {

namespace healthkit {
class HealthStoreCore;
}

enum class HKOperation { save, deleteObjects, query };

class MemoryHealthStore final : public HKHealthStore {
 public:
  // This application: "Tarnwell", "org.vostra.tarnwell" unless given.
  explicit MemoryHealthStore(std::optional<HKSource> source = std::nullopt);
  ~MemoryHealthStore() override;

  // Another application on the same store: the same samples, observers and
  // platform, its own source and its own authorizations (asking is granted
  // unless scripted otherwise on that handle).
  std::shared_ptr<MemoryHealthStore> application(HKSource source);

  // Whether state-of-mind samples exist on this platform (they do unless said).
  void setStateOfMindAvailable(bool available);
  // From now on, requests that name `type` get `answer` (grant unless said).
  void setAuthorizationAnswer(HKSampleType type, HKAuthorizationAnswer answer);
  // The next `count` operations of the kind on `type` made through this
  // handle fail: with an error (databaseInaccessible), or, without one, with
  // a plain failure (no success, no error; for a query, absent samples).
  void failNext(HKOperation operation, HKSampleType type, int count = 1, bool withError = true);

  // Every sample in the store, of every source, by start.
  std::vector<HKSample> allSamples() const;

  bool isAvailable(HKSampleType type) const override;
  HKAuthorizationStatus authorizationStatus(HKSampleType type) const override;
  void requestAuthorization(std::optional<std::set<HKSampleType>> typesToShare,
                            std::optional<std::set<HKSampleType>> typesToRead, Completion completion) override;
  void execute(std::shared_ptr<HKSampleQuery> query) override;
  void execute(std::shared_ptr<HKObserverQuery> query) override;
  void stop(const std::shared_ptr<HKObserverQuery>& query) override;
  void save(HKSample sample, Completion completion) override;
  void deleteObjects(std::vector<HKSample> samples, Completion completion) override;
  HKSource defaultSource() const override;

  struct Shared;

 private:
  MemoryHealthStore(std::shared_ptr<Shared> shared, HKSource source);

  std::shared_ptr<Shared> shared_;
  std::unique_ptr<healthkit::HealthStoreCore> core_;
};

}  // namespace tarnwell

// What the memory store and the SQLite store share.
//
// The rules of the port live in HealthStoreCore, once: the authorization
// flow, which samples a query may answer, the checks before a save or a
// delete, observers, scripted failures, and that every completion runs on
// the handle's own queue. Where the samples, the statuses and the scripted
// answers are kept is a HealthStorage's business; a storage also tells its
// listeners about every committed change of samples, whoever made it, so
// that observers of every handle on the same store hear it.

#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "tarnwell/healthkit/HealthStore.h"
#include "tarnwell/healthkit/MemoryHealthStore.h"
#include "tarnwell/platform/DispatchQueue.h"

namespace tarnwell::healthkit {

// The source of what a handle made without one writes: this application.
inline HKSource ownApplication() { return HKSource{"Tarnwell", "org.vostra.tarnwell"}; }

// What the user decided for one application and one type. Reading is kept
// although the port never tells it: it decides what a query answers.
struct Authorization {
  HKAuthorizationStatus sharing = HKAuthorizationStatus::notDetermined;
  bool readable = false;
};

// The outcome of one request for one type; an absent part stays as it was.
struct AuthorizationDecision {
  HKSampleType type;
  std::optional<HKAuthorizationStatus> sharing;
  std::optional<bool> readable;
};

// What a sample query asks of a storage.
struct SampleSelection {
  const HKSampleQuery& query;
  // Only this application's samples when set (reading was not granted).
  std::optional<std::string> onlyBundleIdentifier;
};

struct Removal {
  // A sample of another application was named: nothing was removed.
  bool refused = false;
  // The types of the samples that went.
  std::set<HKSampleType> types;
};

class ChangeListener {
 public:
  virtual ~ChangeListener() = default;
  // Samples of `types` changed in a committed write. Called on any thread,
  // possibly with the storage's lock held: enqueue, never block.
  virtual void samplesChanged(const std::set<HKSampleType>& types) = 0;
};

// Where a store keeps its state. Every member is thread-safe; failures of
// the medium throw.
class HealthStorage {
 public:
  virtual ~HealthStorage() = default;

  virtual bool isAvailable(HKSampleType type) const = 0;

  virtual Authorization authorization(const std::string& bundleIdentifier, HKSampleType type) = 0;
  // Applies the decisions of one request together.
  virtual void applyAuthorizations(const std::string& bundleIdentifier,
                                   const std::vector<AuthorizationDecision>& decisions) = 0;
  virtual std::optional<HKAuthorizationAnswer> scriptedAnswer(const std::string& bundleIdentifier,
                                                              HKSampleType type) = 0;
  virtual void setScriptedAnswer(const std::string& bundleIdentifier, HKSampleType type,
                                 HKAuthorizationAnswer answer) = 0;

  // Adds a sample that already carries its uuid and source.
  virtual void insert(const HKSample& sample) = 0;
  // Removes the samples of `uuids` in one write, unless one of them belongs
  // to another application than `bundleIdentifier`. Unknown uuids are skipped.
  virtual Removal remove(const std::string& bundleIdentifier, const std::vector<std::string>& uuids) = 0;
  // The samples of the query's type that its predicate accepts, ordered by
  // its sort descriptors (see `precedes`), at most its limit.
  virtual std::vector<HKSample> select(const SampleSelection& selection) = 0;

  // Catches up with writes that reached the storage by another way than
  // this object (another process), telling listeners about them.
  virtual void refresh() {}

  // Listeners are held weakly and dropped once gone.
  void addListener(std::weak_ptr<ChangeListener> listener);

 protected:
  void publish(const std::set<HKSampleType>& types);

 private:
  std::mutex listenersMutex_;
  std::vector<std::weak_ptr<ChangeListener>> listeners_;
};

// The order of query results, for storages that sort in memory: by the sort
// descriptors, then by insertion (`sequence`, smaller first). When the first
// descriptor is descending, ties come in reverse insertion order, so that a
// descending sort on one key is exactly the ascending one read backwards.
bool precedes(const HKSample& a, std::uint64_t sequenceA, const HKSample& b, std::uint64_t sequenceB,
              const std::vector<HKSortDescriptor>& sortDescriptors);

// Why a sample cannot be stored as it is: a value that does not fit its
// type, an end before the start, metadata that is not an object.
std::optional<std::string> invalidity(const HKSample& sample);

// One application's handle on a storage: the body of both public stores.
// Thread-safe. Each handle has its own serial queue, on which every
// completion and handler of the handle runs.
class HealthStoreCore {
 public:
  HealthStoreCore(std::shared_ptr<HealthStorage> storage, HKSource source);
  // Ends the handle's observers; completions already submitted still run.
  ~HealthStoreCore();
  HealthStoreCore(const HealthStoreCore&) = delete;
  HealthStoreCore& operator=(const HealthStoreCore&) = delete;

  const HKSource& source() const;

  bool isAvailable(HKSampleType type) const;
  HKAuthorizationStatus authorizationStatus(HKSampleType type) const;
  void setAuthorizationAnswer(HKSampleType type, HKAuthorizationAnswer answer);
  // Scripts failures of this handle's operations.
  void failNext(HKOperation operation, HKSampleType type, int count, bool withError);

  void requestAuthorization(std::optional<std::set<HKSampleType>> typesToShare,
                            std::optional<std::set<HKSampleType>> typesToRead, HKHealthStore::Completion completion);
  void execute(std::shared_ptr<HKSampleQuery> query);
  void execute(std::shared_ptr<HKObserverQuery> query);
  void stop(const std::shared_ptr<HKObserverQuery>& query);
  void save(HKSample sample, HKHealthStore::Completion completion);
  void deleteObjects(std::vector<HKSample> samples, HKHealthStore::Completion completion);

 private:
  struct State;

  std::shared_ptr<DispatchQueue> queue_;
  std::shared_ptr<State> state_;
};

}  // namespace tarnwell::healthkit

// Layers, bottom to top: platform → [healthkit] → cloudkit → widgets → settings → extensions → records → store → sync → health → analytics → charts → modules → automation.
//
// HKHealthStore: the port to the phone's health store.
//
// The health store belongs to the platform, not to the application: several
// applications save samples into it, each under its own source, and each may
// read what the others saved once the user allowed it. This port is what the
// health manager needs of it: authorization, sample queries, observer
// queries, save and delete. Every completion and handler runs on a queue of
// the store's own, never on the caller's stack, as the platform's do.
//
// A host installs the platform's store; on this machine the installation's
// store is a SQLite file shared by the processes of one installation
// (SqliteHealthStore), and tests use MemoryHealthStore. Both can be told
// what the user answers when asked for authorization.

#pragma once

#include <cstddef>
#include <exception>
#include <functional>
#include <memory>
#include <optional>
#include <set>
#include <vector>

#include "tarnwell/healthkit/Samples.h"

namespace tarnwell {

enum class HKSortKey { startDate, endDate };

struct HKSortDescriptor {
  HKSortKey key = HKSortKey::startDate;
  bool ascending = true;
};

// A one-off query; its handler gets the samples or an error (both may be
// absent: absent samples and no error is an empty answer).
class HKSampleQuery {
 public:
  using ResultsHandler = std::function<void(std::optional<std::vector<HKSample>> samples, std::exception_ptr error)>;
  static constexpr std::size_t kNoLimit = 0;

  HKSampleQuery(HKSampleType sampleType, std::optional<HKQueryPredicate> samplePredicate, std::size_t resultLimit,
                std::vector<HKSortDescriptor> sorting, ResultsHandler handler)
      : type(sampleType),
        predicate(std::move(samplePredicate)),
        limit(resultLimit),
        sortDescriptors(std::move(sorting)),
        resultsHandler(std::move(handler)) {}

  const HKSampleType type;
  const std::optional<HKQueryPredicate> predicate;
  const std::size_t limit;
  // Without any, the order is the store's own.
  const std::vector<HKSortDescriptor> sortDescriptors;
  const ResultsHandler resultsHandler;
};

// A long-running query: its update handler is called once when it starts
// and again after every save or delete of a sample of its type, by any
// application, until it is stopped. The handler is given a completion to
// call when it has dealt with the change.
class HKObserverQuery {
 public:
  using CompletionHandler = std::function<void()>;
  using UpdateHandler =
      std::function<void(HKObserverQuery& query, CompletionHandler completionHandler, std::exception_ptr error)>;

  HKObserverQuery(HKSampleType sampleType, std::optional<HKQueryPredicate> samplePredicate, UpdateHandler handler)
      : type(sampleType), predicate(std::move(samplePredicate)), updateHandler(std::move(handler)) {}

  const HKSampleType type;
  const std::optional<HKQueryPredicate> predicate;
  const UpdateHandler updateHandler;
};

// What the user answers when the store asks for authorization: allow,
// don't allow, close the sheet without a word (the completion reports no
// success and no error), or the request fails with an error
// (databaseInaccessible).
enum class HKAuthorizationAnswer { grant, deny, silent, error };

class HKHealthStore {
 public:
  using Completion = std::function<void(bool success, std::exception_ptr error)>;

  virtual ~HKHealthStore() = default;

  // Whether this platform knows the type at all; state of mind came late.
  virtual bool isAvailable(HKSampleType type) const = 0;
  virtual HKAuthorizationStatus authorizationStatus(HKSampleType type) const = 0;
  // Asks the user about sharing and reading the types; either set may be absent.
  virtual void requestAuthorization(std::optional<std::set<HKSampleType>> typesToShare,
                                    std::optional<std::set<HKSampleType>> typesToRead, Completion completion) = 0;

  // Samples of other applications are answered only when reading was granted.
  virtual void execute(std::shared_ptr<HKSampleQuery> query) = 0;
  virtual void execute(std::shared_ptr<HKObserverQuery> query) = 0;
  // Once stop returns, the query's handler is not called again (a call
  // already running on another thread finishes).
  virtual void stop(const std::shared_ptr<HKObserverQuery>& query) = 0;

  // Saving needs sharing authorized for the sample's type; the store gives
  // the sample its uuid and this application's source. A sleep sample's
  // value must be one of HKCategoryValueSleepAnalysis (invalidArgument).
  virtual void save(HKSample sample, Completion completion) = 0;
  // Deletes by uuid. Only this application's own samples may be deleted;
  // one that is already gone is no error.
  virtual void deleteObjects(std::vector<HKSample> samples, Completion completion) = 0;

  // This application, as the store names it.
  virtual HKSource defaultSource() const = 0;

  // The store of the installed Environment: the installation's shared file
  // when the Environment names a health folder, otherwise one in memory.
  static HKHealthStore& installed();
  static std::shared_ptr<HKHealthStore> installedPointer();
  // Substitutes the store of the installed Environment (before first use).
  static void install(std::shared_ptr<HKHealthStore> store);
};

}  // namespace tarnwell

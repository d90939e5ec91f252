#include "healthkit/HealthStoreCore.h"

#include <algorithm>
#include <atomic>
#include <deque>
#include <exception>
#include <map>
#include <utility>

#include "tarnwell/platform/Environment.h"
#include "tarnwell/platform/Uuid.h"

namespace tarnwell::healthkit {
namespace {

std::exception_ptr error(HKError::Code code, const std::string& message) {
  return std::make_exception_ptr(HKError(code, message));
}

std::exception_ptr unavailable(HKSampleType type) {
  return error(HKError::Code::invalidArgument, std::string(identifier(type)) + " is not available on this platform");
}

std::exception_ptr notAuthorizedToShare(HKSampleType type, HKAuthorizationStatus status) {
  if (status == HKAuthorizationStatus::sharingDenied) {
    return error(HKError::Code::authorizationDenied,
                 "Authorization to share " + std::string(identifier(type)) + " was denied");
  }
  return error(HKError::Code::authorizationNotDetermined,
               "Authorization to share " + std::string(identifier(type)) + " was never asked for");
}

// The failure that a storage's medium reports: the platform's own word for it.
std::exception_ptr inaccessible(const std::exception& failure) {
  return error(HKError::Code::databaseInaccessible,
               std::string("The health store cannot be read or written: ") + failure.what());
}

std::exception_ptr scriptedFailure(bool withError) {
  return withError ? error(HKError::Code::databaseInaccessible, "The health store is not accessible") : nullptr;
}

}  // namespace

std::optional<std::string> invalidity(const HKSample& sample) {
  const bool isStateOfMind = sample.sampleType == HKSampleType::stateOfMind;
  if (isStateOfMind != sample.stateOfMind.has_value() || isStateOfMind == sample.categoryValue.has_value()) {
    return "A sample of " + std::string(identifier(sample.sampleType)) + " needs " +
           (isStateOfMind ? "a state of mind" : "a category value") + " and nothing else";
  }
  if (sample.endDate < sample.startDate) return std::string("A sample cannot end before it starts");
  if (!sample.metadata.is_null() && !sample.metadata.is_object()) {
    return std::string("A sample's metadata must be an object");
  }
  return std::nullopt;
}

void HealthStorage::addListener(std::weak_ptr<ChangeListener> listener) {
  std::lock_guard lock(listenersMutex_);
  listeners_.push_back(std::move(listener));
}

void HealthStorage::publish(const std::set<HKSampleType>& types) {
  if (types.empty()) return;
  std::vector<std::shared_ptr<ChangeListener>> alive;
  {
    std::lock_guard lock(listenersMutex_);
    std::erase_if(listeners_, [](const auto& weak) { return weak.expired(); });
    for (const auto& weak : listeners_) {
      if (auto listener = weak.lock()) alive.push_back(std::move(listener));
    }
  }
  for (const auto& listener : alive) listener->samplesChanged(types);
}

bool precedes(const HKSample& a, std::uint64_t sequenceA, const HKSample& b, std::uint64_t sequenceB,
              const std::vector<HKSortDescriptor>& sortDescriptors) {
  for (const HKSortDescriptor& descriptor : sortDescriptors) {
    const Date left = descriptor.key == HKSortKey::startDate ? a.startDate : a.endDate;
    const Date right = descriptor.key == HKSortKey::startDate ? b.startDate : b.endDate;
    if (left != right) return descriptor.ascending ? left < right : right < left;
  }
  const bool reversed = !sortDescriptors.empty() && !sortDescriptors.front().ascending;
  return reversed ? sequenceB < sequenceA : sequenceA < sequenceB;
}

namespace {

struct Observer {
  explicit Observer(std::shared_ptr<HKObserverQuery> observed) : query(std::move(observed)) {}
  const std::shared_ptr<HKObserverQuery> query;
  std::atomic<bool> active{true};
};

}  // namespace

// What the handle's blocks need. It holds the queue only weakly: the queue
// holds blocks that hold the state.
struct HealthStoreCore::State final : ChangeListener {
  State(std::shared_ptr<HealthStorage> kept, HKSource application, std::weak_ptr<DispatchQueue> handlerQueue)
      : storage(std::move(kept)), source(std::move(application)), queue(std::move(handlerQueue)) {}

  const std::shared_ptr<HealthStorage> storage;
  const HKSource source;
  const std::weak_ptr<DispatchQueue> queue;

  std::mutex mutex;
  // Per operation and type, one entry per failure to come: whether it carries an error.
  std::map<std::pair<HKOperation, HKSampleType>, std::deque<bool>> failures;
  std::vector<std::shared_ptr<Observer>> observers;

  void submit(std::function<void()> block) const {
    if (auto target = queue.lock()) target->async(std::move(block));
  }

  // A handler already queued when its query stops is dropped here.
  void notify(const std::shared_ptr<Observer>& observer, std::exception_ptr failure) const {
    submit([observer, failure] {
      if (!observer->active.load()) return;
      // Nothing waits for the completion: a handler that never calls it
      // must not hold back the next change.
      const HKObserverQuery::CompletionHandler nothingWaits = [] {};
      observer->query->updateHandler(*observer->query, nothingWaits, failure);
    });
  }

  void samplesChanged(const std::set<HKSampleType>& types) override {
    std::lock_guard lock(mutex);
    for (const auto& observer : observers) {
      if (types.contains(observer->query->type)) notify(observer, nullptr);
    }
  }

  // Whether the next operation of the kind on `type` is scripted to fail,
  // and if so whether with an error.
  std::optional<bool> takeFailure(HKOperation operation, HKSampleType type) {
    std::lock_guard lock(mutex);
    const auto found = failures.find({operation, type});
    if (found == failures.end() || found->second.empty()) return std::nullopt;
    const bool withError = found->second.front();
    found->second.pop_front();
    return withError;
  }

  using Outcome = std::pair<bool, std::exception_ptr>;
  using Answer = std::pair<std::optional<std::vector<HKSample>>, std::exception_ptr>;

  Outcome requestAuthorization(const std::set<HKSampleType>& share, const std::set<HKSampleType>& read) {
    std::set<HKSampleType> named = share;
    named.insert(read.begin(), read.end());
    if (named.empty()) {
      return {false, error(HKError::Code::invalidArgument, "An authorization request must name a type")};
    }
    for (const HKSampleType type : named) {
      if (!storage->isAvailable(type)) return {false, unavailable(type)};
    }
    std::map<HKSampleType, HKAuthorizationAnswer> answers;
    bool anyError = false;
    bool anySilent = false;
    for (const HKSampleType type : named) {
      const HKAuthorizationAnswer answer =
          storage->scriptedAnswer(source.bundleIdentifier, type).value_or(HKAuthorizationAnswer::grant);
      anyError = anyError || answer == HKAuthorizationAnswer::error;
      anySilent = anySilent || answer == HKAuthorizationAnswer::silent;
      answers[type] = answer;
    }
    if (anyError) return {false, error(HKError::Code::databaseInaccessible, "The authorization request failed")};
    // The user closed the sheet: nothing changes and nobody is told why.
    if (anySilent) return {false, nullptr};
    std::vector<AuthorizationDecision> decisions;
    for (const auto& [type, answer] : answers) {
      const bool granted = answer == HKAuthorizationAnswer::grant;
      AuthorizationDecision decision{type, std::nullopt, std::nullopt};
      if (share.contains(type)) {
        decision.sharing = granted ? HKAuthorizationStatus::sharingAuthorized : HKAuthorizationStatus::sharingDenied;
      }
      if (read.contains(type)) decision.readable = granted;
      decisions.push_back(decision);
    }
    storage->applyAuthorizations(source.bundleIdentifier, decisions);
    return {true, nullptr};
  }

  Outcome save(HKSample sample) {
    const HKSampleType type = sample.sampleType;
    if (!storage->isAvailable(type)) return {false, unavailable(type)};
    if (const auto withError = takeFailure(HKOperation::save, type)) return {false, scriptedFailure(*withError)};
    if (const auto reason = invalidity(sample)) return {false, error(HKError::Code::invalidArgument, *reason)};
    // Every reader counts a value past awake as some kind of asleep: an
    // application may only write the values defined. (An export may still
    // bring a later version's values in.)
    const auto value = sample.categoryValue.value_or(0);
    if (type == HKSampleType::sleepAnalysis &&
        (value < 0 || value > static_cast<std::int64_t>(HKCategoryValueSleepAnalysis::asleepREM))) {
      return {false, error(HKError::Code::invalidArgument, "No sleep analysis value is " + std::to_string(value))};
    }
    const HKAuthorizationStatus status = storage->authorization(source.bundleIdentifier, type).sharing;
    if (status != HKAuthorizationStatus::sharingAuthorized) return {false, notAuthorizedToShare(type, status)};
    sample.uuid = makeUUIDString();
    sample.source = source;
    storage->insert(sample);
    return {true, nullptr};
  }

  Outcome deleteObjects(const std::vector<HKSample>& samples) {
    std::set<HKSampleType> types;
    std::vector<std::string> uuids;
    for (const HKSample& sample : samples) {
      types.insert(sample.sampleType);
      uuids.push_back(sample.uuid);
    }
    for (const HKSampleType type : types) {
      if (!storage->isAvailable(type)) return {false, unavailable(type)};
    }
    for (const HKSampleType type : types) {
      if (const auto withError = takeFailure(HKOperation::deleteObjects, type)) {
        return {false, scriptedFailure(*withError)};
      }
    }
    for (const HKSampleType type : types) {
      const HKAuthorizationStatus status = storage->authorization(source.bundleIdentifier, type).sharing;
      if (status != HKAuthorizationStatus::sharingAuthorized) return {false, notAuthorizedToShare(type, status)};
    }
    if (!uuids.empty() && storage->remove(source.bundleIdentifier, uuids).refused) {
      return {false,
              error(HKError::Code::authorizationDenied, "Samples saved by another application cannot be deleted")};
    }
    return {true, nullptr};
  }

  Answer query(const HKSampleQuery& query) {
    if (!storage->isAvailable(query.type)) return {std::nullopt, unavailable(query.type)};
    if (const auto withError = takeFailure(HKOperation::query, query.type)) {
      return {std::nullopt, scriptedFailure(*withError)};
    }
    // The platform never says that reading was denied: it answers with the
    // application's own samples alone.
    const bool readable = storage->authorization(source.bundleIdentifier, query.type).readable;
    const SampleSelection selection{query, readable ? std::nullopt : std::optional(source.bundleIdentifier)};
    return {storage->select(selection), nullptr};
  }
};

HealthStoreCore::HealthStoreCore(std::shared_ptr<HealthStorage> storage, HKSource source)
    : queue_(Environment::current().makeQueue("org.vostra.tarnwell.HealthStore")),
      state_(std::make_shared<State>(std::move(storage), std::move(source), queue_)) {
  state_->storage->addListener(state_);
}

HealthStoreCore::~HealthStoreCore() {
  std::lock_guard lock(state_->mutex);
  for (const auto& observer : state_->observers) observer->active = false;
  state_->observers.clear();
}

const HKSource& HealthStoreCore::source() const { return state_->source; }

bool HealthStoreCore::isAvailable(HKSampleType type) const { return state_->storage->isAvailable(type); }

HKAuthorizationStatus HealthStoreCore::authorizationStatus(HKSampleType type) const {
  if (!state_->storage->isAvailable(type)) return HKAuthorizationStatus::notDetermined;
  try {
    state_->storage->refresh();
    return state_->storage->authorization(state_->source.bundleIdentifier, type).sharing;
  } catch (const std::exception&) {
    // A store that cannot be read has decided nothing that could be used.
    return HKAuthorizationStatus::notDetermined;
  }
}

void HealthStoreCore::setAuthorizationAnswer(HKSampleType type, HKAuthorizationAnswer answer) {
  state_->storage->setScriptedAnswer(state_->source.bundleIdentifier, type, answer);
}

void HealthStoreCore::failNext(HKOperation operation, HKSampleType type, int count, bool withError) {
  std::lock_guard lock(state_->mutex);
  auto& pending = state_->failures[{operation, type}];
  for (int i = 0; i < count; ++i) pending.push_back(withError);
}

namespace {

// Runs an operation's body on the handle's queue after catching up with
// other processes' writes, and hands its result to `finish`; a failure of
// the storage's medium becomes the operation's error. `finish` runs outside
// the try, so that a throwing completion is not answered twice.
template <class Result, class Body, class Finish>
std::function<void()> operation(std::shared_ptr<HealthStorage> storage, Body body, Finish finish) {
  return [storage = std::move(storage), body = std::move(body), finish = std::move(finish)]() mutable {
    Result result;
    try {
      storage->refresh();
      result = body();
    } catch (const std::exception& failure) {
      result = {{}, inaccessible(failure)};
    }
    finish(std::move(result));
  };
}

}  // namespace

void HealthStoreCore::requestAuthorization(std::optional<std::set<HKSampleType>> typesToShare,
                                           std::optional<std::set<HKSampleType>> typesToRead,
                                           HKHealthStore::Completion completion) {
  queue_->async(operation<State::Outcome>(
      state_->storage,
      [state = state_, share = std::move(typesToShare).value_or(std::set<HKSampleType>{}),
       read = std::move(typesToRead).value_or(std::set<HKSampleType>{})] {
        return state->requestAuthorization(share, read);
      },
      [completion = std::move(completion)](State::Outcome outcome) { completion(outcome.first, outcome.second); }));
}

void HealthStoreCore::execute(std::shared_ptr<HKSampleQuery> query) {
  queue_->async(operation<State::Answer>(
      state_->storage, [state = state_, query] { return state->query(*query); },
      [query](State::Answer answer) { query->resultsHandler(std::move(answer.first), answer.second); }));
}

void HealthStoreCore::execute(std::shared_ptr<HKObserverQuery> query) {
  auto observer = std::make_shared<Observer>(std::move(query));
  if (!state_->storage->isAvailable(observer->query->type)) {
    state_->notify(observer, unavailable(observer->query->type));
    return;
  }
  std::lock_guard lock(state_->mutex);
  state_->observers.push_back(observer);
  state_->notify(observer, nullptr);
}

void HealthStoreCore::stop(const std::shared_ptr<HKObserverQuery>& query) {
  std::lock_guard lock(state_->mutex);
  std::erase_if(state_->observers, [&query](const std::shared_ptr<Observer>& observer) {
    if (observer->query != query) return false;
    observer->active = false;
    return true;
  });
}

void HealthStoreCore::save(HKSample sample, HKHealthStore::Completion completion) {
  queue_->async(operation<State::Outcome>(
      state_->storage, [state = state_, sample = std::move(sample)] { return state->save(sample); },
      [completion = std::move(completion)](State::Outcome outcome) { completion(outcome.first, outcome.second); }));
}

void HealthStoreCore::deleteObjects(std::vector<HKSample> samples, HKHealthStore::Completion completion) {
  queue_->async(operation<State::Outcome>(
      state_->storage, [state = state_, samples = std::move(samples)] { return state->deleteObjects(samples); },
      [completion = std::move(completion)](State::Outcome outcome) { completion(outcome.first, outcome.second); }));
}

}  // namespace tarnwell::healthkit

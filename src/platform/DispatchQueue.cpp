#include "tarnwell/platform/DispatchQueue.h"

#include <pthread.h>

#include <condition_variable>
#include <deque>
#include <map>
#include <mutex>
#include <set>
#include <thread>

#include "tarnwell/platform/Clock.h"
#include "tarnwell/platform/Environment.h"
#include "tarnwell/platform/FatalError.h"

namespace tarnwell {
namespace {

thread_local DispatchQueue* currentQueue = nullptr;

// Marks the calling thread as running `queue` for the duration of a block.
class CurrentQueueScope {
 public:
  explicit CurrentQueueScope(DispatchQueue* queue) : saved_(currentQueue) { currentQueue = queue; }
  ~CurrentQueueScope() { currentQueue = saved_; }

 private:
  DispatchQueue* saved_;
};

}  // namespace

void DispatchWorkItem::perform() {
  if (!cancelled_) block_();
}

struct DispatchQueue::State final : Clock::Observer {
  explicit State(const Clock& c) : clock(c) {}

  void clockDidChange() override {
    std::lock_guard guard(mutex);
    condition.notify_all();
  }

  // Moves every timed block whose deadline has come to the ready list, in
  // deadline order. Requires `mutex`.
  void promoteDueBlocks(Date now) {
    while (!timed.empty() && timed.begin()->first.first <= now) {
      ready.push_back(std::move(timed.begin()->second));
      timed.erase(timed.begin());
    }
  }

  const Clock& clock;
  mutable std::mutex mutex;
  std::condition_variable condition;
  std::deque<std::shared_ptr<DispatchWorkItem>> ready;
  // Keyed by deadline, then by order of submission so equal deadlines stay FIFO.
  std::map<std::pair<Date, std::uint64_t>, std::shared_ptr<DispatchWorkItem>> timed;
  std::uint64_t submissions = 0;
  std::map<const void*, std::any> specifics;
  std::thread worker;
  std::thread::id owner;
  // A block is running, on the worker or on a caller of sync().
  bool busy = false;
  bool stopping = false;
  bool closed = false;
};

DispatchQueue::DispatchQueue(std::string label, const Clock& clock, Mode mode)
    : label_(std::move(label)), mode_(mode), state_(std::make_shared<State>(clock)) {
  if (mode_ == Mode::pumped) state_->owner = std::this_thread::get_id();
  const_cast<Clock&>(clock).addObserver(state_);
}

DispatchQueue::DispatchQueue(std::string label, const Clock& clock, std::thread::id owner)
    : DispatchQueue(std::move(label), clock, Mode::pumped) {
  state_->owner = owner;
}

DispatchQueue::DispatchQueue(std::string label) : DispatchQueue(std::move(label), Environment::current().clock()) {}

DispatchQueue::~DispatchQueue() {
  std::thread worker;
  {
    std::lock_guard guard(state_->mutex);
    state_->stopping = true;
    state_->condition.notify_all();
    worker = std::move(state_->worker);
  }
  if (!worker.joinable()) return;
  if (worker.get_id() == std::this_thread::get_id()) {
    worker.detach();  // destroyed by one of its own blocks: let the thread unwind by itself
  } else {
    worker.join();
  }
}

DispatchQueue& DispatchQueue::main() { return Environment::current().mainQueue(); }

DispatchQueue* DispatchQueue::current() {
  if (currentQueue) return currentQueue;
  Environment* environment = Environment::currentIfInstalled();
  if (environment && environment->mainQueue().isOwnedByCurrentThread()) return &environment->mainQueue();
  return nullptr;
}

void DispatchQueue::async(std::function<void()> block) {
  enqueue(std::nullopt, std::make_shared<DispatchWorkItem>(std::move(block)));
}

void DispatchQueue::async(std::shared_ptr<DispatchWorkItem> item) { enqueue(std::nullopt, std::move(item)); }

void DispatchQueue::asyncAfter(Date deadline, std::shared_ptr<DispatchWorkItem> item) {
  enqueue(deadline, std::move(item));
}

void DispatchQueue::asyncAfter(Date deadline, std::function<void()> block) {
  enqueue(deadline, std::make_shared<DispatchWorkItem>(std::move(block)));
}

void DispatchQueue::asyncAfter(double delay, std::function<void()> block) {
  asyncAfter(state_->clock.now() + delay, std::move(block));
}

void DispatchQueue::close() {
  std::deque<std::shared_ptr<DispatchWorkItem>> dropped;
  std::map<std::pair<Date, std::uint64_t>, std::shared_ptr<DispatchWorkItem>> droppedTimed;
  std::thread worker;
  {
    std::lock_guard guard(state_->mutex);
    state_->closed = true;
    state_->stopping = true;
    dropped.swap(state_->ready);
    droppedTimed.swap(state_->timed);
    state_->condition.notify_all();
    worker = std::move(state_->worker);
  }
  // The dropped blocks die here, outside the lock: what they hold may submit again.
  dropped.clear();
  droppedTimed.clear();
  if (!worker.joinable()) return;
  if (worker.get_id() == std::this_thread::get_id()) {
    worker.detach();
  } else {
    worker.join();
  }
}

void DispatchQueue::enqueue(std::optional<Date> deadline, std::shared_ptr<DispatchWorkItem> item) {
  State& s = *state_;
  std::unique_lock guard(s.mutex);
  if (s.closed) {
    guard.unlock();
    return;  // `item` dies outside the lock
  }
  // Blocks whose time has come are ahead of anything submitted from now on.
  s.promoteDueBlocks(s.clock.now());
  if (deadline) {
    s.timed.emplace(std::make_pair(*deadline, s.submissions++), std::move(item));
  } else {
    s.ready.push_back(std::move(item));
  }
  s.condition.notify_all();
  if (mode_ != Mode::thread || s.worker.joinable() || s.stopping) return;

  s.worker = std::thread([this, state = state_] {
    {
      // Linux keeps 15 characters of a thread's name.
      const std::string name = label_.size() > 15 ? label_.substr(label_.size() - 15) : label_;
      pthread_setname_np(pthread_self(), name.c_str());
    }
    CurrentQueueScope scope(this);
    std::unique_lock lock(state->mutex);
    for (;;) {
      state->promoteDueBlocks(state->clock.now());
      if (state->busy) {
        state->condition.wait(lock);  // a caller of sync() holds the queue
        continue;
      }
      if (!state->ready.empty()) {
        auto next = std::move(state->ready.front());
        state->ready.pop_front();
        state->busy = true;
        lock.unlock();
        next->perform();
        next.reset();
        lock.lock();
        state->busy = false;
        continue;
      }
      // Blocks that were due are done; blocks for later are dropped with the queue.
      if (state->stopping) return;
      if (state->timed.empty()) {
        state->condition.wait(lock);
      } else {
        state->clock.wait(lock, state->condition, state->timed.begin()->first.first);
      }
    }
  });
  s.owner = s.worker.get_id();
}

std::size_t DispatchQueue::runPending() {
  if (mode_ != Mode::pumped) fatalError("runPending() on \"" + label_ + "\", which runs on a thread of its own");
  if (!isOwnedByCurrentThread()) fatalError("runPending() on \"" + label_ + "\" away from the thread that owns it");
  std::size_t count = 0;
  for (;;) {
    std::shared_ptr<DispatchWorkItem> next;
    {
      std::lock_guard guard(state_->mutex);
      state_->promoteDueBlocks(state_->clock.now());
      if (state_->ready.empty()) return count;
      next = std::move(state_->ready.front());
      state_->ready.pop_front();
    }
    CurrentQueueScope scope(this);
    next->perform();
    ++count;
  }
}

std::size_t DispatchQueue::runUntil(Date date) {
  auto* manual = dynamic_cast<const ManualClock*>(&state_->clock);
  if (!manual) fatalError("runUntil() on \"" + label_ + "\" needs a manual clock");
  auto& clock = const_cast<ManualClock&>(*manual);
  std::size_t count = runPending();
  for (;;) {
    const auto deadline = nextDeadline();
    if (!deadline || *deadline > date) break;
    if (*deadline > clock.now()) clock.set(*deadline);
    count += runPending();
  }
  if (date > clock.now()) clock.set(date);
  return count + runPending();
}

std::size_t DispatchQueue::runFor(double seconds) { return runUntil(state_->clock.now() + seconds); }

std::optional<Date> DispatchQueue::nextDeadline() const {
  std::lock_guard guard(state_->mutex);
  if (state_->timed.empty()) return std::nullopt;
  return state_->timed.begin()->first.first;
}

std::size_t DispatchQueue::pendingCount() const {
  std::lock_guard guard(state_->mutex);
  return state_->ready.size() + state_->timed.size();
}

bool DispatchQueue::isOwnedByCurrentThread() const {
  std::lock_guard guard(state_->mutex);
  return state_->owner == std::this_thread::get_id();
}

std::thread::id DispatchQueue::owner() const {
  std::lock_guard guard(state_->mutex);
  return state_->owner;
}

void DispatchQueue::setSpecificValue(const void* key, std::any value) {
  std::lock_guard guard(state_->mutex);
  state_->specifics[key] = std::move(value);
}

std::any DispatchQueue::currentSpecificValue(const void* key) {
  DispatchQueue* queue = current();
  if (!queue) return {};
  std::lock_guard guard(queue->state_->mutex);
  const auto found = queue->state_->specifics.find(key);
  return found == queue->state_->specifics.end() ? std::any() : found->second;
}

bool DispatchQueue::tryClaimForCaller() {
  if (mode_ != Mode::thread) return false;  // a pumped queue runs on its owner's thread only
  std::lock_guard guard(state_->mutex);
  state_->promoteDueBlocks(state_->clock.now());
  if (state_->busy || !state_->ready.empty() || state_->stopping) return false;
  state_->busy = true;
  return true;
}

DispatchQueue::InlineRun::InlineRun(DispatchQueue& queue) : queue_(queue), saved_(currentQueue) {
  currentQueue = &queue;
}

DispatchQueue::InlineRun::~InlineRun() {
  currentQueue = saved_;
  std::lock_guard guard(queue_.state_->mutex);
  queue_.state_->busy = false;
  queue_.state_->condition.notify_all();
}

void DispatchQueue::failSyncOnCurrentQueue() const {
  fatalError("DispatchQueue.sync on \"" + label_ + "\" from a block already running on it would never return");
}

}  // namespace tarnwell

// DispatchQueue: a serial queue of blocks, with deadlines on the Environment's clock.
//
// A queue runs its blocks one at a time, in the order they became due. It is
// either backed by a thread of its own (started on first use, joined when the
// queue is destroyed) or pumped: its blocks run only when the owner calls
// runPending() or runUntil(), on the owner's thread. The main queue of a test
// or of the `tarnwell` command is pumped, which makes every asynchronous step
// deterministic: nothing runs until the test says so, and deadlines follow the
// manual clock instead of the wall clock.
//
// All members are thread-safe unless they say otherwise.

#pragma once

#include <any>
#include <atomic>
#include <cstdint>
#include <functional>
#include <future>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <type_traits>
#include <utility>

#include "tarnwell/platform/Date.h"

namespace tarnwell {

class Clock;

// A block that can be cancelled before it starts.
class DispatchWorkItem {
 public:
  explicit DispatchWorkItem(std::function<void()> block) : block_(std::move(block)) {}

  // Runs the block unless the item was cancelled.
  void perform();
  // A cancelled item that has not started yet never runs.
  void cancel() { cancelled_ = true; }
  bool isCancelled() const { return cancelled_; }

 private:
  std::function<void()> block_;
  std::atomic<bool> cancelled_{false};
};

// The identity of a value attached to queues with setSpecific(). Compared by address.
template <class T>
class DispatchSpecificKey {
 public:
  DispatchSpecificKey() = default;
  DispatchSpecificKey(const DispatchSpecificKey&) = delete;
  DispatchSpecificKey& operator=(const DispatchSpecificKey&) = delete;
};

class DispatchQueue {
 public:
  enum class Mode { thread, pumped };

  // `clock` must outlive the queue.
  DispatchQueue(std::string label, const Clock& clock, Mode mode = Mode::thread);
  // A pumped queue run by the thread `owner` rather than by its maker, so
  // that a queue made on any thread can be pumped with the main queue.
  DispatchQueue(std::string label, const Clock& clock, std::thread::id owner);
  // A thread-backed queue on the installed Environment's clock; it must not
  // outlive that Environment (make it a component of it).
  explicit DispatchQueue(std::string label);
  ~DispatchQueue();

  DispatchQueue(const DispatchQueue&) = delete;
  DispatchQueue& operator=(const DispatchQueue&) = delete;

  // The installed Environment's main queue.
  static DispatchQueue& main();
  // The queue whose block is running on this thread; the main queue on the
  // main thread outside any block; otherwise null.
  static DispatchQueue* current();

  const std::string& label() const { return label_; }
  Mode mode() const { return mode_; }

  void async(std::function<void()> block);
  void async(std::shared_ptr<DispatchWorkItem> item);
  // Runs the block once the clock has reached `deadline`.
  void asyncAfter(Date deadline, std::shared_ptr<DispatchWorkItem> item);
  void asyncAfter(Date deadline, std::function<void()> block);
  // `delay` seconds from the clock's now.
  void asyncAfter(double delay, std::function<void()> block);

  // Runs `block` on the queue and waits for it, passing its result or its
  // exception back. Calling sync on the queue that is running the caller
  // would wait forever, so it stops the process instead. When a thread-backed
  // queue is idle, the block runs on the caller's thread (still as the
  // queue's only block), which spares two thread hand-offs.
  template <class F>
  std::invoke_result_t<F&> sync(F&& block);

  template <class T>
  void setSpecific(const DispatchSpecificKey<T>& key, T value) {
    setSpecificValue(&key, std::any(std::move(value)));
  }
  // The value under `key` of the queue running the caller, if any.
  template <class T>
  static std::optional<T> getSpecific(const DispatchSpecificKey<T>& key) {
    const std::any value = currentSpecificValue(&key);
    if (const T* typed = std::any_cast<T>(&value)) return *typed;
    return std::nullopt;
  }

  // Stops the queue for good: blocks not yet started are dropped, a block
  // that is running is waited for (unless it is the caller), and blocks
  // submitted from now on are dropped as they come. What a closing world
  // does to its queues, so that no block outlives the objects it reaches.
  void close();

  // Pumped queues only, on the owner's thread. runPending() runs every block
  // that is due now, blocks they enqueue for now included, and returns how
  // many ran. runUntil() needs a ManualClock: it moves the clock forward to
  // each deadline up to `date` in turn, runs what is due there, and leaves
  // the clock at `date`.
  std::size_t runPending();
  std::size_t runUntil(Date date);
  std::size_t runFor(double seconds);

  // The earliest deadline of a block that waits for its time.
  std::optional<Date> nextDeadline() const;
  // Blocks waiting to run, due or not.
  std::size_t pendingCount() const;

  // Whether the calling thread is the one that pumps this queue (for a
  // thread-backed queue: its worker).
  bool isOwnedByCurrentThread() const;
  std::thread::id owner() const;

 private:
  struct State;

  // Holds the queue for a block of sync() that runs on the caller's thread.
  class InlineRun {
   public:
    explicit InlineRun(DispatchQueue& queue);
    ~InlineRun();
    InlineRun(const InlineRun&) = delete;
    InlineRun& operator=(const InlineRun&) = delete;

   private:
    DispatchQueue& queue_;
    DispatchQueue* saved_;
  };

  // Claims an idle thread-backed queue for the caller; false when it is busy.
  bool tryClaimForCaller();

  void enqueue(std::optional<Date> deadline, std::shared_ptr<DispatchWorkItem> item);
  void setSpecificValue(const void* key, std::any value);
  static std::any currentSpecificValue(const void* key);
  [[noreturn]] void failSyncOnCurrentQueue() const;

  std::string label_;
  Mode mode_;
  std::shared_ptr<State> state_;
};

template <class F>
std::invoke_result_t<F&> DispatchQueue::sync(F&& block) {
  using Result = std::invoke_result_t<F&>;
  if (current() == this) failSyncOnCurrentQueue();
  if (tryClaimForCaller()) {
    InlineRun run(*this);
    return block();
  }
  std::packaged_task<Result()> task(std::forward<F>(block));
  std::future<Result> result = task.get_future();
  async([&task] { task(); });
  return result.get();
}

}  // namespace tarnwell

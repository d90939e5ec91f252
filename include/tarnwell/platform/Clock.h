// Clock: where every "now" of the library comes from.
//
// The system clock reads the host's wall clock. A manual clock stands still
// until it is set or advanced; tests and `tarnwell --now` use it, and queues
// whose deadlines follow it wake when it moves.

#pragma once

#include <condition_variable>
#include <memory>
#include <mutex>
#include <vector>

#include "tarnwell/platform/Date.h"

namespace tarnwell {

class Clock {
 public:
  // Told whenever a clock's time jumps, so that waiting queues look again.
  class Observer {
   public:
    virtual ~Observer() = default;
    virtual void clockDidChange() = 0;
  };

  virtual ~Clock() = default;

  virtual Date now() const = 0;

  // Blocks on `condition` (with `lock` held by the caller) until `deadline`
  // may have come or the condition is notified. Spurious returns are allowed:
  // the caller looks at the time again.
  virtual void wait(std::unique_lock<std::mutex>& lock, std::condition_variable& condition, Date deadline) const = 0;

  // Registers an observer for jumps of this clock. Held weakly.
  virtual void addObserver(std::weak_ptr<Observer> observer);
};

class SystemClock final : public Clock {
 public:
  Date now() const override;
  void wait(std::unique_lock<std::mutex>& lock, std::condition_variable& condition, Date deadline) const override;
};

// Thread-safe. The time may be set backwards as well as forwards.
class ManualClock final : public Clock {
 public:
  explicit ManualClock(Date start);

  Date now() const override;
  void wait(std::unique_lock<std::mutex>& lock, std::condition_variable& condition, Date deadline) const override;
  void addObserver(std::weak_ptr<Observer> observer) override;

  void set(Date date);
  void advance(double seconds);

 private:
  void notifyObservers();

  mutable std::mutex mutex_;
  Date now_;
  std::vector<std::weak_ptr<Observer>> observers_;
};

}  // namespace tarnwell

#include "tarnwell/platform/Clock.h"

#include <algorithm>
#include <chrono>

namespace tarnwell {

void Clock::addObserver(std::weak_ptr<Observer>) {}

Date SystemClock::now() const {
  const auto since1970 = std::chrono::system_clock::now().time_since_epoch();
  return Date::fromTimeIntervalSince1970(std::chrono::duration<double>(since1970).count());
}

void SystemClock::wait(std::unique_lock<std::mutex>& lock, std::condition_variable& condition, Date deadline) const {
  const double seconds = std::max(0.0, deadline - now());
  // Cap each wait so that a wall-clock jump delays a deadline by a minute at most.
  condition.wait_for(lock, std::chrono::duration<double>(std::min(seconds, 60.0)));
}

ManualClock::ManualClock(Date start) : now_(start) {}

Date ManualClock::now() const {
  std::lock_guard guard(mutex_);
  return now_;
}

void ManualClock::wait(std::unique_lock<std::mutex>& lock, std::condition_variable& condition, Date) const {
  // Time moves only through set() and advance(), which wake every observer.
  condition.wait(lock);
}

void ManualClock::addObserver(std::weak_ptr<Observer> observer) {
  std::lock_guard guard(mutex_);
  std::erase_if(observers_, [](const auto& o) { return o.expired(); });
  observers_.push_back(std::move(observer));
}

void ManualClock::set(Date date) {
  {
    std::lock_guard guard(mutex_);
    now_ = date;
  }
  notifyObservers();
}

void ManualClock::advance(double seconds) {
  {
    std::lock_guard guard(mutex_);
    now_ = now_ + seconds;
  }
  notifyObservers();
}

void ManualClock::notifyObservers() {
  std::vector<std::shared_ptr<Observer>> alive;
  {
    std::lock_guard guard(mutex_);
    for (const auto& weak : observers_) {
      if (auto strong = weak.lock()) alive.push_back(std::move(strong));
    }
  }
  // Outside our lock: observers take their own locks, which may be held by a
  // thread that is about to call now().
  for (const auto& observer : alive) observer->clockDidChange();
}

}  // namespace tarnwell

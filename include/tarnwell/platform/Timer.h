// Timer: a one-shot block at an instant, on a queue (the main queue by default).
//
// The stand-in for a run-loop timer. Its fire date is an instant of the
// Environment's clock, so a test moves it along with the manual clock.

#pragma once

#include <atomic>
#include <functional>
#include <memory>

#include "tarnwell/platform/Date.h"
#include "tarnwell/platform/DispatchQueue.h"

namespace tarnwell {

class Timer {
 public:
  // Schedules `block` to run on `queue` once the clock reaches `fireDate`.
  static std::shared_ptr<Timer> scheduled(Date fireDate, std::function<void()> block);
  static std::shared_ptr<Timer> scheduled(Date fireDate, DispatchQueue& queue, std::function<void()> block);
  // `interval` seconds from now.
  static std::shared_ptr<Timer> scheduled(double interval, std::function<void()> block);

  Date fireDate() const { return fireDate_; }
  // An invalidated timer never fires. Safe to call from any thread, and after firing.
  void invalidate() { item_->cancel(); }
  // Neither fired nor invalidated.
  bool isValid() const;

 private:
  Timer(Date fireDate, std::shared_ptr<DispatchWorkItem> item) : fireDate_(fireDate), item_(std::move(item)) {}

  Date fireDate_;
  std::shared_ptr<DispatchWorkItem> item_;
  std::shared_ptr<std::atomic<bool>> fired_ = std::make_shared<std::atomic<bool>>(false);
};

}  // namespace tarnwell

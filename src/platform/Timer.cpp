#include "tarnwell/platform/Timer.h"

namespace tarnwell {

std::shared_ptr<Timer> Timer::scheduled(Date fireDate, std::function<void()> block) {
  return scheduled(fireDate, DispatchQueue::main(), std::move(block));
}

std::shared_ptr<Timer> Timer::scheduled(Date fireDate, DispatchQueue& queue, std::function<void()> block) {
  auto fired = std::make_shared<std::atomic<bool>>(false);
  auto item = std::make_shared<DispatchWorkItem>([fired, block = std::move(block)] {
    fired->store(true);
    block();
  });
  std::shared_ptr<Timer> timer(new Timer(fireDate, item));
  timer->fired_ = fired;
  queue.asyncAfter(fireDate, std::move(item));
  return timer;
}

std::shared_ptr<Timer> Timer::scheduled(double interval, std::function<void()> block) {
  return scheduled(Date::now() + interval, std::move(block));
}

bool Timer::isValid() const { return !item_->isCancelled() && !fired_->load(); }

}  // namespace tarnwell

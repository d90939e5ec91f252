#include "tarnwell/platform/NotificationCenter.h"

#include <algorithm>
#include <mutex>
#include <vector>

#include "tarnwell/platform/DispatchQueue.h"
#include "tarnwell/platform/Environment.h"

namespace tarnwell {

struct NotificationToken::Registry {
  struct Observer {
    std::uint64_t id;
    std::string name;
    DispatchQueue* queue;
    // Shared so that a post in flight keeps the block alive after removal.
    std::shared_ptr<std::function<void(const Notification&)>> block;
  };

  mutable std::mutex mutex;
  std::vector<Observer> observers;
  std::uint64_t nextId = 1;
};

NotificationToken::NotificationToken(NotificationToken&& other) noexcept
    : center_(std::move(other.center_)), id_(other.id_) {
  other.center_.reset();
}

NotificationToken& NotificationToken::operator=(NotificationToken&& other) noexcept {
  if (this != &other) {
    invalidate();
    center_ = std::move(other.center_);
    id_ = other.id_;
    other.center_.reset();
  }
  return *this;
}

void NotificationToken::invalidate() {
  if (auto registry = center_.lock()) {
    std::lock_guard lock(registry->mutex);
    std::erase_if(registry->observers, [this](const auto& o) { return o.id == id_; });
  }
  center_.reset();
}

NotificationCenter::NotificationCenter() : registry_(std::make_shared<NotificationToken::Registry>()) {}
NotificationCenter::~NotificationCenter() = default;

NotificationCenter& NotificationCenter::defaultCenter() { return Environment::current().notificationCenter(); }

NotificationToken NotificationCenter::addObserver(std::string name, DispatchQueue* queue,
                                                  std::function<void(const Notification&)> block) {
  std::lock_guard lock(registry_->mutex);
  const std::uint64_t id = registry_->nextId++;
  registry_->observers.push_back(
      {id, std::move(name), queue, std::make_shared<std::function<void(const Notification&)>>(std::move(block))});
  return NotificationToken(registry_, id);
}

void NotificationCenter::post(Notification notification) {
  std::vector<NotificationToken::Registry::Observer> matching;
  {
    std::lock_guard lock(registry_->mutex);
    for (const auto& observer : registry_->observers) {
      if (observer.name == notification.name) matching.push_back(observer);
    }
  }
  if (matching.empty()) return;
  auto shared = std::make_shared<const Notification>(std::move(notification));
  std::weak_ptr<NotificationToken::Registry> registry = registry_;
  for (auto& observer : matching) {
    // Delivered only while the observer is still registered, so that removal wins
    // over a queued delivery.
    auto deliver = [registry, id = observer.id, block = observer.block, shared] {
      auto alive = registry.lock();
      if (!alive) return;
      {
        std::lock_guard lock(alive->mutex);
        if (std::none_of(alive->observers.begin(), alive->observers.end(),
                         [id](const auto& o) { return o.id == id; })) {
          return;
        }
      }
      (*block)(*shared);
    };
    if (observer.queue) {
      observer.queue->async(std::move(deliver));
    } else {
      deliver();
    }
  }
}

std::size_t NotificationCenter::observerCount(std::string_view name) const {
  std::lock_guard lock(registry_->mutex);
  return static_cast<std::size_t>(std::count_if(registry_->observers.begin(), registry_->observers.end(),
                                                [name](const auto& o) { return o.name == name; }));
}

}  // namespace tarnwell

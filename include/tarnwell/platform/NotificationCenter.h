// NotificationCenter: named announcements to whoever listens.
//
// A post calls each matching observer: on the posting thread when the
// observer gave no queue, otherwise asynchronously on its queue. Observers
// are held by tokens; a token that goes away unregisters its observer, and
// an observer is never called after its token's destruction has returned
// (unless the call had already begun on another thread).

#pragma once

#include <any>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <string_view>

namespace tarnwell {

class DispatchQueue;

struct Notification {
  std::string name;
  // The sender or subject, often empty.
  std::any object;
  std::map<std::string, std::any> userInfo;
};

class NotificationCenter;

// Move-only registration of one observer.
class NotificationToken {
 public:
  NotificationToken() = default;
  NotificationToken(NotificationToken&& other) noexcept;
  NotificationToken& operator=(NotificationToken&& other) noexcept;
  NotificationToken(const NotificationToken&) = delete;
  NotificationToken& operator=(const NotificationToken&) = delete;
  ~NotificationToken() { invalidate(); }

  // Unregisters now. Safe to call twice.
  void invalidate();
  bool isValid() const { return !center_.expired(); }

 private:
  friend class NotificationCenter;
  struct Registry;
  NotificationToken(std::weak_ptr<Registry> center, std::uint64_t id) : center_(std::move(center)), id_(id) {}

  std::weak_ptr<Registry> center_;
  std::uint64_t id_ = 0;
};

class NotificationCenter {
 public:
  NotificationCenter();
  ~NotificationCenter();

  // The installed Environment's centre.
  static NotificationCenter& defaultCenter();

  // Observes posts of `name`. `queue` null: called on the posting thread.
  [[nodiscard]] NotificationToken addObserver(std::string name, DispatchQueue* queue,
                                              std::function<void(const Notification&)> block);

  void post(Notification notification);
  void post(std::string_view name) { post(Notification{std::string(name), {}, {}}); }

  // Observers registered for `name`, for tests and diagnostics.
  std::size_t observerCount(std::string_view name) const;

 private:
  std::shared_ptr<NotificationToken::Registry> registry_;
};

}  // namespace tarnwell

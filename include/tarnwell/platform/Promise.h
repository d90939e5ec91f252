// Promise and Guarantee: results that arrive later.
//
// A Promise<T> is settled once, fulfilled with a T or rejected with an
// exception; a Guarantee<T> is only ever fulfilled. Handlers attached with
// then, map, done, catchError, recover and ensure run on a queue, the main
// queue unless one is given, and never on the stack of the code that settles
// the promise. A promise may stay pending for good: nothing waits for it
// unless a caller chooses to. Copies share one result.

#pragma once

#include <exception>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <type_traits>
#include <utility>
#include <variant>
#include <vector>

#include "tarnwell/platform/DispatchQueue.h"

namespace tarnwell {

template <class T>
class Promise;
template <class T>
class Guarantee;

namespace promise_detail {

// What a promise of T holds once fulfilled; void promises hold nothing.
template <class T>
using Stored = std::conditional_t<std::is_void_v<T>, std::monostate, T>;

template <class T>
class State {
 public:
  using Value = Stored<T>;

  void fulfill(Value value) { settle<1>(std::move(value)); }
  void reject(std::exception_ptr error) { settle<2>(std::move(error)); }

  // Calls `callback` once the state is settled: at once if it already is.
  void subscribe(std::function<void()> callback) {
    {
      std::lock_guard lock(mutex_);
      if (result_.index() == 0) {
        callbacks_.push_back(std::move(callback));
        return;
      }
    }
    callback();
  }

  bool isPending() const { return index() == 0; }
  bool isFulfilled() const { return index() == 1; }
  bool isRejected() const { return index() == 2; }
  std::optional<Value> value() const {
    std::lock_guard lock(mutex_);
    if (result_.index() != 1) return std::nullopt;
    return std::get<1>(result_);
  }
  std::exception_ptr error() const {
    std::lock_guard lock(mutex_);
    return result_.index() == 2 ? std::get<2>(result_) : nullptr;
  }

 private:
  template <std::size_t Index, class R>
  void settle(R&& result) {
    std::vector<std::function<void()>> callbacks;
    {
      std::lock_guard lock(mutex_);
      if (result_.index() != 0) return;  // the first settlement wins
      result_.template emplace<Index>(std::forward<R>(result));
      callbacks.swap(callbacks_);
    }
    for (auto& callback : callbacks) callback();
  }
  std::size_t index() const {
    std::lock_guard lock(mutex_);
    return result_.index();
  }

  struct Pending {};

  mutable std::mutex mutex_;
  // Pending, fulfilled or rejected; by index, since Value may itself be std::monostate.
  std::variant<Pending, Value, std::exception_ptr> result_;
  std::vector<std::function<void()>> callbacks_;
};

// Calls f with the fulfilled value, or with nothing for a void promise.
template <class T, class F>
decltype(auto) invoke(F& f, Stored<T>& value) {
  if constexpr (std::is_void_v<T>) {
    return f();
  } else {
    return f(std::move(value));
  }
}

template <class T, class F>
using Result = decltype(invoke<T>(std::declval<F&>(), std::declval<Stored<T>&>()));

template <class P>
struct Unwrap;
template <class U>
struct Unwrap<Promise<U>> {
  using Type = U;
};
template <class U>
struct Unwrap<Guarantee<U>> {
  using Type = U;
};

}  // namespace promise_detail

template <class T>
class Promise {
 public:
  using ValueType = T;
  using Value = promise_detail::Stored<T>;

  // The settling side of a pending promise. Settling twice keeps the first result.
  class Resolver {
   public:
    template <class U = T>
    requires(!std::is_void_v<U>) void fulfill(U value) const { state_->fulfill(std::move(value)); }
    template <class U = T>
    requires std::is_void_v<U>
    void fulfill() const { state_->fulfill({}); }
    void reject(std::exception_ptr error) const { state_->reject(std::move(error)); }
    template <class E>
    void reject(E error) const {
      state_->reject(std::make_exception_ptr(std::move(error)));
    }

   private:
    friend class Promise;
    explicit Resolver(std::shared_ptr<promise_detail::State<T>> state) : state_(std::move(state)) {}
    std::shared_ptr<promise_detail::State<T>> state_;
  };

  // Runs `body` at once with the resolver; an exception it throws rejects.
  explicit Promise(const std::function<void(Resolver)>& body) : state_(std::make_shared<promise_detail::State<T>>()) {
    try {
      body(Resolver(state_));
    } catch (...) {
      state_->reject(std::current_exception());
    }
  }

  static std::pair<Promise, Resolver> pending() {
    Promise promise;
    return {promise, Resolver(promise.state_)};
  }
  template <class U = T>
  requires(!std::is_void_v<U>) static Promise fulfilled(U value) {
    Promise promise;
    promise.state_->fulfill(std::move(value));
    return promise;
  }
  template <class U = T>
  requires std::is_void_v<U>
  static Promise fulfilled() {
    Promise promise;
    promise.state_->fulfill({});
    return promise;
  }
  static Promise rejected(std::exception_ptr error) {
    Promise promise;
    promise.state_->reject(std::move(error));
    return promise;
  }

  bool isPending() const { return state_->isPending(); }
  bool isFulfilled() const { return state_->isFulfilled(); }
  bool isRejected() const { return state_->isRejected(); }
  std::optional<Value> value() const { return state_->value(); }
  std::exception_ptr error() const { return state_->error(); }

  // f(T) -> Promise<U> or Guarantee<U>: the next step, which may itself wait.
  template <class F>
  auto then(DispatchQueue& on, F f) const {
    using U = typename promise_detail::Unwrap<promise_detail::Result<T, F>>::Type;
    auto [next, resolver] = Promise<U>::pending();
    whenFulfilled(on, resolver, [f = std::move(f)](Value& value, const auto& r) mutable {
      promise_detail::invoke<T>(f, value).pipe(r);
    });
    return next;
  }
  template <class F>
  auto then(F f) const {
    return then(DispatchQueue::main(), std::move(f));
  }

  // f(T) -> U: a plain transformation; a throw rejects.
  template <class F>
  auto map(DispatchQueue& on, F f) const {
    using U = promise_detail::Result<T, F>;
    auto [next, resolver] = Promise<U>::pending();
    whenFulfilled(on, resolver, [f = std::move(f)](Value& value, const auto& r) mutable {
      if constexpr (std::is_void_v<U>) {
        promise_detail::invoke<T>(f, value);
        r.fulfill();
      } else {
        r.fulfill(promise_detail::invoke<T>(f, value));
      }
    });
    return next;
  }
  template <class F>
  auto map(F f) const {
    return map(DispatchQueue::main(), std::move(f));
  }

  // f(T) -> void: the end of a chain that still reports its failure.
  template <class F>
  Promise<void> done(DispatchQueue& on, F f) const {
    return map(on, std::move(f));
  }
  template <class F>
  Promise<void> done(F f) const {
    return done(DispatchQueue::main(), std::move(f));
  }

  // f(std::exception_ptr): handles a rejection. The guarantee is fulfilled
  // once the promise is settled and the handler, if called, has returned.
  template <class F>
  Guarantee<void> catchError(DispatchQueue& on, F f) const;
  template <class F>
  Guarantee<void> catchError(F f) const;

  // f(std::exception_ptr) -> Promise<T>: replaces a rejection with another attempt.
  template <class F>
  Promise recover(DispatchQueue& on, F f) const {
    // The resolver is captured by an initializer, here and below: clang
    // before 16 cannot capture a structured binding.
    auto [next, resolver] = pending();
    subscribe(on, [f = std::move(f), resolver = resolver](auto& state) mutable {
      if (state.isFulfilled()) return settle(resolver, state);
      try {
        f(state.error()).pipe(resolver);
      } catch (...) {
        resolver.reject(std::current_exception());
      }
    });
    return next;
  }
  template <class F>
  Promise recover(F f) const {
    return recover(DispatchQueue::main(), std::move(f));
  }

  // f() runs whatever the outcome; the result passes through unchanged.
  template <class F>
  Promise ensure(DispatchQueue& on, F f) const {
    auto [next, resolver] = pending();
    subscribe(on, [f = std::move(f), resolver = resolver](auto& state) mutable {
      f();
      settle(resolver, state);
    });
    return next;
  }
  template <class F>
  Promise ensure(F f) const {
    return ensure(DispatchQueue::main(), std::move(f));
  }

  // Settles `resolver` with this promise's result, on whichever thread settles this one.
  template <class R>
  void pipe(const R& resolver) const {
    // Weak: a promise that stays pending must not keep itself alive through
    // its own callbacks. While settling, the settler holds the state.
    state_->subscribe([weak = std::weak_ptr(state_), resolver] { settle(resolver, *weak.lock()); });
  }

 private:
  template <class>
  friend class Promise;
  template <class>
  friend class Guarantee;

  Promise() : state_(std::make_shared<promise_detail::State<T>>()) {}

  template <class Handler>
  void subscribe(DispatchQueue& on, Handler handler) const {
    state_->subscribe([&on, weak = std::weak_ptr(state_), handler = std::move(handler)]() mutable {
      on.async([state = weak.lock(), handler = std::move(handler)]() mutable { handler(*state); });
    });
  }

  // Calls body(value, resolver) on `on` once fulfilled. A rejection passes to
  // `resolver` untouched, and a throw from the body rejects it.
  template <class R, class Body>
  void whenFulfilled(DispatchQueue& on, R resolver, Body body) const {
    subscribe(on, [resolver, body = std::move(body)](auto& state) mutable {
      if (state.isRejected()) return resolver.reject(state.error());
      try {
        auto value = *state.value();
        body(value, resolver);
      } catch (...) {
        resolver.reject(std::current_exception());
      }
    });
  }

  // Settles `resolver` as `state` was settled.
  template <class R>
  static void settle(const R& resolver, const promise_detail::State<T>& state) {
    if (state.isRejected()) return resolver.reject(state.error());
    if constexpr (std::is_void_v<T>) {
      resolver.fulfill();
    } else {
      resolver.fulfill(*state.value());
    }
  }

  std::shared_ptr<promise_detail::State<T>> state_;
};

template <class T>
class Guarantee {
 public:
  using ValueType = T;
  using Value = promise_detail::Stored<T>;
  using Resolver = std::function<void(Value)>;

  // Runs `body` at once with a function that fulfils the guarantee.
  explicit Guarantee(const std::function<void(Resolver)>& body) {
    auto state = promise_.state_;
    body([state](Value value) { state->fulfill(std::move(value)); });
  }

  static std::pair<Guarantee, Resolver> pending() {
    Guarantee guarantee;
    auto state = guarantee.promise_.state_;
    return {guarantee, [state](Value value) { state->fulfill(std::move(value)); }};
  }
  template <class U = T>
  requires(!std::is_void_v<U>) static Guarantee fulfilled(U value) {
    Guarantee guarantee;
    guarantee.promise_.state_->fulfill(std::move(value));
    return guarantee;
  }
  template <class U = T>
  requires std::is_void_v<U>
  static Guarantee fulfilled() {
    Guarantee guarantee;
    guarantee.promise_.state_->fulfill({});
    return guarantee;
  }

  bool isPending() const { return promise_.isPending(); }
  std::optional<Value> value() const { return promise_.value(); }

  // f(T) -> Guarantee<U> or Promise<U>; the result is a promise only when f's is.
  template <class F>
  auto then(DispatchQueue& on, F f) const {
    using Next = promise_detail::Result<T, F>;
    auto next = promise_.then(on, std::move(f));
    if constexpr (std::is_same_v<Next, Guarantee<typename Next::ValueType>>) {
      return Guarantee<typename Next::ValueType>(next);
    } else {
      return next;
    }
  }
  template <class F>
  auto then(F f) const {
    return then(DispatchQueue::main(), std::move(f));
  }
  template <class F>
  auto map(DispatchQueue& on, F f) const {
    return Guarantee<promise_detail::Result<T, F>>(promise_.map(on, std::move(f)));
  }
  template <class F>
  auto map(F f) const {
    return map(DispatchQueue::main(), std::move(f));
  }
  template <class F>
  Guarantee<void> done(DispatchQueue& on, F f) const {
    return map(on, std::move(f));
  }
  template <class F>
  Guarantee<void> done(F f) const {
    return done(DispatchQueue::main(), std::move(f));
  }

  Promise<T> asPromise() const { return promise_; }

  template <class R>
  void pipe(const R& resolver) const {
    promise_.pipe(resolver);
  }

 private:
  template <class>
  friend class Guarantee;
  template <class>
  friend class Promise;

  Guarantee() = default;
  // Wraps a promise that cannot be rejected because its step cannot throw
  // anything but a programming error, which stops the process anyway.
  explicit Guarantee(Promise<T> promise) : promise_(std::move(promise)) {}

  Promise<T> promise_;
};

template <class T>
template <class F>
Guarantee<void> Promise<T>::catchError(DispatchQueue& on, F f) const {
  auto [next, resolver] = Guarantee<void>::pending();
  subscribe(on, [f = std::move(f), resolver = resolver](auto& state) mutable {
    if (state.isRejected()) f(state.error());
    resolver({});
  });
  return next;
}

template <class T>
template <class F>
Guarantee<void> Promise<T>::catchError(F f) const {
  return catchError(DispatchQueue::main(), std::move(f));
}

// Fulfilled with every value, in order, once all are fulfilled; rejected
// with the first rejection.
template <class T>
requires(!std::is_void_v<T>) Promise<std::vector<T>> whenFulfilled(const std::vector<Promise<T>>& promises) {
  auto [all, resolver] = Promise<std::vector<T>>::pending();
  if (promises.empty()) {
    resolver.fulfill({});
    return all;
  }
  struct Gather {
    std::mutex mutex;
    std::vector<std::optional<T>> values;
    std::size_t remaining = 0;
  };
  // Collects one promise's value; the last one in fulfils the whole.
  struct Slot {
    void fulfill(T value) const {
      std::vector<T> values;
      {
        std::lock_guard lock(gather->mutex);
        gather->values[index] = std::move(value);
        if (--gather->remaining != 0) return;
        for (auto& each : gather->values) values.push_back(std::move(*each));
      }
      resolver.fulfill(std::move(values));
    }
    void reject(std::exception_ptr error) const { resolver.reject(std::move(error)); }

    std::size_t index;
    std::shared_ptr<Gather> gather;
    typename Promise<std::vector<T>>::Resolver resolver;
  };
  auto gather = std::make_shared<Gather>();
  gather->values.resize(promises.size());
  gather->remaining = promises.size();
  for (std::size_t i = 0; i < promises.size(); ++i) promises[i].pipe(Slot{i, gather, resolver});
  return all;
}

inline Promise<void> whenFulfilled(const std::vector<Promise<void>>& promises) {
  std::vector<Promise<bool>> flags;
  flags.reserve(promises.size());
  for (const auto& promise : promises) {
    auto [flag, resolver] = Promise<bool>::pending();
    struct Relay {
      void fulfill() const { resolver.fulfill(true); }
      void reject(std::exception_ptr error) const { resolver.reject(std::move(error)); }
      Promise<bool>::Resolver resolver;
    };
    promise.pipe(Relay{resolver});
    flags.push_back(flag);
  }
  auto [all, resolver] = Promise<void>::pending();
  struct Done {
    void fulfill(const std::vector<bool>&) const { resolver.fulfill(); }
    void reject(std::exception_ptr error) const { resolver.reject(std::move(error)); }
    Promise<void>::Resolver resolver;
  };
  whenFulfilled(flags).pipe(Done{resolver});
  return all;
}

}  // namespace tarnwell

// Typed keys over UserDefaults.
//
// A Key<T> has a name, a default and a store: reading an absent (or
// undecodable) value gives the default, and writing stores the value. An
// OptionalKey<T> reads as nothing until written; writing nothing removes it.
// Numbers, booleans, text, dates, bytes and lists of text are stored as
// themselves; every other type as its JSON form (through nlohmann's to_json
// and from_json), so other processes can read it too.

#pragma once

#include <cstdint>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "tarnwell/platform/UserDefaults.h"

namespace tarnwell::defaults {

template <class T>
struct Codec {
  static std::optional<T> read(const UserDefaults& store, std::string_view key) {
    const auto json = store.jsonForKey(key);
    if (!json) return std::nullopt;
    try {
      return json->template get<T>();
    } catch (const nlohmann::json::exception&) {
      return std::nullopt;
    }
  }
  static void write(UserDefaults& store, std::string_view key, const T& value) {
    store.setJSON(key, nlohmann::json(value));
  }
};

template <>
struct Codec<bool> {
  static std::optional<bool> read(const UserDefaults& store, std::string_view key) {
    if (!store.contains(key)) return std::nullopt;
    return store.boolForKey(key);
  }
  static void write(UserDefaults& store, std::string_view key, bool value) { store.set(key, value); }
};

template <>
struct Codec<std::int64_t> {
  static std::optional<std::int64_t> read(const UserDefaults& store, std::string_view key) {
    if (!store.contains(key)) return std::nullopt;
    return store.integerForKey(key);
  }
  static void write(UserDefaults& store, std::string_view key, std::int64_t value) { store.set(key, value); }
};

template <>
struct Codec<int> {
  static std::optional<int> read(const UserDefaults& store, std::string_view key) {
    if (!store.contains(key)) return std::nullopt;
    return static_cast<int>(store.integerForKey(key));
  }
  static void write(UserDefaults& store, std::string_view key, int value) { store.set(key, value); }
};

template <>
struct Codec<double> {
  static std::optional<double> read(const UserDefaults& store, std::string_view key) {
    if (!store.contains(key)) return std::nullopt;
    return store.doubleForKey(key);
  }
  static void write(UserDefaults& store, std::string_view key, double value) { store.set(key, value); }
};

template <>
struct Codec<std::string> {
  static std::optional<std::string> read(const UserDefaults& store, std::string_view key) {
    return store.stringForKey(key);
  }
  static void write(UserDefaults& store, std::string_view key, const std::string& value) { store.set(key, value); }
};

template <>
struct Codec<Date> {
  static std::optional<Date> read(const UserDefaults& store, std::string_view key) { return store.dateForKey(key); }
  static void write(UserDefaults& store, std::string_view key, Date value) { store.set(key, value); }
};

template <>
struct Codec<Data> {
  static std::optional<Data> read(const UserDefaults& store, std::string_view key) { return store.dataForKey(key); }
  static void write(UserDefaults& store, std::string_view key, const Data& value) { store.set(key, value); }
};

template <>
struct Codec<std::vector<std::string>> {
  static std::optional<std::vector<std::string>> read(const UserDefaults& store, std::string_view key) {
    return store.stringArrayForKey(key);
  }
  static void write(UserDefaults& store, std::string_view key, const std::vector<std::string>& value) {
    store.set(key, value);
  }
};

// Which store a key lives in, looked up at each use so that a new Environment
// is picked up.
using StoreAccessor = UserDefaults& (*)();

template <class T>
class Key {
 public:
  Key(std::string name, T defaultValue, StoreAccessor accessor)
      : name_(std::move(name)), defaultValue_(std::move(defaultValue)), store_(accessor) {}

  T get() const { return Codec<T>::read(store_(), name_).value_or(defaultValue_); }
  void set(const T& value) const { Codec<T>::write(store_(), name_, value); }
  void remove() const { store_().removeObject(name_); }
  bool isStored() const { return store_().contains(name_); }

  const std::string& name() const { return name_; }
  const T& defaultValue() const { return defaultValue_; }
  UserDefaults& store() const { return store_(); }

 private:
  std::string name_;
  T defaultValue_;
  StoreAccessor store_;
};

template <class T>
class OptionalKey {
 public:
  OptionalKey(std::string name, StoreAccessor accessor) : name_(std::move(name)), store_(accessor) {}

  std::optional<T> get() const { return Codec<T>::read(store_(), name_); }
  void set(const std::optional<T>& value) const {
    if (value) {
      Codec<T>::write(store_(), name_, *value);
    } else {
      store_().removeObject(name_);
    }
  }

  const std::string& name() const { return name_; }
  UserDefaults& store() const { return store_(); }

 private:
  std::string name_;
  StoreAccessor store_;
};

}  // namespace tarnwell::defaults

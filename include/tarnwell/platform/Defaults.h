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

// Types the store keeps as themselves. Numbers and booleans are read from the
// stored value (whatever its type) in one look-up, so that absence is told
// apart from zero; the others have getters that already answer nothing.
template <class T, auto Convert>
struct ConvertedCodec {
  static std::optional<T> read(const UserDefaults& store, std::string_view key) {
    const auto value = store.object(key);
    if (!value) return std::nullopt;
    return static_cast<T>(Convert(*value));
  }
  static void write(UserDefaults& store, std::string_view key, T value) { store.set(key, value); }
};

template <class T, auto Getter>
struct StoredCodec {
  static std::optional<T> read(const UserDefaults& store, std::string_view key) { return (store.*Getter)(key); }
  static void write(UserDefaults& store, std::string_view key, const T& value) { store.set(key, value); }
};

template <>
struct Codec<bool> : ConvertedCodec<bool, &UserDefaults::boolValue> {};
template <>
struct Codec<std::int64_t> : ConvertedCodec<std::int64_t, &UserDefaults::integerValue> {};
template <>
struct Codec<int> : ConvertedCodec<int, &UserDefaults::integerValue> {};
template <>
struct Codec<double> : ConvertedCodec<double, &UserDefaults::doubleValue> {};
template <>
struct Codec<std::string> : StoredCodec<std::string, &UserDefaults::stringForKey> {};
template <>
struct Codec<Date> : StoredCodec<Date, &UserDefaults::dateForKey> {};
template <>
struct Codec<Data> : StoredCodec<Data, &UserDefaults::dataForKey> {};
template <>
struct Codec<std::vector<std::string>> : StoredCodec<std::vector<std::string>, &UserDefaults::stringArrayForKey> {};

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

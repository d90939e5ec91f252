// Layers, bottom to top: platform → healthkit → cloudkit → widgets → settings → extensions → [records] → store → sync → health → analytics → charts → modules → automation.
//
// The one declaration of a record's stored properties.
//
// Each record type lists its properties once, in order, as a tuple of
// Property values (name, member pointer, primary key and index flags); the
// type, optionality and list-ness follow from the member's C++ type:
//
//   static constexpr auto properties() {
//     return std::tuple{records::primaryKey("id", &Pickup::id), records::property("deviceId", &Pickup::deviceId), ...};
//   }
//
// Everything else is derived from that tuple by the layers that need it: the
// SQL table and row mapping by the store (store/Schema.h), the JSON of the
// command line, and the cloud record's fields by the sync layer.
//
// Besides the plain values, a property may be a link to a record of another
// class (std::optional<Ref<Target>>), a list of such links
// (std::vector<Ref<Target>>) or a file (std::optional<SyncAsset>). A primary
// key is a text or an integer; wherever keys travel as text (change sets,
// Store::object, links) an integer key is its decimal form.

#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <tuple>
#include <type_traits>
#include <vector>

#include "tarnwell/platform/Data.h"
#include "tarnwell/platform/Date.h"
#include "tarnwell/records/SyncAsset.h"

namespace tarnwell::records {

enum class PropertyType { integer, boolean, string, date, real, data, link, asset };

// A link to the record of class Target whose primary key is `key`. Links are
// kept by key, as records are values: the target is read from the store
// when needed, and a link may outlive its target.
template <class Target>
struct Ref {
  std::string key;

  friend bool operator==(const Ref&, const Ref&) = default;
};

// What a member's C++ type says about the stored property.
template <class T>
struct PropertyTraits;

template <>
struct PropertyTraits<std::string> {
  static constexpr PropertyType type = PropertyType::string;
  static constexpr bool optional = false, list = false;
};
template <>
struct PropertyTraits<Date> {
  static constexpr PropertyType type = PropertyType::date;
  static constexpr bool optional = false, list = false;
};
template <>
struct PropertyTraits<bool> {
  static constexpr PropertyType type = PropertyType::boolean;
  static constexpr bool optional = false, list = false;
};
template <>
struct PropertyTraits<std::int64_t> {
  static constexpr PropertyType type = PropertyType::integer;
  static constexpr bool optional = false, list = false;
};
template <>
struct PropertyTraits<double> {
  static constexpr PropertyType type = PropertyType::real;
  static constexpr bool optional = false, list = false;
};
template <>
struct PropertyTraits<Data> {
  static constexpr PropertyType type = PropertyType::data;
  static constexpr bool optional = false, list = false;
};
template <>
struct PropertyTraits<SyncAsset> {
  static constexpr PropertyType type = PropertyType::asset;
  static constexpr bool optional = false, list = false;
};
template <class Target>
struct PropertyTraits<Ref<Target>> {
  static constexpr PropertyType type = PropertyType::link;
  static constexpr bool optional = false, list = false;
  using LinkTarget = Target;
};
template <class T>
struct PropertyTraits<std::optional<T>> : PropertyTraits<T> {
  static constexpr bool optional = true;
};
template <class T>
struct PropertyTraits<std::vector<T>> : PropertyTraits<T> {
  static constexpr bool list = true;
};

template <class Record, class Member>
struct Property {
  using Traits = PropertyTraits<Member>;
  using Value = Member;

  std::string_view name;
  Member Record::*member;
  bool isPrimaryKey = false;
  bool isIndexed = false;
  // A second column of the property's index, when reads that range over the
  // property also filter by that column.
  std::string_view indexedWith = {};
};

template <class Record, class Member>
constexpr Property<Record, Member> property(std::string_view name, Member Record::*member) {
  return {name, member, false, false};
}
template <class Record, class Member>
constexpr Property<Record, Member> primaryKey(std::string_view name, Member Record::*member) {
  return {name, member, true, false};
}
template <class Record, class Member>
constexpr Property<Record, Member> indexed(std::string_view name, Member Record::*member,
                                           std::string_view indexedWith = {}) {
  return {name, member, false, true, indexedWith};
}

// Calls f(property) for each property of Record, in declaration order.
template <class Record, class F>
constexpr void forEachProperty(F&& f) {
  std::apply([&f](const auto&... each) { (f(each), ...); }, Record::properties());
}

// A record class: one with a properties() declaration.
template <class Record>
concept HasProperties = requires {
  Record::properties();
};

// The primary key's column name.
template <class Record>
std::string_view primaryKeyName() {
  std::string_view name;
  forEachProperty<Record>([&name](const auto& p) {
    if (p.isPrimaryKey) name = p.name;
  });
  return name;
}

// The position of the primary key among the properties; -1 without one.
template <class Record>
constexpr int primaryKeyIndex() {
  int index = -1;
  int position = 0;
  forEachProperty<Record>([&](const auto& p) {
    if (p.isPrimaryKey) index = position;
    ++position;
  });
  return index;
}

// The text form of a key value: a text as it is, an integer in decimal;
// nothing when absent or of another type.
template <class T>
std::optional<std::string> keyText(const T&) {
  return std::nullopt;
}
inline std::optional<std::string> keyText(const std::string& value) { return value; }
inline std::optional<std::string> keyText(std::int64_t value) { return std::to_string(value); }
template <class T>
std::optional<std::string> keyText(const std::optional<T>& value) {
  if (!value) return std::nullopt;
  return keyText(*value);
}

// The record's primary key as text; nothing when it has none.
template <class Record>
std::optional<std::string> primaryKeyText(const Record& record) {
  std::optional<std::string> text;
  forEachProperty<Record>([&](const auto& p) {
    if (p.isPrimaryKey) text = keyText(record.*(p.member));
  });
  return text;
}

template <class Record>
constexpr int propertyCount() {
  return static_cast<int>(std::tuple_size_v<decltype(Record::properties())>);
}

}  // namespace tarnwell::records

// Layers, bottom to top: platform → healthkit → cloudkit → widgets → settings → extensions → [records] → store → sync → health → analytics → charts → modules.
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

namespace tarnwell::records {

enum class PropertyType { integer, boolean, string, date, real, data };

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
constexpr Property<Record, Member> indexed(std::string_view name, Member Record::*member) {
  return {name, member, false, true};
}

// Calls f(property) for each property of Record, in declaration order.
template <class Record, class F>
constexpr void forEachProperty(F&& f) {
  std::apply([&f](const auto&... each) { (f(each), ...); }, Record::properties());
}

// The primary key's column name.
template <class Record>
std::string_view primaryKeyName() {
  std::string_view name;
  forEachProperty<Record>([&name](const auto& p) {
    if (p.isPrimaryKey) name = p.name;
  });
  return name;
}

template <class Record>
constexpr int propertyCount() {
  return static_cast<int>(std::tuple_size_v<decltype(Record::properties())>);
}

}  // namespace tarnwell::records

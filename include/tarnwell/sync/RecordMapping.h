// The wire format of the cloud side: a record of the store as a cloud record
// and back, derived from the records' one property declaration.
//
// A record of class Pickup with primary key "A" in the private database:
//
//   record type   "Pickup" (the class name)
//   zone          "PickupsZone" (the class name and "sZone"), owned by the
//                 current user; in the public database the default zone
//   record name   "A" (the primary key; an integer key in decimal)
//   fields        one per stored property, named as the property
//
// How a property travels:
//   text, integer, double, date, bytes   the value, or no value when absent
//   boolean                              the integer 0 or 1
//   asset                                a CKAsset on the asset's file
//   link to a convertible class          a CKReference to the target's
//                                        recordID (action none); no value
//                                        when absent or the target is gone
//   list of values                       an array; an empty list sets the
//                                        field to no value
//   list of links                        an array of CKReference in the
//                                        element class's private zone,
//                                        leaving out elements that are gone,
//                                        not convertible or deleted; an
//                                        empty list sets no value
//
// An empty list is sent as a field with no value, not left out: a save with
// changed keys then clears the cloud's list, so a list emptied here reaches
// the other devices empty instead of coming back with the echo.
//
// Misconfiguration (no primary key, a key neither text nor integer, the
// shared database) is a programming error and ends the process. Data
// problems never fail: a field of the wrong type, missing or unknown reads as
// no value, and the property keeps its default unless it is optional.

#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <type_traits>
#include <vector>

#include "tarnwell/cloudkit/Records.h"
#include "tarnwell/platform/FatalError.h"
#include "tarnwell/records/Properties.h"
#include "tarnwell/store/Store.h"
#include "tarnwell/sync/CloudSync.h"
#include "tarnwell/sync/PendingRelationshipsWorker.h"
#include "tarnwell/sync/RecordConformances.h"
#include "tarnwell/sync/SyncAsset.h"

namespace tarnwell::sync {

namespace detail {
template <class T>
struct KeyOf;
}  // namespace detail

// The primary key's type of T, without its optional: std::string or std::int64_t.
template <class T>
using PrimaryKeyType = typename detail::KeyOf<T>::type;

// The class name: "Pickup".
template <class T>
std::string recordType();

// The class's zone: "<class>sZone" of the current user in the private
// database, the default zone in the public one.
template <class T>
CKRecordZoneID zoneID();

// The record's id in its class's zone, named by its primary key.
template <class T>
CKRecordID recordID(const T& object);

// The primary key a record name stands for: the name itself for a text key;
// for an integer key the name read in decimal, nothing when it is not one
// ("+42" and "-42" are, "4a" and "" are not). Nothing for a class without a
// key.
template <class T>
std::optional<PrimaryKeyType<T>> primaryKey(const CKRecordID& id);

// The same key in the store's text form (Store::object, change sets).
template <class T>
std::optional<std::string> primaryKeyText(const CKRecordID& id);

// A new cloud record of the object: every stored property in declaration
// order, as tabled above. No system fields of an earlier fetch are kept, so
// the server's change tag is never sent. `store` is where link targets and
// list elements are read.
template <class T>
CKRecord record(const T& object, store::Store& store);

// A new record of class T from a cloud record, every property read from the
// field of its name. Links are set when their target is in `store`; a list
// element that is missing is left with the worker of its class, the first of
// U, V, W whose class name matches, to be appended when it arrives. Elements
// of a class that matches none are dropped. An asset's file is copied into
// the asset folder, replacing an older one.
template <class T, class U = NoListElement, class V = NoListElement, class W = NoListElement>
T parseFromRecord(const CKRecord& record, store::Store& store, PendingRelationshipsWorker<U>* uWorker = nullptr,
                  PendingRelationshipsWorker<V>* vWorker = nullptr, PendingRelationshipsWorker<W>* wWorker = nullptr);

// ---------------------------------------------------------------------------
// Implementation.

namespace detail {

template <class>
inline constexpr bool alwaysFalse = false;

template <class M>
struct Unwrapped {
  using type = M;
  static constexpr bool optional = false;
};
template <class M>
struct Unwrapped<std::optional<M>> {
  using type = M;
  static constexpr bool optional = true;
};

template <class M>
struct LinkList : std::false_type {};
template <class E>
struct LinkList<std::vector<records::Ref<E>>> : std::true_type {
  using Element = E;
};

template <class M>
struct ValueList : std::false_type {};
template <class E>
requires(std::is_same_v<E, std::string> || std::is_same_v<E, std::int64_t> || std::is_same_v<E, double> ||
         std::is_same_v<E, bool> || std::is_same_v<E, Date> ||
         std::is_same_v<E, Data>) struct ValueList<std::vector<E>> : std::true_type {
};

template <class V>
inline constexpr bool isSingleValue =
    std::is_same_v<V, std::string> || std::is_same_v<V, std::int64_t> || std::is_same_v<V, double> ||
    std::is_same_v<V, bool> || std::is_same_v<V, Date> || std::is_same_v<V, Data> || std::is_same_v<V, SyncAsset>;
template <class V>
inline constexpr bool isLink = false;
template <class E>
inline constexpr bool isLink<records::Ref<E>> = true;

template <class T>
struct KeyOf {
  using type = std::string;
};
template <class T>
requires(records::primaryKeyIndex<T>() >= 0) struct KeyOf<T> {
  using type = typename Unwrapped<typename std::tuple_element_t<static_cast<std::size_t>(records::primaryKeyIndex<T>()),
                                                                decltype(T::properties())>::Value>::type;
};

// A record name read as an integer key: decimal digits after an optional
// "+" or "-", nothing else.
std::optional<std::int64_t> integerKey(std::string_view recordName);

}  // namespace detail

template <class T>
std::string recordType() {
  return std::string(T::className);
}

template <class T>
CKRecordZoneID zoneID() {
  switch (databaseScope<T>()) {
    case CKDatabaseScope::publicScope:
      return CKRecordZoneID::defaultZone();
    case CKDatabaseScope::privateScope:
      return CKRecordZoneID{std::string(T::className) + "sZone", std::string(CKCurrentUserDefaultName)};
    case CKDatabaseScope::sharedScope:
      break;
  }
  fatalError("Shared Database is not supported now");
}

template <class T>
CKRecordID recordID(const T& object) {
  if constexpr (!records::HasProperties<T>) {
    static_assert(detail::alwaysFalse<T>, "No schema settled.");
  } else {
    static_assert(records::primaryKeyIndex<T>() >= 0, "You should set a primary key on your store object");
    auto name = records::primaryKeyText(object);
    if (!name) fatalError("Should have a reasonable recordID");
    return CKRecordID{std::move(*name), zoneID<T>()};
  }
}

template <class T>
std::optional<PrimaryKeyType<T>> primaryKey(const CKRecordID& id) {
  if constexpr (records::primaryKeyIndex<T>() < 0) {
    return std::nullopt;
  } else if constexpr (std::is_same_v<PrimaryKeyType<T>, std::int64_t>) {
    return detail::integerKey(id.recordName);
  } else if constexpr (std::is_same_v<PrimaryKeyType<T>, std::string>) {
    return id.recordName;
  } else {
    fatalError("The type of object primaryKey should be String or Int");
  }
}

template <class T>
std::optional<std::string> primaryKeyText(const CKRecordID& id) {
  const auto key = primaryKey<T>(id);
  if (!key) return std::nullopt;
  return records::keyText(*key);
}

namespace detail {

inline std::optional<CKRecordValue> fieldValue(const std::string& value, store::Store&) { return value; }
inline std::optional<CKRecordValue> fieldValue(std::int64_t value, store::Store&) { return value; }
inline std::optional<CKRecordValue> fieldValue(double value, store::Store&) { return value; }
inline std::optional<CKRecordValue> fieldValue(bool value, store::Store&) { return std::int64_t{value ? 1 : 0}; }
inline std::optional<CKRecordValue> fieldValue(Date value, store::Store&) { return value; }
inline std::optional<CKRecordValue> fieldValue(const Data& value, store::Store&) { return value; }
inline std::optional<CKRecordValue> fieldValue(const SyncAsset& value, store::Store&) {
  return CKAsset{filePath(value)};
}
template <class E>
std::optional<CKRecordValue> fieldValue(const records::Ref<E>& link, store::Store& store) {
  if constexpr (isCKRecordConvertible<E>) {
    if (const auto target = store.object<E>(link.key)) return CKReference{recordID(*target), CKReferenceAction::none};
  }
  return std::nullopt;
}
template <class V>
std::optional<CKRecordValue> fieldValue(const std::optional<V>& value, store::Store& store) {
  if (!value) return std::nullopt;
  return fieldValue(*value, store);
}

template <class E>
CKRecordValue listValue(const std::vector<E>& list, store::Store&) {
  if constexpr (std::is_same_v<E, bool>) {
    std::vector<std::int64_t> numbers;
    for (const bool each : list) numbers.push_back(each ? 1 : 0);
    return numbers;
  } else {
    return list;
  }
}

// References in lists are built from the element's key alone, in the
// element class's private zone, whatever its database.
template <class E>
CKRecordValue listValue(const std::vector<records::Ref<E>>& list, store::Store& store) {
  std::vector<CKReference> references;
  if constexpr (isCKRecordConvertible<E>) {
    for (const auto& link : list) {
      const auto element = store.object<E>(link.key);
      if (!element) continue;
      auto name = records::primaryKeyText(*element);
      if (!name) continue;
      if constexpr (requires { element->isDeleted; }) {
        if (element->isDeleted) continue;
      }
      references.push_back(CKReference{
          CKRecordID{std::move(*name),
                     CKRecordZoneID{std::string(E::className) + "sZone", std::string(CKCurrentUserDefaultName)}},
          CKReferenceAction::none});
    }
  }
  return references;
}

template <class V>
std::optional<V> readValue(const CKRecordValue* field, const CKRecord& record, std::string_view name,
                           store::Store& store) {
  if (!field) return std::nullopt;
  if constexpr (std::is_same_v<V, bool>) {
    const auto* number = std::get_if<std::int64_t>(field);
    if (!number || (*number != 0 && *number != 1)) return std::nullopt;
    return *number == 1;
  } else if constexpr (std::is_same_v<V, SyncAsset>) {
    const auto* asset = std::get_if<CKAsset>(field);
    if (!asset || !asset->fileURL) return std::nullopt;
    return createSyncAsset(record.recordID().recordName, name, *asset->fileURL, true);
  } else if constexpr (isLink<V>) {
    using E = typename records::PropertyTraits<V>::LinkTarget;
    const auto* reference = std::get_if<CKReference>(field);
    if (!reference) return std::nullopt;
    // Not retried: a target that has not arrived leaves the link absent.
    auto key = primaryKeyText<E>(reference->recordID);
    if (!key || !store.object<E>(*key)) return std::nullopt;
    return V{std::move(*key)};
  } else {
    const auto* value = std::get_if<V>(field);
    if (!value) return std::nullopt;
    return *value;
  }
}

template <class L>
L readList(const CKRecordValue* field) {
  using E = typename L::value_type;
  if (!field) return {};
  if constexpr (std::is_same_v<E, bool>) {
    L list;
    if (const auto* numbers = std::get_if<std::vector<std::int64_t>>(field)) {
      for (const auto number : *numbers) list.push_back(number != 0);
    }
    return list;
  } else {
    const auto* values = std::get_if<L>(field);
    return values ? *values : L{};
  }
}

}  // namespace detail

template <class T>
CKRecord record(const T& object, store::Store& store) {
  static_assert(isCKRecordConvertible<T>, "The class does not travel to the cloud");
  CKRecord result(recordType<T>(), recordID(object));
  records::forEachProperty<T>([&](const auto& p) {
    using M = typename std::decay_t<decltype(p)>::Value;
    const auto& value = object.*(p.member);
    if constexpr (detail::LinkList<M>::value || detail::ValueList<M>::value) {
      result.setObject(p.name, value.empty() ? std::nullopt
                                             : std::optional<CKRecordValue>(detail::listValue(value, store)));
    } else if constexpr (detail::isSingleValue<typename detail::Unwrapped<M>::type> ||
                         detail::isLink<typename detail::Unwrapped<M>::type>) {
      result.setObject(p.name, detail::fieldValue(value, store));
    }
    // Any other type is not written.
  });
  return result;
}

template <class T, class U, class V, class W>
T parseFromRecord(const CKRecord& record, store::Store& store, PendingRelationshipsWorker<U>* uWorker,
                  PendingRelationshipsWorker<V>* vWorker, PendingRelationshipsWorker<W>* wWorker) {
  static_assert(isCKRecordRecoverable<T>, "The class does not come back from the cloud");
  T object{};
  // Pending elements wait for the owner's key, which may be read after them.
  std::vector<std::function<void(const std::string& ownerKey)>> waiting;
  records::forEachProperty<T>([&](const auto& p) {
    using M = typename std::decay_t<decltype(p)>::Value;
    const CKRecordValue* field = record.object(p.name);
    auto& member = object.*(p.member);
    if constexpr (detail::LinkList<M>::value) {
      using E = typename detail::LinkList<M>::Element;
      M list;
      const auto* references = field ? std::get_if<std::vector<CKReference>>(field) : nullptr;
      for (const auto& reference : references ? *references : std::vector<CKReference>{}) {
        auto key = primaryKeyText<E>(reference.recordID);
        if (!key) continue;
        const auto take = [&](auto* worker) {
          if (store.object<E>(*key)) {
            list.push_back(records::Ref<E>{*key});
          } else if (worker) {
            waiting.push_back(
                [worker, key = *key, name = std::string(p.name), member = p.member](const std::string& ownerKey) {
                  worker->addToPendingList(key, name, PendingOwner::of<T>(ownerKey, member));
                });
          }
        };
        if (E::className == U::className) {
          take(uWorker);
        } else if (E::className == V::className) {
          take(vWorker);
        } else if (E::className == W::className) {
          take(wWorker);
        }
      }
      member = std::move(list);
    } else if constexpr (detail::ValueList<M>::value) {
      member = detail::readList<M>(field);
    } else if constexpr (detail::isSingleValue<typename detail::Unwrapped<M>::type> ||
                         detail::isLink<typename detail::Unwrapped<M>::type>) {
      auto value = detail::readValue<typename detail::Unwrapped<M>::type>(field, record, p.name, store);
      if (value) {
        member = std::move(*value);
      } else if constexpr (detail::Unwrapped<M>::optional) {
        member = std::nullopt;
      }
    } else {
      CloudSync::shared().log("Other types will be supported in the future.");
      if constexpr (detail::Unwrapped<M>::optional) member = std::nullopt;
    }
  });
  if (!waiting.empty()) {
    if (const auto ownerKey = records::primaryKeyText(object)) {
      for (const auto& wait : waiting) wait(*ownerKey);
    }
  }
  return object;
}

}  // namespace tarnwell::sync

// Which record classes travel to the cloud, and in which database.
//
// CKRecordConvertible<T> says that records of T become cloud records
// (RecordMapping.h: recordID, record); CKRecordRecoverable<T> that cloud
// records become records of T again (parseFromRecord). CKRecordDatabaseScope<T>
// names the database a class lives in: the private one unless a class says
// otherwise. A class opts in by specialising these next to the others here.
//
// Alive has no conformance on purpose: alive spans never leave the device.

#pragma once

#include <type_traits>

#include "tarnwell/cloudkit/Records.h"
#include "tarnwell/records/App.h"
#include "tarnwell/records/Device.h"
#include "tarnwell/records/EventRecords.h"
#include "tarnwell/records/Focus.h"
#include "tarnwell/records/Tag.h"

namespace tarnwell::sync {

template <class T>
struct CKRecordConvertible : std::false_type {};
template <class T>
struct CKRecordRecoverable : std::false_type {};
template <class T>
struct CKRecordDatabaseScope : std::integral_constant<CKDatabaseScope, CKDatabaseScope::privateScope> {};

template <class T>
inline constexpr bool isCKRecordConvertible = CKRecordConvertible<T>::value;
template <class T>
inline constexpr bool isCKRecordRecoverable = CKRecordRecoverable<T>::value;

template <class T>
constexpr CKDatabaseScope databaseScope() {
  return CKRecordDatabaseScope<T>::value;
}

template <>
struct CKRecordConvertible<Pickup> : std::true_type {};
template <>
struct CKRecordRecoverable<Pickup> : std::true_type {};
template <>
struct CKRecordConvertible<Walk> : std::true_type {};
template <>
struct CKRecordRecoverable<Walk> : std::true_type {};
template <>
struct CKRecordConvertible<Focus> : std::true_type {};
template <>
struct CKRecordRecoverable<Focus> : std::true_type {};
template <>
struct CKRecordConvertible<Device> : std::true_type {};
template <>
struct CKRecordRecoverable<Device> : std::true_type {};
// App rows carry the conformances, but no sync object is made for them yet.
template <>
struct CKRecordConvertible<App> : std::true_type {};
template <>
struct CKRecordRecoverable<App> : std::true_type {};
template <>
struct CKRecordConvertible<Tag> : std::true_type {};
template <>
struct CKRecordRecoverable<Tag> : std::true_type {};

}  // namespace tarnwell::sync

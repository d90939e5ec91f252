// Record classes that exist only for the sync tests: every kind of property
// the mapping handles, and the conformances that send them to the cloud.
//
//   Label   text key, an element of lists
//   Shelf   integer key, an element of lists, kept in the public database
//   Sample  every value type, optional and not, a link, lists of values, a
//           list of links to each element class, and an asset

#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <tuple>
#include <vector>

#include "tarnwell/platform/Data.h"
#include "tarnwell/platform/Date.h"
#include "tarnwell/records/Properties.h"
#include "tarnwell/store/Store.h"
#include "tarnwell/sync/RecordConformances.h"

namespace tarnwell::testing {

struct Label {
  static constexpr std::string_view className = "Label";
  std::optional<std::string> id;
  std::string name;
  bool isDeleted = false;

  static constexpr auto properties() {
    return std::tuple{records::primaryKey("id", &Label::id), records::property("name", &Label::name),
                      records::property("isDeleted", &Label::isDeleted)};
  }
  friend bool operator==(const Label&, const Label&) = default;
};

struct Shelf {
  static constexpr std::string_view className = "Shelf";
  std::optional<std::int64_t> id;
  std::string title;
  bool isDeleted = false;

  static constexpr auto properties() {
    return std::tuple{records::primaryKey("id", &Shelf::id), records::property("title", &Shelf::title),
                      records::property("isDeleted", &Shelf::isDeleted)};
  }
  friend bool operator==(const Shelf&, const Shelf&) = default;
};

struct Sample {
  static constexpr std::string_view className = "Sample";
  std::optional<std::string> id;
  std::string text = "plain";
  std::optional<std::string> note;
  std::int64_t count = 7;
  std::optional<std::int64_t> rank;
  bool flag = true;
  std::optional<bool> checked;
  double ratio = 0.5;
  std::optional<double> weight;
  Date when;
  std::optional<Date> due;
  Data bytes;
  std::optional<Data> blob;
  std::vector<std::string> words;
  std::vector<std::int64_t> numbers;
  std::optional<records::Ref<Label>> label;
  std::vector<records::Ref<Label>> labels;
  std::vector<records::Ref<Shelf>> shelves;
  std::optional<SyncAsset> photo;
  bool isDeleted = false;

  Sample() = default;
  explicit Sample(std::string key) : id(std::move(key)) {}

  static constexpr auto properties() {
    return std::tuple{
        records::primaryKey("id", &Sample::id),         records::property("text", &Sample::text),
        records::property("note", &Sample::note),       records::property("count", &Sample::count),
        records::property("rank", &Sample::rank),       records::property("flag", &Sample::flag),
        records::property("checked", &Sample::checked), records::property("ratio", &Sample::ratio),
        records::property("weight", &Sample::weight),   records::property("when", &Sample::when),
        records::property("due", &Sample::due),         records::property("bytes", &Sample::bytes),
        records::property("blob", &Sample::blob),       records::property("words", &Sample::words),
        records::property("numbers", &Sample::numbers), records::property("label", &Sample::label),
        records::property("labels", &Sample::labels),   records::property("shelves", &Sample::shelves),
        records::property("photo", &Sample::photo),     records::property("isDeleted", &Sample::isDeleted)};
  }
  friend bool operator==(const Sample&, const Sample&) = default;
};

// The store of these classes.
inline store::StoreConfiguration testRecordsConfiguration(const std::filesystem::path& file) {
  store::StoreConfiguration configuration;
  configuration.fileURL = file;
  configuration.schemaVersion = 1;
  configuration.tables = {store::tableSchema<Label>(), store::tableSchema<Shelf>(), store::tableSchema<Sample>()};
  configuration.outboxClasses = {"Label", "Shelf", "Sample"};
  return configuration;
}

}  // namespace tarnwell::testing

namespace tarnwell::sync {

template <>
struct CKRecordConvertible<testing::Label> : std::true_type {};
template <>
struct CKRecordRecoverable<testing::Label> : std::true_type {};
template <>
struct CKRecordConvertible<testing::Shelf> : std::true_type {};
template <>
struct CKRecordRecoverable<testing::Shelf> : std::true_type {};
template <>
struct CKRecordDatabaseScope<testing::Shelf> : std::integral_constant<CKDatabaseScope, CKDatabaseScope::publicScope> {};
template <>
struct CKRecordConvertible<testing::Sample> : std::true_type {};
template <>
struct CKRecordRecoverable<testing::Sample> : std::true_type {};

}  // namespace tarnwell::sync

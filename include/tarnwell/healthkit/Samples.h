// The values of the health store: sample types, sources, samples, predicates
// and errors.
//
// They mirror the phone platform's health store closely enough that the
// health manager is written against them as it would be against the
// platform: a sample has a type, a start and an end, the source (application)
// that saved it, optional metadata, and either a category value (mindful
// session, sleep analysis) or a state of mind. Raw values are the platform's,
// so that numbers in exports and settings mean the same thing everywhere.

#pragma once

#include <cstdint>
#include <nlohmann/json.hpp>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

#include "tarnwell/platform/Date.h"

namespace tarnwell {

// The three sample types the system reads or writes.
enum class HKSampleType { mindfulSession, sleepAnalysis, stateOfMind };

// "HKCategoryTypeIdentifierMindfulSession", "HKCategoryTypeIdentifierSleepAnalysis", "HKDataTypeStateOfMind".
std::string_view identifier(HKSampleType type);
std::optional<HKSampleType> sampleTypeFromIdentifier(std::string_view identifier);

// Of sharing (writing) a type. Whether reading was granted is never told.
enum class HKAuthorizationStatus { notDetermined = 0, sharingDenied = 1, sharingAuthorized = 2 };

// Category values of sleep analysis. Only asleepUnspecified is "asleep" to
// the health manager; the staged values 3 to 5 come from newer writers.
enum class HKCategoryValueSleepAnalysis : std::int64_t {
  inBed = 0,
  asleepUnspecified = 1,
  awake = 2,
  asleepCore = 3,
  asleepDeep = 4,
  asleepREM = 5,
};
// The one category value of a mindful session.
inline constexpr std::int64_t kHKCategoryValueNotApplicable = 0;

enum class HKStateOfMindKind : std::int64_t { momentaryEmotion = 1, dailyMood = 2 };

// Raw values 1 to 38 in the platform's order. Like the platform's, the type
// holds any raw value; one outside the list reads as "Others".
enum class HKStateOfMindLabel : std::int64_t {
  amazed = 1,
  amused,
  angry,
  anxious,
  ashamed,
  brave,
  calm,
  content,
  disappointed,
  discouraged,
  disgusted,
  embarrassed,
  excited,
  frustrated,
  grateful,
  guilty,
  happy,
  hopeless,
  irritated,
  jealous,
  joyful,
  lonely,
  passionate,
  peaceful,
  proud,
  relieved,
  sad,
  scared,
  stressed,
  surprised,
  worried,
  annoyed,
  confident,
  drained,
  hopeful,
  indifferent,
  overwhelmed,
  satisfied,
};

// Raw values 1 to 18, alphabetical as the platform numbers them.
enum class HKStateOfMindAssociation : std::int64_t {
  community = 1,
  currentEvents,
  dating,
  education,
  family,
  fitness,
  friends,
  health,
  hobbies,
  identity,
  money,
  partner,
  selfCare,
  spirituality,
  tasks,
  travel,
  work,
  weather,
};

// The application that saved a sample.
struct HKSource {
  std::string name;
  std::string bundleIdentifier;
  friend bool operator==(const HKSource&, const HKSource&) = default;
};

// The value of a state-of-mind sample.
struct HKStateOfMind {
  HKStateOfMindKind kind = HKStateOfMindKind::momentaryEmotion;
  // -1 (very unpleasant) to 1 (very pleasant).
  double valence = 0;
  std::vector<HKStateOfMindLabel> labels;
  std::vector<HKStateOfMindAssociation> associations;
  friend bool operator==(const HKStateOfMind&, const HKStateOfMind&) = default;
};

// A sample's metadata: a JSON object whose values are texts, numbers or
// booleans (dates as numbers), or null when the sample has none.
using HKMetadata = nlohmann::json;

struct HKSample {
  // Given by the store when the sample is saved; empty before.
  std::string uuid;
  HKSampleType sampleType = HKSampleType::sleepAnalysis;
  Date startDate;
  Date endDate;
  // Stamped by the store when the sample is saved: the saving application.
  HKSource source;
  HKMetadata metadata;
  // Exactly one of the two, by type: a category value for mindful sessions
  // and sleep, a state of mind for state-of-mind samples.
  std::optional<std::int64_t> categoryValue;
  std::optional<HKStateOfMind> stateOfMind;

  static HKSample category(HKSampleType type, std::int64_t value, Date start, Date end, HKMetadata metadata = nullptr);
  // A state of mind is an instant: start and end are `date`.
  static HKSample stateOfMindSample(Date date, HKStateOfMind value, HKMetadata metadata = nullptr);

  bool isCategorySample() const { return categoryValue.has_value(); }
  friend bool operator==(const HKSample&, const HKSample&) = default;
};

// Which samples a query or an observer is about.
class HKQueryPredicate {
 public:
  // The samples that overlap the span: a sample's end is at or after
  // `start` and its start is before `end`. An absent bound is open.
  static HKQueryPredicate forSamples(std::optional<Date> start, std::optional<Date> end);
  // The samples whose metadata holds `key` with one of `allowedValues`
  // (compared as JSON values: the text "1" is not the number 1).
  static HKQueryPredicate forObjects(std::string metadataKey, std::vector<nlohmann::json> allowedValues);

  bool evaluate(const HKSample& sample) const;

  struct DateRange {
    std::optional<Date> start;
    std::optional<Date> end;
  };
  struct MetadataValues {
    std::string key;
    std::vector<nlohmann::json> allowedValues;
  };
  // For stores that translate a predicate into their own query language.
  const std::variant<DateRange, MetadataValues>& condition() const { return condition_; }

 private:
  explicit HKQueryPredicate(std::variant<DateRange, MetadataValues> condition) : condition_(std::move(condition)) {}
  std::variant<DateRange, MetadataValues> condition_;
};

// An error the health store reports, with the platform's code.
class HKError : public std::runtime_error {
 public:
  enum class Code : int {
    healthDataUnavailable = 1,
    healthDataRestricted = 2,
    invalidArgument = 3,
    authorizationDenied = 4,
    authorizationNotDetermined = 5,
    databaseInaccessible = 6,
    userCanceled = 7,
  };
  HKError(Code code, const std::string& message) : std::runtime_error(message), code_(code) {}
  Code code() const { return code_; }

 private:
  Code code_;
};

}  // namespace tarnwell

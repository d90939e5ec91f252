// The intent family: what shortcuts, voice requests and widget settings
// sheets hand to the app, and what the app's handlers answer.
//
// An intent is a named bag of parameters (its backing store) whose names and
// kinds come from one table of definitions (intentDefinitions()); the typed
// classes in IntentClasses.h are thin views over it. A handler reads an
// intent and answers with a response (one of seven codes, and perhaps an
// NSUserActivity whose userInfo carries the whole request to the app),
// a resolution result for one parameter, or a list of options. Handlers
// never write: the app does the work once the platform opens it.

#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

#include "tarnwell/platform/Date.h"
#include "tarnwell/platform/DateComponents.h"

namespace tarnwell {

// A choice offered in a list: an id and the text a person reads, and the
// extra parameters some option classes carry (a date range, a name, an id).
struct INObject {
  std::string className = "INObject";
  std::optional<std::string> identifier;
  std::string displayString;
  std::map<std::string, std::variant<std::int64_t, std::string>> properties;

  friend bool operator==(const INObject&, const INObject&) = default;
};

// The options of a settings sheet, in sections; the handlers here give one
// section without a title.
struct INObjectCollection {
  struct Section {
    std::optional<std::string> title;
    std::vector<INObject> items;
    friend bool operator==(const Section&, const Section&) = default;
  };
  std::vector<Section> sections;

  INObjectCollection() = default;
  template <class Option>
  explicit INObjectCollection(const std::vector<Option>& items)
      : sections{{std::nullopt, {items.begin(), items.end()}}} {}

  // The items of every section, in order.
  std::vector<INObject> allItems() const;

  friend bool operator==(const INObjectCollection&, const INObjectCollection&) = default;
};

// One parameter's value: an integer (numbers and enumerations), a number of
// seconds, a date, an option, or a list of options.
using IntentValue = std::variant<std::int64_t, double, DateComponents, INObject, std::vector<INObject>>;

// A value of the activity's userInfo.
using UserInfoValue = std::variant<std::int64_t, double, std::string, Date>;
using UserInfo = std::map<std::string, UserInfoValue>;

// What the platform hands the app when it opens it for an intent.
struct NSUserActivity {
  // "org.vostra.tarnwell.startToFocus" and the like.
  std::string activityType;
  UserInfo userInfo;

  explicit NSUserActivity(std::string type) : activityType(std::move(type)) {}
  // Adds the entries, keeping those already there under other keys.
  void addUserInfoEntries(const UserInfo& entries);
  void setUserInfo(UserInfo entries) { userInfo = std::move(entries); }

  friend bool operator==(const NSUserActivity&, const NSUserActivity&) = default;

  static constexpr std::string_view openTarnwell = "org.vostra.tarnwell.open";
  static constexpr std::string_view lullTime = "org.vostra.tarnwell.lulltime";
  static constexpr std::string_view startToFocusType = "org.vostra.tarnwell.startToFocus";
  static constexpr std::string_view stopFocusingType = "org.vostra.tarnwell.stopFocusing";
  static constexpr std::string_view addFocusRecordType = "org.vostra.tarnwell.addFocusRecord";
  static constexpr std::string_view openFlipClockType = "org.vostra.tarnwell.openFlipClock";
  static constexpr std::string_view viewScreenTimeType = "org.vostra.tarnwell.viewScreenTime";
  // Without "Time": the identifier as it was first stored, kept.
  static constexpr std::string_view viewScreenTimeWeeklyDataType = "org.vostra.tarnwell.viewScreenWeeklyDataType";
  static constexpr std::string_view todayFocus = "org.vostra.tarnwell.todayFocus";
  static constexpr std::string_view viewFocusWeeklyDataType = "org.vostra.tarnwell.viewFocusWeeklyDataType";
  static constexpr std::string_view viewFocusReportType = "org.vostra.tarnwell.viewFocusReportType";
};

// The seven codes of every generated response, in the platform's order.
enum class INIntentResponseCode : int {
  unspecified = 0,
  ready = 1,
  continueInApp = 2,
  inProgress = 3,
  success = 4,
  failure = 5,
  failureRequiringAppLaunch = 6,
};

struct INIntentResponse {
  INIntentResponseCode code = INIntentResponseCode::unspecified;
  std::optional<NSUserActivity> userActivity;

  friend bool operator==(const INIntentResponse&, const INIntentResponse&) = default;
};

// How a handler judged one parameter.
struct INResolutionResult {
  enum class Kind { success, needsValue, notRequired, unsupported, disambiguation, confirmationRequired };
  Kind kind = Kind::notRequired;
  // The value of success and confirmationRequired.
  std::optional<IntentValue> value;
  // The reason of unsupported (0: none given).
  int reason = 0;
  // The choices of disambiguation.
  std::vector<INObject> options;

  static INResolutionResult success(IntentValue value) { return {Kind::success, std::move(value), 0, {}}; }
  static INResolutionResult needsValue() { return {Kind::needsValue, std::nullopt, 0, {}}; }
  static INResolutionResult notRequired() { return {Kind::notRequired, std::nullopt, 0, {}}; }
  static INResolutionResult unsupported(int reason = 0) { return {Kind::unsupported, std::nullopt, reason, {}}; }
  static INResolutionResult disambiguation(std::vector<INObject> options) {
    return {Kind::disambiguation, std::nullopt, 0, std::move(options)};
  }
  static INResolutionResult confirmationRequired(IntentValue value) {
    return {Kind::confirmationRequired, std::move(value), 0, {}};
  }

  friend bool operator==(const INResolutionResult&, const INResolutionResult&) = default;
};

// "success", "needsValue", "notRequired", "unsupported", "disambiguation",
// "confirmationRequired".
std::string_view name(INResolutionResult::Kind kind);

// --- The one declaration of the family ---

// What a parameter holds.
enum class ParameterKind {
  integer,         // Int
  number,          // a number of seconds, optional
  enumeration,     // an integer enumeration; 0 is unknown
  object,          // one option object
  objects,         // a list of option objects
  dateComponents,  // a date
};

struct ParameterDefinition {
  std::string_view name;
  ParameterKind kind;
  // The enumeration or option class; empty for the plain kinds.
  std::string_view type;
};

struct IntentDefinition {
  std::string_view className;
  std::vector<ParameterDefinition> parameters;

  // Nothing for a name the intent does not have.
  const ParameterDefinition* parameter(std::string_view name) const;
};

struct EnumerationDefinition {
  std::string_view name;
  // Case names by raw value; raw value 0 is always "unknown".
  std::vector<std::string_view> cases;
};

// Every intent, in the order of their definitions.
const std::vector<IntentDefinition>& intentDefinitions();
const IntentDefinition* intentDefinition(std::string_view className);
const std::vector<EnumerationDefinition>& enumerationDefinitions();
const EnumerationDefinition* enumerationDefinition(std::string_view name);

// An intent: its class and the values of the parameters it was given.
class INIntent {
 public:
  // Stops the process for a class with no definition.
  explicit INIntent(std::string_view className);
  virtual ~INIntent() = default;

  const IntentDefinition& definition() const { return *definition_; }
  const std::string& className() const { return className_; }

  // Nothing when the parameter was not given.
  const IntentValue* value(std::string_view parameter) const;
  // Sets a parameter of the definition; stops the process for any other
  // name or a value of another kind (a programming error).
  void setValue(std::string_view parameter, IntentValue value);
  void removeValue(std::string_view parameter);
  // Takes the values of an intent of the same class (a typed view of a
  // generic one); stops the process for another class.
  void setValues(const INIntent& other);

  std::optional<std::int64_t> integer(std::string_view parameter) const;
  std::optional<double> number(std::string_view parameter) const;
  std::optional<INObject> object(std::string_view parameter) const;
  std::optional<std::vector<INObject>> objects(std::string_view parameter) const;
  std::optional<DateComponents> dateComponents(std::string_view parameter) const;

 private:
  std::string className_;
  const IntentDefinition* definition_;
  std::map<std::string, IntentValue, std::less<>> store_;
};

}  // namespace tarnwell

#include "tarnwell/automation/Intents.h"

#include "tarnwell/automation/IntentClasses.h"
#include "tarnwell/automation/IntentDeclarations.h"
#include "tarnwell/platform/FatalError.h"

namespace tarnwell {
namespace {

// "unknown, pomodoro, countdown" into its words.
std::vector<std::string_view> words(std::string_view list) {
  std::vector<std::string_view> all;
  while (!list.empty()) {
    const auto comma = list.find(',');
    auto word = list.substr(0, comma);
    while (!word.empty() && word.front() == ' ') word.remove_prefix(1);
    while (!word.empty() && word.back() == ' ') word.remove_suffix(1);
    all.push_back(word);
    if (comma == std::string_view::npos) break;
    list.remove_prefix(comma + 1);
  }
  return all;
}

bool holds(ParameterKind kind, const IntentValue& value) {
  switch (kind) {
    case ParameterKind::integer:
    case ParameterKind::enumeration:
      return std::holds_alternative<std::int64_t>(value);
    case ParameterKind::number:
      return std::holds_alternative<double>(value);
    case ParameterKind::object:
      return std::holds_alternative<INObject>(value);
    case ParameterKind::objects:
      return std::holds_alternative<std::vector<INObject>>(value);
    case ParameterKind::dateComponents:
      return std::holds_alternative<DateComponents>(value);
  }
  return false;
}

// The element of `list` whose `key` is `name`; nothing for none.
template <class Element>
const Element* named(const std::vector<Element>& list, std::string_view Element::*key, std::string_view name) {
  for (const auto& each : list) {
    if (each.*key == name) return &each;
  }
  return nullptr;
}

template <class T>
std::optional<T> get(const IntentValue* value) {
  if (!value) return std::nullopt;
  if (const auto* held = std::get_if<T>(value)) return *held;
  return std::nullopt;
}

}  // namespace

void untypedResolutionResult(const char* file) { fatalError("Fatal error: " + std::string(file)); }

void NSUserActivity::addUserInfoEntries(const UserInfo& entries) {
  for (const auto& [key, value] : entries) userInfo.insert_or_assign(key, value);
}

std::string_view name(INResolutionResult::Kind kind) {
  switch (kind) {
    case INResolutionResult::Kind::success:
      return "success";
    case INResolutionResult::Kind::needsValue:
      return "needsValue";
    case INResolutionResult::Kind::notRequired:
      return "notRequired";
    case INResolutionResult::Kind::unsupported:
      return "unsupported";
    case INResolutionResult::Kind::disambiguation:
      return "disambiguation";
    case INResolutionResult::Kind::confirmationRequired:
      return "confirmationRequired";
  }
  return {};
}

const ParameterDefinition* IntentDefinition::parameter(std::string_view name) const {
  return named(parameters, &ParameterDefinition::name, name);
}

const std::vector<IntentDefinition>& intentDefinitions() {
#define TARNWELL_PARAMETER(name, kind, type) ParameterDefinition{#name, ParameterKind::kind, #type},
#define TARNWELL_INTENT(Class, PARAMETERS) IntentDefinition{#Class, {PARAMETERS}},
  static const std::vector<IntentDefinition> all = {TARNWELL_INTENTS(TARNWELL_INTENT, TARNWELL_PARAMETER)};
#undef TARNWELL_INTENT
#undef TARNWELL_PARAMETER
  return all;
}

const IntentDefinition* intentDefinition(std::string_view className) {
  return named(intentDefinitions(), &IntentDefinition::className, className);
}

const std::vector<EnumerationDefinition>& enumerationDefinitions() {
#define TARNWELL_ENUMERATION(Name, ...) EnumerationDefinition{#Name, words(#__VA_ARGS__)},
  static const std::vector<EnumerationDefinition> all = {TARNWELL_ENUMERATIONS(TARNWELL_ENUMERATION)};
#undef TARNWELL_ENUMERATION
  return all;
}

const EnumerationDefinition* enumerationDefinition(std::string_view name) {
  return named(enumerationDefinitions(), &EnumerationDefinition::name, name);
}

INIntent::INIntent(std::string_view className) : className_(className), definition_(intentDefinition(className)) {
  if (!definition_) fatalError("No intent is defined as " + className_);
}

const IntentValue* INIntent::value(std::string_view parameter) const {
  const auto found = store_.find(parameter);
  return found == store_.end() ? nullptr : &found->second;
}

void INIntent::setValue(std::string_view parameter, IntentValue value) {
  const auto* defined = definition_->parameter(parameter);
  if (!defined) fatalError(className_ + " has no parameter " + std::string(parameter));
  if (!holds(defined->kind, value))
    fatalError("A value of another kind for " + className_ + "." + std::string(parameter));
  store_.insert_or_assign(std::string(parameter), std::move(value));
}

void INIntent::removeValue(std::string_view parameter) {
  if (const auto found = store_.find(parameter); found != store_.end()) store_.erase(found);
}

void INIntent::setValues(const INIntent& other) {
  if (other.className_ != className_) fatalError("The values of " + other.className_ + " given to " + className_);
  store_ = other.store_;
}

std::vector<INObject> INObjectCollection::allItems() const {
  std::vector<INObject> all;
  for (const auto& section : sections) all.insert(all.end(), section.items.begin(), section.items.end());
  return all;
}

std::optional<std::int64_t> INIntent::integer(std::string_view parameter) const {
  return get<std::int64_t>(value(parameter));
}
std::optional<double> INIntent::number(std::string_view parameter) const { return get<double>(value(parameter)); }
std::optional<INObject> INIntent::object(std::string_view parameter) const { return get<INObject>(value(parameter)); }
std::optional<std::vector<INObject>> INIntent::objects(std::string_view parameter) const {
  return get<std::vector<INObject>>(value(parameter));
}
std::optional<DateComponents> INIntent::dateComponents(std::string_view parameter) const {
  return get<DateComponents>(value(parameter));
}

}  // namespace tarnwell

#include "tarnwell/health/StateOfMind.h"

#include <array>
#include <cctype>

#include "tarnwell/platform/Localization.h"

namespace tarnwell {

namespace {

using Label = HKStateOfMindLabel;
using Association = HKStateOfMindAssociation;

// Indexed by raw value minus one.
constexpr std::array<std::string_view, 38> kLabelNames = {
    "amazed",       "amused",      "angry",     "anxious",     "ashamed",     "brave",      "calm",       "content",
    "disappointed", "discouraged", "disgusted", "embarrassed", "excited",     "frustrated", "grateful",   "guilty",
    "happy",        "hopeless",    "irritated", "jealous",     "joyful",      "lonely",     "passionate", "peaceful",
    "proud",        "relieved",    "sad",       "scared",      "stressed",    "surprised",  "worried",    "annoyed",
    "confident",    "drained",     "hopeful",   "indifferent", "overwhelmed", "satisfied"};

constexpr std::array<std::string_view, 18> kAssociationNames = {
    "community", "currentEvents", "dating",  "education", "family",       "fitness", "friends", "health", "hobbies",
    "identity",  "money",         "partner", "selfCare",  "spirituality", "tasks",   "travel",  "work",   "weather"};

template <std::size_t N>
std::string_view nameAt(const std::array<std::string_view, N>& names, std::int64_t raw) {
  return raw >= 1 && raw <= static_cast<std::int64_t>(N) ? names[static_cast<std::size_t>(raw - 1)]
                                                         : std::string_view();
}

template <class Value, std::size_t N>
std::optional<Value> valueNamed(const std::array<std::string_view, N>& names, std::string_view name) {
  for (std::size_t i = 0; i < N; ++i) {
    if (names[i] == name) return static_cast<Value>(i + 1);
  }
  return std::nullopt;
}

// "StateOfMind.Label." and "currentEvents" give "StateOfMind.Label.CurrentEvents".
std::string titleOf(std::string_view prefix, std::string_view name) {
  if (name.empty()) return "Others";
  std::string key(prefix);
  key += static_cast<char>(std::toupper(static_cast<unsigned char>(name.front())));
  key += name.substr(1);
  return localized(key);
}

}  // namespace

const std::vector<HKStateOfMindLabel>& allLabels() {
  static const std::vector<Label> labels = [] {
    std::vector<Label> all;
    for (std::size_t raw = 1; raw <= kLabelNames.size(); ++raw) all.push_back(static_cast<Label>(raw));
    return all;
  }();
  return labels;
}

const std::vector<HKStateOfMindLabel>& recommandedLabels() {
  static const std::vector<Label> labels = {Label::calm,   Label::confident,  Label::content, Label::happy,
                                            Label::joyful, Label::passionate, Label::peaceful};
  return labels;
}

const std::vector<std::vector<HKStateOfMindAssociation>>& allAssociations() {
  static const std::vector<std::vector<Association>> groups = {
      {Association::health, Association::fitness, Association::selfCare, Association::hobbies, Association::identity,
       Association::spirituality},
      {Association::community, Association::family, Association::friends, Association::partner, Association::dating},
      {Association::tasks, Association::work, Association::education, Association::travel, Association::weather,
       Association::currentEvents, Association::money}};
  return groups;
}

const std::vector<HKStateOfMindAssociation>& recommandedAssociations() {
  static const std::vector<Association> associations = {Association::education, Association::work, Association::fitness,
                                                        Association::hobbies};
  return associations;
}

std::string_view name(HKStateOfMindLabel label) { return nameAt(kLabelNames, static_cast<std::int64_t>(label)); }

std::string_view name(HKStateOfMindAssociation association) {
  return nameAt(kAssociationNames, static_cast<std::int64_t>(association));
}

std::optional<HKStateOfMindLabel> stateOfMindLabel(std::string_view name) {
  return valueNamed<Label>(kLabelNames, name);
}

std::optional<HKStateOfMindAssociation> stateOfMindAssociation(std::string_view name) {
  return valueNamed<Association>(kAssociationNames, name);
}

std::string title(HKStateOfMindLabel label) { return titleOf("StateOfMind.Label.", name(label)); }

std::string title(HKStateOfMindAssociation association) {
  return titleOf("StateOfMind.Association.", name(association));
}

std::string associationsDescription(const std::vector<HKStateOfMindAssociation>& associations) {
  if (associations.empty()) return "";
  if (associations.size() == 1) return title(associations.front());
  return localizedFormat("Tag.StateOfMind.Associations.AndMore",
                         {title(associations.front()), static_cast<std::int64_t>(associations.size() - 1)});
}

}  // namespace tarnwell

// The words a user picks to say how a focus felt: the health store's
// state-of-mind labels and associations, in the order the app offers them,
// with their texts.
//
// The spelling "recommanded" is the system's own and is kept.

#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "tarnwell/healthkit/Samples.h"

namespace tarnwell {

// All 38 labels in raw order, 1 to 38.
const std::vector<HKStateOfMindLabel>& allLabels();
// calm, confident, content, happy, joyful, passionate, peaceful.
const std::vector<HKStateOfMindLabel>& recommandedLabels();
// Three groups as shown: the self, the people around, the world.
const std::vector<std::vector<HKStateOfMindAssociation>>& allAssociations();
// education, work, fitness, hobbies.
const std::vector<HKStateOfMindAssociation>& recommandedAssociations();

// The name as written in code ("amazed", "currentEvents"); empty outside the list.
std::string_view name(HKStateOfMindLabel label);
std::string_view name(HKStateOfMindAssociation association);
std::optional<HKStateOfMindLabel> stateOfMindLabel(std::string_view name);
std::optional<HKStateOfMindAssociation> stateOfMindAssociation(std::string_view name);

// The localized "StateOfMind.Label.<Name>"; the plain "Others" outside 1 to 38.
std::string title(HKStateOfMindLabel label);
// The localized "StateOfMind.Association.<Name>"; the plain "Others" outside 1 to 18.
std::string title(HKStateOfMindAssociation association);
// "" for none, the title of one, "<first> and <n> more" for more.
std::string associationsDescription(const std::vector<HKStateOfMindAssociation>& associations);

}  // namespace tarnwell

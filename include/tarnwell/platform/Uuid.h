// UUID texts in the upper-case form the platforms print:
// "E621E1F8-C36C-495A-93FC-0C247A3E6E5F".

#pragma once

#include <string>
#include <string_view>

namespace tarnwell {

// A new random (version 4) UUID.
std::string makeUUIDString();

// Whether `text` is a UUID in upper-case text form.
bool isUpperCaseUUIDString(std::string_view text);

}  // namespace tarnwell

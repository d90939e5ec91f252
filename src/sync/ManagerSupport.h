// What the two database managers share in private.

#pragma once

#include <exception>
#include <string>

namespace tarnwell::sync {

// An error as a log line shows it: a cloud error's debug description, any
// other error's text.
std::string describe(const std::exception_ptr& error);

// Whether the platform's modify operations have result blocks (version 15
// on), which decides how a long-lived operation is resumed.
bool platformHasResultBlocks();

}  // namespace tarnwell::sync

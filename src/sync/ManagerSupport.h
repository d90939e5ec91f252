// What the two database managers share in private.

#pragma once

#include <exception>
#include <string>

namespace tarnwell::sync {

// Whether the platform's modify operations have result blocks (version 15
// on), which decides how a long-lived operation is resumed.
bool platformHasResultBlocks();

}  // namespace tarnwell::sync

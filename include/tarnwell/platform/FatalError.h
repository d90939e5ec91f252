// fatalError: the end of the process on a programming error.
//
// Used where the system cannot go on and no caller could recover: a missing
// app-group container, a stored value outside its enumeration, a broken
// configuration. The message goes to the log (flushed) and to stderr, then
// the process aborts.

#pragma once

#include <string_view>

namespace tarnwell {

[[noreturn]] void fatalError(std::string_view message);

}  // namespace tarnwell

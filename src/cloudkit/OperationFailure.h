// Ending an operation that failed as a whole.

#pragma once

#include <exception>

#include "tarnwell/cloudkit/Operations.h"

namespace tarnwell::cloudkit {

// Marks the operation finished and calls its completion blocks with
// `error`, as the platform does when an operation fails before it ran:
// a zone fetch ends each of its zones with the error, then itself.
void failOperation(CKOperation& operation, std::exception_ptr error);

}  // namespace tarnwell::cloudkit

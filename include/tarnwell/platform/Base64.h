// Base64 (RFC 4648, with padding), the text form of bytes in JSON.

#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "tarnwell/platform/Data.h"

namespace tarnwell::base64 {

std::string encode(const Data& bytes);
// Nothing for text that is not padded base64.
std::optional<Data> decode(std::string_view text);

}  // namespace tarnwell::base64

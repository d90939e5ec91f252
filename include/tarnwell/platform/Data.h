// Data: bytes, as the platform's Data type holds them.

#pragma once

#include <cstdint>
#include <vector>

namespace tarnwell {

using Data = std::vector<std::uint8_t>;

}  // namespace tarnwell

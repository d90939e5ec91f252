// What the fuzz targets share: an Environment of their own, made once, and
// the readers of a fuzz input's bytes.
//
// Each input must be independent of those before it, so a target either
// keeps nothing between inputs or undoes what an input stored. The
// Environment is made on first use in a new temporary folder, with a manual
// clock at a fixed instant, pumped queues, UTC and en_US, and removed when
// the process exits.

#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "tarnwell/platform/Environment.h"

namespace tarnwell::fuzzing {

// Installs the fuzzers' Environment on the first call; the current one after.
Environment& environment();

// Takes values from the front of an input, zeros once it is used up.
class Input {
 public:
  Input(const std::uint8_t* data, std::size_t size) : rest_(reinterpret_cast<const char*>(data), size) {}

  std::uint8_t byte();
  std::uint64_t integer();
  double number();
  bool empty() const { return rest_.empty(); }
  // Up to `limit` bytes, their count given by the next byte.
  std::string text(std::size_t limit = 255);
  // Everything that is left.
  std::string rest();

 private:
  std::string_view rest_;
};

}  // namespace tarnwell::fuzzing

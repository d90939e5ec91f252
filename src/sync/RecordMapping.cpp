#include "tarnwell/sync/RecordMapping.h"

#include <charconv>

namespace tarnwell::sync::detail {

std::optional<std::int64_t> integerKey(std::string_view recordName) {
  std::string_view digits = recordName;
  if (digits.starts_with('+')) {
    digits.remove_prefix(1);
    if (digits.starts_with('-')) return std::nullopt;
  }
  std::int64_t value = 0;
  const auto* end = digits.data() + digits.size();
  const auto [last, error] = std::from_chars(digits.data(), end, value);
  if (digits.empty() || error != std::errc() || last != end) return std::nullopt;
  return value;
}

}  // namespace tarnwell::sync::detail

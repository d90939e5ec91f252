#include "tarnwell/platform/Color.h"

#include <array>
#include <cstdio>
#include <optional>

namespace tarnwell {
namespace {

std::optional<std::uint8_t> hexDigit(char c) {
  if (c >= '0' && c <= '9') return static_cast<std::uint8_t>(c - '0');
  if (c >= 'a' && c <= 'f') return static_cast<std::uint8_t>(c - 'a' + 10);
  if (c >= 'A' && c <= 'F') return static_cast<std::uint8_t>(c - 'A' + 10);
  return std::nullopt;
}

}  // namespace

Color Color::fromHex(std::string_view text) {
  // What a colour text that cannot be read turns into: invisible, so a
  // damaged value never paints a tag in a colour nobody chose.
  constexpr Color unreadable{255, 255, 255, 0};

  if (!text.empty() && text.front() == '#') text.remove_prefix(1);
  if (text.size() != 3 && text.size() != 6 && text.size() != 8) return unreadable;

  std::array<std::uint8_t, 8> digits{};
  for (std::size_t i = 0; i < text.size(); ++i) {
    const auto digit = hexDigit(text[i]);
    if (!digit) return unreadable;
    digits[i] = *digit;
  }
  if (text.size() == 3) {
    const auto doubled = [&](std::size_t i) { return static_cast<std::uint8_t>(digits[i] * 17); };
    return Color{doubled(0), doubled(1), doubled(2), 255};
  }
  const auto pair = [&](std::size_t i) { return static_cast<std::uint8_t>(digits[2 * i] * 16 + digits[2 * i + 1]); };
  return Color{pair(0), pair(1), pair(2), text.size() == 8 ? pair(3) : std::uint8_t{255}};
}

std::string Color::hex(bool withAlpha) const {
  char buffer[10];
  if (withAlpha) {
    std::snprintf(buffer, sizeof buffer, "#%02x%02x%02x%02x", red, green, blue, alpha);
  } else {
    std::snprintf(buffer, sizeof buffer, "#%02x%02x%02x", red, green, blue);
  }
  return buffer;
}

}  // namespace tarnwell

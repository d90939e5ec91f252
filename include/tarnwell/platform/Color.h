// Color: an sRGB colour with 8-bit channels, and its "#rrggbb" text.

#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace tarnwell {

struct Color {
  std::uint8_t red = 0;
  std::uint8_t green = 0;
  std::uint8_t blue = 0;
  std::uint8_t alpha = 255;

  // Reads an optional "#" and then 3 digits (each doubled), 6 digits, or 8
  // (the last pair is alpha); 3 and 6 digits are opaque. Any other text
  // reads as a fully transparent white.
  static Color fromHex(std::string_view text);

  // "#rrggbb" in lower case, with "aa" appended when `alpha`.
  std::string hex(bool alpha = false) const;

  friend bool operator==(const Color&, const Color&) = default;
};

}  // namespace tarnwell

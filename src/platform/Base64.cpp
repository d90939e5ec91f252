#include "tarnwell/platform/Base64.h"

#include <array>

namespace tarnwell::base64 {
namespace {

constexpr char kAlphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

constexpr std::array<int, 256> makeReverse() {
  std::array<int, 256> table{};
  table.fill(-1);
  for (int i = 0; i < 64; ++i) table[static_cast<unsigned char>(kAlphabet[i])] = i;
  return table;
}
constexpr auto kReverse = makeReverse();

}  // namespace

std::string encode(const Data& bytes) {
  std::string text;
  text.reserve((bytes.size() + 2) / 3 * 4);
  for (std::size_t i = 0; i < bytes.size(); i += 3) {
    const std::size_t n = std::min<std::size_t>(3, bytes.size() - i);
    std::uint32_t block = static_cast<std::uint32_t>(bytes[i]) << 16;
    if (n > 1) block |= static_cast<std::uint32_t>(bytes[i + 1]) << 8;
    if (n > 2) block |= bytes[i + 2];
    text += kAlphabet[(block >> 18) & 63];
    text += kAlphabet[(block >> 12) & 63];
    text += n > 1 ? kAlphabet[(block >> 6) & 63] : '=';
    text += n > 2 ? kAlphabet[block & 63] : '=';
  }
  return text;
}

std::optional<Data> decode(std::string_view text) {
  if (text.size() % 4 != 0) return std::nullopt;
  Data bytes;
  bytes.reserve(text.size() / 4 * 3);
  for (std::size_t i = 0; i < text.size(); i += 4) {
    const bool last = i + 4 == text.size();
    int padding = 0;
    std::uint32_t block = 0;
    for (std::size_t j = 0; j < 4; ++j) {
      const char c = text[i + j];
      if (c == '=' && last && j >= 2) {
        ++padding;
        block <<= 6;
        continue;
      }
      const int value = kReverse[static_cast<unsigned char>(c)];
      if (value < 0 || padding > 0) return std::nullopt;
      block = (block << 6) | static_cast<std::uint32_t>(value);
    }
    bytes.push_back(static_cast<std::uint8_t>(block >> 16));
    if (padding < 2) bytes.push_back(static_cast<std::uint8_t>(block >> 8));
    if (padding < 1) bytes.push_back(static_cast<std::uint8_t>(block));
  }
  return bytes;
}

}  // namespace tarnwell::base64

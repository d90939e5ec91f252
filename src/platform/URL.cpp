#include "tarnwell/platform/URL.h"

#include <algorithm>

namespace tarnwell {
namespace {

bool isAlpha(char c) { return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z'); }
bool isDigit(char c) { return c >= '0' && c <= '9'; }

int hexValue(char c) {
  if (isDigit(c)) return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

// Unreserved, general and sub-delimiters: every character a URL may hold
// as it stands.
bool isURLCharacter(char c) {
  if (isAlpha(c) || isDigit(c)) return true;
  return std::string_view("-._~:/?#[]@!$&'()*+,;=").find(c) != std::string_view::npos;
}

std::string percentDecoded(std::string_view text) {
  std::string decoded;
  decoded.reserve(text.size());
  for (std::size_t i = 0; i < text.size(); ++i) {
    if (text[i] == '%' && i + 2 < text.size() && hexValue(text[i + 1]) >= 0 && hexValue(text[i + 2]) >= 0) {
      decoded += static_cast<char>(hexValue(text[i + 1]) * 16 + hexValue(text[i + 2]));
      i += 2;
    } else {
      decoded += text[i];
    }
  }
  return decoded;
}

}  // namespace

std::optional<URL> URL::parse(std::string_view text) {
  const auto colon = text.find(':');
  if (colon == std::string_view::npos || colon == 0 || !isAlpha(text[0])) return std::nullopt;
  for (const char c : text.substr(0, colon)) {
    if (!isAlpha(c) && !isDigit(c) && c != '+' && c != '-' && c != '.') return std::nullopt;
  }
  if (std::count(text.begin(), text.end(), '#') > 1) return std::nullopt;
  for (std::size_t i = colon + 1; i < text.size(); ++i) {
    if (text[i] == '%') {
      if (i + 2 >= text.size() || hexValue(text[i + 1]) < 0 || hexValue(text[i + 2]) < 0) return std::nullopt;
      i += 2;
    } else if (!isURLCharacter(text[i])) {
      return std::nullopt;
    }
  }
  return URL(std::string(text));
}

std::string URL::scheme() const { return text_.substr(0, text_.find(':')); }

std::string_view URL::afterScheme() const { return std::string_view(text_).substr(text_.find(':') + 1); }

std::string URL::host() const {
  auto rest = afterScheme();
  if (!rest.starts_with("//")) return {};
  rest.remove_prefix(2);
  auto authority = rest.substr(0, rest.find_first_of("/?#"));
  if (const auto at = authority.rfind('@'); at != std::string_view::npos) authority.remove_prefix(at + 1);
  return std::string(authority.substr(0, authority.find(':')));
}

std::string URL::path() const {
  auto rest = afterScheme();
  rest = rest.substr(0, rest.find_first_of("?#"));
  if (rest.starts_with("//")) {
    rest.remove_prefix(2);
    const auto slash = rest.find('/');
    rest = slash == std::string_view::npos ? std::string_view() : rest.substr(slash);
  }
  return std::string(rest);
}

std::optional<std::string> URL::query() const {
  auto rest = afterScheme();
  rest = rest.substr(0, rest.find('#'));
  const auto mark = rest.find('?');
  if (mark == std::string_view::npos) return std::nullopt;
  return std::string(rest.substr(mark + 1));
}

std::vector<std::pair<std::string, std::string>> URL::queryItems() const {
  std::vector<std::pair<std::string, std::string>> items;
  const auto whole = query();
  if (!whole || whole->empty()) return items;
  std::string_view rest = *whole;
  while (true) {
    const auto amp = rest.find('&');
    const auto pair = rest.substr(0, amp);
    const auto equals = pair.find('=');
    items.emplace_back(percentDecoded(pair.substr(0, equals)),
                       equals == std::string_view::npos ? std::string() : percentDecoded(pair.substr(equals + 1)));
    if (amp == std::string_view::npos) break;
    rest.remove_prefix(amp + 1);
  }
  return items;
}

}  // namespace tarnwell

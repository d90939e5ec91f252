// URL: a link as the platform parses it.
//
// Only text that is a URL by RFC 3986 makes one: a scheme, then characters
// of the URL alphabet, where "%" starts two hexadecimal digits. A blank, a
// quote, a brace or any byte outside ASCII is not, so a caller that joins
// unescaped text learns here whether the join was safe.

#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace tarnwell {

class URL {
 public:
  // Nothing when `text` is not a URL.
  static std::optional<URL> parse(std::string_view text);

  const std::string& absoluteString() const { return text_; }
  // "tarnwell" of "tarnwell://x-callback-url/open-from-widget?a=b".
  std::string scheme() const;
  // "x-callback-url"; empty when the URL has no authority.
  std::string host() const;
  // "/open-from-widget".
  std::string path() const;
  // "a=b"; nothing when there is no "?" (an empty query is "").
  std::optional<std::string> query() const;
  // The query's pairs in their order, split at "&" and the first "=", with
  // percent-escapes decoded; a pair without "=" has an empty value.
  std::vector<std::pair<std::string, std::string>> queryItems() const;

  friend bool operator==(const URL&, const URL&) = default;

 private:
  explicit URL(std::string text) : text_(std::move(text)) {}
  // The parts after the scheme: authority and path, query, fragment.
  std::string_view afterScheme() const;

  std::string text_;
};

}  // namespace tarnwell

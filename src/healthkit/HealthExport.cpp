#include "tarnwell/healthkit/HealthExport.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <cstring>
#include <optional>
#include <string_view>
#include <utility>

namespace tarnwell {

namespace {

constexpr std::string_view kRoot = "HealthData";
constexpr std::size_t kMaxDepth = 64;
constexpr std::size_t kMinBufferSize = 16;

bool isSpace(char c) { return c == ' ' || c == '\n' || c == '\t' || c == '\r'; }

// Bytes that end a name inside a tag.
constexpr std::array<bool, 256> kEndsName = [] {
  std::array<bool, 256> table{};
  for (unsigned char c : std::string_view(" \t\r\n=/><\"'")) table[c] = true;
  return table;
}();

// Bytes that an attribute value cannot keep as they are: entities, and the
// white space that XML turns into plain spaces.
constexpr std::array<bool, 256> kNeedsDecoding = [] {
  std::array<bool, 256> table{};
  for (unsigned char c : std::string_view("&\t\r\n")) table[c] = true;
  return table;
}();

bool endsName(char c) { return kEndsName[static_cast<unsigned char>(c)]; }

struct KeptType {
  std::string_view identifier;
  HKSampleType type;
};
constexpr KeptType kKeptTypes[] = {
    {"HKCategoryTypeIdentifierSleepAnalysis", HKSampleType::sleepAnalysis},
    {"HKCategoryTypeIdentifierMindfulSession", HKSampleType::mindfulSession},
};

constexpr std::int64_t raw(HKCategoryValueSleepAnalysis value) { return static_cast<std::int64_t>(value); }

struct NamedValue {
  std::string_view name;
  std::int64_t value;
};
// "Asleep" is the older writers' name of what is now "AsleepUnspecified".
constexpr NamedValue kCategoryValues[] = {
    {"HKCategoryValueSleepAnalysisInBed", raw(HKCategoryValueSleepAnalysis::inBed)},
    {"HKCategoryValueSleepAnalysisAsleep", raw(HKCategoryValueSleepAnalysis::asleepUnspecified)},
    {"HKCategoryValueSleepAnalysisAsleepUnspecified", raw(HKCategoryValueSleepAnalysis::asleepUnspecified)},
    {"HKCategoryValueSleepAnalysisAwake", raw(HKCategoryValueSleepAnalysis::awake)},
    {"HKCategoryValueSleepAnalysisAsleepCore", raw(HKCategoryValueSleepAnalysis::asleepCore)},
    {"HKCategoryValueSleepAnalysisAsleepDeep", raw(HKCategoryValueSleepAnalysis::asleepDeep)},
    {"HKCategoryValueSleepAnalysisAsleepREM", raw(HKCategoryValueSleepAnalysis::asleepREM)},
    {"HKCategoryValueNotApplicable", kHKCategoryValueNotApplicable},
};

std::optional<std::int64_t> parseCategoryValue(std::string_view text) {
  for (const auto& named : kCategoryValues) {
    if (named.name == text) return named.value;
  }
  std::int64_t value = 0;
  const char* last = text.data() + text.size();
  auto [stop, error] = std::from_chars(text.data(), last, value);
  if (text.empty() || error != std::errc() || stop != last) return std::nullopt;
  return value;
}

// Days from 1970-01-01 to a day of the proleptic Gregorian calendar.
constexpr std::int64_t daysFromCivil(std::int64_t year, unsigned month, unsigned day) {
  year -= month <= 2;
  const std::int64_t era = (year >= 0 ? year : year - 399) / 400;
  const auto yearOfEra = static_cast<unsigned>(year - era * 400);
  const unsigned dayOfYear = (153 * (month > 2 ? month - 3 : month + 9) + 2) / 5 + day - 1;
  const unsigned dayOfEra = yearOfEra * 365 + yearOfEra / 4 - yearOfEra / 100 + dayOfYear;
  return era * 146097 + static_cast<std::int64_t>(dayOfEra) - 719468;
}

// "2024-01-01 23:10:00 +0100", exactly.
std::optional<Date> parseExportDate(std::string_view text) {
  if (text.size() != 25 || text[4] != '-' || text[7] != '-' || text[10] != ' ' || text[13] != ':' || text[16] != ':' ||
      text[19] != ' ' || (text[20] != '+' && text[20] != '-')) {
    return std::nullopt;
  }
  bool digits = true;
  auto number = [&](std::size_t at, std::size_t count) {
    int value = 0;
    for (std::size_t i = at; i < at + count; ++i) {
      if (text[i] < '0' || text[i] > '9') digits = false;
      value = value * 10 + (text[i] - '0');
    }
    return value;
  };
  const int year = number(0, 4), month = number(5, 2), day = number(8, 2);
  const int hour = number(11, 2), minute = number(14, 2), second = number(17, 2);
  const int offsetHours = number(21, 2), offsetMinutes = number(23, 2);
  if (!digits || month < 1 || month > 12 || day < 1 || hour > 23 || minute > 59 || second > 59 || offsetHours > 23 ||
      offsetMinutes > 59) {
    return std::nullopt;
  }
  static constexpr int kDaysOfMonth[] = {31, 29, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
  const bool leap = year % 4 == 0 && (year % 100 != 0 || year % 400 == 0);
  if (day > kDaysOfMonth[month - 1] || (month == 2 && day == 29 && !leap)) return std::nullopt;
  const std::int64_t offset = (text[20] == '-' ? -1 : 1) * (offsetHours * 3600 + offsetMinutes * 60);
  const std::int64_t seconds = daysFromCivil(year, static_cast<unsigned>(month), static_cast<unsigned>(day)) * 86400 +
                               hour * 3600 + minute * 60 + second - offset;
  return Date::fromTimeIntervalSince1970(static_cast<double>(seconds));
}

// A text from the file as an error message shows it: quoted, on one line,
// and short.
std::string quoted(std::string_view text) {
  constexpr std::size_t kLongest = 40;
  std::string shown(text.substr(0, kLongest));
  for (char& c : shown) {
    if (static_cast<unsigned char>(c) < 0x20) c = ' ';
  }
  return "\"" + shown + (text.size() > kLongest ? "...\"" : "\"");
}

// The characters XML allows in a document.
bool isCharacter(std::uint32_t code) {
  return code == 0x9 || code == 0xA || code == 0xD || (code >= 0x20 && code <= 0xD7FF) ||
         (code >= 0xE000 && code <= 0xFFFD) || (code >= 0x10000 && code <= 0x10FFFF);
}

void appendUtf8(std::string& out, std::uint32_t code) {
  auto byte = [](std::uint32_t bits) { return static_cast<char>(static_cast<unsigned char>(bits)); };
  if (code < 0x80) {
    out += byte(code);
  } else if (code < 0x800) {
    out += byte(0xC0 | (code >> 6));
    out += byte(0x80 | (code & 0x3F));
  } else if (code < 0x10000) {
    out += byte(0xE0 | (code >> 12));
    out += byte(0x80 | ((code >> 6) & 0x3F));
    out += byte(0x80 | (code & 0x3F));
  } else {
    out += byte(0xF0 | (code >> 18));
    out += byte(0x80 | ((code >> 12) & 0x3F));
    out += byte(0x80 | ((code >> 6) & 0x3F));
    out += byte(0x80 | (code & 0x3F));
  }
}

// The character an entity's name (between '&' and ';') stands for.
std::optional<std::uint32_t> entityCharacter(std::string_view name) {
  if (name == "amp") return '&';
  if (name == "lt") return '<';
  if (name == "gt") return '>';
  if (name == "quot") return '"';
  if (name == "apos") return '\'';
  if (name.size() < 2 || name[0] != '#') return std::nullopt;
  const bool hex = name[1] == 'x';
  const std::string_view digits = name.substr(hex ? 2 : 1);
  std::uint32_t code = 0;
  const char* last = digits.data() + digits.size();
  auto [stop, error] = std::from_chars(digits.data(), last, code, hex ? 16 : 10);
  // from_chars takes a sign, and we only want digits.
  if (digits.empty() || digits[0] == '-' || digits[0] == '+' || error != std::errc() || stop != last ||
      !isCharacter(code)) {
    return std::nullopt;
  }
  return code;
}

}  // namespace

HealthExportError::HealthExportError(std::uint64_t line, const std::string& problem)
    : std::runtime_error("line " + std::to_string(line) + ": " + problem), line_(line) {}

// The reader's state: a window of the input, where the scan stands in it,
// and the open elements. Offsets into the buffer stay valid until more() or
// ensure() moves the unread bytes to its front.
struct HealthExportReader::Scanner {
  struct Attribute {
    std::size_t nameBegin, nameEnd, valueBegin, valueEnd;
  };
  enum class Place { prolog, subset, content, epilog, end };

  Scanner(std::istream& input, std::size_t bufferSize)
      : in(input), buffer(std::max(bufferSize, kMinBufferSize)), largest(std::max(bufferSize, kMaxTagSize)) {
    attributes.reserve(16);
  }

  std::istream& in;
  std::vector<char> buffer;
  const std::size_t largest;
  std::size_t pos = 0;
  std::size_t end = 0;
  bool exhausted = false;
  // Bytes of the input before the buffer's first.
  std::uint64_t consumed = 0;
  // The line at buffer offset lineOffset, moved along as lines are asked for,
  // so that lines are counted once however often they are asked for.
  mutable std::uint64_t lineAtOffset = 1;
  mutable std::size_t lineOffset = 0;

  Place place = Place::prolog;
  bool atStart = true;
  bool sawDoctype = false;
  // The names of the open elements, outermost first; only the first `depth`
  // are in use, the rest keep their capacity.
  std::vector<std::string> open;
  std::size_t depth = 0;
  // A kept record with children is emitted at its end tag.
  bool inKeptRecord = false;
  HKSample pending;

  // The last tag scanned, as offsets into the buffer.
  std::size_t tagBegin = 0;
  std::size_t tagEnd = 0;
  std::size_t nameBegin = 0;
  std::size_t nameEnd = 0;
  bool selfClosing = false;
  std::vector<Attribute> attributes;

  std::map<std::string, std::uint64_t, std::less<>> skipped;
  // Exports list records grouped by type, so the last one counted is nearly
  // always the next.
  std::map<std::string, std::uint64_t, std::less<>>::iterator lastSkipped = skipped.end();
  std::string scratch[4];

  // --- The window ---

  const char* data() const { return buffer.data(); }

  std::string_view text(std::size_t begin, std::size_t stop) const { return {data() + begin, stop - begin}; }

  std::uint64_t lineAt(std::size_t offset) const {
    if (offset >= lineOffset) {
      lineAtOffset += newlines(lineOffset, offset);
    } else {
      lineAtOffset -= newlines(offset, lineOffset);
    }
    lineOffset = offset;
    return lineAtOffset;
  }

  // Lines are hundreds of bytes long, which memchr crosses far faster than
  // a loop that looks at every byte.
  std::uint64_t newlines(std::size_t begin, std::size_t stop) const {
    std::uint64_t count = 0;
    for (const char* at = data() + begin; (at = static_cast<const char*>(std::memchr(at, '\n', data() + stop - at)));
         ++at) {
      ++count;
    }
    return count;
  }

  [[noreturn]] void fail(std::size_t offset, const std::string& problem) const {
    throw HealthExportError(lineAt(offset), problem);
  }

  // Moves the bytes from `pos` on to the front of the buffer and reads more
  // after them; the buffer grows only when it is full of one unfinished
  // tag. False when the input has nothing more.
  bool more() {
    if (exhausted) return false;
    if (pos > 0) {
      lineAt(pos);
      lineOffset = 0;
      std::memmove(buffer.data(), data() + pos, end - pos);
      end -= pos;
      consumed += pos;
      pos = 0;
    }
    if (end == buffer.size()) {
      if (buffer.size() >= largest) fail(0, "a tag longer than " + std::to_string(largest) + " bytes");
      buffer.resize(std::min(buffer.size() * 2, largest));
    }
    in.read(buffer.data() + end, static_cast<std::streamsize>(buffer.size() - end));
    const auto count = static_cast<std::size_t>(in.gcount());
    if (count == 0) {
      exhausted = true;
      return false;
    }
    end += count;
    return true;
  }

  // At least `count` bytes from `pos`, unless the input ends first.
  bool ensure(std::size_t count) {
    while (end - pos < count) {
      if (!more()) return false;
    }
    return true;
  }

  bool lookingAt(std::string_view prefix) {
    return ensure(prefix.size()) && std::memcmp(data() + pos, prefix.data(), prefix.size()) == 0;
  }

  // Skips what begins at `pos` up to and past `terminator`, however long.
  void skipPast(std::size_t opening, std::string_view terminator, std::string_view what) {
    const std::uint64_t line = lineAt(pos);
    pos += opening;
    for (;;) {
      const std::size_t found = text(pos, end).find(terminator);
      if (found != std::string_view::npos) {
        pos += found + terminator.size();
        return;
      }
      // The terminator may straddle the end of the window.
      pos = std::max(pos, end - std::min(end, terminator.size() - 1));
      if (!more()) throw HealthExportError(line, "the file ends inside " + std::string(what));
    }
  }

  // Skips white space; false at the end of the input.
  bool skipSpace() {
    for (;;) {
      while (pos < end && isSpace(data()[pos])) ++pos;
      if (pos < end) return true;
      if (!more()) return false;
    }
  }

  // --- Tags ---

  std::string name() const { return std::string(text(nameBegin, nameEnd)); }

  std::string attributeName(const Attribute& attribute) const {
    return std::string(text(attribute.nameBegin, attribute.nameEnd));
  }

  // Scans the start tag at `pos` into the tag fields, reading on as needed.
  void scanStartTag() {
    while (!tryScanStartTag()) {
      if (!more()) {
        std::size_t stop = pos + 1;
        while (stop < end && !endsName(data()[stop])) ++stop;
        fail(pos, "the file ends inside the <" + std::string(text(pos + 1, stop)) + "> tag");
      }
    }
  }

  // False when the tag runs past the window.
  bool tryScanStartTag() {
    const char* b = data();
    std::size_t i = pos + 1;
    tagBegin = pos;
    nameBegin = i;
    while (i < end && !endsName(b[i])) ++i;
    if (i == end) return false;
    nameEnd = i;
    if (nameEnd == nameBegin) fail(pos, "a '<' that begins no tag");
    attributes.clear();
    for (;;) {
      const std::size_t spaceBegin = i;
      while (i < end && isSpace(b[i])) ++i;
      if (i == end) return false;
      const char c = b[i];
      if (c == '>' || c == '/') {
        if (c == '/') {
          if (i + 1 == end) return false;
          if (b[i + 1] != '>') fail(i, "a '/' inside the <" + name() + "> tag");
          ++i;
        }
        selfClosing = c == '/';
        tagEnd = i + 1;
        return true;
      }
      if (c == '<') fail(tagBegin, "the <" + name() + "> tag is not closed");
      Attribute attribute{};
      attribute.nameBegin = i;
      while (i < end && !endsName(b[i])) ++i;
      if (i == end) return false;
      attribute.nameEnd = i;
      if (attribute.nameEnd == attribute.nameBegin) {
        fail(i, "a stray '" + std::string(1, c) + "' inside the <" + name() + "> tag");
      }
      if (spaceBegin == attribute.nameBegin) {
        fail(i, "no space before the attribute " + attributeName(attribute) + " of <" + name() + ">");
      }
      while (i < end && isSpace(b[i])) ++i;
      if (i == end) return false;
      if (b[i] != '=') fail(attribute.nameBegin, "the attribute " + attributeName(attribute) + " has no value");
      ++i;
      while (i < end && isSpace(b[i])) ++i;
      if (i == end) return false;
      const char quote = b[i];
      if (quote != '"' && quote != '\'') {
        fail(i, "the value of the attribute " + attributeName(attribute) + " is not quoted");
      }
      attribute.valueBegin = ++i;
      const auto* close = static_cast<const char*>(std::memchr(b + i, quote, end - i));
      const std::size_t stop = close ? static_cast<std::size_t>(close - b) : end;
      if (const auto* lt = static_cast<const char*>(std::memchr(b + i, '<', stop - i))) {
        // An open quote runs on into the next tag, which seldom starts on
        // the same line; a '<' that does is more likely meant as text.
        const auto at = static_cast<std::size_t>(lt - b);
        if (std::memchr(b + i, '\n', at - i)) {
          fail(attribute.nameBegin, "the value of the attribute " + attributeName(attribute) + " is not closed");
        }
        fail(at, "a '<' inside the value of the attribute " + attributeName(attribute));
      }
      if (!close) return false;
      attribute.valueEnd = stop;
      attributes.push_back(attribute);
      i = stop + 1;
    }
  }

  const Attribute* attribute(std::string_view wanted) const {
    for (const auto& attribute : attributes) {
      if (text(attribute.nameBegin, attribute.nameEnd) == wanted) return &attribute;
    }
    return nullptr;
  }

  // The value with its entities and white space decoded, in `into` if it
  // needs decoding at all.
  std::string_view value(const Attribute& attribute, std::string& into) const {
    const std::string_view raw = text(attribute.valueBegin, attribute.valueEnd);
    std::size_t i = 0;
    while (i < raw.size() && !kNeedsDecoding[static_cast<unsigned char>(raw[i])]) ++i;
    if (i == raw.size()) return raw;
    into.assign(raw.substr(0, i));
    while (i < raw.size()) {
      const char c = raw[i];
      if (c == '&') {
        const std::size_t semicolon = raw.find(';', i + 1);
        const std::string_view entity = raw.substr(i, semicolon == std::string_view::npos ? 12 : semicolon + 1 - i);
        const auto code =
            semicolon == std::string_view::npos ? std::nullopt : entityCharacter(raw.substr(i + 1, semicolon - i - 1));
        if (!code) {
          fail(attribute.valueBegin + i,
               "the " + attributeName(attribute) + " " + quoted(raw) + " holds a broken entity " + quoted(entity));
        }
        appendUtf8(into, *code);
        i = semicolon + 1;
      } else if (kNeedsDecoding[static_cast<unsigned char>(c)]) {
        into += ' ';
        i += c == '\r' && i + 1 < raw.size() && raw[i + 1] == '\n' ? 2 : 1;
      } else {
        into += c;
        ++i;
      }
    }
    return into;
  }

  // The decoded value of a required attribute of the tag.
  std::string_view required(std::string_view wanted, std::string& into) const {
    const Attribute* found = attribute(wanted);
    if (!found) fail(tagBegin, "the <" + name() + "> has no " + std::string(wanted));
    return value(*found, into);
  }

  // --- The document ---

  bool next(std::vector<HKSample>& batch, std::size_t maxCount) {
    batch.clear();
    maxCount = std::max<std::size_t>(maxCount, 1);
    while (batch.size() < maxCount && place != Place::end) step(batch);
    return !batch.empty();
  }

  void step(std::vector<HKSample>& batch) {
    switch (place) {
      case Place::prolog:
        if (atStart) {
          atStart = false;
          if (lookingAt("\xEF\xBB\xBF")) pos += 3;
        }
        if (!skipSpace()) fail(pos, "the file has no <HealthData> element");
        if (data()[pos] != '<') fail(pos, "text before the <HealthData> element");
        markupInProlog();
        return;
      case Place::subset:
        markupInSubset();
        return;
      case Place::content: {
        // Text between elements means nothing to an export.
        const auto* lt = static_cast<const char*>(std::memchr(data() + pos, '<', end - pos));
        if (!lt) {
          pos = end;
          if (!more()) fail(pos, "the file ends before </" + open[depth - 1] + ">");
          return;
        }
        pos = static_cast<std::size_t>(lt - data());
        markupInContent(batch);
        return;
      }
      case Place::epilog:
        if (!skipSpace()) {
          place = Place::end;
          return;
        }
        if (lookingAt("<!--")) {
          skipPast(4, "-->", "a comment");
        } else if (lookingAt("<?")) {
          skipPast(2, "?>", "a processing instruction");
        } else {
          fail(pos, "text after </HealthData>");
        }
        return;
      case Place::end:
        return;
    }
  }

  void markupInProlog() {
    if (lookingAt("<?")) {
      skipPast(2, "?>", "a processing instruction");
    } else if (lookingAt("<!--")) {
      skipPast(4, "-->", "a comment");
    } else if (lookingAt("<!DOCTYPE")) {
      if (sawDoctype) fail(pos, "a second DOCTYPE");
      sawDoctype = true;
      const std::size_t stop = declarationEnd(9, true);
      place = data()[stop - 1] == '[' ? Place::subset : Place::prolog;
      pos = stop;
    } else if (lookingAt("<!") || lookingAt("</")) {
      fail(pos, "markup before the <HealthData> element");
    } else {
      scanStartTag();
      if (text(nameBegin, nameEnd) != kRoot) fail(pos, "the root element is <" + name() + ">, not <HealthData>");
      pos = tagEnd;
      if (selfClosing) {
        place = Place::epilog;
      } else {
        openElement();
        place = Place::content;
      }
    }
  }

  // One declaration, comment or parameter entity of the DOCTYPE's internal
  // subset, or its end.
  void markupInSubset() {
    if (!skipSpace()) fail(pos, "the file ends inside the DOCTYPE");
    const char c = data()[pos];
    if (c == ']') {
      ++pos;
      if (!skipSpace()) fail(pos, "the file ends inside the DOCTYPE");
      if (data()[pos] != '>') fail(pos, "the DOCTYPE does not end with ]>");
      ++pos;
      place = Place::prolog;
    } else if (c == '%') {
      skipPast(1, ";", "the DOCTYPE");
    } else if (lookingAt("<!--")) {
      skipPast(4, "-->", "a comment");
    } else if (lookingAt("<?")) {
      skipPast(2, "?>", "a processing instruction");
    } else if (lookingAt("<!")) {
      pos = declarationEnd(2, false);
    } else {
      fail(pos, "unexpected text in the DOCTYPE");
    }
  }

  // Past the '>' (or the '[' of an internal subset) that ends the
  // declaration at `pos`; quoted texts may hold either.
  std::size_t declarationEnd(std::size_t opening, bool toSubset) {
    for (;;) {
      char quote = 0;
      for (std::size_t i = pos + opening; i < end; ++i) {
        const char c = data()[i];
        if (quote) {
          if (c == quote) quote = 0;
        } else if (c == '"' || c == '\'') {
          quote = c;
        } else if (c == '>' || (toSubset && c == '[')) {
          return i + 1;
        }
      }
      if (!more()) fail(pos, "the file ends inside the DOCTYPE");
    }
  }

  void markupInContent(std::vector<HKSample>& batch) {
    if (!ensure(2)) fail(pos, "the file ends before </" + open[depth - 1] + ">");
    const char second = data()[pos + 1];
    if (second == '/') {
      endTag(batch);
    } else if (second == '?') {
      skipPast(2, "?>", "a processing instruction");
    } else if (second != '!') {
      startTag(batch);
    } else if (lookingAt("<!--")) {
      skipPast(4, "-->", "a comment");
    } else if (lookingAt("<![CDATA[")) {
      skipPast(9, "]]>", "a CDATA section");
    } else {
      fail(pos, "a declaration inside <" + open[depth - 1] + ">");
    }
  }

  void startTag(std::vector<HKSample>& batch) {
    scanStartTag();
    const std::string_view tag = text(nameBegin, nameEnd);
    if (depth == 1 && tag == "Record") {
      record(batch);
    } else if (inKeptRecord && depth == 2 && tag == "MetadataEntry") {
      metadataEntry();
    } else if (!selfClosing) {
      openElement();
    }
    pos = tagEnd;
  }

  void endTag(std::vector<HKSample>& batch) {
    std::size_t stop = 0;
    for (;;) {
      std::size_t i = pos + 2;
      while (i < end && !endsName(data()[i])) ++i;
      stop = i;
      while (i < end && isSpace(data()[i])) ++i;
      if (i < end) {
        if (data()[i] != '>') fail(pos, "the end tag </" + std::string(text(pos + 2, stop)) + "> is not closed");
        tagEnd = i + 1;
        break;
      }
      if (!more()) fail(pos, "the file ends inside an end tag");
    }
    const std::string_view closing = text(pos + 2, stop);
    if (closing != open[depth - 1]) {
      fail(pos, "</" + std::string(closing) + "> where </" + open[depth - 1] + "> belongs");
    }
    --depth;
    if (depth == 1 && inKeptRecord) {
      batch.push_back(std::move(pending));
      pending = HKSample();
      inKeptRecord = false;
    }
    if (depth == 0) place = Place::epilog;
    pos = tagEnd;
  }

  void openElement() {
    if (depth == kMaxDepth) fail(tagBegin, "elements nested more than " + std::to_string(kMaxDepth) + " deep");
    if (open.size() == depth) open.emplace_back();
    open[depth++].assign(data() + nameBegin, nameEnd - nameBegin);
  }

  void record(std::vector<HKSample>& batch) {
    const std::string_view type = required("type", scratch[0]);
    const KeptType* kept = nullptr;
    for (const auto& candidate : kKeptTypes) {
      if (candidate.identifier == type) kept = &candidate;
    }
    if (!kept) {
      countSkipped(type);
      if (!selfClosing) openElement();
      return;
    }
    HKSample sample;
    sample.sampleType = kept->type;
    sample.startDate = date("startDate");
    sample.endDate = date("endDate");
    if (sample.endDate < sample.startDate) {
      fail(tagBegin, "the Record ends (" + std::string(required("endDate", scratch[0])) + ") before it starts (" +
                         std::string(required("startDate", scratch[1])) + ")");
    }
    const std::string_view valueText = required("value", scratch[0]);
    const auto category = parseCategoryValue(valueText);
    if (!category) fail(attribute("value")->valueBegin, "the value " + quoted(valueText) + " is not a category value");
    sample.categoryValue = category;
    if (const Attribute* source = attribute("sourceName")) sample.source.name = value(*source, scratch[0]);
    if (selfClosing) {
      batch.push_back(std::move(sample));
    } else {
      pending = std::move(sample);
      inKeptRecord = true;
      openElement();
    }
  }

  Date date(std::string_view which) {
    const std::string_view written = required(which, scratch[3]);
    const auto parsed = parseExportDate(written);
    if (!parsed)
      fail(attribute(which)->valueBegin, "the " + std::string(which) + " " + quoted(written) + " is not a date");
    return *parsed;
  }

  void countSkipped(std::string_view type) {
    if (lastSkipped == skipped.end() || lastSkipped->first != type) {
      lastSkipped = skipped.find(type);
      if (lastSkipped == skipped.end()) lastSkipped = skipped.emplace(std::string(type), 0).first;
    }
    ++lastSkipped->second;
  }

  void metadataEntry() {
    const std::string_view key = required("key", scratch[0]);
    const std::string_view entry = required("value", scratch[1]);
    if (pending.metadata.is_null()) pending.metadata = HKMetadata::object();
    pending.metadata[std::string(key)] = std::string(entry);
    if (!selfClosing) openElement();
  }
};

HealthExportReader::HealthExportReader(std::istream& in, std::size_t bufferSize)
    : scanner_(std::make_unique<Scanner>(in, bufferSize)) {}

HealthExportReader::~HealthExportReader() = default;
HealthExportReader::HealthExportReader(HealthExportReader&&) noexcept = default;
HealthExportReader& HealthExportReader::operator=(HealthExportReader&&) noexcept = default;

bool HealthExportReader::next(std::vector<HKSample>& batch, std::size_t maxCount) {
  return scanner_->next(batch, maxCount);
}

std::function<bool(std::vector<HKSample>& batch)> HealthExportReader::batches(std::size_t batchSize) {
  return
      [scanner = scanner_.get(), batchSize](std::vector<HKSample>& batch) { return scanner->next(batch, batchSize); };
}

std::uint64_t HealthExportReader::line() const { return scanner_->lineAt(scanner_->pos); }

std::uint64_t HealthExportReader::bytesRead() const { return scanner_->consumed + scanner_->pos; }

const std::map<std::string, std::uint64_t, std::less<>>& HealthExportReader::skippedRecords() const {
  return scanner_->skipped;
}

}  // namespace tarnwell

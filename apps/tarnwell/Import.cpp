#include "Import.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <utility>

#include "Limits.h"

namespace tarnwell::cli {
namespace {

// The first instant of the year 10000, in milliseconds since 1970: the
// times of a file are written with four-digit years like every other.
constexpr double kLatestMilliseconds = 253402300800000.0;

}  // namespace

std::vector<std::string> splitCSV(std::string_view line) {
  std::vector<std::string> fields(1);
  bool quoted = false;
  for (std::size_t i = 0; i < line.size(); ++i) {
    const char c = line[i];
    if (quoted) {
      if (c == '"' && i + 1 < line.size() && line[i + 1] == '"') {
        fields.back() += '"';
        ++i;
      } else if (c == '"') {
        quoted = false;
      } else {
        fields.back() += c;
      }
    } else if (c == '"') {
      quoted = true;
    } else if (c == ',') {
      fields.emplace_back();
    } else if (c != '\r') {
      fields.back() += c;
    }
  }
  return fields;
}

ImportReader::ImportReader(ImportFormat format, Handlers handlers) : format_(format), handlers_(std::move(handlers)) {}

void ImportReader::bad(std::string_view english, std::vector<FormatArgument> arguments) {
  ++skipped_;
  if (handlers_.badRow) handlers_.badRow(line_, {english, std::move(arguments)});
}

void ImportReader::readLine(std::string_view text, bool tooLong) {
  ++line_;
  if (!tooLong && (text.empty() || text == "\r")) return;
  const bool header = format_ == ImportFormat::aware ? timestampColumn_ < 0 : line_ == 1;
  if (tooLong && !(header && format_ == ImportFormat::aware)) {
    ++rows_;
    return bad("longer than %lld bytes", {static_cast<std::int64_t>(kMaxLineLength)});
  }
  const auto fields = splitCSV(text);
  if (format_ == ImportFormat::tarnwell) {
    if (header && fields[0] == "kind") return;
    ++rows_;
    return readTarnwell(fields);
  }
  if (header) {
    for (std::size_t i = 0; i < fields.size() && !tooLong; ++i) {
      if (fields[i] == "timestamp") timestampColumn_ = static_cast<int>(i);
      if (fields[i] == "device_id") deviceColumn_ = static_cast<int>(i);
      if (fields[i] == "screen_status") statusColumn_ = static_cast<int>(i);
    }
    if (timestampColumn_ < 0 || deviceColumn_ < 0 || statusColumn_ < 0) {
      throw ImportFormatError(
          {"line %lld: an AWARE file starts with a header naming timestamp, device_id and screen_status",
           {static_cast<std::int64_t>(line_)}});
    }
    return;
  }
  ++rows_;
  readAware(fields);
}

// A file is held to what `pickup add` and the others take: an event the
// commands would refuse is a bad row.
void ImportReader::take(const ImportedEvent& event) {
  if (event.start < kEarliestInstant || event.end >= kEndOfInstants) {
    return bad("a time is not between 1970 and 2099");
  }
  const double longest = event.kind == ImportedKind::alive ? kLongestAliveSpan : kOneDay;
  if (event.end.timeIntervalSince(event.start) > longest) {
    if (event.kind == ImportedKind::alive) return bad("an alive span longer than 31 days");
    return bad("an event longer than a day");
  }
  handlers_.event(event);
}

void ImportReader::readTarnwell(const std::vector<std::string>& fields) {
  if (fields.size() != 3) return bad("expected kind,start,end");
  const auto start = Date::parseISO8601(fields[1]), end = Date::parseISO8601(fields[2]);
  if (!start || !end) return bad("a time is not ISO 8601");
  if (*end < *start) return bad("the end is before the start");
  if (fields[0] == "pickup") {
    take({ImportedKind::pickup, *start, *end});
  } else if (fields[0] == "walk") {
    take({ImportedKind::walk, *start, *end});
  } else if (fields[0] == "alive") {
    take({ImportedKind::alive, *start, *end});
  } else {
    bad("unknown kind \"%@\" (pickup, walk or alive)", {fields[0].substr(0, 40)});
  }
}

void ImportReader::readAware(const std::vector<std::string>& fields) {
  const auto highest = std::max({timestampColumn_, deviceColumn_, statusColumn_});
  if (static_cast<int>(fields.size()) <= highest) return bad("missing columns");
  const auto column = [&fields](int index) -> const std::string& { return fields[static_cast<std::size_t>(index)]; };
  double milliseconds = 0;
  int status = -1;
  const auto& timestamp = column(timestampColumn_);
  const auto& statusText = column(statusColumn_);
  const auto [timestampEnd, timestampError] =
      std::from_chars(timestamp.data(), timestamp.data() + timestamp.size(), milliseconds);
  const auto [statusEnd, statusError] =
      std::from_chars(statusText.data(), statusText.data() + statusText.size(), status);
  if (timestampError != std::errc() || timestampEnd != timestamp.data() + timestamp.size() ||
      statusError != std::errc() || statusEnd != statusText.data() + statusText.size() || status < 0 || status > 3) {
    return bad("timestamp or screen_status is not a number of the format");
  }
  // Not a number, infinity and times beyond four-digit years are no instants.
  if (!(milliseconds >= 0 && milliseconds < kLatestMilliseconds)) {
    return bad("the timestamp is not a time from 1970 to the year 9999");
  }
  const auto& id = column(deviceColumn_);
  if (id.size() > kMaxDeviceIdLength) return bad("the device_id is longer than 256 bytes");
  auto found = devices_.find(id);
  if (found == devices_.end()) {
    if (devices_.size() >= kMaxDevices) return bad("more than %lld devices", {static_cast<std::int64_t>(kMaxDevices)});
    found = devices_.emplace(id, Device{milliseconds, std::nullopt}).first;
  }
  Device& device = found->second;
  if (milliseconds < device.last) return bad("earlier than the row before it of the same device");
  device.last = milliseconds;
  if (status == 3) {
    if (device.unlockedAt) ++unclosed_;
    device.unlockedAt = milliseconds;
  } else if ((status == 0 || status == 2) && device.unlockedAt) {
    take({ImportedKind::pickup, Date::fromTimeIntervalSince1970(*device.unlockedAt / 1000.0),
          Date::fromTimeIntervalSince1970(milliseconds / 1000.0)});
    device.unlockedAt.reset();
  }
}

void ImportReader::finish() {
  for (auto& [id, device] : devices_) {
    if (device.unlockedAt) ++unclosed_;
    device.unlockedAt.reset();
  }
}

bool readImport(std::istream& in, ImportReader& reader, const std::function<bool()>& keepGoing,
                const std::function<void(std::uint64_t bytesRead)>& progress) {
  constexpr std::size_t kChunk = 64 * 1024;
  std::vector<char> chunk(kChunk);
  // The line being gathered: at most kMaxLineLength bytes are kept of it.
  std::string line;
  bool tooLong = false;
  std::uint64_t bytesRead = 0;
  const auto endLine = [&] {
    reader.readLine(line, tooLong);
    line.clear();
    tooLong = false;
    if (progress) progress(bytesRead);
    return !keepGoing || keepGoing();
  };
  while (in) {
    in.read(chunk.data(), static_cast<std::streamsize>(chunk.size()));
    const auto count = static_cast<std::size_t>(in.gcount());
    std::string_view rest(chunk.data(), count);
    while (!rest.empty()) {
      const auto feed = rest.find('\n');
      const auto piece = rest.substr(0, feed);
      bytesRead += piece.size() + (feed == std::string_view::npos ? 0 : 1);
      const auto room = ImportReader::kMaxLineLength - line.size();
      line.append(piece.substr(0, room));
      if (piece.size() > room) tooLong = true;
      if (feed == std::string_view::npos) break;
      rest.remove_prefix(feed + 1);
      if (!endLine()) return false;
    }
  }
  if ((!line.empty() || tooLong) && !endLine()) return false;
  reader.finish();
  return true;
}

}  // namespace tarnwell::cli

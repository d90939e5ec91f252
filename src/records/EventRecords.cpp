#include "tarnwell/records/EventRecords.h"

#include "tarnwell/platform/FatalError.h"
#include "tarnwell/platform/Uuid.h"
#include "tarnwell/settings/Settings.h"

namespace tarnwell {
namespace records {

std::pair<Date, Date> requireDates(std::string_view className, const std::optional<Date>& start,
                                   const std::optional<Date>& end) {
  if (!start || !end) fatalError(std::string(className) + " without a start or an end has no interval");
  return {*start, *end};
}

std::string quotedField(std::string_view text) { return "\"" + std::string(text) + "\""; }

}  // namespace records

namespace {

// The interval of a pickup or an alive span: an equal pair is a zero-length interval.
std::optional<DateInterval> closedInterval(std::string_view className, const std::optional<Date>& start,
                                           const std::optional<Date>& end) {
  const auto [from, to] = records::requireDates(className, start, end);
  if (to < from) return std::nullopt;
  return DateInterval(from, to);
}

// id,deviceId,"start","end": empty when the id or a date is missing.
template <class Record>
std::string spanCSV(const Record& record) {
  if (!record.id || !record.start || !record.end) return {};
  return *record.id + "," + record.deviceId + "," + records::quotedField(record.start->description()) + "," +
         records::quotedField(record.end->description());
}

}  // namespace

Pickup::Pickup(Date startDate, Date endDate)
    : id(makeUUIDString()), deviceId(Settings::deviceId()), start(startDate), end(endDate) {}

std::optional<DateInterval> Pickup::interval() const { return closedInterval(className, start, end); }

std::string Pickup::csvRecord() const {
  std::string line = spanCSV(*this);
  if (!line.empty()) line += isIgnoredForSleepTime ? ",true" : ",false";
  return line;
}

Walk::Walk(Date startDate, Date endDate)
    : id(makeUUIDString()), deviceId(Settings::deviceId()), start(startDate), end(endDate) {}

std::optional<DateInterval> Walk::interval() const {
  const auto [from, to] = records::requireDates(className, start, end);
  if (!(from < to)) return std::nullopt;
  return DateInterval(from, to);
}

std::string Walk::csvRecord() const { return spanCSV(*this); }

Alive::Alive(Date startDate, Date endDate)
    : id(makeUUIDString()), deviceId(Settings::deviceId()), start(startDate), end(endDate) {}

std::optional<DateInterval> Alive::interval() const { return closedInterval(className, start, end); }

std::string Alive::csvRecord() const { return spanCSV(*this); }

}  // namespace tarnwell

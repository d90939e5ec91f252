// The interval records: Pickup, Walk and Alive.
//
// Each is one span of time on one device: a pickup is a stretch of phone use
// from unlock to put-down, a walk a stretch of walking, an alive span a
// stretch during which the host's monitoring ran. They are plain values; the
// store keeps them by `id` (Database reads and writes them). `deviceId` names
// the device that wrote the record; `isDeleted` marks a record as gone while
// the row stays, so that the deletion can reach other devices.
//
// A default-constructed record is blank, for the store to fill. A new record
// is made with its dates: it draws a new UUID and stamps this device's id.

#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <tuple>

#include "tarnwell/platform/Date.h"
#include "tarnwell/records/Properties.h"

namespace tarnwell {

struct Pickup {
  static constexpr std::string_view className = "Pickup";
  static constexpr std::string_view csvColumns = "id,deviceId,start,end, isIgnoredForSleepTime";

  std::optional<std::string> id;
  std::string deviceId;
  std::optional<Date> start;
  std::optional<Date> end;
  // The user asked the sleep inference to ignore this pickup.
  bool isIgnoredForSleepTime = false;
  bool isDeleted = false;

  Pickup() = default;
  Pickup(Date start, Date end);

  // From start to end; nothing when end precedes start, zero length when they
  // are equal. A record without both dates is a programming error.
  std::optional<DateInterval> interval() const;
  // id,deviceId,"start","end",true: empty when id or a date is missing.
  std::string csvRecord() const;

  static constexpr auto properties() {
    return std::tuple{records::primaryKey("id", &Pickup::id),
                      records::property("deviceId", &Pickup::deviceId),
                      records::indexed("start", &Pickup::start),
                      records::indexed("end", &Pickup::end, "start"),
                      records::property("isIgnoredForSleepTime", &Pickup::isIgnoredForSleepTime),
                      records::property("isDeleted", &Pickup::isDeleted)};
  }
  friend bool operator==(const Pickup&, const Pickup&) = default;
};

struct Walk {
  static constexpr std::string_view className = "Walk";
  static constexpr std::string_view csvColumns = "id,deviceId,start,end";

  std::optional<std::string> id;
  std::string deviceId;
  std::optional<Date> start;
  std::optional<Date> end;
  bool isDeleted = false;

  Walk() = default;
  Walk(Date start, Date end);

  // Stricter than a pickup's on purpose: present only when start is strictly
  // before end, so a walk of zero length has no interval.
  std::optional<DateInterval> interval() const;
  std::string csvRecord() const;

  static constexpr auto properties() {
    return std::tuple{records::primaryKey("id", &Walk::id), records::property("deviceId", &Walk::deviceId),
                      records::indexed("start", &Walk::start), records::indexed("end", &Walk::end, "start"),
                      records::property("isDeleted", &Walk::isDeleted)};
  }
  friend bool operator==(const Walk&, const Walk&) = default;
};

// Alive spans never leave the device that wrote them: they do not sync.
struct Alive {
  static constexpr std::string_view className = "Alive";
  static constexpr std::string_view csvColumns = "id,deviceId,start,end";

  std::optional<std::string> id;
  std::string deviceId;
  std::optional<Date> start;
  std::optional<Date> end;
  bool isDeleted = false;

  Alive() = default;
  Alive(Date start, Date end);

  // The rule of Pickup::interval().
  std::optional<DateInterval> interval() const;
  std::string csvRecord() const;

  static constexpr auto properties() {
    return std::tuple{records::primaryKey("id", &Alive::id), records::property("deviceId", &Alive::deviceId),
                      records::indexed("start", &Alive::start), records::indexed("end", &Alive::end, "start"),
                      records::property("isDeleted", &Alive::isDeleted)};
  }
  friend bool operator==(const Alive&, const Alive&) = default;
};

namespace records {

// The present dates of a record, or the end of the process: every record
// this system writes has both, and the store hands out no other.
std::pair<Date, Date> requireDates(std::string_view className, const std::optional<Date>& start,
                                   const std::optional<Date>& end);

// A CSV field in double quotes, written as it stands (nothing is escaped).
std::string quotedField(std::string_view text);

}  // namespace records
}  // namespace tarnwell

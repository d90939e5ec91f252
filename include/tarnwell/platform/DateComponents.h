// DateComponents: an instant's parts as the calendar of the default region
// names them.

#pragma once

#include <optional>

#include "tarnwell/platform/Date.h"

namespace tarnwell {

struct DateComponents {
  int hour = 0;
  int minute = 0;
  int second = 0;
  // The instant the components name, when they name one: a date a shortcut
  // was given does, a mean clock time of many days does not.
  std::optional<Date> date;

  DateComponents() = default;
  // A clock time; with `instant`, the time of that instant.
  DateComponents(int h, int m, int s, std::optional<Date> instant = std::nullopt)
      : hour(h), minute(m), second(s), date(instant) {}

  // The clock time and the instant of `instant`.
  static DateComponents of(Date instant) { return {instant.hour(), instant.minute(), instant.second(), instant}; }

  // The time of day in seconds from midnight.
  double timeIntervalFromMidnight() const { return hour * 3600.0 + minute * 60.0 + second; }

  friend bool operator==(const DateComponents&, const DateComponents&) = default;
};

}  // namespace tarnwell

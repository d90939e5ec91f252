// What the host takes as a time, from a command as from a file.

#pragma once

#include "tarnwell/platform/Date.h"

namespace tarnwell::cli {

// Instants from 1970-01-01 up to 2100-01-01 (UTC). Years beyond are typing
// mistakes, and the analytics would walk every day up to them.
inline constexpr Date kEarliestInstant = Date::fromTimeIntervalSince1970(0);
inline constexpr Date kEndOfInstants = Date::fromTimeIntervalSince1970(4102444800.0);

// The longest stretches a record may span. Sensors and timers never make
// longer ones, so a longer span is a typing mistake that every day it
// covers would then show: pickups, walks, focus sessions and sleep samples
// last at most a day, alive spans (the monitor running) at most 31 days.
inline constexpr double kOneDay = 24 * 3600;
inline constexpr double kLongestAliveSpan = 31 * kOneDay;
// A number of seconds the host takes when nothing tighter applies: ten
// years, which every clock and timer converts without overflow.
inline constexpr double kLongestSeconds = 3650 * kOneDay;

}  // namespace tarnwell::cli

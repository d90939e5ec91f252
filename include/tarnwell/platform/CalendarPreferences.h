// The two preferences the calendar of Date reads at each use.
//
// They are the user's settings, read and written through Settings under the
// same names. Their keys are declared here, with the calendar, so that the
// calendar, which every layer uses, rests on nothing above the platform.

#pragma once

#include "tarnwell/platform/Defaults.h"

namespace tarnwell::calendar_preferences {

// Whether weeks start on Monday (see Date::startOfWeek); true until written.
const defaults::Key<bool>& weekStartsFromMonday();
// Seconds after a day's start at which the user usually goes to bed (see
// Date::timeForBed); 82800, 23:00, until written.
const defaults::Key<double>& defaultTimeForBed();

}  // namespace tarnwell::calendar_preferences

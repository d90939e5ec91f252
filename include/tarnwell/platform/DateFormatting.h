// The library's date formatter: instants as text in Date::defaultRegion(),
// on a Gregorian calendar, for the strings and the records that show dates.

#pragma once

#include <string>
#include <string_view>

#include "tarnwell/platform/Date.h"

namespace tarnwell::date_formatting {

// `date` formatted with an ICU date pattern ("h:mm", "EEEE").
std::string format(Date date, std::string_view pattern);

// `date` formatted with the region's best pattern for a template of pattern
// letters ("dMMM" reads "Nov 22" in en_US and "22. Nov." in de_DE). A
// template the region cannot expand is used as a pattern as it stands.
std::string formatFromTemplate(Date date, std::string_view fromTemplate);

}  // namespace tarnwell::date_formatting

#include "tarnwell/platform/DateFormatting.h"

#include <unicode/fieldpos.h>
#include <unicode/smpdtfmt.h>

#include <memory>

#include "platform/Icu.h"
#include "platform/RegionImpl.h"
#include "platform/RegionalCache.h"
#include "tarnwell/platform/FatalError.h"
#include "tarnwell/platform/Region.h"

namespace tarnwell {

namespace date_formatting {
namespace {

// A formatter of the default region with Gregorian names and eras, even
// where the locale's own calendar is another.
icu::SimpleDateFormat& formatter() {
  return regional::perThread<icu::SimpleDateFormat>([](const Region& region) {
    UErrorCode status = U_ZERO_ERROR;
    icu::Locale gregorian(region.impl().locale);
    gregorian.setKeywordValue("calendar", "gregorian", status);
    status = U_ZERO_ERROR;
    auto made = std::make_unique<icu::SimpleDateFormat>(icu::UnicodeString(), gregorian, status);
    auto calendar = icu_support::makeGregorianCalendar(region.timeZoneId(), region.impl().locale);
    if (U_FAILURE(status) || !calendar) {
      fatalError("No date formatter for " + region.localeId() + " in " + region.timeZoneId());
    }
    made->adoptCalendar(calendar.release());
    return made;
  });
}

}  // namespace

std::string format(Date date, std::string_view pattern) {
  icu::SimpleDateFormat& f = formatter();
  f.applyPattern(icu_support::fromUtf8(pattern));
  icu::UnicodeString text;
  icu::FieldPosition position;
  f.format(date.toUDate(), text, position);
  return icu_support::toUtf8(text);
}

std::string formatFromTemplate(Date date, std::string_view fromTemplate) {
  const auto pattern = Date::defaultRegion().dateFormat(fromTemplate);
  return format(date, pattern ? std::string_view(*pattern) : fromTemplate);
}

}  // namespace date_formatting

}  // namespace tarnwell

#include "tarnwell/platform/DateFormatting.h"

#include <unicode/fieldpos.h>
#include <unicode/smpdtfmt.h>

#include <map>
#include <memory>
#include <string>

#include "platform/Icu.h"
#include "platform/RegionImpl.h"
#include "platform/RegionalCache.h"
#include "tarnwell/platform/FatalError.h"
#include "tarnwell/platform/Region.h"

namespace tarnwell {

namespace date_formatting {
namespace {

// The formatters of the default region, one per pattern, with Gregorian
// names and eras even where the locale's own calendar is another. Applying
// a pattern parses it, so each pattern keeps a formatter of its own.
class Formatters {
 public:
  explicit Formatters(const Region& region) {
    UErrorCode status = U_ZERO_ERROR;
    icu::Locale gregorian(region.impl().locale);
    gregorian.setKeywordValue("calendar", "gregorian", status);
    status = U_ZERO_ERROR;
    base_ = std::make_unique<icu::SimpleDateFormat>(icu::UnicodeString(), gregorian, status);
    auto calendar = icu_support::makeGregorianCalendar(region.timeZoneId(), region.impl().locale);
    if (U_FAILURE(status) || !calendar) {
      fatalError("No date formatter for " + region.localeId() + " in " + region.timeZoneId());
    }
    base_->adoptCalendar(calendar.release());
  }

  icu::SimpleDateFormat& of(std::string_view pattern) {
    auto found = byPattern_.find(pattern);
    if (found == byPattern_.end()) {
      std::unique_ptr<icu::SimpleDateFormat> made(base_->clone());
      if (!made) fatalError("No copy of a date formatter");
      made->applyPattern(icu_support::fromUtf8(pattern));
      found = byPattern_.emplace(std::string(pattern), std::move(made)).first;
    }
    return *found->second;
  }

 private:
  std::unique_ptr<icu::SimpleDateFormat> base_;
  std::map<std::string, std::unique_ptr<icu::SimpleDateFormat>, std::less<>> byPattern_;
};

icu::SimpleDateFormat& formatter(std::string_view pattern) {
  return regional::perThread<Formatters>([](const Region& region) { return std::make_unique<Formatters>(region); })
      .of(pattern);
}

}  // namespace

std::string format(Date date, std::string_view pattern) {
  icu::SimpleDateFormat& f = formatter(pattern);
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

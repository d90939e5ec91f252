#include "tarnwell/platform/DateFormatting.h"

#include <unicode/fieldpos.h>
#include <unicode/smpdtfmt.h>

#include <map>
#include <memory>
#include <string>
#include <unordered_map>

#include "platform/Icu.h"
#include "platform/RegionImpl.h"
#include "platform/RegionalCache.h"
#include "tarnwell/platform/FatalError.h"
#include "tarnwell/platform/Region.h"

namespace tarnwell {

namespace date_formatting {
namespace {

// A pattern's formatter and the texts it made lately. A chart, a widget or
// the report labels the same few instants again on every build, and ICU's
// format costs about a microsecond; the text of an instant never changes
// while the region stays the same.
struct Pattern {
  // Enough for the days of a year and a few months, in a few kilobytes.
  static constexpr std::size_t kRemembered = 512;

  std::unique_ptr<icu::SimpleDateFormat> formatter;
  std::unordered_map<UDate, std::string> made;

  std::string format(UDate date) {
    if (const auto found = made.find(date); found != made.end()) return found->second;
    icu::UnicodeString text;
    icu::FieldPosition position;
    formatter->format(date, text, position);
    std::string utf8 = icu_support::toUtf8(text);
    if (made.size() >= kRemembered) made.clear();
    made.emplace(date, utf8);
    return utf8;
  }
};

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

  Pattern& of(std::string_view pattern) {
    auto found = byPattern_.find(pattern);
    if (found == byPattern_.end()) {
      std::unique_ptr<icu::SimpleDateFormat> made(base_->clone());
      if (!made) fatalError("No copy of a date formatter");
      made->applyPattern(icu_support::fromUtf8(pattern));
      found = byPattern_.emplace(std::string(pattern), Pattern{std::move(made), {}}).first;
    }
    return found->second;
  }

 private:
  std::unique_ptr<icu::SimpleDateFormat> base_;
  std::map<std::string, Pattern, std::less<>> byPattern_;
};

Pattern& formatter(std::string_view pattern) {
  return regional::perThread<Formatters>([](const Region& region) { return std::make_unique<Formatters>(region); })
      .of(pattern);
}

}  // namespace

std::string format(Date date, std::string_view pattern) { return formatter(pattern).format(date.toUDate()); }

std::string formatFromTemplate(Date date, std::string_view fromTemplate) {
  const auto pattern = Date::defaultRegion().dateFormat(fromTemplate);
  return format(date, pattern ? std::string_view(*pattern) : fromTemplate);
}

}  // namespace date_formatting

}  // namespace tarnwell

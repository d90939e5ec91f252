#include "tarnwell/platform/Region.h"

#include <unicode/dtptngen.h>
#include <unicode/gregocal.h>

#include <algorithm>
#include <map>
#include <mutex>
#include <set>
#include <stdexcept>

#include "platform/Icu.h"
#include "platform/RegionImpl.h"
#include "tarnwell/platform/Environment.h"

namespace tarnwell {
namespace icu_support {

namespace {

// Zones are immutable once built, so one per id serves the whole process.
std::shared_ptr<const icu::TimeZone> sharedTimeZone(std::string_view id) {
  static std::mutex mutex;
  static std::map<std::string, std::shared_ptr<const icu::TimeZone>, std::less<>> zones;
  std::lock_guard lock(mutex);
  if (auto found = zones.find(id); found != zones.end()) return found->second;
  std::shared_ptr<const icu::TimeZone> zone = makeTimeZone(id);
  zones.emplace(std::string(id), zone);
  return zone;
}

}  // namespace

std::unique_ptr<icu::TimeZone> makeTimeZone(std::string_view id) {
  std::unique_ptr<icu::TimeZone> zone(icu::TimeZone::createTimeZone(fromUtf8(id)));
  icu::UnicodeString resolved;
  zone->getID(resolved);
  if (resolved == UNICODE_STRING_SIMPLE(UCAL_UNKNOWN_ZONE_ID)) return nullptr;
  return zone;
}

int offsetFromGMT(std::string_view zoneId, Date date) {
  const auto zone = sharedTimeZone(zoneId);
  if (!zone) return 0;
  int32_t raw = 0, dst = 0;
  UErrorCode status = U_ZERO_ERROR;
  zone->getOffset(date.toUDate(), false, raw, dst, status);
  return U_SUCCESS(status) ? (raw + dst) / 1000 : 0;
}

std::unique_ptr<icu::Calendar> makeGregorianCalendar(std::string_view zoneId, const icu::Locale& locale) {
  auto zone = makeTimeZone(zoneId);
  if (!zone) zone.reset(icu::TimeZone::getGMT()->clone());
  UErrorCode status = U_ZERO_ERROR;
  // "@calendar=gregorian" keeps the locale's week data while fixing the months.
  icu::Locale gregorian(locale);
  gregorian.setKeywordValue("calendar", "gregorian", status);
  status = U_ZERO_ERROR;
  auto calendar = std::make_unique<icu::GregorianCalendar>(zone.release(), gregorian, status);
  if (U_FAILURE(status)) return nullptr;
  // Gregorian rules all the way back, like the phone platforms' calendars.
  calendar->setGregorianChange(-std::numeric_limits<double>::max(), status);
  return calendar;
}

std::optional<Date> dateFromLocalTime(std::string_view zone, int year, int month, int day, int hour, int minute,
                                      int second) {
  auto calendar = makeGregorianCalendar(zone, icu::Locale::getRoot());
  if (!calendar) return std::nullopt;
  calendar->clear();
  calendar->setRepeatedWallTimeOption(UCAL_WALLTIME_FIRST);
  calendar->setSkippedWallTimeOption(UCAL_WALLTIME_LAST);
  calendar->set(year, month - 1, day, hour, minute, second);
  UErrorCode status = U_ZERO_ERROR;
  const UDate millis = calendar->getTime(status);
  if (U_FAILURE(status)) return std::nullopt;
  return Date::fromUDate(millis);
}

}  // namespace icu_support

namespace {

// A language ICU holds data for; a locale of any other is only a name, whose
// calendar and texts would silently fall back to the root locale's.
bool isKnownLanguage(const char* language) {
  static const std::set<std::string, std::less<>> languages = [] {
    std::set<std::string, std::less<>> all;
    int32_t count = 0;
    const icu::Locale* locales = icu::Locale::getAvailableLocales(count);
    for (int32_t i = 0; i < count; ++i) all.emplace(locales[i].getLanguage());
    return all;
  }();
  return languages.find(std::string_view(language)) != languages.end();
}

// An ISO 3166 country, or a UN M.49 area such as "419" (Latin America).
bool isKnownRegion(const char* region) {
  const std::string_view code(region);
  if (code.empty()) return true;
  if (code.size() == 3 && std::all_of(code.begin(), code.end(), [](char c) { return c >= '0' && c <= '9'; })) {
    return true;
  }
  for (const char* const* country = icu::Locale::getISOCountries(); *country; ++country) {
    if (code == *country) return true;
  }
  return false;
}

std::string canonicalLocaleId(std::string_view id) {
  std::string text(id);
  UErrorCode status = U_ZERO_ERROR;
  // Accept BCP 47 tags ("de-DE") as well as ICU ids ("de_DE").
  icu::Locale locale = text.find('-') != std::string::npos ? icu::Locale::forLanguageTag(text, status)
                                                           : icu::Locale::createCanonical(text.c_str());
  if (U_FAILURE(status) || locale.isBogus()) return {};
  if (!isKnownLanguage(locale.getLanguage()) || !isKnownRegion(locale.getCountry())) return {};
  return locale.getName();
}

}  // namespace

Region::Region(std::string_view timeZoneId, std::string_view localeId) {
  auto impl = std::make_shared<Impl>();
  auto zone = icu_support::makeTimeZone(timeZoneId);
  if (!zone) throw std::invalid_argument("unknown time zone \"" + std::string(timeZoneId) + "\"");
  icu::UnicodeString resolved;
  impl->timeZoneId = icu_support::toUtf8(zone->getID(resolved));
  impl->localeId = canonicalLocaleId(localeId);
  if (localeId.empty() || impl->localeId.empty()) {
    throw std::invalid_argument("unknown locale \"" + std::string(localeId) + "\"");
  }
  impl->locale = icu::Locale(impl->localeId.c_str());
  impl_ = std::move(impl);
}

Region Region::system() {
  std::unique_ptr<icu::TimeZone> zone(icu::TimeZone::detectHostTimeZone());
  icu::UnicodeString id;
  zone->getID(id);
  std::string zoneId = icu_support::toUtf8(id);
  if (!icu_support::makeTimeZone(zoneId)) zoneId = "UTC";
  std::string localeId = icu::Locale::getDefault().getName();
  if (localeId.empty() || localeId == "c" || localeId == "C") localeId = "en_US_POSIX";
  // A system set to a locale ICU has no data for still runs, as the phone does.
  if (canonicalLocaleId(localeId).empty()) localeId = "en_US_POSIX";
  return Region(zoneId, localeId);
}

Region Region::current() { return Environment::current().region(); }

const std::string& Region::timeZoneId() const { return impl_->timeZoneId; }
const std::string& Region::localeId() const { return impl_->localeId; }
std::string Region::languageCode() const { return impl_->locale.getLanguage(); }
std::string Region::regionCode() const { return impl_->locale.getCountry(); }

int Region::firstWeekday() const {
  UErrorCode status = U_ZERO_ERROR;
  std::unique_ptr<icu::Calendar> calendar(icu::Calendar::createInstance(impl_->locale, status));
  if (U_FAILURE(status)) return 1;
  return calendar->getFirstDayOfWeek(status);
}

std::optional<std::string> Region::dateFormat(std::string_view fromTemplate) const {
  std::lock_guard lock(impl_->generatorMutex);
  // A chart asks for the same few templates once per label.
  if (const auto found = impl_->patterns.find(fromTemplate); found != impl_->patterns.end()) return found->second;
  UErrorCode status = U_ZERO_ERROR;
  if (!impl_->generator) {
    impl_->generator.reset(icu::DateTimePatternGenerator::createInstance(impl_->locale, status));
    if (U_FAILURE(status)) {
      impl_->generator.reset();
      return std::nullopt;
    }
  }
  const icu::UnicodeString pattern = impl_->generator->getBestPattern(icu_support::fromUtf8(fromTemplate), status);
  std::optional<std::string> found;
  if (U_SUCCESS(status)) found = icu_support::toUtf8(pattern);
  impl_->patterns.emplace(std::string(fromTemplate), found);
  return found;
}

std::string Region::timeZoneRulesVersion() {
  UErrorCode status = U_ZERO_ERROR;
  const char* version = icu::TimeZone::getTZDataVersion(status);
  return U_SUCCESS(status) && version ? version : "";
}

int Region::secondsFromGMT(double unixSeconds) const {
  return icu_support::offsetFromGMT(impl_->timeZoneId, Date::fromTimeIntervalSince1970(unixSeconds));
}

}  // namespace tarnwell

// Region: the calendar, time zone and locale in which instants are read.
//
// A Region is an immutable value; copies are cheap and may be used from any
// thread. The process-wide region lives in the Environment and is replaced
// whole (Environment::setRegion); nothing caches a region across that change.

#pragma once

#include <memory>
#include <optional>
#include <string>
#include <string_view>

namespace tarnwell {

class Region {
 public:
  // `timeZoneId` is an IANA zone ("Europe/Berlin", "UTC"); `localeId` an ICU
  // or BCP 47 locale ("en_US", "de-DE"). Throws std::invalid_argument for a
  // zone that ICU does not know or an empty locale.
  Region(std::string_view timeZoneId, std::string_view localeId);

  // The host's zone and locale as ICU detects them (TZ, /etc/localtime, LANG).
  static Region system();
  // The installed Environment's region.
  static Region current();

  const std::string& timeZoneId() const;
  // Canonical ICU form, "en_US".
  const std::string& localeId() const;
  // Always "gregorian": see firstWeekday().
  std::string calendarIdentifier() const { return "gregorian"; }

  // ISO codes of the locale, empty when it has none ("en", "US").
  std::string languageCode() const;
  std::string regionCode() const;

  // The weekday on which the locale's weeks start: 1 is Sunday, 2 Monday, 7 Saturday.
  int firstWeekday() const;

  // The locale's best date pattern for a template of pattern letters:
  // "j" gives "h a" in en_US and "HH" in en_GB; "dMMM" gives "MMM d" in en_US.
  // Nothing when the template cannot be expanded.
  std::optional<std::string> dateFormat(std::string_view fromTemplate) const;

  // Seconds east of UTC at that instant (daylight saving included).
  int secondsFromGMT(double unixSeconds) const;
  // The version of the zone rules in use ("2024a"): the same zone may have
  // other offsets under other rules.
  static std::string timeZoneRulesVersion();

  friend bool operator==(const Region& a, const Region& b) {
    return a.timeZoneId() == b.timeZoneId() && a.localeId() == b.localeId();
  }

  struct Impl;
  // For the library's own ICU code.
  const Impl& impl() const { return *impl_; }

 private:
  std::shared_ptr<const Impl> impl_;
};

}  // namespace tarnwell

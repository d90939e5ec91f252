// Private helpers around ICU, kept out of the public headers.

#pragma once

#include <unicode/calendar.h>
#include <unicode/locid.h>
#include <unicode/timezone.h>
#include <unicode/unistr.h>

#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "tarnwell/platform/Date.h"

namespace tarnwell::icu_support {

inline std::string toUtf8(const icu::UnicodeString& text) {
  std::string out;
  text.toUTF8String(out);
  return out;
}

inline icu::UnicodeString fromUtf8(std::string_view text) {
  return icu::UnicodeString::fromUTF8(icu::StringPiece(text.data(), static_cast<int32_t>(text.size())));
}

// The zone of that IANA id, or nothing when ICU does not know it.
std::unique_ptr<icu::TimeZone> makeTimeZone(std::string_view id);

// Seconds to add to UTC to get the wall time of `zone` at `date`.
int offsetFromGMT(std::string_view zone, Date date);

// A Gregorian calendar in `zone` with the week rules of `locale`. Locales
// whose default calendar is not Gregorian (fa_IR, th_TH) still get Gregorian
// months, since all arithmetic of this library assumes them.
std::unique_ptr<icu::Calendar> makeGregorianCalendar(std::string_view zone, const icu::Locale& locale);

// The instant of a wall-clock time in `zone`. A time skipped by a daylight
// saving change moves forward by the length of the gap (02:30 becomes 03:30);
// a repeated one takes its first occurrence.
std::optional<Date> dateFromLocalTime(std::string_view zone, int year, int month, int day, int hour, int minute,
                                      int second);

}  // namespace tarnwell::icu_support

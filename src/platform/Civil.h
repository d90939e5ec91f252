// Proleptic Gregorian calendar arithmetic on plain numbers (Howard Hinnant's
// algorithms), for text forms that need no zone rules beyond an offset.

#pragma once

#include <cmath>
#include <cstdint>

namespace tarnwell::civil {

constexpr double kSecondsPerDay = 86400.0;

// Days since 1970-01-01 of a proleptic Gregorian date (Howard Hinnant's algorithm).
constexpr std::int64_t daysFromCivil(std::int64_t y, unsigned m, unsigned d) {
  y -= m <= 2;
  const std::int64_t era = (y >= 0 ? y : y - 399) / 400;
  const auto yoe = static_cast<unsigned>(y - era * 400);
  const unsigned doy = (153 * (m + (m > 2 ? -3 : 9)) + 2) / 5 + d - 1;
  const unsigned doe = yoe * 365 + yoe / 4 - yoe / 100 + doy;
  return era * 146097 + static_cast<std::int64_t>(doe) - 719468;
}

struct Civil {
  std::int64_t year;
  unsigned month, day, hour, minute, second, millisecond;
};

inline Civil fromUnixSeconds(double unixSeconds) {
  const double wholeMs = std::floor(unixSeconds * 1000.0 + 0.5);
  auto ms = static_cast<std::int64_t>(wholeMs);
  std::int64_t days = ms >= 0 ? ms / 86400000 : -((-ms + 86399999) / 86400000);
  std::int64_t msOfDay = ms - days * 86400000;
  days += 719468;
  const std::int64_t era = (days >= 0 ? days : days - 146096) / 146097;
  const auto doe = static_cast<unsigned>(days - era * 146097);
  const unsigned yoe = (doe - doe / 1460 + doe / 36524 - doe / 146096) / 365;
  const unsigned doy = doe - (365 * yoe + yoe / 4 - yoe / 100);
  const unsigned mp = (5 * doy + 2) / 153;
  const unsigned d = doy - (153 * mp + 2) / 5 + 1;
  const unsigned m = mp < 10 ? mp + 3 : mp - 9;
  const std::int64_t y = static_cast<std::int64_t>(yoe) + era * 400 + (m <= 2);
  return Civil{y,
               m,
               d,
               static_cast<unsigned>(msOfDay / 3600000),
               static_cast<unsigned>(msOfDay / 60000 % 60),
               static_cast<unsigned>(msOfDay / 1000 % 60),
               static_cast<unsigned>(msOfDay % 1000)};
}

}  // namespace tarnwell::civil

#pragma once

#include <unicode/dtptngen.h>
#include <unicode/locid.h>

#include <memory>
#include <mutex>
#include <string>

#include "tarnwell/platform/Region.h"

namespace tarnwell {

struct Region::Impl {
  std::string timeZoneId;
  std::string localeId;
  icu::Locale locale;
  // Built on first use; getBestPattern is not const, hence the mutex.
  mutable std::mutex generatorMutex;
  mutable std::unique_ptr<icu::DateTimePatternGenerator> generator;
};

}  // namespace tarnwell

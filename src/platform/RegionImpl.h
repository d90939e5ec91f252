#pragma once

#include <unicode/dtptngen.h>
#include <unicode/locid.h>

#include <map>
#include <memory>
#include <mutex>
#include <optional>
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
  // The generator's answers by template.
  mutable std::map<std::string, std::optional<std::string>, std::less<>> patterns;
};

}  // namespace tarnwell

// ICU calendars and formatters of the default region, kept per thread.

#pragma once

#include <memory>
#include <string>

#include "tarnwell/platform/Date.h"
#include "tarnwell/platform/Region.h"

namespace tarnwell::regional {

// This thread's object of type T for Date::defaultRegion(), made by
// `make(region)` the first time and again whenever the region changes. ICU
// calendars and formatters must not be shared between threads, and building
// one costs far more than using it.
template <class T, class Make>
T& perThread(Make&& make) {
  thread_local std::string zone, locale;
  thread_local std::unique_ptr<T> cached;
  const Region region = Date::defaultRegion();
  if (!cached || zone != region.timeZoneId() || locale != region.localeId()) {
    cached = make(region);
    zone = region.timeZoneId();
    locale = region.localeId();
  }
  return *cached;
}

}  // namespace tarnwell::regional

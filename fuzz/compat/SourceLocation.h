// Forced into every file of the fuzz build (scripts/fuzz.sh): Debian's
// clang 14 lacks the built-in that GCC 12's <source_location> needs, so the
// header declares nothing there. This stands in for it with the older
// built-ins clang 14 has, in the fuzz build only.

#pragma once

#if defined(__clang__) && __clang_major__ < 15
#include <source_location>
#if !defined(__cpp_lib_source_location)
namespace std {
struct source_location {
  static constexpr source_location current(const char* file = __builtin_FILE(),
                                           const char* function = __builtin_FUNCTION(),
                                           unsigned line = __builtin_LINE(),
                                           unsigned column = __builtin_COLUMN()) noexcept {
    source_location site;
    site.file_ = file;
    site.function_ = function;
    site.line_ = line;
    site.column_ = column;
    return site;
  }
  constexpr const char* file_name() const noexcept { return file_; }
  constexpr const char* function_name() const noexcept { return function_; }
  constexpr unsigned line() const noexcept { return line_; }
  constexpr unsigned column() const noexcept { return column_; }

 private:
  const char* file_ = "";
  const char* function_ = "";
  unsigned line_ = 0;
  unsigned column_ = 0;
};
}  // namespace std
#endif
#endif

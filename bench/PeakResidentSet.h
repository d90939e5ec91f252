// The rise of a process's peak memory over a stretch of a benchmark.

#pragma once

#include <sys/resource.h>

#include <algorithm>
#include <fstream>
#include <optional>
#include <string>

namespace tarnwell::bench {

// The rise of the process's peak resident set from construction to
// riseMiB(). Linux lets the high-water mark be reset; elsewhere, or if that
// is refused, the lifetime peak can only show a rise above the earlier one.
class PeakResidentSet {
 public:
  PeakResidentSet() {
    std::ofstream clear("/proc/self/clear_refs");
    resettable_ = static_cast<bool>(clear << "5" << std::flush) && highWaterMarkKiB().has_value();
    before_ = resettable_ ? *highWaterMarkKiB() : lifetimePeakKiB();
  }

  double riseMiB() const {
    const long after = resettable_ ? highWaterMarkKiB().value_or(before_) : lifetimePeakKiB();
    return static_cast<double>(std::max(after - before_, 0L)) / 1024.0;
  }

 private:
  static std::optional<long> highWaterMarkKiB() {
    std::ifstream status("/proc/self/status");
    for (std::string line; std::getline(status, line);) {
      if (line.rfind("VmHWM:", 0) == 0) return std::stol(line.substr(6));
    }
    return std::nullopt;
  }

  static long lifetimePeakKiB() {
    rusage usage{};
    ::getrusage(RUSAGE_SELF, &usage);
    return usage.ru_maxrss;
  }

  bool resettable_ = false;
  long before_ = 0;
};

}  // namespace tarnwell::bench

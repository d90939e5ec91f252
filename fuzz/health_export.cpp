// A health export (export.xml), read through a buffer whose size the input's
// first byte picks, so that tags and entities fall across its edges.
#include <cstdlib>
#include <sstream>

#include "FuzzSupport.h"
#include "tarnwell/healthkit/HealthExport.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using namespace tarnwell;
  fuzzing::environment();
  fuzzing::Input input(data, size);
  const std::size_t bufferSize = 16 + input.byte();
  std::istringstream in(input.rest());
  HealthExportReader reader(in, bufferSize);
  std::vector<HKSample> batch;
  try {
    while (reader.next(batch, 7)) {
      if (batch.empty() || batch.size() > 7) std::abort();
      for (const auto& sample : batch) {
        if (sample.endDate < sample.startDate) std::abort();
      }
    }
  } catch (const HealthExportError&) {
  }
  return 0;
}

// An AWARE screen-events file.
#include "ImportFuzzer.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  tarnwell::fuzzing::fuzzImport(tarnwell::cli::ImportFormat::aware, data, size);
  return 0;
}

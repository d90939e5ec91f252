// A CSV file of kind,start,end rows.
#include "ImportFuzzer.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  tarnwell::fuzzing::fuzzImport(tarnwell::cli::ImportFormat::tarnwell, data, size);
  return 0;
}

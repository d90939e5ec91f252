// The importers' fuzz targets: one file of a format, read as the command reads it.

#pragma once

#include <cstdint>
#include <cstdlib>
#include <sstream>
#include <string>

#include "FuzzSupport.h"
#include "Import.h"

namespace tarnwell::fuzzing {

inline void fuzzImport(cli::ImportFormat format, const std::uint8_t* data, std::size_t size) {
  environment();
  std::istringstream in(std::string(reinterpret_cast<const char*>(data), size));
  std::size_t badRows = 0;
  cli::ImportReader reader(format, {[](const cli::ImportedEvent& event) {
                                      // What the store is handed is a span.
                                      if (event.end < event.start) std::abort();
                                    },
                                    [&badRows](std::size_t, const cli::ImportProblem&) { ++badRows; }});
  try {
    // As the command gives up: after 100 bad rows.
    cli::readImport(in, reader, [&reader] { return reader.skipped() < 100; });
  } catch (const cli::ImportFormatError&) {
    return;
  }
  if (badRows != reader.skipped() || reader.skipped() > reader.rows() || reader.rows() > reader.lines()) std::abort();
}

}  // namespace tarnwell::fuzzing

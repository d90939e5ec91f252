// HealthExportReader: the sleep and mindful sessions of the export that a
// user makes in the phone's health app (export.xml).
//
// An export holds everything the phone's health store ever recorded, often
// several gigabytes, nearly all of it of no interest here. The reader scans
// it once, front to back, through a buffer of fixed size, and hands over the
// top-level <Record> elements of the sleep-analysis and mindful-session
// types as samples, a batch at a time; every other element is stepped over
// with its children. Memory stays the same whatever the size of the file.
//
// A reader belongs to one thread; it reads its stream and nothing else.

#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <istream>
#include <map>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "tarnwell/healthkit/Samples.h"

namespace tarnwell {

// A malformed export. The message is one line that begins with the line of
// the file where the fault lies: line 12: the endDate "2024-13-01 ..." is
// not a date.
class HealthExportError : public std::runtime_error {
 public:
  HealthExportError(std::uint64_t line, const std::string& problem);
  std::uint64_t line() const { return line_; }

 private:
  std::uint64_t line_;
};

class HealthExportReader {
 public:
  static constexpr std::size_t kDefaultBufferSize = 64 * 1024;
  // No single tag may be longer; the buffer grows to hold one up to this size.
  static constexpr std::size_t kMaxTagSize = 1024 * 1024;

  // Reads `in`, which must outlive the reader, from its current position.
  // `bufferSize` (at least 16 bytes) matters only to tests and benchmarks.
  explicit HealthExportReader(std::istream& in, std::size_t bufferSize = kDefaultBufferSize);

  ~HealthExportReader();
  HealthExportReader(HealthExportReader&&) noexcept;
  HealthExportReader& operator=(HealthExportReader&&) noexcept;

  // Replaces the contents of `batch` with the next samples of the export, at
  // most `maxCount` of them (at least one), in the order of the file. Returns
  // false, with `batch` empty, once the export has been read to its end.
  //
  // Each sample has a type, a start and an end (end not before start), a
  // category value, the source's name with an empty bundle identifier (the
  // caller names the bundle), an empty uuid, and as metadata an object of
  // the record's MetadataEntry texts, or null if it has none.
  //
  // Throws HealthExportError on anything malformed: a broken tag, entity or
  // nesting, a kept record without its type, dates or value or with a date
  // or value that does not parse, a record that ends before it starts, text
  // outside the <HealthData> element, or a file that stops short. Elements
  // that are skipped are checked only for the shape of their tags. After a
  // throw the reader must not be used again. A stream that fails reads as a
  // file that stops short, unless the stream throws.
  bool next(std::vector<HKSample>& batch, std::size_t maxCount);

  // For SqliteHealthStore::importSamples: a function that calls
  // `next(batch, batchSize)`. It must not outlive the reader.
  std::function<bool(std::vector<HKSample>& batch)> batches(std::size_t batchSize);

  // The line (from 1) and the byte offset that the reader has reached.
  std::uint64_t line() const;
  std::uint64_t bytesRead() const;

  // The top-level records stepped over so far, by their type attribute.
  const std::map<std::string, std::uint64_t, std::less<>>& skippedRecords() const;

 private:
  struct Scanner;
  std::unique_ptr<Scanner> scanner_;
};

}  // namespace tarnwell

// Importing a phone's health export: the reader alone, and the reader
// feeding the installation's health store in one transaction. The export is
// made as it is read, so neither a file nor the whole text ever exists.

#include <benchmark/benchmark.h>

#include <algorithm>
#include <array>
#include <cstdint>
#include <fstream>
#include <istream>
#include <optional>
#include <streambuf>
#include <string>
#include <string_view>
#include <vector>

#include "BenchEnvironment.h"
#include "PeakResidentSet.h"
#include "tarnwell/healthkit/HealthExport.h"
#include "tarnwell/healthkit/SqliteHealthStore.h"

namespace {

using namespace tarnwell;
using bench::BenchEnvironment;
using bench::PeakResidentSet;

constexpr std::size_t kRecords = 1'000'000;
constexpr std::size_t kBatchSize = 1000;

constexpr std::string_view kHeader = R"(<?xml version="1.0" encoding="UTF-8"?>
<!DOCTYPE HealthData [
<!-- Health export, version 13 -->
<!ELEMENT HealthData (ExportDate,Me,(Record|Correlation|Workout|ActivitySummary)*)>
<!ATTLIST HealthData
  locale CDATA #REQUIRED
>
<!ELEMENT Record ((MetadataEntry|HeartRateVariabilityMetadataList)*)>
<!ATTLIST Record
  type          CDATA #REQUIRED
  unit          CDATA #IMPLIED
  value         CDATA #IMPLIED
  sourceName    CDATA #REQUIRED
  sourceVersion CDATA #IMPLIED
  device        CDATA #IMPLIED
  creationDate  CDATA #IMPLIED
  startDate     CDATA #REQUIRED
  endDate       CDATA #REQUIRED
>
<!ELEMENT MetadataEntry EMPTY>
<!ATTLIST MetadataEntry
  key   CDATA #REQUIRED
  value CDATA #REQUIRED
>
]>
<HealthData locale="en_GB">
 <ExportDate value="2024-03-01 09:00:00 +0100"/>
 <Me HKCharacteristicTypeIdentifierDateOfBirth="" HKCharacteristicTypeIdentifierBiologicalSex="HKBiologicalSexNotSet"/>
)";

constexpr std::string_view kFooter =
    " <ActivitySummary dateComponents=\"2024-03-01\" activeEnergyBurned=\"0\"/>\n</HealthData>\n";

// Twenty sources; the first two count steps, the others write sleep and
// mindful sessions.
constexpr std::array<std::string_view, 20> kSources = {
    "Phone",       "Tom&apos;s Watch", "Sleep Diary",  "Night Owl",        "Dormio",      "Restful", "Drift",
    "Lullaby",     "Moonlight",        "Quiet Hours",  "Sleep &amp; Wake", "Pillow Talk", "Nod",     "Slumber",
    "Bedtime Log", "Deep Rest",        "Calm Minutes", "Breathe",          "Still",       "Unwind",
};

constexpr std::array<std::string_view, 6> kStages = {
    "HKCategoryValueSleepAnalysisInBed",      "HKCategoryValueSleepAnalysisAsleepCore",
    "HKCategoryValueSleepAnalysisAsleepDeep", "HKCategoryValueSleepAnalysisAsleepREM",
    "HKCategoryValueSleepAnalysisAwake",      "HKCategoryValueSleepAnalysisAsleepUnspecified",
};

// An export of `records` records, made as it is read: of every hundred, 25
// sleep stages (some with metadata), one mindful session with metadata, and
// 74 step counts that the reader skips.
class GeneratedExport final : public std::streambuf {
 public:
  explicit GeneratedExport(std::size_t records) : records_(records) { chunk_.reserve(kChunk + 2048); }

 protected:
  int_type underflow() override {
    if (gptr() < egptr()) return traits_type::to_int_type(*gptr());
    chunk_.clear();
    if (!startedHeader_) {
      chunk_ += kHeader;
      startedHeader_ = true;
    }
    while (chunk_.size() < kChunk && made_ < records_) appendRecord();
    if (made_ == records_ && !wroteFooter_) {
      chunk_ += kFooter;
      wroteFooter_ = true;
    }
    if (chunk_.empty()) return traits_type::eof();
    setg(chunk_.data(), chunk_.data(), chunk_.data() + chunk_.size());
    return traits_type::to_int_type(*gptr());
  }

 private:
  static constexpr std::size_t kChunk = 64 * 1024;

  void appendRecord() {
    const std::size_t kind = made_ % 100;
    const std::int64_t start = clock_;
    clock_ += 97;
    if (kind < 74) {
      chunk_ += R"( <Record type="HKQuantityTypeIdentifierStepCount" sourceName=")";
      chunk_ += kSources[made_ % 2];
      chunk_ +=
          R"(" sourceVersion="17.2" device="&lt;&lt;HKDevice: 0x283a5c1e0&gt;, name:Phone, manufacturer:Maker, model:Phone, hardware:Phone15,2, software:17.2&gt;" unit="count" creationDate=")";
      appendDate(start + 300);
      chunk_ += R"(" startDate=")";
      appendDate(start);
      chunk_ += R"(" endDate=")";
      appendDate(start + 300);
      chunk_ += R"(" value=")";
      chunk_ += std::to_string(made_ % 997);
      chunk_ += "\"/>\n";
    } else {
      const bool mindful = kind == 99;
      chunk_ += mindful ? R"( <Record type="HKCategoryTypeIdentifierMindfulSession" sourceName=")"
                        : R"( <Record type="HKCategoryTypeIdentifierSleepAnalysis" sourceName=")";
      chunk_ += kSources[2 + made_ / 100 % (kSources.size() - 2)];
      chunk_ += R"(" sourceVersion="5.2" creationDate=")";
      appendDate(start + 3600);
      chunk_ += R"(" startDate=")";
      appendDate(start);
      chunk_ += R"(" endDate=")";
      appendDate(start + 60 + static_cast<std::int64_t>(made_ % 1800));
      chunk_ += R"(" value=")";
      chunk_ += mindful ? "HKCategoryValueNotApplicable" : kStages[made_ % kStages.size()];
      if (mindful || kind % 5 == 0) {
        chunk_ += "\">\n  <MetadataEntry key=\"HKTimeZone\" value=\"Europe/London\"/>\n </Record>\n";
      } else {
        chunk_ += "\"/>\n";
      }
    }
    ++made_;
  }

  // "2024-01-01 23:10:00 +0100" for Unix time `seconds`, in the writer's
  // zone an hour east of UTC; written by hand, as a formatter would cost
  // more than the reader.
  void appendDate(std::int64_t seconds) {
    seconds += 3600;
    const std::int64_t days = seconds / 86400, rest = seconds % 86400;
    // The civil date of a day count since 1970.
    const std::int64_t z = days + 719468, era = z / 146097, dayOfEra = z - era * 146097;
    const std::int64_t yearOfEra = (dayOfEra - dayOfEra / 1460 + dayOfEra / 36524 - dayOfEra / 146096) / 365;
    const std::int64_t dayOfYear = dayOfEra - (365 * yearOfEra + yearOfEra / 4 - yearOfEra / 100);
    const std::int64_t mp = (5 * dayOfYear + 2) / 153;
    const std::int64_t day = dayOfYear - (153 * mp + 2) / 5 + 1, month = mp < 10 ? mp + 3 : mp - 9;
    const std::int64_t year = yearOfEra + era * 400 + (month <= 2);
    char text[25];
    auto put = [&](int at, std::int64_t value, int width) {
      for (int i = at + width - 1; i >= at; --i, value /= 10) text[i] = static_cast<char>('0' + value % 10);
    };
    put(0, year, 4);
    text[4] = '-';
    put(5, month, 2);
    text[7] = '-';
    put(8, day, 2);
    text[10] = ' ';
    put(11, rest / 3600, 2);
    text[13] = ':';
    put(14, rest / 60 % 60, 2);
    text[16] = ':';
    put(17, rest % 60, 2);
    std::copy_n(" +0100", 6, text + 19);
    chunk_.append(text, sizeof text);
  }

  const std::size_t records_;
  std::size_t made_ = 0;
  std::int64_t clock_ = 1672531200;  // 2023-01-01
  bool startedHeader_ = false;
  bool wroteFooter_ = false;
  std::string chunk_;
};

void report(benchmark::State& state, std::size_t kept, double peakMiB) {
  state.counters["records/s"] = benchmark::Counter(static_cast<double>(kRecords), benchmark::Counter::kIsRate);
  state.counters["samples"] = static_cast<double>(kept);
  state.counters["peakMiB"] = peakMiB;
}

void BM_ReadHealthExport(benchmark::State& state) {
  std::size_t kept = 0;
  double peakMiB = 0;
  for (auto _ : state) {
    GeneratedExport generated(kRecords);
    std::istream in(&generated);
    PeakResidentSet peak;
    HealthExportReader reader(in);
    std::vector<HKSample> batch;
    kept = 0;
    while (reader.next(batch, kBatchSize)) kept += batch.size();
    peakMiB = peak.riseMiB();
  }
  report(state, kept, peakMiB);
}
BENCHMARK(BM_ReadHealthExport)->Iterations(1)->UseRealTime()->Unit(benchmark::kMillisecond);

void BM_ImportHealthExport(benchmark::State& state) {
  BenchEnvironment environment;
  std::size_t kept = 0;
  double peakMiB = 0;
  for (auto _ : state) {
    SqliteHealthStore store(environment.root() / "HealthKit");
    GeneratedExport generated(kRecords);
    std::istream in(&generated);
    PeakResidentSet peak;
    HealthExportReader reader(in);
    // The caller names the bundles; here each source becomes an application of its own.
    kept = store.importSamples([&reader](std::vector<HKSample>& batch) {
      if (!reader.next(batch, kBatchSize)) return false;
      for (HKSample& sample : batch) sample.source.bundleIdentifier = "export." + sample.source.name;
      return true;
    });
    peakMiB = peak.riseMiB();
  }
  report(state, kept, peakMiB);
}
BENCHMARK(BM_ImportHealthExport)->Iterations(1)->UseRealTime()->Unit(benchmark::kMillisecond);

}  // namespace

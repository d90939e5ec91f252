#include "tarnwell/healthkit/HealthExport.h"

#include <gtest/gtest.h>

#include <sstream>
#include <string>
#include <vector>

namespace tarnwell {
namespace {

// What a phone writes, trimmed, with the things that trip a naive reader:
// a DOCTYPE whose comments and defaults hold "]>" and quotes, records in a
// comment, both quote styles, attributes in any order, entities, records
// with children, and sleep records nested where no sample lives.
const std::string kExport = R"(<?xml version="1.0" encoding="UTF-8"?>
<!DOCTYPE HealthData [
<!-- HealthKit Export Version: 13 -->
<!ELEMENT HealthData (ExportDate,Me,(Record|Correlation|Workout|ActivitySummary)*)>
<!ATTLIST HealthData
  locale CDATA #REQUIRED
>
<!-- a comment with ]> and the user's quote -->
<!ATTLIST Record
  type  CDATA #REQUIRED
  note  CDATA "a default with > and ]>"
>
]>
<HealthData locale="en_GB">
 <ExportDate value="2024-03-01 09:00:00 +0100"/>
 <Me HKCharacteristicTypeIdentifierDateOfBirth="" HKCharacteristicTypeIdentifierBiologicalSex="HKBiologicalSexNotSet"/>
 <Record type="HKQuantityTypeIdentifierStepCount" sourceName="Phone" unit="count" startDate="2024-01-01 10:00:00 +0100" endDate="2024-01-01 10:05:00 +0100" value="120"/>
 <Record type="HKCategoryTypeIdentifierSleepAnalysis" sourceName="Sleep App" sourceVersion="5.2" creationDate="2024-01-02 07:01:00 +0100" startDate="2024-01-01 23:10:00 +0100" endDate="2024-01-02 06:55:00 +0100" value="HKCategoryValueSleepAnalysisAsleepUnspecified"/>
 <!-- <Record type="HKCategoryTypeIdentifierSleepAnalysis" value="1"/> -->
 <Record value='HKCategoryValueSleepAnalysisInBed' endDate='2024-01-02 07:00:00 +0100'
   startDate='2024-01-01 23:00:00 +0100' sourceName='Tom&apos;s &quot;Watch&quot; &lt;3 &#38; &#x263A; &gt;' type='HKCategoryTypeIdentifierSleepAnalysis' />
 <Record type="HKQuantityTypeIdentifierHeartRate" sourceName="Watch" startDate="2024-01-02 09:00:00 +0100" endDate="2024-01-02 09:00:00 +0100" value="61">
  <MetadataEntry key="HKMetadataKeyHeartRateMotionContext" value="0"/>
  <HeartRateVariabilityMetadataList>
   <InstantaneousBeatsPerMinute bpm="63" time="9:04:31.08 AM"/>
  </HeartRateVariabilityMetadataList>
 </Record>
 <Record type="HKCategoryTypeIdentifierMindfulSession" sourceName="Breathe" startDate="2024-01-02 12:00:00 +0000" endDate="2024-01-02 12:05:00 +0000" value="HKCategoryValueNotApplicable">
  <MetadataEntry key="HKTimeZone" value="Europe/London"/>
  <MetadataEntry key = "note" value = "calm &amp; slow"></MetadataEntry>
  <![CDATA[ <Record> ]]>
 </Record>
 <Correlation type="HKCorrelationTypeIdentifierBloodPressure" startDate="2024-01-02 08:00:00 +0000" endDate="2024-01-02 08:00:00 +0000">
  <Record type="HKCategoryTypeIdentifierSleepAnalysis" startDate="2024-01-02 08:00:00 +0000" endDate="2024-01-02 08:00:00 +0000" value="2"/>
 </Correlation>
 <Workout workoutActivityType="HKWorkoutActivityTypeWalking" duration="30">
  <WorkoutEvent type="HKWorkoutEventTypePause" date="2024-01-02 18:10:00 +0000"/>
  <WorkoutRoute sourceName="Watch"><FileReference path="/workout-routes/route_1.gpx"/></WorkoutRoute>
 </Workout>
 <Record type="HKCategoryTypeIdentifierSleepAnalysis" sourceName="Sleep App" startDate="2024-01-02 00:00:00 -0930" endDate="2024-01-02 20:00:00 +0545" value="5"/>
 <Record type="HKQuantityTypeIdentifierStepCount" sourceName="Phone" startDate="2024-01-02 10:00:00 +0100" endDate="2024-01-02 10:05:00 +0100" value="80"/>
 <ActivitySummary dateComponents="2024-01-02" activeEnergyBurned="0"/>
</HealthData>
<!-- exported -->
)";

HKSample sample(HKSampleType type, std::int64_t value, double start, double end, std::string source,
                HKMetadata metadata = nullptr) {
  HKSample sample;
  sample.sampleType = type;
  sample.categoryValue = value;
  sample.startDate = Date::fromTimeIntervalSince1970(start);
  sample.endDate = Date::fromTimeIntervalSince1970(end);
  sample.source.name = std::move(source);
  sample.metadata = std::move(metadata);
  return sample;
}

const std::vector<HKSample> kExpected = {
    sample(HKSampleType::sleepAnalysis, 1, 1704147000, 1704174900, "Sleep App"),
    sample(HKSampleType::sleepAnalysis, 0, 1704146400, 1704175200, "Tom's \"Watch\" <3 & \u263A >"),
    sample(HKSampleType::mindfulSession, 0, 1704196800, 1704197100, "Breathe",
           {{"HKTimeZone", "Europe/London"}, {"note", "calm & slow"}}),
    sample(HKSampleType::sleepAnalysis, 5, 1704187800, 1704204900, "Sleep App"),
};

std::vector<HKSample> readAll(const std::string& xml, std::size_t bufferSize = HealthExportReader::kDefaultBufferSize,
                              std::size_t batchSize = 100) {
  std::istringstream in(xml);
  HealthExportReader reader(in, bufferSize);
  std::vector<HKSample> all, batch;
  while (reader.next(batch, batchSize)) {
    EXPECT_LE(batch.size(), batchSize);
    all.insert(all.end(), batch.begin(), batch.end());
  }
  EXPECT_TRUE(batch.empty());
  EXPECT_EQ(reader.bytesRead(), xml.size());
  return all;
}

std::string withCrlf(const std::string& text) {
  std::string out;
  for (char c : text) out += c == '\n' ? std::string("\r\n") : std::string(1, c);
  return out;
}

TEST(HealthExportReader, ReadsTheKeptRecordsOfAnExport) {
  std::istringstream in(kExport);
  HealthExportReader reader(in);
  std::vector<HKSample> batch;
  ASSERT_TRUE(reader.next(batch, 100));
  EXPECT_EQ(batch, kExpected);
  EXPECT_FALSE(reader.next(batch, 100));
  EXPECT_TRUE(batch.empty());
  // Only top-level records count: the one in the Correlation is neither kept nor counted.
  const std::map<std::string, std::uint64_t, std::less<>> skipped = {{"HKQuantityTypeIdentifierHeartRate", 1},
                                                                     {"HKQuantityTypeIdentifierStepCount", 2}};
  EXPECT_EQ(reader.skippedRecords(), skipped);
}

TEST(HealthExportReader, GivesTheSameSamplesWhateverTheBufferBatchOrLineEnds) {
  const std::string crlf = withCrlf(kExport);
  EXPECT_EQ(readAll(crlf), kExpected);
  // Every small buffer puts the window's edge inside another tag, entity or comment terminator.
  for (std::size_t size = 16; size <= 200; ++size) {
    SCOPED_TRACE("buffer of " + std::to_string(size));
    EXPECT_EQ(readAll(kExport, size, size % 3 + 1), kExpected);
    EXPECT_EQ(readAll(crlf, size, 1000), kExpected);
  }
}

TEST(HealthExportReader, HandsOverBatchesOfAtMostTheCountAsked) {
  std::istringstream in(kExport);
  HealthExportReader reader(in);
  const auto next = reader.batches(3);
  std::vector<HKSample> batch = {kExpected[0]};
  ASSERT_TRUE(next(batch));
  EXPECT_EQ(batch, std::vector<HKSample>(kExpected.begin(), kExpected.begin() + 3));
  EXPECT_EQ(reader.line(), 32u);       // just past the mindful session's end tag
  ASSERT_TRUE(reader.next(batch, 0));  // at least one
  EXPECT_EQ(batch, std::vector<HKSample>{kExpected[3]});
  EXPECT_FALSE(next(batch));
  EXPECT_FALSE(next(batch));
}

std::string exportOf(const std::string& records) {
  return "<?xml version=\"1.0\"?>\n<HealthData>\n" + records + "</HealthData>\n";
}

std::string sleepRecord(const std::string& value, const std::string& start = "2024-01-01 23:00:00 +0000",
                        const std::string& end = "2024-01-02 07:00:00 +0000", const std::string& source = "S") {
  return " <Record type=\"HKCategoryTypeIdentifierSleepAnalysis\" sourceName=\"" + source + "\" startDate=\"" + start +
         "\" endDate=\"" + end + "\" value=\"" + value + "\"/>\n";
}

TEST(HealthExportReader, ReadsEveryCategoryValueAndDateForm) {
  const std::pair<std::string, std::int64_t> values[] = {
      {"HKCategoryValueSleepAnalysisInBed", 0},
      {"HKCategoryValueSleepAnalysisAsleep", 1},
      {"HKCategoryValueSleepAnalysisAsleepUnspecified", 1},
      {"HKCategoryValueSleepAnalysisAwake", 2},
      {"HKCategoryValueSleepAnalysisAsleepCore", 3},
      {"HKCategoryValueSleepAnalysisAsleepDeep", 4},
      {"HKCategoryValueSleepAnalysisAsleepREM", 5},
      {"HKCategoryValueNotApplicable", 0},
      {"7", 7},
      {"-1", -1},
  };
  for (const auto& [text, raw] : values) {
    const auto samples = readAll(exportOf(sleepRecord(text)));
    ASSERT_EQ(samples.size(), 1u) << text;
    EXPECT_EQ(samples[0].categoryValue, raw) << text;
  }
  // A leap day, a start on the turn of the millennium an hour west of Greenwich, a zero-length record.
  const auto samples = readAll(exportOf(sleepRecord("1", "2024-02-29 23:59:59 +0000", "2024-03-01 00:30:00 +0000") +
                                        sleepRecord("1", "1999-12-31 23:00:00 -0100", "2000-01-01 00:00:00 +0000")));
  ASSERT_EQ(samples.size(), 2u);
  EXPECT_EQ(samples[0].startDate, Date::fromTimeIntervalSince1970(1709251199));
  EXPECT_EQ(samples[0].endDate, Date::fromTimeIntervalSince1970(1709253000));
  EXPECT_EQ(samples[1].startDate, Date::fromTimeIntervalSince1970(946684800));
  EXPECT_EQ(samples[1].endDate, samples[1].startDate);
}

std::string errorOf(const std::string& xml, std::size_t bufferSize = HealthExportReader::kDefaultBufferSize) {
  std::istringstream in(xml);
  HealthExportReader reader(in, bufferSize);
  std::vector<HKSample> batch;
  try {
    while (reader.next(batch, 100)) {
    }
  } catch (const HealthExportError& error) {
    return error.what();
  }
  return "no error";
}

TEST(HealthExportReader, NamesTheLineOfWhatIsMalformed) {
  const std::string kNight = "2024-01-01 23:00:00 +0000", kMorning = "2024-01-02 07:00:00 +0000";
  const std::string step = " <Record type=\"HKQuantityTypeIdentifierStepCount\" value=\"1\"/>\n";
  const std::string head = "<?xml version=\"1.0\"?>\n<HealthData>\n";
  const std::pair<std::string, std::string> cases[] = {
      {exportOf(" <Record type=\"X\" value=\"1\"\n" + step), "line 3: the <Record> tag is not closed"},
      {exportOf(" <Record type=\"X\" value=\"120/>\n" + step),
       "line 3: the value of the attribute value is not closed"},
      {exportOf(" <Record type=\"X\" value=\"1<2\"/>\n"), "line 3: a '<' inside the value of the attribute value"},
      {exportOf(" <Record type=\"X\" value=1/>\n"), "line 3: the value of the attribute value is not quoted"},
      {exportOf(" <Record type=\"X\"value=\"1\"/>\n"), "line 3: no space before the attribute value of <Record>"},
      {exportOf(step + " <Record value=\"1\"/>\n"), "line 4: the <Record> has no type"},
      {exportOf(" <Record type=\"HKCategoryTypeIdentifierMindfulSession\"\n endDate=\"2024-01-01 10:00:00 +0000\" "
                "value=\"0\"/>\n"),
       "line 3: the <Record> has no startDate"},
      {exportOf(sleepRecord("1", "2024-01-01 23:00:00 +0000", "2024-13-01 07:00:00 +0000")),
       "line 3: the endDate \"2024-13-01 07:00:00 +0000\" is not a date"},
      {exportOf(sleepRecord("1", "2023-02-29 23:00:00 +0000")),
       "line 3: the startDate \"2023-02-29 23:00:00 +0000\" is not a date"},
      {exportOf(sleepRecord("1", "2024-01-01 23:00 +0000")),
       "line 3: the startDate \"2024-01-01 23:00 +0000\" is not a date"},
      {exportOf(sleepRecord("1", "2024-01-01T23:00:00 +0000")),
       "line 3: the startDate \"2024-01-01T23:00:00 +0000\" is not a date"},
      {exportOf(sleepRecord("HKCategoryValueSleepAnalysisNap")),
       "line 3: the value \"HKCategoryValueSleepAnalysisNap\" is not a category value"},
      {exportOf(sleepRecord("1.5")), "line 3: the value \"1.5\" is not a category value"},
      {exportOf(step + sleepRecord("1", "2024-01-02 07:00:00 +0000", "2024-01-02 07:00:00 +0100")),
       "line 4: the Record ends (2024-01-02 07:00:00 +0100) before it starts (2024-01-02 07:00:00 +0000)"},
      {exportOf(sleepRecord("1", kNight, kMorning, "A &foo; B")),
       "line 3: the sourceName \"A &foo; B\" holds a broken entity \"&foo;\""},
      {exportOf(sleepRecord("1", kNight, kMorning, "&#xD800;")),
       "line 3: the sourceName \"&#xD800;\" holds a broken entity \"&#xD800;\""},
      {exportOf(sleepRecord("1", kNight, kMorning, "A &amp B")),
       "line 3: the sourceName \"A &amp B\" holds a broken entity \"&amp B\""},
      {exportOf(" <Workout>\n </Record>\n"), "line 4: </Record> where </Workout> belongs"},
      {exportOf(step) + "\n<Record/>\n", "line 6: text after </HealthData>"},
      {"<?xml version=\"1.0\"?>\n<!-- no export -->\n", "line 3: the file has no <HealthData> element"},
      {"", "line 1: the file has no <HealthData> element"},
      {"<?xml version=\"1.0\"?>\n<ClinicalDocument>\n",
       "line 2: the root element is <ClinicalDocument>, not <HealthData>"},
      {"<!DOCTYPE HealthData [\n<!ELEMENT HealthData ANY>\n", "line 3: the file ends inside the DOCTYPE"},
      {head + step + " <!-- a comment\n that never ends", "line 4: the file ends inside a comment"},
      {head + step + " <Wor", "line 4: the file ends inside the <Wor> tag"},
      {head + step, "line 4: the file ends before </HealthData>"},
      {head + " <Record type=\"HKCategoryTypeIdentifierMindfulSession\" startDate=\"2024-01-02 12:00:00 +0000\" "
              "endDate=\"2024-01-02 12:05:00 +0000\" value=\"0\">\n  <MetadataEntry key=\"k\" value=\"v\"/>\n",
       "line 5: the file ends before </Record>"},
  };
  for (const auto& [xml, message] : cases) {
    EXPECT_EQ(errorOf(xml), message) << xml;
    EXPECT_EQ(errorOf(xml, 16), message) << xml;
  }
}

TEST(HealthExportReader, CountsLinesAcrossManyRefillsOfTheBuffer) {
  std::string records;
  for (int i = 0; i < 5000; ++i) {
    records += i % 2 ? sleepRecord("2") : " <Record type=\"HKQuantityTypeIdentifierStepCount\" value=\"1\"/>\r\n";
  }
  const std::string xml = exportOf(records + sleepRecord("1", "2024-01-01 23:00:00 +0000", "yesterday"));
  for (std::size_t size : {std::size_t{16}, std::size_t{1000}, HealthExportReader::kDefaultBufferSize}) {
    EXPECT_EQ(errorOf(xml, size), "line 5003: the endDate \"yesterday\" is not a date");
  }
}

TEST(HealthExportReader, RefusesATagLongerThanTheLargestBuffer) {
  const std::string xml = exportOf(" <Record type=\"" + std::string(HealthExportReader::kMaxTagSize, 'a') + "\"/>\n");
  EXPECT_EQ(errorOf(xml), "line 3: a tag longer than 1048576 bytes");
}

}  // namespace
}  // namespace tarnwell

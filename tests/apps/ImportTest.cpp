// The import files' reader on its own: the rows a file gives, read in
// pieces as the command reads them.

#include "Import.h"

#include <gtest/gtest.h>

#include <sstream>

#include "support/TestEnvironment.h"

namespace tarnwell::cli {
namespace {

struct Read {
  std::vector<ImportedEvent> events;
  std::vector<std::pair<std::size_t, std::string>> bad;
  std::size_t rows = 0, unclosed = 0;
  bool whole = false;
};

Read read(ImportFormat format, const std::string& text, std::size_t maxBadRows = 1000) {
  Read result;
  ImportReader reader(
      format, {[&](const ImportedEvent& event) { result.events.push_back(event); },
               [&](std::size_t line, const ImportProblem& problem) { result.bad.emplace_back(line, problem.text()); }});
  std::istringstream in(text);
  result.whole = readImport(in, reader, [&] { return reader.skipped() < maxBadRows; });
  result.rows = reader.rows();
  result.unclosed = reader.unclosed();
  return result;
}

Date at(double milliseconds) { return Date::fromTimeIntervalSince1970(milliseconds / 1000.0); }

class ImportTest : public testing::EnvironmentTest {};

TEST_F(ImportTest, AwareDevicesArePairedEachInItsOwnTimeOrder) {
  const auto result = read(ImportFormat::aware,
                           "device_id,screen_status,timestamp\r\n"
                           "a,3,1000\r\n"
                           "b,3,1500\r\n"
                           "a,1,1600\r\n"  // on: closes nothing
                           "b,3,1700\r\n"  // b's first unlock never closed
                           "a,2,2000\r\n"
                           "a,0,2100\r\n"  // nothing open
                           "b,0,1800\r\n"
                           "a,3,1900\r\n"  // earlier than a's 2100
                           "c,3,5000\n"    // open at the end
                           "\n");
  EXPECT_EQ(result.events, (std::vector<ImportedEvent>{{ImportedKind::pickup, at(1000), at(2000)},
                                                       {ImportedKind::pickup, at(1700), at(1800)}}));
  EXPECT_EQ(
      result.bad,
      (std::vector<std::pair<std::size_t, std::string>>{{9, "earlier than the row before it of the same device"}}));
  EXPECT_EQ(result.rows, 9u);
  EXPECT_EQ(result.unclosed, 2u);
  EXPECT_TRUE(result.whole);
}

// What the commands refuse is a bad row of a file too: the store never holds
// a year the commands could not reach, or a span no sensor makes.
TEST_F(ImportTest, EventsOutsideWhatTheCommandsTakeAreBadRows) {
  const auto result = read(ImportFormat::tarnwell,
                           "pickup,1969-12-31T23:00:00Z,1970-01-01T00:10:00Z\n"
                           "pickup,2099-12-31T23:50:00Z,2100-01-01T00:00:00Z\n"
                           "walk,2026-11-24T00:00:00Z,2026-11-25T00:00:01Z\n"
                           "alive,2026-10-01T00:00:00Z,2026-11-02T00:00:00Z\n"
                           "pickup,2026-11-24T00:00:00Z,2026-11-25T00:00:00Z\n"
                           "alive,2026-10-01T00:00:00Z,2026-11-01T00:00:00Z\n");
  using Bad = std::vector<std::pair<std::size_t, std::string>>;
  EXPECT_EQ(result.bad, (Bad{{1, "a time is not between 1970 and 2099"},
                             {2, "a time is not between 1970 and 2099"},
                             {3, "an event longer than a day"},
                             {4, "an alive span longer than 31 days"}}));
  EXPECT_EQ(result.events.size(), 2u);  // a whole day and 31 days are the longest taken
  // An AWARE unlock in the year 3000 is a time of the format, not one the store takes.
  const auto aware =
      read(ImportFormat::aware, "timestamp,device_id,screen_status\n32503680000000,a,3\n32503680001000,a,2\n");
  EXPECT_TRUE(aware.events.empty());
  EXPECT_EQ(aware.bad, (Bad{{3, "a time is not between 1970 and 2099"}}));
}

TEST_F(ImportTest, AwareTimesAndStatusesOutsideTheFormatAreBadRows) {
  const auto result = read(ImportFormat::aware,
                           "timestamp,device_id,screen_status\n"
                           "nan,a,3\ninf,a,3\n-5,a,3\n1e300,a,3\n1000,a,4\n1000,a\n1000,a,3x\n" +
                               std::string(300, 'd') + ",a,3\n");
  EXPECT_TRUE(result.events.empty());
  ASSERT_EQ(result.bad.size(), 8u);
  EXPECT_EQ(result.bad[0].second, "the timestamp is not a time from 1970 to the year 9999");
  EXPECT_EQ(result.bad[3].second, "the timestamp is not a time from 1970 to the year 9999");
  EXPECT_EQ(result.bad[4].second, "timestamp or screen_status is not a number of the format");
  EXPECT_EQ(result.bad[5].second, "missing columns");
  EXPECT_EQ(result.bad[7].second, "timestamp or screen_status is not a number of the format");
  EXPECT_THROW(read(ImportFormat::aware, "1000,a,3\n"), ImportFormatError);
  // A header too long to be kept is no header.
  EXPECT_THROW(read(ImportFormat::aware, "timestamp,device_id,screen_status," + std::string(70000, 'x') + "\n"),
               ImportFormatError);
}

TEST_F(ImportTest, AwareDevicesAreCountedAndTheirIdsBounded) {
  std::string text = "timestamp,device_id,screen_status\n";
  for (std::size_t i = 0; i <= ImportReader::kMaxDevices; ++i) text += "1000," + std::to_string(i) + ",3\n";
  text += "1000," + std::string(ImportReader::kMaxDeviceIdLength + 1, 'x') + ",3\n";
  const auto result = read(ImportFormat::aware, text);
  ASSERT_EQ(result.bad.size(), 2u);
  EXPECT_EQ(result.bad[0],
            (std::pair<std::size_t, std::string>{ImportReader::kMaxDevices + 2, "more than 10000 devices"}));
  EXPECT_EQ(result.bad[1].second, "the device_id is longer than 256 bytes");
  EXPECT_EQ(result.unclosed, ImportReader::kMaxDevices);
}

TEST_F(ImportTest, ALineTooLongIsOneBadRowAndTheNextIsReadWhole) {
  const std::string longLine(3 * ImportReader::kMaxLineLength + 17, '\x01');
  const auto result = read(ImportFormat::tarnwell, "kind,start,end\n" + longLine + "\n" +
                                                       "walk,2026-11-22T10:00:00Z,2026-11-22T10:20:00Z\n" + longLine);
  EXPECT_EQ(result.bad, (std::vector<std::pair<std::size_t, std::string>>{{2, "longer than 65536 bytes"},
                                                                          {4, "longer than 65536 bytes"}}));
  ASSERT_EQ(result.events.size(), 1u);
  EXPECT_EQ(result.events[0].kind, ImportedKind::walk);
  EXPECT_EQ(result.rows, 3u);
}

TEST_F(ImportTest, ReadingStopsWhenTheCallerSaysSoAndFinishesOnlyAtTheEnd) {
  const auto result = read(ImportFormat::tarnwell, "x\ny\nz\npickup,2026-11-22T08:00:00Z,2026-11-22T08:05:00Z\n", 2);
  EXPECT_FALSE(result.whole);
  EXPECT_EQ(result.bad.size(), 2u);
  EXPECT_TRUE(result.events.empty());
  // The last line needs no line feed; a carriage return is not part of a field.
  const auto last = read(ImportFormat::tarnwell, "\"pickup\",2026-11-22T08:00:00Z,2026-11-22T08:05:00Z\r");
  EXPECT_TRUE(last.whole);
  EXPECT_EQ(last.events.size(), 1u);
}

}  // namespace
}  // namespace tarnwell::cli

// Charts drawn to files and the HTML report, driven as a user drives the
// `tarnwell` command: one process per call, on a pinned clock.

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <algorithm>
#include <cstdlib>
#include <fstream>
#include <nlohmann/json.hpp>
#include <regex>
#include <set>

#include "support/CliProcess.h"
#include "support/TestEnvironment.h"
#include "tarnwell/platform/Base64.h"

namespace tarnwell {
namespace {

using testing::Outcome;
using testing::readFile;

class ReportTest : public ::testing::Test {
 protected:
  // Runs tarnwell in the test's installation, in UTC at noon on Sunday 2026-11-22.
  Outcome run(const std::string& arguments) {
    return testing::runShell("cd '" + files().string() + "' && XDG_DATA_HOME='" + (folder.path() / "xdg").string() +
                                 "' '" + testing::tarnwellBinary() + "' --container '" +
                                 (folder.path() / "phone").string() + "' --tz UTC --now 2026-11-22T12:00:00Z " +
                                 arguments,
                             folder.path());
  }
  // Where the commands write, and nothing else does.
  std::filesystem::path files() {
    std::filesystem::create_directories(folder.path() / "files");
    return folder.path() / "files";
  }
  std::vector<std::string> written() {
    std::vector<std::string> names;
    for (const auto& entry : std::filesystem::directory_iterator(files())) {
      names.push_back(entry.path().filename().string());
    }
    std::sort(names.begin(), names.end());
    return names;
  }
  // A week of use: mornings and late evenings, one day without any.
  void addPickups() {
    for (const char* span :
         {"2026-11-16T08:00:00Z 2026-11-16T09:00:00Z", "2026-11-17T22:00:00Z 2026-11-17T22:20:00Z",
          "2026-11-18T07:30:00Z 2026-11-18T07:45:00Z", "2026-11-20T08:00:00Z 2026-11-20T08:30:00Z",
          "2026-11-21T22:30:00Z 2026-11-21T22:40:00Z", "2026-11-22T07:00:00Z 2026-11-22T07:10:00Z"}) {
      ASSERT_EQ(run(std::string("pickup add ") + span).status, 0);
    }
  }

  static void expectRefused(const Outcome& result, const std::string& what) {
    EXPECT_EQ(result.status, 1) << what;
    EXPECT_EQ(std::count(result.err.begin(), result.err.end(), '\n'), 1) << what << ": " << result.err;
    EXPECT_TRUE(result.out.empty()) << what;
  }

  testing::TemporaryFolder folder;
};

// The words cairo's SVG carries besides its glyph outlines.
std::string description(const std::string& svg) {
  const auto start = svg.find("<desc>"), end = svg.find("</desc>");
  return start == std::string::npos || end == std::string::npos ? "" : svg.substr(start + 6, end - start - 6);
}

void expectSVGOfChartSize(const std::string& svg) {
  EXPECT_EQ(svg.rfind("<?xml", 0), 0u);
  EXPECT_NE(svg.find("width=\"720px\" height=\"360px\""), std::string::npos);
  EXPECT_NE(svg.find("</svg>"), std::string::npos);
  EXPECT_EQ(svg.find("<svg"), svg.rfind("<svg")) << "one root element";
  EXPECT_FALSE(description(svg).empty());
}

// Width and height of a PNG, from its header chunk.
std::pair<std::uint32_t, std::uint32_t> pngSize(const std::string& png) {
  const auto word = [&png](std::size_t at) {
    std::uint32_t value = 0;
    for (std::size_t i = 0; i < 4; ++i) value = value << 8 | static_cast<unsigned char>(png.at(at + i));
    return value;
  };
  return {word(16), word(20)};
}

TEST_F(ReportTest, AChartIsDrawnToSVGAndPNGWithItsAxesAndFigures) {
  addPickups();
  const Outcome drawn = run("chart screenTime --range week --svg week.svg --png week.png");
  ASSERT_EQ(drawn.status, 0) << drawn.err;
  EXPECT_EQ(drawn.out, "week.svg\nweek.png\n");
  EXPECT_EQ(written(), (std::vector<std::string>{"week.png", "week.svg"}));

  const std::string svg = readFile(files() / "week.svg");
  expectSVGOfChartSize(svg);
  const std::string words = description(svg);
  // The limit of 5 hours sets the axis; every weekday is labelled; the
  // day without use is no data, not 0.
  EXPECT_NE(words.find("Y axis: 0s, 1h30m, 3h, 4h30m, 6h."), std::string::npos) << words;
  EXPECT_NE(words.find("Mon 16 1h, Tue 17 20m"), std::string::npos) << words;
  EXPECT_NE(words.find("Thu 19 -"), std::string::npos) << words;
  EXPECT_NE(words.find("Limit 5h."), std::string::npos) << words;
  EXPECT_NE(words.find("Week Total: 2h25m."), std::string::npos) << words;

  const std::string png = readFile(files() / "week.png");
  ASSERT_GT(png.size(), 24u);
  EXPECT_EQ(png.substr(0, 8), std::string("\x89PNG\r\n\x1a\n", 8));
  EXPECT_EQ(pngSize(png), (std::pair<std::uint32_t, std::uint32_t>{720, 360}));

  // A second drawing replaces the first whole.
  ASSERT_EQ(run("chart pickups --range day --svg week.svg").status, 0);
  EXPECT_NE(description(readFile(files() / "week.svg")).find("12:00AM"), std::string::npos);
  EXPECT_EQ(written(), (std::vector<std::string>{"week.png", "week.svg"}));
}

TEST_F(ReportTest, ClockTimesReadAsClockTimesAndAnEmptyChartStillHasItsAxes) {
  addPickups();
  ASSERT_EQ(run("chart lastPickup --svg last.svg").status, 0);
  const std::string last = description(readFile(files() / "last.svg"));
  EXPECT_TRUE(std::regex_search(last, std::regex(R"(Y axis: \d{1,2}:\d\d[AP]M, \d{1,2}:\d\d[AP]M)"))) << last;

  // A metric with no data at all: axes, no average (0 would read as midnight).
  for (const char* metric :
       {"firstPickup --range month", "focus --range year", "pickups --range day --date 2025-01-01"}) {
    const Outcome empty = run(std::string("chart ") + metric + " --svg empty.svg --png empty.png");
    ASSERT_EQ(empty.status, 0) << metric << ": " << empty.err;
    const std::string svg = readFile(files() / "empty.svg");
    expectSVGOfChartSize(svg);
    EXPECT_NE(description(svg).find("Y axis: "), std::string::npos) << metric;
    EXPECT_EQ(pngSize(readFile(files() / "empty.png")), (std::pair<std::uint32_t, std::uint32_t>{720, 360}));
  }
  EXPECT_NE(description(readFile(files() / "empty.svg")).find("Hourly Average: -."), std::string::npos);
}

TEST_F(ReportTest, AChartFileThatCannotBeWrittenIsRefusedAndLeavesNoPartOfItself) {
  ASSERT_EQ(run("--json info").status, 0);
  std::filesystem::create_directories(files() / "folder");
  expectRefused(run("chart screenTime --svg missing/chart.svg"), "a folder that does not exist");
  expectRefused(run("chart screenTime --png folder"), "a folder in the file's place");
  expectRefused(run("chart screenTime --svg ok.svg --png missing/chart.png"), "the second of two files");
  // The first of two files was written before the second failed; no partial file stays behind.
  EXPECT_EQ(written(), (std::vector<std::string>{"folder", "ok.svg"}));
  EXPECT_TRUE(std::filesystem::is_empty(files() / "folder"));
}

// The figures of a report page: id and the image's attributes.
struct Figure {
  std::string id, alt, width, height, source;
};

// The value of `attribute` in the element that starts at `at`, and where it ends.
std::string attribute(const std::string& html, std::size_t at, const std::string& name) {
  const auto end = html.find('>', at);
  const auto start = html.find(" " + name + "=\"", at);
  if (start == std::string::npos || start > end) return "";
  const auto first = start + name.size() + 3;
  return html.substr(first, html.find('"', first) - first);
}

// Each figure element and the image that must follow it directly.
std::vector<Figure> figures(const std::string& html) {
  std::vector<Figure> found;
  for (auto at = html.find("<figure"); at != std::string::npos; at = html.find("<figure", at + 1)) {
    const auto image = html.find('<', html.find('>', at));
    if (attribute(html, at, "class") != "chart" || html.compare(image, 5, "<img ") != 0) {
      ADD_FAILURE() << "not a chart figure with its image: " << html.substr(at, 200);
      continue;
    }
    found.push_back({attribute(html, at, "id"), attribute(html, image, "alt"), attribute(html, image, "width"),
                     attribute(html, image, "height"), attribute(html, image, "src")});
  }
  return found;
}

// The page without its images' data.
std::string withoutData(std::string html) {
  for (auto at = html.find("src=\"data:"); at != std::string::npos; at = html.find("src=\"data:", at)) {
    html.erase(at, html.find('"', at + 5) + 1 - at);
  }
  return html;
}

TEST_F(ReportTest, AReportHoldsEveryChartAsAnImageOfItsOwnAndEscapesUserText) {
  addPickups();
  const Outcome tag = run("--json tag add '<b>&\"' --goal '>=600'");
  ASSERT_EQ(tag.status, 0) << tag.err;
  const std::string id = nlohmann::json::parse(tag.out)["id"];
  for (const char* day : {"2026-11-21", "2026-11-22"}) {
    ASSERT_EQ(run("focus add " + std::string(day) + "T08:00:00Z " + day + "T08:20:00Z --tag " + id).status, 0);
  }
  const std::size_t tags = nlohmann::json::parse(run("--json tag list").out).size();

  const Outcome made = run("report --from 2026-11-16 --to 2026-11-22 --out report.html");
  ASSERT_EQ(made.status, 0) << made.err;
  EXPECT_EQ(made.out, "report.html\n");
  EXPECT_EQ(written(), std::vector<std::string>{"report.html"});
  const std::string html = readFile(files() / "report.html");

  // Two charts of the day, two each of the week, month and year, four of
  // the nights, two of focus and one per tag.
  const auto found = figures(html);
  EXPECT_EQ(found.size(), 14 + tags);
  std::set<std::string> ids;
  for (const auto& figure : found) {
    EXPECT_TRUE(ids.insert(figure.id).second) << figure.id;
    EXPECT_FALSE(figure.alt.empty()) << figure.id;
    EXPECT_EQ(figure.width + "x" + figure.height, "720x360") << figure.id;
    const std::string prefix = "data:image/svg+xml;base64,";
    ASSERT_EQ(figure.source.rfind(prefix, 0), 0u) << figure.id;
    const auto svg = base64::decode(figure.source.substr(prefix.size()));
    ASSERT_TRUE(svg) << figure.id;
    expectSVGOfChartSize(std::string(svg->begin(), svg->end()));
  }

  // The tag's title is text, never markup, in the page and in its chart.
  EXPECT_EQ(html.find("<b>&\""), std::string::npos);
  EXPECT_NE(html.find("<h3>&lt;b&gt;&amp;&quot;</h3>"), std::string::npos);
  EXPECT_NE(html.find("alt=\"&lt;b&gt;&amp;&quot; Mon, Nov 16 – Sun, Nov 22, 2026\""), std::string::npos);
  EXPECT_NE(html.find("Goal ≥ 10m · Goal reached 2 days in a row"), std::string::npos);

  // Self-contained: no script and nothing fetched, the charts' data aside.
  const std::string page = withoutData(html);
  for (const char* external : {"<script", "http:", "https:", "<link", "@import", "url("}) {
    EXPECT_EQ(page.find(external), std::string::npos) << external;
  }

  // A night per day of the range, and the summary's rows as `summary` has them.
  const auto rows = [&page](const std::string& table) {
    const auto start = page.find("<table class=\"" + table + "\">");
    const auto end = page.find("</table>", start);
    std::size_t n = 0;
    for (auto at = page.find("<tr><th scope=\"row\">", start); at < end; at = page.find("<tr><th", at + 1)) ++n;
    return n;
  };
  EXPECT_EQ(rows("nights"), 7u);
  EXPECT_EQ(rows("summary"), 11u);
  EXPECT_NE(page.find("<tr><th scope=\"row\">Screen time</th><td>2h25m (24m a day)</td></tr>"), std::string::npos);
}

TEST_F(ReportTest, AChosenSleepApplicationsNightsStandBesideTheInferredOnes) {
  addPickups();
  ASSERT_EQ(run("health add-sleep 2026-11-21T23:00:00Z 2026-11-22T06:30:00Z --source-bundle com.tantsissa.AutoSleep "
                "--source-name AutoSleep")
                .status,
            0);
  ASSERT_EQ(run("settings set defaultSleepDataSource com.tantsissa.AutoSleep").status, 0);
  const Outcome made = run("report --to 2026-11-22 --out report.html");
  ASSERT_EQ(made.status, 0) << made.err;
  const std::string html = readFile(files() / "report.html");
  EXPECT_NE(html.find("<th scope=\"col\">AutoSleep asleep</th>"), std::string::npos);
  // Phone use says 22:40 to 07:00; the application 23:00 to 06:30.
  EXPECT_NE(html.find("<tr><th scope=\"row\">Sun, Nov 22</th><td>10:40\u202fPM</td><td>7:00\u202fAM</td><td>8h20m</td>"
                      "<td>11:00\u202fPM</td><td>6:30\u202fAM</td><td>7h30m</td></tr>"),
            std::string::npos);
}

TEST_F(ReportTest, BadRangesAndUnwritableFilesAreRefusedWritingNothing) {
  ASSERT_EQ(run("--json info").status, 0);
  expectRefused(run("report --from 2026-11-23 --to 2026-11-22 --out r.html"), "--from after --to");
  expectRefused(run("report --from 2016-01-01 --to 2026-11-22 --out r.html"), "more than ten years");
  expectRefused(run("report --to someday --out r.html"), "a bad date");
  expectRefused(run("report --out missing/r.html"), "a folder that does not exist");
  EXPECT_TRUE(written().empty());
  EXPECT_NE(run("report").status, 0) << "--out is required";
}

TEST_F(ReportTest, OnlyARegularFileOrANewNameIsWrittenAndTheReportKeepsTheUmask) {
  ASSERT_EQ(run("--json info").status, 0);
  std::ofstream(files() / "mine.txt") << "the user's own";
  std::filesystem::create_symlink("mine.txt", files() / "link.svg");
  std::filesystem::create_symlink("nowhere.svg", files() / "dangling.svg");
  ASSERT_EQ(::mkfifo((files() / "pipe.svg").c_str(), 0600), 0);
  expectRefused(run("chart screenTime --svg link.svg"), "a symbolic link to a file");
  expectRefused(run("chart screenTime --png dangling.svg"), "a symbolic link to nothing");
  expectRefused(run("chart screenTime --svg pipe.svg"), "a FIFO");
  expectRefused(run("report --out /dev/null"), "a device");
  const Outcome overLink = run("report --out link.svg");
  expectRefused(overLink, "a symbolic link, for the report");
  EXPECT_NE(overLink.err.find("\"link.svg\" is a symbolic link"), std::string::npos) << overLink.err;
  // Each left as it was, and nothing of ours beside them.
  EXPECT_EQ(readFile(files() / "mine.txt"), "the user's own");
  EXPECT_TRUE(std::filesystem::is_symlink(files() / "link.svg"));
  EXPECT_TRUE(std::filesystem::is_fifo(files() / "pipe.svg"));
  EXPECT_EQ(written(), (std::vector<std::string>{"dangling.svg", "link.svg", "mine.txt", "pipe.svg"}));

  // A regular file is replaced; the new one has the mode the user's umask gives.
  const Outcome made = testing::runShell("umask 027 && cd '" + files().string() + "' && XDG_DATA_HOME='" +
                                             (folder.path() / "xdg").string() + "' '" + testing::tarnwellBinary() +
                                             "' --container '" + (folder.path() / "phone").string() +
                                             "' --tz UTC --now 2026-11-22T12:00:00Z report --out mine.txt",
                                         folder.path());
  ASSERT_EQ(made.status, 0) << made.err;
  EXPECT_EQ(readFile(files() / "mine.txt").substr(0, 15), "<!DOCTYPE html>");
  EXPECT_EQ(std::filesystem::status(files() / "mine.txt").permissions(), std::filesystem::perms::owner_read |
                                                                             std::filesystem::perms::owner_write |
                                                                             std::filesystem::perms::group_read);
}

}  // namespace
}  // namespace tarnwell

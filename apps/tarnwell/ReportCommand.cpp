// `tarnwell report`: one HTML page of a run of days — the charts of the last
// day, its week, month and year, the nights, the focus tags and the totals —
// that opens in any browser, offline and without script.

#include <set>

#include "ChartDrawing.h"
#include "Cli.h"
#include "tarnwell/analytics/RememberedDays.h"
#include "tarnwell/analytics/SleepComparison.h"
#include "tarnwell/charts/FocusDataType.h"
#include "tarnwell/charts/ScreenTimeDataType.h"
#include "tarnwell/extensions/Strings.h"
#include "tarnwell/modules/Database.h"
#include "tarnwell/platform/DateFormatting.h"
#include "tarnwell/settings/AppInfo.h"
#include "tarnwell/settings/Settings.h"

namespace tarnwell::cli {
namespace {

constexpr ChartSize kChartSize{720, 360};
constexpr double kTenYears = 3660 * 86400.0;

struct ReportArguments {
  RangeOptions range;
  std::string out;
};

// The instant the charts are about, and the first and last day of the run.
struct Days {
  Date at;
  Date first, last;
  std::vector<Date> all;
};

// Calm and plain: one column, the charts one to a row, tables with light rules.
constexpr const char* kStyle = R"(
:root { color-scheme: light; }
body { margin: 0; background: #f6f7f9; color: #1c1f24;
       font: 16px/1.5 system-ui, -apple-system, "Segoe UI", sans-serif, "Apple Color Emoji", "Noto Color Emoji"; }
main { max-width: 780px; margin: 0 auto; padding: 24px 16px 48px; }
h1 { font-size: 1.7em; margin: 0 0 4px; }
h2 { font-size: 1.3em; margin: 40px 0 12px; padding-bottom: 4px; border-bottom: 1px solid #d5d8de; }
h3 { font-size: 1.1em; margin: 28px 0 4px; }
p { margin: 4px 0; }
.meta, .note { color: #4d525b; }
figure.chart { margin: 16px 0; padding: 12px; background: #fff; border: 1px solid #e1e4e8; border-radius: 8px; }
figure.chart img { display: block; width: 100%; max-width: 720px; height: auto; margin: 0 auto; }
figcaption { margin-top: 8px; color: #4d525b; font-size: 0.9em; }
table { width: 100%; border-collapse: collapse; background: #fff; font-variant-numeric: tabular-nums; }
th, td { text-align: left; padding: 6px 10px; border-bottom: 1px solid #e1e4e8; }
thead th { border-bottom: 2px solid #c9cdd4; font-weight: 600; }
tbody th { font-weight: normal; }
footer { margin-top: 40px; }
)";

std::string h(std::string_view text) { return escapeMarkup(text); }

// "Mon, Nov 23, 2026", and in a table of days "Mon, Nov 23".
// The locale orders the weekday and the date: "Thu, Nov 26, 2026",
// "Do., 26. Nov. 2026", "2026年11月26日(木)".
std::string dayText(Date day) { return date_formatting::formatFromTemplate(day, "EEEyMMMd"); }
std::string shortDayText(Date day) { return date_formatting::formatFromTemplate(day, "EEEMMMd"); }

// The dates a chart shows, as its alt text and caption name them.
std::string rangeText(const StatisticsData& chart) {
  switch (chart.range) {
    case StatisticsDateRange::day:
      return dayText(chart.interval.start());
    case StatisticsDateRange::week:
    case StatisticsDateRange::month:
      return shortDayText(chart.interval.start()) + " – " + dayText(chart.interval.end());
    case StatisticsDateRange::year:
      return chart.interval.start().iso8601().substr(0, 4);
  }
  return "";
}

// Times and lengths as `day` and `summary` write them.
std::string wallTime(const std::optional<Date>& date) { return clockTime(date, false); }
std::string length(const std::optional<double>& seconds) { return seconds ? getTimeIntervalString(*seconds) : "-"; }

// The page, written front to back; each figure gets an id no other has.
class Page {
 public:
  std::string html;

  void chart(std::shared_ptr<const StatisticsDataType> metric, StatisticsDateRange range, Date date) {
    const StatisticsData model(date, range, std::move(metric));
    const std::string svg = drawChartSVG(model, kChartSize);
    const std::string title = chartTitle(model);
    std::string caption = rangeText(model) + ": ";
    for (const auto& [name, value] : chartFigures(model)) caption += name + " " + value + "; ";
    caption.resize(caption.size() - 2);
    html += "<figure class=\"chart\" id=\"" +
            uniqueId("chart-" + model.dataType->identifier() + "-" + std::string(rawValue(range))) +
            "\">\n<img alt=\"" + h(title + " " + rangeText(model)) + "\" width=\"" + std::to_string(kChartSize.width) +
            "\" height=\"" + std::to_string(kChartSize.height) + "\" src=\"data:image/svg+xml;base64," +
            base64::encode(Data(svg.begin(), svg.end())) + "\">\n<figcaption>" + h(caption) +
            "</figcaption>\n</figure>\n";
  }

  void section(const std::string& id, const std::string& heading) {
    if (open_) html += "</section>\n";
    html += "<section id=\"" + uniqueId(id) + "\">\n<h2>" + h(heading) + "</h2>\n";
    open_ = true;
  }

  void close() {
    if (open_) html += "</section>\n";
    open_ = false;
  }

  // A table; each row's first cell heads it.
  void table(const std::string& className, const std::vector<std::string>& head,
             const std::vector<std::vector<std::string>>& rows) {
    html += "<table class=\"" + className + "\">\n<thead><tr>";
    for (const auto& cell : head) html += "<th scope=\"col\">" + h(cell) + "</th>";
    html += "</tr></thead>\n<tbody>\n";
    for (const auto& row : rows) {
      html += "<tr>";
      for (std::size_t i = 0; i < row.size(); ++i) {
        html += i == 0 ? "<th scope=\"row\">" + h(row[i]) + "</th>" : "<td>" + h(row[i]) + "</td>";
      }
      html += "</tr>\n";
    }
    html += "</tbody>\n</table>\n";
  }

 private:
  // Letters, digits, '-' and '_' only, and never twice.
  std::string uniqueId(const std::string& wanted) {
    std::string id;
    for (const char c : wanted) {
      const bool plain = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '-';
      id += plain ? c : '_';
    }
    std::string unique = id;
    for (int n = 2; !ids_.insert(unique).second; ++n) unique = id + "-" + std::to_string(n);
    return unique;
  }

  std::set<std::string> ids_;
  bool open_ = false;
};

std::shared_ptr<const StatisticsDataType> metric(ScreenTimeDataType::Case value) {
  return std::make_shared<ScreenTimeDataType>(value);
}

void heading(Page& page, const Days& days) {
  const std::string name = AppInfo::displayName();
  const std::string range = dayText(days.first) + " – " + dayText(days.last);
  page.html += "<!DOCTYPE html>\n<html lang=\"" + h(Environment::current().region().languageCode()) +
               "\">\n<head>\n<meta charset=\"utf-8\">\n"
               "<meta name=\"viewport\" content=\"width=device-width, initial-scale=1\">\n<title>" +
               h(words("Report.Title", {name}) + ", " + range) + "</title>\n<style>" + kStyle +
               "</style>\n</head>\n<body>\n<main>\n";
  const std::string deviceId = Settings::deviceId();
  const auto device = Database::getDevice(deviceId);
  std::string devices = (device && device->name ? *device->name + " (" + deviceId + ")" : deviceId);
  for (const auto& related : Database::getDevicesRelatedToCurrentDevice().value_or(std::vector<std::string>{})) {
    if (related == deviceId) continue;
    const auto other = Database::getDevice(related);
    devices += ", " + words("Report.With", {other && other->name ? *other->name + " (" + related + ")" : related});
  }
  page.html += "<header>\n<h1>" + h(words("Report.Title", {name})) + "</h1>\n<p class=\"range\">" + h(range) +
               "</p>\n<p class=\"meta device\">" + h(words("Report.Device", {devices})) + " · " +
               h(Environment::current().region().timeZoneId()) + "</p>\n</header>\n";
}

// Night by night: the one inferred from phone use, as `day` reads it, and
// where a sleep application is chosen, that application's beside it.
void nights(Page& page, const Days& days) {
  page.html += "<h3>" + h(words("Report.NightByNight")) + "</h3>\n";
  const SleepDataSource source = Settings::defaultSleepDataSource();
  std::vector<std::vector<std::string>> rows;
  if (source.isBuiltIn()) {
    for (const auto& day : RememberedDays::days(days.first, static_cast<int>(days.all.size()))) {
      rows.push_back({shortDayText(day->startOfDay()), wallTime(day->lastPickupDate()),
                      wallTime(day->firstPickupDate()), length(day->sleepTime())});
    }
    page.html += "<p class=\"note\">" + h(words("Report.Nights.Inferred")) + "</p>\n";
    page.table(
        "nights",
        {words("Report.Morning"), words("Report.LastPickup"), words("Report.FirstPickup"), words("Report.Sleep")},
        rows);
    return;
  }
  const std::string app = source.displayName();
  std::vector<DateInterval> recorded;
  try {
    recorded = recordedSleeps(source.bundleIdentifier, DateInterval(days.first.addingDay(-1), days.last.addingDay(1)),
                              "report");
  } catch (const InputError& error) {
    page.html += "<p class=\"note\">" + h(words("Report.Nights.Unreadable", {app, error.what()})) + "</p>\n";
  }
  const auto comparison = SleepComparison::compare(days.all, recorded);
  for (const auto& night : comparison.nights) {
    const auto& inferred = night.inferred;
    const auto& theirs = night.recorded;
    rows.push_back({shortDayText(night.day), inferred ? wallTime(inferred->start()) : "-",
                    inferred ? wallTime(inferred->end()) : "-", inferred ? length(inferred->duration()) : "-",
                    theirs ? wallTime(theirs->start()) : "-", theirs ? wallTime(theirs->end()) : "-",
                    theirs ? length(night.recordedAsleep) : "-"});
  }
  page.html += "<p class=\"note\">" + h(words("Report.Nights.Compared", {app})) + "</p>\n";
  page.table("nights",
             {words("Report.Morning"), words("Report.LastPickup"), words("Report.FirstPickup"), words("Report.Night"),
              words("Report.AppAsleep", {app}), words("Report.AppAwake", {app}), words("Report.AppSleep", {app})},
             rows);
}

// "Goal reached 3 days in a row", from the run `tag streak` prints.
std::string runText(const TagStreak& streak) {
  const std::string what = words(streak.kind == "streak" ? "Report.Run.GoalReached"
                                 : streak.kind == "fail" ? "Report.Run.LimitBroken"
                                                         : "Report.Run.Focused");
  return words(streak.days == 1 ? "Report.Run.OneDay" : "Report.Run.Days", {what, streak.days});
}

// The focus charts, then every tag in use with its goal and streak.
void focus(Page& page, const Days& days) {
  page.chart(std::make_shared<FocusDataType>(FocusDataType::focus()), StatisticsDateRange::week, days.at);
  page.chart(std::make_shared<FocusDataType>(FocusDataType::focus()), StatisticsDateRange::month, days.at);
  for (const auto& id : Database::getTags(false, false)) {
    const auto tag = Database::getTag(id);
    if (!tag) continue;
    page.html += "<h3>" + h((tag->emoji ? *tag->emoji + " " : std::string()) + tag->displayTitle()) + "</h3>\n";
    const auto goal = tag->focusGoal();
    const auto streak = tagStreak(id, days.at);
    const std::string goalText =
        goal ? localized("Statistics.Chart.Goal") + " " + goal->localizedDescription() : words("Report.NoGoal");
    page.html += "<p class=\"meta tag\">" + h(goalText) + " · " + h(streak ? runText(*streak) : words("Report.NoRun")) +
                 "</p>\n";
    page.chart(std::make_shared<FocusDataType>(FocusDataType::tag(id)), StatisticsDateRange::week, days.at);
  }
}

std::string report(const Days& days) {
  using Case = ScreenTimeDataType::Case;
  using Range = StatisticsDateRange;
  Page page;
  heading(page, days);

  page.section("day", words("Report.TheDay", {dayText(days.last)}));
  for (const auto value : {Case::screenTime, Case::pickups}) page.chart(metric(value), Range::day, days.at);
  for (const auto& [range, title] :
       {std::pair{Range::week, "Report.TheWeek"}, std::pair{Range::month, "Report.TheMonth"},
        std::pair{Range::year, "Report.TheYear"}}) {
    page.section(std::string(rawValue(range)), words(title));
    for (const auto value : {Case::screenTime, Case::pickups}) page.chart(metric(value), range, days.at);
  }

  page.section("nights", words("Report.Nights"));
  page.chart(metric(Case::sleepTime), Range::week, days.at);
  page.chart(metric(Case::sleepTime), Range::month, days.at);
  page.chart(metric(Case::lastPickup), Range::week, days.at);
  page.chart(metric(Case::firstPickup), Range::week, days.at);
  nights(page, days);

  page.section("focus", localized("Focus.Focus"));
  focus(page, days);

  page.section("summary", words("Report.Summary", {dayText(days.first) + " – " + dayText(days.last)}));
  std::vector<std::vector<std::string>> rows;
  for (const auto& [label, value] : summarizeDays(days.first, static_cast<int>(days.all.size())).rows) {
    rows.push_back({label, value});
  }
  page.table("summary", {words("Report.OfTheDays"), words("Report.TotalOrAverage")}, rows);
  page.close();

  page.html += "<footer>\n<p class=\"meta\">" + h(words("Report.Footer", {dayAndClockTime(Date::now(), true)})) +
               "</p>\n</footer>\n</main>\n</body>\n</html>\n";
  return page.html;
}

}  // namespace

void addReportCommand(CLI::App& app, const GlobalOptions& options, Action& action) {
  auto a = std::make_shared<ReportArguments>();
  auto* command = app.add_subcommand("report", "One HTML page of charts, nights, focus and totals of a run of days");
  a->range.addTo(command, "ISO 8601 first day (default: six days before --to)", "ISO 8601 last day (default: today)");
  command->add_option("--out", a->out, "The HTML file to write")->required();
  onRun(
      command, action,
      [a] {
        if (a->out.empty()) throw refusal("--out: the file name is empty");
        Days days;
        days.at = parseInstantOrNow(a->range.to);
        days.last = days.at.startOfDay();
        days.first = a->range.from ? parseInstant(*a->range.from).startOfDay() : days.last.addingDay(-6);
        if (days.last < days.first) throw refusal("--from is after --to");
        // Checked before the days are listed: a far --from must not fill memory first.
        if (days.last - days.first > kTenYears) throw refusal("report: at most ten years at a time");
        for (Date day = days.first; day <= days.last; day = day.addingDay(1)) days.all.push_back(day);
        return days;
      },
      [&options, a](const Days& days) {
        writeFileAtomically("--out", a->out, report(days));
        Output(options).print({{"report", a->out}}, a->out);
      });
}

}  // namespace tarnwell::cli

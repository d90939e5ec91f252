// `tarnwell demo`: a fresh installation filled with a made-up but lifelike
// history, then what a person looks at first: the last whole day with the
// night before it, the last seven days, the streaks, a week's chart and the
// commands to try next.
//
// The history is deterministic: the same seed, days and clock (--now) give
// the same events. Days have 80 to 150 pickups of skewed lengths between
// waking and bedtime, some nights a short pickup in the small hours, two to
// four walks, monitoring that runs all day but for one afternoon's gap, a
// tablet, related to this device, that is picked up in the evenings, and
// focus sessions: work on most days, some study in the evenings.
//
// It shows the last whole day rather than today because today may have
// barely begun: run at five in the morning, today has no pickups yet.

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <filesystem>

#include "Cli.h"
#include "tarnwell/analytics/EventsCombo.h"
#include "tarnwell/analytics/EventsOfDay.h"
#include "tarnwell/charts/ScreenTimeDataType.h"
#include "tarnwell/charts/StatisticsData.h"
#include "tarnwell/modules/Database.h"
#include "tarnwell/records/Device.h"
#include "tarnwell/records/Focus.h"
#include "tarnwell/records/Tag.h"
#include "tarnwell/settings/Settings.h"
#include "tarnwell/store/Store.h"

namespace tarnwell::cli {
namespace {

// SplitMix64: the same numbers from the same seed on every platform.
class Random {
 public:
  explicit Random(std::uint64_t seed) : state_(seed) {}
  std::uint64_t next() {
    std::uint64_t z = (state_ += 0x9e3779b97f4a7c15ULL);
    z = (z ^ (z >> 30)) * 0xbf58476d1ce4e5b9ULL;
    z = (z ^ (z >> 27)) * 0x94d049bb133111ebULL;
    return z ^ (z >> 31);
  }
  // In [0, 1).
  double uniform() { return static_cast<double>(next() >> 11) * 0x1.0p-53; }
  double between(double low, double high) { return low + (high - low) * uniform(); }
  int integer(int low, int high) { return low + static_cast<int>(next() % static_cast<std::uint64_t>(high - low + 1)); }
  bool chance(double probability) { return uniform() < probability; }
  // Roughly normal: the sum of four uniforms, centred and scaled.
  double around(double mean, double spread) {
    return mean + spread * (uniform() + uniform() + uniform() + uniform() - 2.0) * 1.7;
  }
  std::string uuid() {
    const std::uint64_t a = next(), b = next();
    char text[37];
    std::snprintf(text, sizeof text, "%08X-%04X-4%03X-%04X-%012llX", static_cast<unsigned>(a >> 32),
                  static_cast<unsigned>((a >> 16) & 0xffff), static_cast<unsigned>(a & 0xfff),
                  static_cast<unsigned>(0x8000 | ((b >> 48) & 0x3fff)),
                  static_cast<unsigned long long>(b & 0xffffffffffffULL));
    return text;
  }

 private:
  std::uint64_t state_;
};

// Most pickups are glances, some are reading, a few are long sessions.
double pickupLength(Random& random) {
  const double kind = random.uniform();
  if (kind < 0.70) return random.between(5, 90);
  if (kind < 0.92) return random.between(90, 480);
  return std::exp(random.between(std::log(480.0), std::log(2700.0)));
}

struct History {
  std::vector<Pickup> pickups;
  std::vector<Walk> walks;
  std::vector<Alive> alives;
  std::vector<Focus> focuses;
  std::size_t size() const { return pickups.size() + walks.size() + alives.size() + focuses.size(); }
};

template <class Record>
void addSpan(std::vector<Record>& records, Date start, Date end, Date now, const std::string& device) {
  if (!(start < now)) return;
  Record record(start, std::min(end, now));
  record.deviceId = device;
  records.push_back(std::move(record));
}

// One day of this device and the tablet, up to `now`.
void makeDay(Random& random, Date day, Date now, bool gapInMonitoring, const std::string& phone,
             const std::string& tablet, History& history) {
  const Date midnight = day.startOfDay();
  const Date wake = midnight + std::clamp(random.around(7 * 3600.0, 2400), 5 * 3600.0, 9.5 * 3600);
  const Date bed = midnight + std::clamp(random.around(23.25 * 3600, 2700), 21.5 * 3600, 24.5 * 3600);

  // A short look at the phone in the small hours, some nights.
  if (random.chance(0.2)) {
    const Date start = midnight + random.between(1.5 * 3600, 4.5 * 3600);
    addSpan(history.pickups, start, start + random.between(30, 240), now, phone);
  }

  std::vector<double> starts;
  const int count = random.integer(80, 150);
  for (int i = 0; i < count; ++i) starts.push_back(random.between(0, bed - wake));
  std::sort(starts.begin(), starts.end());
  for (std::size_t i = 0; i < starts.size(); ++i) {
    const Date start = wake + starts[i];
    Date end = start + pickupLength(random);
    // One phone, one pickup at a time: a pickup ends before the next begins.
    if (i + 1 < starts.size()) end = std::min(end, wake + starts[i + 1] - 5.0);
    if (start < end) addSpan(history.pickups, start, end, now, phone);
  }

  for (int i = random.integer(2, 4); i > 0; --i) {
    const Date start = midnight + random.between(8 * 3600.0, 20 * 3600.0);
    addSpan(history.walks, start, start + random.between(600, 2400), now, phone);
  }

  // The tablet comes out in the evening.
  for (int i = random.integer(0, 12); i > 0; --i) {
    const Date start = midnight + random.between(18 * 3600.0, 22.5 * 3600);
    addSpan(history.pickups, start, start + random.between(120, 1800), now, tablet);
  }

  // Work in pomodoros on most days, a few of them given up before the end;
  // study some evenings.
  const auto focus = [&](const char* tag, Date start, double goal, double progress) {
    if (!(start + progress < now)) return;
    history.focuses.emplace_back(random.uuid(), start, start + progress, tag, goal, progress,
                                 widgets::FocusType::pomodoro(goal), FocusMode::easy, std::nullopt);
  };
  if (random.chance(0.8)) {
    Date start = midnight + random.between(9 * 3600.0, 11 * 3600.0);
    for (int i = random.integer(1, 4); i > 0; --i) {
      const double progress = random.chance(0.15) ? random.between(300, 1400) : 1500;
      focus("working", start, 1500, progress);
      start = start + progress + random.between(300, 5400);
    }
  }
  if (random.chance(0.4)) focus("studying", midnight + random.between(19 * 3600.0, 21 * 3600.0), 1800, 1800);

  // Monitoring in stretches of a few hours; one afternoon it was off.
  Date start = midnight;
  const Date end = day.addingDay(1).startOfDay();
  while (start < end) {
    Date stretchEnd = std::min(end, start + random.between(3 * 3600.0, 5 * 3600.0));
    if (gapInMonitoring && start < midnight + 14 * 3600.0 && midnight + 14 * 3600.0 <= stretchEnd) {
      addSpan(history.alives, start, midnight + 14 * 3600.0, now, phone);
      start = midnight + 16.25 * 3600;
      continue;
    }
    addSpan(history.alives, start, stretchEnd, now, phone);
    start = stretchEnd;
  }
}

struct DemoArguments {
  int days = 14;
  std::uint64_t seed = 20261122;
};

// The command line that reads this installation again, for the suggestions.
std::string commandLine(const GlobalOptions& options) {
  const auto quoted = [](const std::string& text) {
    if (text.find_first_of(" '\"$\\") == std::string::npos) return text;
    std::string escaped = "'";
    for (const char c : text) escaped += c == '\'' ? std::string("'\\''") : std::string(1, c);
    return escaped + "'";
  };
  std::error_code error;
  std::filesystem::path program = std::filesystem::read_symlink("/proc/self/exe", error);
  if (error) program = "tarnwell";
  const auto relative = std::filesystem::relative(program, std::filesystem::current_path(error), error);
  if (!error && !relative.empty() && *relative.begin() != "..") program = "./" + relative.string();
  std::string line = quoted(program.string());
  if (options.container) line += " --container " + quoted(*options.container);
  if (options.now) line += " --now " + quoted(*options.now);
  if (options.timeZone) line += " --tz " + quoted(*options.timeZone);
  if (options.locale) line += " --locale " + quoted(*options.locale);
  return line;
}

std::string suggestions(const GlobalOptions& options, Date day) {
  // The commands stay as typed; only what they show is in the user's words.
  const std::string tarnwell = commandLine(options), date = day.iso8601().substr(0, 10);
  const std::pair<std::string, const char*> next[] = {
      {"day", "Demo.Next.Today"},
      {"chart pickups --range month", "Demo.Next.Month"},
      {"chart sleepTime --date " + date, "Demo.Next.Nights"},
      {"tag streak working --date " + date, "Demo.Next.Streak"},
      {"report --out tarnwell-report.html", "Demo.Next.Report"},
      {"--help", "Demo.Next.Help"},
  };
  std::string text = words("Demo.TryNext") + "\n";
  for (const auto& [command, what] : next) text += "  " + tarnwell + " " + command + "\n      " + words(what) + "\n";
  text.pop_back();
  return text;
}

// "1 walk", "46 walks": a count in the user's words, `one` for a single one.
std::string counted(std::size_t count, const char* one, const char* many) {
  return words(count == 1 ? one : many, {static_cast<std::int64_t>(count)});
}

}  // namespace

void addDemoCommand(CLI::App& app, const GlobalOptions& options, Action& action) {
  auto arguments = std::make_shared<DemoArguments>();
  auto* demo = app.add_subcommand(
      "demo", "Fill a fresh installation with a made-up history, then show yesterday, its week and the streaks");
  demo->add_option("--days", arguments->days, "Days of history, today included (default 14)")
      ->check(CLI::Range(1, 3660));
  demo->add_option("--seed", arguments->seed, "Seed of the made-up history (default 20261122)");
  onRun(demo, action, [&options, arguments] {
    const std::string phone = Settings::deviceId();
    if (!Database::getPickups(DateInterval(Date::distantPast(), Date::distantFuture()), {phone}).empty()) {
      throw refusal("this installation already has events; give demo a fresh --container");
    }
    Random random(arguments->seed);
    const std::string tablet = random.uuid();
    const Date now = Date::now();
    History history;
    Progress progress("demo");
    const std::string daysMade = words("Demo.Progress.DaysMade"),
                      recordsWritten = words("Demo.Progress.RecordsWritten");
    for (int back = arguments->days - 1; back >= 0; --back) {
      makeDay(random, now.addingDay(-back), now, back == std::min(3, arguments->days - 1), phone, tablet, history);
      progress.update(static_cast<std::size_t>(arguments->days - back), daysMade);
    }

    auto thisDevice = Database::getCurrentDevice().value_or(Device(phone, "Phone"));
    thisDevice.appendDeviceId(tablet);
    store::Store::open().write([&](store::WriteTransaction& t) {
      t.add(thisDevice);
      t.add(Device(tablet, "Demo tablet"));
      const double total = static_cast<double>(history.size());
      std::size_t written = 0;
      const auto add = [&](const auto& records) {
        for (const auto& record : records) {
          t.add(record, store::UpdatePolicy::error);
          if (++written % 1000 == 0) progress.update(written, recordsWritten, written / total);
        }
      };
      add(history.pickups);
      add(history.walks);
      add(history.alives);
      add(history.focuses);
    });
    // An hour of work a day is the aim whose streak the suggestions show.
    TagEdit goal;
    goal.focusGoal = FocusGoal::moreThanOrEqualTo(3600);
    Database::editTag("working", goal);

    // The last whole day, unless today is all there is.
    const Date day = arguments->days > 1 ? now.addingDay(-1) : now;
    const View shownDay = dayView(EventsOfDay(day, std::nullopt));
    const View week = summaryView(day.addingDay(-6), 7);
    const View streaks = streaksView(EventsCombo::currentCombo());
    // The last whole calendar week, when the history reaches back to its
    // start: this week may hold only today, and the week of yesterday is half
    // in the future from Tuesday on.
    const Date lastWeek = now.startOfWeek().addingDay(-1);
    const Date firstDayMade = now.addingDay(1 - arguments->days).startOfDay();
    const View chart =
        chartView(StatisticsData(lastWeek.startOfWeek() < firstDayMade ? day : lastWeek, StatisticsDateRange::week,
                                 std::make_shared<ScreenTimeDataType>(ScreenTimeDataType::Case::screenTime)));
    const nlohmann::ordered_json made = {{"days", arguments->days},
                                         {"pickups", history.pickups.size()},
                                         {"walks", history.walks.size()},
                                         {"alives", history.alives.size()},
                                         {"focuses", history.focuses.size()}};
    Output(options).print(
        {{"made", made}, {"day", shownDay.json}, {"week", week.json}, {"streaks", streaks.json}, {"chart", chart.json}},
        words("Demo.Made", {counted(history.pickups.size(), "Import.OnePickup", "Import.Pickups"),
                            counted(history.walks.size(), "Import.OneWalk", "Import.Walks"),
                            counted(history.alives.size(), "Import.OneAliveSpan", "Import.AliveSpans"),
                            counted(history.focuses.size(), "Demo.FocusSessions.One", "Demo.FocusSessions.Many"),
                            counted(static_cast<std::size_t>(arguments->days), "Demo.Days.One", "Demo.Days.Many")}) +
            "\n\n" + shownDay.text + "\n\n" +
            words("Demo.SevenDays", {calendarDay(day.addingDay(-6)), calendarDay(day)}) + "\n" + week.text + "\n\n" +
            words("Demo.Streaks") + "\n" + streaks.text + "\n\n" + chart.text + "\n\n" + suggestions(options, day));
  });
}

}  // namespace tarnwell::cli

// `tarnwell health ...` and `tarnwell focus state-of-mind`: the installation's
// health store as the phone's health app and other applications see it.

#include <array>
#include <cmath>
#include <cstdio>
#include <fstream>
#include <iostream>

#include "Cli.h"
#include "tarnwell/analytics/SleepComparison.h"
#include "tarnwell/health/HealthManager.h"
#include "tarnwell/health/StateOfMind.h"
#include "tarnwell/healthkit/HealthExport.h"
#include "tarnwell/healthkit/SqliteHealthStore.h"
#include "tarnwell/modules/Database.h"
#include "tarnwell/settings/Settings.h"

namespace tarnwell::cli {

namespace {

struct HealthArguments {
  std::string start, end, sourceBundle, sourceName, value = "asleep", type, answer, file, id;
  std::optional<std::string> typeFilter, valence, source;
  std::vector<std::string> labels, associations;
  RangeOptions range;
};

constexpr const char* kTypeHelp = "sleep, mindful or stateOfMind";

// The host's words for the sample types, in both directions.
constexpr std::array<std::pair<HKSampleType, std::string_view>, 3> kTypeWords{{
    {HKSampleType::sleepAnalysis, "sleep"},
    {HKSampleType::mindfulSession, "mindful"},
    {HKSampleType::stateOfMind, "stateOfMind"},
}};

HKSampleType parseType(const std::string& name, const std::string& text) {
  for (const auto& [type, word] : kTypeWords) {
    if (word == text) return type;
  }
  refuse(name, text, kTypeHelp);
}

std::string typeWord(HKSampleType type) {
  for (const auto& [known, word] : kTypeWords) {
    if (known == type) return std::string(word);
  }
  return "";
}

constexpr std::array<std::string_view, 6> kSleepValueWords = {"inBed", "asleep", "awake", "core", "deep", "rem"};

// A value of sleep analysis by word or raw number: 0 to 5, as the health
// store defines them. Any other number would be read as some kind of asleep.
std::int64_t parseSleepValue(const std::string& text) {
  for (std::size_t i = 0; i < kSleepValueWords.size(); ++i) {
    if (kSleepValueWords[i] == text) return static_cast<std::int64_t>(i);
  }
  constexpr const char* kAccepts = "inBed, asleep, awake, core, deep, rem or their number, 0 to 5";
  const double number = parseNumberIn("--value", text, 0, static_cast<double>(kSleepValueWords.size() - 1), kAccepts);
  if (number != std::floor(number)) refuse("--value", text, kAccepts);
  return static_cast<std::int64_t>(number);
}

HKAuthorizationAnswer parseAnswer(const std::string& text) {
  if (text == "grant") return HKAuthorizationAnswer::grant;
  if (text == "deny") return HKAuthorizationAnswer::deny;
  if (text == "silent") return HKAuthorizationAnswer::silent;
  if (text == "error") return HKAuthorizationAnswer::error;
  refuse("--answer", text, "grant, deny, silent or error");
}

SqliteHealthStore& installationStore() {
  auto* store = dynamic_cast<SqliteHealthStore*>(&HKHealthStore::installed());
  if (!store) throw std::logic_error("the health store of this installation is not its file");
  return *store;
}

// The sample's value as a person reads it, and as JSON.
std::string valueText(const HKSample& sample) {
  if (sample.stateOfMind) {
    std::string text = words("Health.Sample.Valence", {formatDouble(sample.stateOfMind->valence)});
    for (const auto label : sample.stateOfMind->labels) text += " " + std::string(name(label));
    for (const auto association : sample.stateOfMind->associations) text += " " + std::string(name(association));
    return text;
  }
  const std::int64_t value = sample.categoryValue.value_or(0);
  if (sample.sampleType == HKSampleType::sleepAnalysis && value >= 0 &&
      value < static_cast<std::int64_t>(kSleepValueWords.size())) {
    return std::string(kSleepValueWords[static_cast<std::size_t>(value)]);
  }
  return std::to_string(value);
}

nlohmann::ordered_json valueJSON(const HKSample& sample) {
  if (!sample.stateOfMind) return sample.categoryValue.value_or(0);
  nlohmann::ordered_json labels = nlohmann::ordered_json::array(), associations = nlohmann::ordered_json::array();
  for (const auto label : sample.stateOfMind->labels) labels.push_back(static_cast<std::int64_t>(label));
  for (const auto association : sample.stateOfMind->associations) {
    associations.push_back(static_cast<std::int64_t>(association));
  }
  return {{"kind", static_cast<std::int64_t>(sample.stateOfMind->kind)},
          {"valence", sample.stateOfMind->valence},
          {"labels", labels},
          {"associations", associations}};
}

void printSamples(const GlobalOptions& options, const std::vector<HKSample>& samples) {
  nlohmann::ordered_json all = nlohmann::ordered_json::array();
  std::vector<std::string> lines;
  for (const auto& sample : samples) {
    all.push_back({{"type", typeWord(sample.sampleType)},
                   {"value", valueJSON(sample)},
                   {"start", sample.startDate.iso8601()},
                   {"end", sample.endDate.iso8601()},
                   {"sourceName", sample.source.name},
                   {"sourceBundle", sample.source.bundleIdentifier},
                   {"metadata", sample.metadata}});
    std::string line = typeWord(sample.sampleType) + "  " + valueText(sample) + "  " +
                       words("Health.Sample.Span", {sample.startDate.iso8601(), sample.endDate.iso8601()}) + "  " +
                       sample.source.name + " (" + sample.source.bundleIdentifier + ")";
    if (!sample.metadata.is_null()) line += "  " + sample.metadata.dump();
    lines.push_back(std::move(line));
  }
  Output(options).print(all, joinLines(lines, words("List.None")));
}

// An export names its sources but not their identifiers: a known sleep
// application gets its own, any other source "export." and its name (never
// nothing, which the store would read as this application).
std::string bundleOfExportedSource(const std::string& name) {
  for (int row = 0; row < static_cast<int>(KnownSleepApp::unknown); ++row) {
    const auto app = static_cast<KnownSleepApp>(row);
    if (app == KnownSleepApp::clock) continue;
    const SleepDataSource known{name, std::string(info(app).bundleIdentifier)};
    if (known.displayName() == name) return known.bundleIdentifier;
  }
  return "export." + name;
}

void importExport(const GlobalOptions& options, const std::string& file) {
  std::ifstream in(file, std::ios::binary);
  std::error_code notAFile;
  if (!in || !std::filesystem::is_regular_file(file, notAFile)) {
    throw refusal("health import: cannot read \"%@\"", {file});
  }
  const auto total = static_cast<double>(std::filesystem::file_size(file));
  HealthExportReader reader(in);
  std::size_t read = 0;
  std::size_t count = 0;
  try {
    Progress progress("health import " + file);
    const std::string recordsRead = words("Health.Progress.Records");
    count = installationStore().importSamples([&](std::vector<HKSample>& batch) {
      const bool more = reader.next(batch, 10000);
      for (auto& sample : batch) sample.source.bundleIdentifier = bundleOfExportedSource(sample.source.name);
      read += batch.size();
      progress.update(read, recordsRead,
                      total > 0 ? std::optional(static_cast<double>(reader.bytesRead()) / total) : std::nullopt);
      return more;
    });
  } catch (const HealthExportError& error) {
    throw refusal("health import: %1$@, %2$@; nothing was imported", {file, error.what()});
  }
  Output(options).print({{"imported", count}, {"file", file}},
                        words(count == 1 ? "Health.Import.OneRecord" : "Health.Import.Records",
                              {static_cast<std::int64_t>(count), file}));
}

// What another application does to write: ask, then save. Either failure
// is a plain error, since no user of that application stands by to answer.
Promise<void> saveAsAnotherApplication(HKHealthStore& writer, HKSample sample) {
  auto [saved, resolver] = Promise<void>::pending();
  const auto fail = [resolver](std::exception_ptr error, const std::string& otherwise) {
    resolver.reject(error ? error : std::make_exception_ptr(std::runtime_error(otherwise)));
  };
  const std::set types{sample.sampleType};
  writer.requestAuthorization(types, types, [&writer, sample, resolver, fail](bool granted, std::exception_ptr error) {
    if (!granted) return fail(error, errorWords("the application was not allowed to write"));
    writer.save(sample, [resolver, fail](bool success, std::exception_ptr saveError) {
      if (success) return resolver.fulfill();
      fail(saveError, errorWords("the sample was not saved"));
    });
  });
  return saved;
}

void showSources(const GlobalOptions& options) {
  const auto sources = awaitHealth(HealthManager::shared().getSleepSources(), "health sources");
  nlohmann::ordered_json all = nlohmann::ordered_json::array();
  std::vector<std::string> lines;
  for (const auto& source : sources) {
    all.push_back(
        {{"name", source.name}, {"bundleIdentifier", source.bundleIdentifier}, {"displayName", source.displayName()}});
    lines.push_back(source.displayName() + "  (" + source.bundleIdentifier + ")");
  }
  Output(options).print(all, joinLines(lines, words("List.None")));
}

void saveStateOfMind(const GlobalOptions& options, const HealthArguments& a) {
  if (!Database::getFocus(a.id)) throw refusal("focus state-of-mind: there is no focus %@", {a.id});
  auto& manager = HealthManager::shared();
  if (a.valence) {
    const double valence = parseNumber("--valence", *a.valence);
    if (valence < -1 || valence > 1) refuse("--valence", *a.valence, "a number from -1 to 1");
    std::vector<HKStateOfMindLabel> labels;
    for (const auto& text : a.labels) {
      const auto label = stateOfMindLabel(text);
      if (!label) refuse("--label", text, "a state-of-mind label such as calm or happy");
      labels.push_back(*label);
    }
    std::vector<HKStateOfMindAssociation> associations;
    for (const auto& text : a.associations) {
      const auto association = stateOfMindAssociation(text);
      if (!association) refuse("--association", text, "an association such as work or fitness");
      associations.push_back(*association);
    }
    awaitHealth(manager.saveStateOfMindForFocus(a.id, Date::now(), valence, labels, associations),
                "focus state-of-mind");
  }
  const auto saved = awaitHealth(manager.fetchSavedStateOfMind(a.id), "focus state-of-mind");
  std::vector<HKSample> states;
  for (const auto& sample : saved) {
    if (sample.stateOfMind) states.push_back(sample);
  }
  if (states.empty()) return Output(options).print(nullptr, words("Health.StateOfMind.None", {a.id}));
  const HKStateOfMind& state = *states.front().stateOfMind;
  std::vector<std::string> labelTitles;
  for (const auto label : state.labels) labelTitles.push_back(title(label));
  nlohmann::ordered_json labels = nlohmann::ordered_json::array(), associations = nlohmann::ordered_json::array();
  for (const auto label : state.labels) labels.push_back(name(label));
  for (const auto association : state.associations) associations.push_back(name(association));
  std::string text = words("Health.StateOfMind.Valence", {formatDouble(state.valence)});
  for (const auto& title : labelTitles) text += ", " + title;
  if (!state.associations.empty()) text += "; " + associationsDescription(state.associations);
  Output(options).print({{"focusId", a.id},
                         {"date", states.front().startDate.iso8601()},
                         {"valence", state.valence},
                         {"labels", labels},
                         {"associations", associations}},
                        text);
}

std::string minutes(double seconds) { return formatDouble(std::round(seconds / 6) / 10); }

// "23:05-07:00", or "-" for no night, padded to one width.
std::string clocks(const std::optional<DateInterval>& night) {
  if (!night) return "-            ";
  return night->start().iso8601().substr(11, 5) + "-" + night->end().iso8601().substr(11, 5) + "  ";
}

void compareSleep(const GlobalOptions& options, const HealthArguments& a) {
  std::string bundle;
  if (a.source) {
    bundle = *a.source;
  } else if (const auto chosen = Settings::defaultSleepDataSource(); !chosen.isBuiltIn()) {
    bundle = chosen.bundleIdentifier;
  } else {
    throw refusal(
        "sleep compare: name the application with --source BUNDLE, or choose it with settings set "
        "defaultSleepDataSource");
  }
  const Date last = a.range.to ? parseInstant(*a.range.to).startOfDay() : Date::now().startOfDay();
  const Date first = a.range.from ? parseInstant(*a.range.from).startOfDay() : last.addingDay(-6);
  if (last < first) throw refusal("--from is after --to");
  // Checked before the days are listed: a far --from must not fill memory first.
  if (last - first > 3660 * 86400.0) throw refusal("sleep compare: at most ten years at a time");
  std::vector<Date> days;
  for (Date day = first; day <= last; day = day.addingDay(1)) days.push_back(day);
  const DateInterval span(first.addingDay(-1), last.addingDay(1));
  const auto comparison = SleepComparison::compare(days, recordedSleeps(bundle, span, "sleep compare"));

  nlohmann::ordered_json nights = nlohmann::ordered_json::array();
  std::vector<std::string> lines{padded(words("Sleep.Compare.Day"), 12) + padded(words("Sleep.Compare.Inferred"), 15) +
                                 padded(words("Sleep.Compare.Recorded"), 15) + words("Sleep.Compare.Asleep") + "  " +
                                 words("Sleep.Compare.Awake") + "  " + words("Sleep.Compare.Length") + "  " +
                                 words("Sleep.Compare.MinutesOff")};
  for (const auto& night : comparison.nights) {
    nlohmann::ordered_json row{{"day", night.day.iso8601().substr(0, 10)}};
    const auto both = night.inferred && night.recorded;
    for (const auto& [key, value] : {std::pair{"inferred", night.inferred}, std::pair{"recorded", night.recorded}}) {
      row[key] = value ? nlohmann::ordered_json{{"asleep", value->start().iso8601()},
                                                {"awake", value->end().iso8601()},
                                                {"duration", value->duration()}}
                       : nlohmann::ordered_json(nullptr);
    }
    row["recordedAsleep"] = night.recordedAsleep;
    std::string line =
        night.day.iso8601().substr(0, 10) + "  " + clocks(night.inferred) + " " + clocks(night.recorded) + " ";
    if (both) {
      const double asleep = (night.inferred->start() - night.recorded->start()) / 60;
      const double awake = (night.inferred->end() - night.recorded->end()) / 60;
      const double length = (night.inferred->duration() - night.recorded->duration()) / 60;
      row["differenceMinutes"] = {{"asleep", asleep}, {"awake", awake}, {"duration", length}};
      line += minutes(asleep * 60) + "  " + minutes(awake * 60) + "  " + minutes(length * 60);
    } else {
      row["differenceMinutes"] = nullptr;
      line += "-";
    }
    nights.push_back(row);
    lines.push_back(line);
  }
  const auto errors = [](const SleepErrors& e) {
    return nlohmann::ordered_json{{"nights", e.nights},
                                  {"asleepMinutes", e.asleepMinutes},
                                  {"awakeMinutes", e.awakeMinutes},
                                  {"durationMinutes", e.durationMinutes}};
  };
  const auto errorLine = [](const std::string& what, const SleepErrors& e) {
    return words(
        e.nights == 1 ? "Sleep.Compare.Off.OneNight" : "Sleep.Compare.Off.Nights",
        {what, minutes(e.asleepMinutes * 60), minutes(e.awakeMinutes * 60), minutes(e.durationMinutes * 60), e.nights});
  };
  lines.push_back(errorLine(words("Sleep.Compare.Inference"), comparison.inference));
  lines.push_back(errorLine(words("Sleep.Compare.Baseline"), comparison.baseline));
  Output(options).print({{"source", bundle},
                         {"nights", nights},
                         {"inference", errors(comparison.inference)},
                         {"baseline", errors(comparison.baseline)}},
                        joinLines(lines));
}

}  // namespace

bool healthStoreHasSleepFrom(const std::string& bundle) {
  for (const auto& sample : installationStore().allSamples()) {
    if (sample.sampleType == HKSampleType::sleepAnalysis && sample.source.bundleIdentifier == bundle) return true;
  }
  return false;
}

std::vector<DateInterval> recordedSleeps(const std::string& bundle, const DateInterval& span,
                                         const std::string& command) {
  auto& manager = HealthManager::shared();
  awaitHealth(manager.requestSleepAnalysisAuthorization(), command);
  auto [found, resolver] = Promise<std::vector<HKSample>>::pending();
  manager.healthStore().execute(std::make_shared<HKSampleQuery>(
      HKSampleType::sleepAnalysis, HKQueryPredicate::forSamples(span.start(), span.end()), HKSampleQuery::kNoLimit,
      std::vector<HKSortDescriptor>{},
      [resolver](std::optional<std::vector<HKSample>> samples, std::exception_ptr error) {
        if (error) return resolver.reject(error);
        resolver.fulfill(samples.value_or(std::vector<HKSample>()));
      }));
  std::vector<DateInterval> sleeps;
  for (const auto& sample : awaitHealth(found, command)) {
    const auto value = sample.categoryValue.value_or(-1);
    const bool asleep = value == static_cast<std::int64_t>(HKCategoryValueSleepAnalysis::asleepUnspecified) ||
                        value >= static_cast<std::int64_t>(HKCategoryValueSleepAnalysis::asleepCore);
    if (asleep && sample.source.bundleIdentifier == bundle && sample.startDate <= sample.endDate) {
      sleeps.emplace_back(sample.startDate, sample.endDate);
    }
  }
  return sleeps;
}

void addHealthCommands(CLI::App& app, const GlobalOptions& options, Action& action) {
  auto a = std::make_shared<HealthArguments>();
  auto* health = app.add_subcommand("health",
                                    "The installation's health store: sleep of other applications in, "
                                    "mindful sessions, the night and states of mind out");
  health->require_subcommand(1);

  auto* addSleep = health->add_subcommand("add-sleep", "Another application writes a sleep sample");
  addSleep->add_option("start", a->start, "ISO 8601")->required();
  addSleep->add_option("end", a->end, "ISO 8601")->required();
  addSleep->add_option("--source-bundle", a->sourceBundle, "The writing application's identifier")->required();
  addSleep->add_option("--source-name", a->sourceName, "The writing application's name")->required();
  addSleep->add_option("--value", a->value, "inBed, asleep (default), awake, core, deep, rem or a raw number");
  onRunWithoutStore(addSleep, action, [&options, a] {
    const auto [start, end] = parseSpan(a->start, a->end, kOneDay);
    const std::int64_t value = parseSleepValue(a->value);
    // Samples of this application are the ones it wrote itself, and an
    // empty identifier is read as this application too.
    if (a->sourceBundle.empty() || a->sourceBundle == SleepDataSource::builtIn().bundleIdentifier) {
      refuse("--source-bundle", a->sourceBundle, "another application's identifier");
    }
    const auto folder = Environment::current().healthFolder();
    SqliteHealthStore writer(*folder, HKSource{a->sourceName, a->sourceBundle});
    const auto saved =
        saveAsAnotherApplication(writer, HKSample::category(HKSampleType::sleepAnalysis, value, start, end));
    awaitHealth(saved, "health add-sleep");
    Output(options).print({{"start", start.iso8601()}, {"end", end.iso8601()}, {"sourceBundle", a->sourceBundle}},
                          words("Health.AddSleep.Saved", {start.iso8601(), end.iso8601(), a->sourceName}));
  });

  auto* samples = health->add_subcommand("samples", "What the health store holds, of every application");
  samples->add_option("--type", a->typeFilter, kTypeHelp);
  a->range.addTo(samples);
  onRunWithoutStore(samples, action, [&options, a] {
    const auto type = a->typeFilter ? std::optional(parseType("--type", *a->typeFilter)) : std::nullopt;
    const auto span = a->range.parse();
    std::vector<HKSample> kept;
    for (auto& sample : installationStore().allSamples()) {
      if (type && sample.sampleType != *type) continue;
      if (span && !HKQueryPredicate::forSamples(span->start(), span->end()).evaluate(sample)) continue;
      kept.push_back(std::move(sample));
    }
    printSamples(options, kept);
  });

  auto* sources = health->add_subcommand("sources", "The sources of sleep of the last 7 days, as a picker lists them");
  onRunWithoutStore(sources, action, [&options] { showSources(options); });

  auto* authorize = health->add_subcommand("authorize", "Script what the user answers when asked for a type");
  authorize->add_option("type", a->type, kTypeHelp)->required();
  authorize->add_option("--answer", a->answer, "grant, deny, silent or error")->required();
  onRunWithoutStore(authorize, action, [&options, a] {
    const HKSampleType type = parseType("type", a->type);
    const HKAuthorizationAnswer answer = parseAnswer(a->answer);
    installationStore().setAuthorizationAnswer(type, answer);
    Output(options).print({{"type", a->type}, {"answer", a->answer}},
                          words("Health.Authorize.Answer", {a->type, a->answer}));
  });

  auto* import = health->add_subcommand("import", "The sleep and mindful records of a phone's health export");
  import->add_option("file", a->file, "export.xml")->required();
  onRunWithoutStore(import, action, [&options, a] { importExport(options, a->file); });

  auto* sleep = app.add_subcommand("sleep", "The night as inferred from phone use and as a sleep application has it");
  sleep->require_subcommand(1);
  auto* compare = sleep->add_subcommand("compare", "Night by night, the inferred night against a sleep application's");
  a->range.addTo(compare, "the first day (default: six days before the last)", "the last day (default: today)");
  compare->add_option("--source", a->source, "The sleep application's identifier (default: the chosen source)");
  onRun(compare, action, [&options, a] { compareSleep(options, *a); });

  auto* focus = app.get_subcommand("focus");
  auto* stateOfMind = focus->add_subcommand("state-of-mind", "Save, or without options show, how a focus felt");
  stateOfMind->add_option("id", a->id, "The focus")->required();
  stateOfMind->add_option("--valence", a->valence, "From -1 (very unpleasant) to 1 (very pleasant)");
  stateOfMind->add_option("--label", a->labels, "A label such as calm, happy, stressed (repeatable)");
  stateOfMind->add_option("--association", a->associations, "What it was about: work, fitness, ... (repeatable)");
  onRun(stateOfMind, action, [&options, a] {
    if (!a->valence && (!a->labels.empty() || !a->associations.empty())) {
      throw refusal("focus state-of-mind: --label and --association need a --valence");
    }
    saveStateOfMind(options, *a);
  });
}

}  // namespace tarnwell::cli

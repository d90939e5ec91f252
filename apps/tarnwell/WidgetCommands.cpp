// `tarnwell widgets ...` plays the home screen: what the widgets read, which
// widgets are placed and the redraws asked for. None of it opens the store,
// as a widget may not. `tarnwell focus state ...` plays the app's timer.

#include <set>

#include "Cli.h"
#include "tarnwell/automation/URLScheme.h"
#include "tarnwell/automation/WidgetDatabase.h"
#include "tarnwell/modules/Database.h"
#include "tarnwell/platform/WidgetCenter.h"

namespace tarnwell::cli {
namespace {

using widgets::WidgetFocusState;
using widgets::WidgetKind;

struct WidgetArguments {
  std::string configuration;
  std::optional<std::string> family;
  std::optional<std::string> none, tag, type, state, spent, goal;
  bool paused = false;
};

// The published JSON as the host prints every value: instants in ISO 8601,
// intervals as their two ends.
nlohmann::ordered_json presentable(const nlohmann::json& value) {
  static const std::set<std::string, std::less<>> kInstants = {"startOfDay", "firstPickupDate", "lastPickupDate",
                                                               "date"};
  const auto instant = [](const nlohmann::json& seconds) {
    return Date::fromTimeIntervalSinceReferenceDate(seconds.get<double>()).iso8601();
  };
  if (value.is_array()) {
    nlohmann::ordered_json list = nlohmann::ordered_json::array();
    for (const auto& element : value) list.push_back(presentable(element));
    return list;
  }
  if (!value.is_object()) return nlohmann::ordered_json(value);
  if (value.size() == 2 && value.contains("start") && value.contains("duration")) {
    const Date start = Date::fromTimeIntervalSinceReferenceDate(value["start"].get<double>());
    return {{"start", start.iso8601()}, {"end", (start + value["duration"].get<double>()).iso8601()}};
  }
  nlohmann::ordered_json object = nlohmann::ordered_json::object();
  for (const auto& [key, element] : value.items()) {
    object[key] = kInstants.contains(key) && element.is_number() ? nlohmann::ordered_json(instant(element))
                                                                 : presentable(element);
  }
  return object;
}

// Each published key with its value as the widget types read it back;
// nothing for a key not written or not readable.
nlohmann::ordered_json published() {
  using widgets::Keys;
  const auto read = [](const auto& key) -> nlohmann::ordered_json {
    const auto value = key.get();
    if constexpr (requires { value.has_value(); }) {
      if (!value) return nullptr;
      return presentable(nlohmann::json(*value));
    } else {
      return key.isStored() ? presentable(nlohmann::json(value)) : nullptr;
    }
  };
  nlohmann::ordered_json all = nlohmann::ordered_json::object();
  const auto put = [&all, &read](const auto& key) { all[key.name()] = read(key); };
  put(Keys::screenTimeToday);
  put(Keys::screenTimeThisWeek);
  put(Keys::screenTimeThisMonth);
  put(Keys::focusTimeToday);
  put(Keys::focusTimeThisWeek);
  put(Keys::focusTimeThisMonth);
  put(Keys::focusTimeThisYear);
  const auto state = widgets::WidgetDatabase::currentFocusState();
  all[std::string(Keys::currentFocusState)] = state ? presentable(nlohmann::json(*state)) : nullptr;
  put(Keys::widgetScreenTimeGoal);
  put(Keys::widgetSleepTimeGoal);
  put(Keys::widgetPickupsGoal);
  const bool hasWidgetTags = UserDefaults::appGroup().contains(widgets::WidgetDatabase::kTagsKey);
  all[std::string(widgets::WidgetDatabase::kTagsKey)] =
      hasWidgetTags ? presentable(nlohmann::json(widgets::WidgetDatabase::tags())) : nullptr;
  const auto intentTags = widgets::IntentDatabase::tags();
  all[std::string(widgets::IntentDatabase::kTagsKey)] = intentTags ? presentable(nlohmann::json(*intentTags)) : nullptr;
  return all;
}

std::string publishedText(const nlohmann::ordered_json& all) {
  std::vector<std::string> lines;
  for (const auto& [key, value] : all.items()) {
    std::string line = key;
    line.resize(std::max<std::size_t>(line.size() + 1, 24), ' ');
    lines.push_back(line + (value.is_null() ? "-" : plainText(value)));
  }
  return joinLines(lines);
}

std::string configurationWords() {
  std::string words;
  for (const auto& configuration : WidgetKind::configurations()) {
    words += (words.empty() ? "" : ", ") + std::string(configuration.intent);
  }
  return words;
}

void addWidgetBoardCommands(CLI::App* group, const GlobalOptions& options, Action& action,
                            const std::shared_ptr<WidgetArguments>& a) {
  onRunWithoutStore(group->add_subcommand("show", "Every published key and its value, as a widget reads it"), action,
                    [&options] {
                      const auto all = published();
                      Output(options).print(all, publishedText(all));
                    });

  auto* install = group->add_subcommand("install", "Place a widget of a configuration on the home screen");
  install
      ->add_option("CONFIGURATION", a->configuration,
                   "Its configuration intent, such as " + std::string(WidgetKind::configurations()[3].intent))
      ->required();
  install->add_option("--family", a->family, "small (default), medium, large, extra_large, corner, ...");
  onRunWithoutStore(install, action, [&options, a] {
    const auto kind = WidgetKind::ofConfiguration(a->configuration);
    if (!kind) refuse("CONFIGURATION", a->configuration, configurationWords());
    const WidgetInfo widget{std::string(*kind),
                            a->family ? parseWidgetFamily("--family", *a->family) : WidgetFamily::systemSmall,
                            a->configuration};
    HomeScreen::shared().place(widget);
    Output(options).print(
        {{"kind", widget.kind}, {"family", familyWord(widget.family)}, {"configuration", a->configuration}},
        words("Widgets.Placed", {a->configuration, familyWord(widget.family)}));
  });

  auto* uninstall = group->add_subcommand("uninstall", "Remove every widget of a configuration");
  uninstall->add_option("CONFIGURATION", a->configuration)->required();
  onRunWithoutStore(uninstall, action, [&options, a] {
    const std::size_t removed = HomeScreen::shared().remove(a->configuration);
    if (removed == 0) throw refusal("no widget of %@ is placed", {a->configuration});
    Output(options).print({{"removed", removed}}, words("Widgets.Removed", {static_cast<std::int64_t>(removed)}));
  });

  onRunWithoutStore(group->add_subcommand("installed", "The widgets placed"), action, [&options] {
    nlohmann::ordered_json all = nlohmann::ordered_json::array();
    std::vector<std::string> lines;
    for (const auto& widget : HomeScreen::shared().placed()) {
      const std::string configuration = widget.configuration.value_or("-");
      all.push_back({{"kind", widget.kind}, {"family", familyWord(widget.family)}, {"configuration", configuration}});
      lines.push_back(configuration + "  " + familyWord(widget.family) + "  " + widget.kind);
    }
    Output(options).print(all, joinLines(lines, words("List.None")));
  });

  onRunWithoutStore(
      group->add_subcommand("reloads", "The redraws asked for since the last look, one per kind; then takes them"),
      action, [&options] {
        nlohmann::ordered_json all = nlohmann::ordered_json::array();
        std::vector<std::string> lines;
        for (const auto& reload : HomeScreen::shared().takeRequests()) {
          const std::string centre = reload.centre == ReloadRequest::Centre::widgets ? "widgets" : "controls";
          const std::string kind = reload.kind.value_or("all");
          all.push_back(
              {{"centre", centre}, {"kind", kind}, {"requests", reload.count}, {"date", reload.date.iso8601()}});
          lines.push_back(centre + "  " + kind + "  " +
                          words(reload.count == 1 ? "Widgets.Reloads.OneRequest" : "Widgets.Reloads.Requests",
                                {reload.count, reload.date.iso8601()}));
        }
        Output(options).print(all, joinLines(lines, words("List.None")));
      });
}

WidgetFocusState::State parseState(const std::string& text) {
  if (const auto state = widgets::widgetFocusStateFromRawValue(text)) return *state;
  refuse("--state", text, "idle, focusing, shortBreak or longBreak");
}

void addFocusStateCommand(CLI::App& app, const GlobalOptions& options, Action& action,
                          const std::shared_ptr<WidgetArguments>& a) {
  auto* focus = app.get_subcommand("focus");
  auto* state = focus->add_subcommand("state", "What the timer reports of the focus under way, for widgets");
  state->add_option("NONE", a->none, "\"none\": no focus is under way (then no other option)");
  state->add_option("--tag", a->tag, "Tag id (default: none)");
  state->add_option("--type", a->type, "pomodoro:SECONDS, countdown:SECONDS or addTime");
  state->add_option("--state", a->state, "idle, focusing, shortBreak or longBreak");
  state->add_flag("--paused", a->paused, "The timer is paused");
  state->add_option("--spent", a->spent, "Seconds spent");
  state->add_option("--goal", a->goal, "Seconds aimed at");
  onRun(
      state, action,
      [a]() -> std::optional<std::tuple<widgets::FocusType, WidgetFocusState::State, double, double>> {
        const bool anyOption = a->tag || a->type || a->state || a->paused || a->spent || a->goal;
        if (a->none) {
          if (*a->none != "none") refuse("focus state", *a->none, "none, or the options of a focus");
          if (anyOption) throw refusal("focus state none: takes no other option");
          return std::nullopt;
        }
        if (!a->type || !a->state || !a->spent || !a->goal) {
          throw refusal("focus state: give --type, --state, --spent and --goal, or say none");
        }
        return std::tuple(parseFocusType("--type", *a->type), parseState(*a->state),
                          parseSeconds("--spent", *a->spent, kOneDay), parseSeconds("--goal", *a->goal, kOneDay));
      },
      [&options, a](const auto& input) {
        if (!input) {
          WidgetDatabase::updateCurrentFocusStateNoFocus();
        } else {
          const auto& [type, kind, spent, goal] = *input;
          std::optional<ThreadSafeTag> tag;
          if (a->tag) {
            const auto found = Database::getTag(*a->tag);
            if (!found) throw refusal("--tag: no tag has the id \"%@\"", {*a->tag});
            tag = found->threadSafeTag();
          }
          WidgetDatabase::updateCurrentFocusState(tag, type, kind, a->paused, spent, goal);
        }
        const auto published = widgets::WidgetDatabase::currentFocusState();
        Output(options).print(presentable(nlohmann::json(*published)),
                              plainText(presentable(nlohmann::json(*published))));
      });
}

}  // namespace

void addWidgetCommands(CLI::App& app, const GlobalOptions& options, Action& action) {
  auto a = std::make_shared<WidgetArguments>();
  auto* group = app.add_subcommand("widgets", "What the home screen's widgets see");
  group->require_subcommand(1);
  addWidgetBoardCommands(group, options, action, a);
  addFocusStateCommand(app, options, action, a);
}

}  // namespace tarnwell::cli

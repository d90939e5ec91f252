// `tarnwell link ...` builds the deep links widgets, controls and shortcuts
// hand to the app, and reads one back as the app would. Neither opens the
// store: a link is only words.

#include <map>

#include "Cli.h"
#include "tarnwell/automation/URLScheme.h"

namespace tarnwell::cli {

namespace {

struct LinkArguments {
  std::string caseName;
  std::optional<std::string> tag, type, range, action, focusType, progress, goal, focusId, activityId, widgetName,
      widgetFamily;
  bool standBy = false, control = false;
  std::string url;
};

// The options each case reads; any other given option is refused.
const std::map<std::string, std::vector<std::string>, std::less<>>& caseOptions() {
  static const std::map<std::string, std::vector<std::string>, std::less<>> options = {
      {"openFromWidget", {"widget"}},
      {"viewScreenTime", {"--type", "--range", "widget"}},
      {"viewFocus", {"--tag", "--range", "widget"}},
      {"startFocus", {"--tag", "widget"}},
      {"startFocusPopup", {"--focus-type", "widget"}},
      {"currentFocus", {"--action"}},
      {"shareFocus", {"--progress", "--goal", "--focus-id", "--activity-id"}},
      {"scheduleList", {"widget"}},
      {"stopLullTimeBreak", {}},
  };
  return options;
}

std::string caseNames() {
  std::string names;
  for (const auto& [name, options] : caseOptions()) names += (names.empty() ? "" : ", ") + name;
  return names;
}

std::optional<WidgetContext> parseContext(const LinkArguments& a) {
  const bool any = a.widgetName || a.widgetFamily || a.standBy || a.control;
  if (!any) return std::nullopt;
  if (!a.widgetName) throw refusal("link: --widget-family, --standby and --control need --widget-name");
  if (!a.widgetFamily) {
    // A control needs no family: it is drawn small.
    if (a.control && !a.standBy) return WidgetContext::control(*a.widgetName);
    throw refusal("link: --widget-name needs --widget-family (or --control alone)");
  }
  WidgetContext context(*a.widgetName, parseWidgetFamily("--widget-family", *a.widgetFamily), a.standBy);
  context.isControl = a.control;
  return context;
}

std::optional<StatisticsDateRange> parseRange(const std::optional<std::string>& text) {
  if (!text) return std::nullopt;
  if (const auto range = statisticsDateRangeFromRawValue(*text)) return range;
  refuse("--range", *text, "day, week, month or year");
}

URLScheme parseLink(const LinkArguments& a) {
  const auto allowed = caseOptions().find(a.caseName);
  if (allowed == caseOptions().end()) refuse("CASE", a.caseName, caseNames());
  const std::vector<std::pair<std::string, bool>> given = {
      {"--tag", a.tag.has_value()},
      {"--type", a.type.has_value()},
      {"--range", a.range.has_value()},
      {"--action", a.action.has_value()},
      {"--focus-type", a.focusType.has_value()},
      {"--progress", a.progress.has_value()},
      {"--goal", a.goal.has_value()},
      {"--focus-id", a.focusId.has_value()},
      {"--activity-id", a.activityId.has_value()},
      {"widget", a.widgetName || a.widgetFamily || a.standBy || a.control},
  };
  for (const auto& [option, isGiven] : given) {
    if (isGiven && std::find(allowed->second.begin(), allowed->second.end(), option) == allowed->second.end()) {
      if (option == "widget") throw refusal("link %@: takes no widget context", {a.caseName});
      throw refusal("link %1$@: takes no %2$@", {a.caseName, option});
    }
  }
  const auto context = parseContext(a);
  const std::string& name = a.caseName;
  if (name == "openFromWidget") return URLScheme::OpenFromWidget{context};
  if (name == "scheduleList") return URLScheme::ScheduleList{context};
  if (name == "stopLullTimeBreak") return URLScheme::StopLullTimeBreak{};
  if (name == "viewScreenTime") {
    std::optional<ScreenTimeDataType> type;
    if (a.type) {
      type = ScreenTimeDataType::fromIdentifier(*a.type);
      if (!type) refuse("--type", *a.type, "a metric such as screenTime, pickups or sleepTime");
    }
    return URLScheme::ViewScreenTime{type, parseRange(a.range), context};
  }
  if (name == "viewFocus") {
    std::optional<TagType> tag;
    if (a.tag) tag = *a.tag == "all" ? TagType::all() : TagType::tag(*a.tag);
    return URLScheme::ViewFocus{tag, parseRange(a.range), context};
  }
  if (name == "startFocus") return URLScheme::StartFocus{a.tag, context};
  if (name == "startFocusPopup") {
    if (!a.focusType) throw refusal("link startFocusPopup: give --focus-type (pomodoro, countdown or addTime)");
    const auto type = widgets::abstractFocusTypeFromRawValue(*a.focusType);
    if (!type) refuse("--focus-type", *a.focusType, "pomodoro, countdown or addTime");
    return URLScheme::StartFocusPopup{*type, context};
  }
  if (name == "currentFocus") {
    if (!a.action) throw refusal("link currentFocus: give --action (open, pause, resume, stop, ...)");
    const auto action = currentFocusActionFromRawValue(*a.action);
    if (!action) refuse("--action", *a.action, "open, pause, resume, stop, startBreak or skipBreak");
    return URLScheme::CurrentFocus{*action};
  }
  if (!a.progress || !a.goal) throw refusal("link shareFocus: give --progress and --goal");
  return URLScheme::ShareFocus{a.activityId, a.focusId, parseSeconds("--progress", *a.progress, kOneDay),
                               parseSeconds("--goal", *a.goal, kOneDay)};
}

nlohmann::ordered_json contextJSON(const std::optional<WidgetContext>& context) {
  if (!context) return nullptr;
  const auto family = context->family();
  return {{"name", context->name},
          {"familyRaw", context->familyRaw},
          {"family", family ? nlohmann::ordered_json(context->familyName()) : nullptr},
          {"isStandBy", context->isStandBy},
          {"isControl", context->isControl}};
}

void printParsed(const GlobalOptions& options, const URL& url) {
  const auto items = url.queryItems();
  URLParameters pairs;
  for (const auto& [key, value] : items) pairs.emplace(key, value);
  const auto context = WidgetContext::fromParameters(pairs);
  const auto link = URLScheme::fromURL(url);
  std::string action = url.path();
  if (action.starts_with('/')) action.erase(0, 1);

  nlohmann::ordered_json json = {{"url", url.absoluteString()}, {"action", action}};
  nlohmann::ordered_json pairsJSON = nlohmann::ordered_json::object();
  for (const auto& [key, value] : items) pairsJSON[key] = value;
  json["parameters"] = pairsJSON;
  json["widgetContext"] = contextJSON(context);
  // Whether the app reads it as one of its links.
  json["readable"] = link.has_value();

  // The values start three columns after the longer label.
  const std::string actionLabel = words("Link.Parse.Action"), contextLabel = words("Link.Parse.WidgetContext");
  const std::size_t column = std::max(columnsOf(actionLabel), columnsOf(contextLabel)) + 3;
  std::vector<std::string> lines = {padded(actionLabel, column) + action};
  for (const auto& [key, value] : items) lines.push_back("  " + key + " = " + value);
  lines.push_back(padded(contextLabel, column) + (context ? plainText(contextJSON(context)) : std::string("-")));
  if (!link) lines.push_back(words("Link.Parse.NotTheApps"));
  Output(options).print(json, joinLines(lines));
}

}  // namespace

void addLinkCommands(CLI::App& app, const GlobalOptions& options, Action& action) {
  auto a = std::make_shared<LinkArguments>();
  auto* link = app.add_subcommand("link", "Build a deep link, or read one back (link parse URL)");
  link->add_option("CASE", a->caseName, caseNames())->required();
  link->add_option("--tag", a->tag, "A tag id, or all (viewFocus)");
  link->add_option("--type", a->type, "A metric such as screenTime (viewScreenTime)");
  link->add_option("--range", a->range, "day, week, month or year");
  link->add_option("--action", a->action, "open, pause, resume, stop, startBreak or skipBreak (currentFocus)");
  link->add_option("--focus-type", a->focusType, "pomodoro, countdown or addTime (startFocusPopup)");
  link->add_option("--progress", a->progress, "Seconds done (shareFocus)");
  link->add_option("--goal", a->goal, "Seconds aimed at (shareFocus)");
  link->add_option("--focus-id", a->focusId, "A focus id (shareFocus)");
  link->add_option("--activity-id", a->activityId, "A live activity id (shareFocus)");
  link->add_option("--widget-name", a->widgetName, "The widget the link comes from");
  link->add_option("--widget-family", a->widgetFamily, "small, medium, large, extra_large, corner, ...");
  link->add_flag("--standby", a->standBy, "The widget is shown in stand-by");
  link->add_flag("--control", a->control, "The link comes from a control");
  // `link parse URL` reads as the case "parse" with one more word.
  link->add_option("URL", a->url, "The link to read back (link parse URL)");
  onRunWithoutStore(link, action, [&options, a] {
    if (a->caseName == "parse") {
      if (a->url.empty()) throw refusal("link parse: give the URL to read");
      const auto url = URL::parse(a->url);
      if (!url) throw refusal("link parse: \"%@\" is not a URL", {a->url});
      printParsed(options, *url);
      return;
    }
    if (!a->url.empty()) throw refusal("link %1$@: unexpected \"%2$@\"", {a->caseName, a->url});
    const URLScheme scheme = parseLink(*a);
    // url() would stop the process: a person's typo gets a line instead.
    for (const auto& [key, value] : scheme.parameters().value_or(URLParameters{})) {
      if (!URLScheme::isSafeValue(value)) {
        throw refusal(
            "link: the %1$@ \"%2$@\" would not read back as itself (letters, digits and -._~!$'()*+,;:@/ only)",
            {key, value});
      }
    }
    const URL url = scheme.url();
    Output(options).print({{"url", url.absoluteString()}, {"action", scheme.action()}}, url.absoluteString());
  });
}

}  // namespace tarnwell::cli

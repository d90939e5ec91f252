// `tarnwell intent ...` plays the platform's side of shortcuts and widget
// settings sheets: it builds an intent from the command line, finds the
// handler the platform would ask, and prints what the handler answered.
// Like an extension, it never opens the store: handlers read the lists the
// app published.

#include <charconv>

#include "Cli.h"
#include "tarnwell/automation/IntentHandlers.h"

namespace tarnwell::cli {

namespace {

// What the platform may ask of one intent class.
struct Route {
  std::function<INIntentResponse(const INIntent&)> handle;
  std::map<std::string, std::function<INResolutionResult(const INIntent&)>, std::less<>> resolve;
  std::map<std::string, std::function<std::optional<INObjectCollection>(const INIntent&)>, std::less<>> options;
  std::map<std::string, std::function<std::optional<std::vector<INObject>>(const INIntent&)>, std::less<>> defaults;
};

template <class Intent>
Intent typed(const INIntent& generic) {
  Intent intent;
  intent.setValues(generic);
  return intent;
}

// The handler's answers, taken from their completions.
template <class Intent, class Handler>
std::function<INIntentResponse(const INIntent&)> handling() {
  return [](const INIntent& generic) {
    INIntentResponse answer;
    Handler().handle(typed<Intent>(generic), [&answer](const auto& response) { answer = response; });
    return answer;
  };
}

template <class Intent, class Handler>
using Resolver = void (Handler::*)(const Intent&, const ResolutionCompletion&) const;

template <class Intent, class Handler>
std::function<INResolutionResult(const INIntent&)> resolving(Resolver<Intent, Handler> method) {
  return [method](const INIntent& generic) {
    INResolutionResult answer;
    (Handler().*method)(typed<Intent>(generic), [&answer](INResolutionResult result) { answer = std::move(result); });
    return answer;
  };
}

template <class Intent, class Handler>
using Provider = void (Handler::*)(const Intent&, const CollectionCompletion&) const;

template <class Intent, class Handler>
std::function<std::optional<INObjectCollection>(const INIntent&)> providing(Provider<Intent, Handler> method) {
  return [method](const INIntent& generic) {
    std::optional<INObjectCollection> answer;
    (Handler().*method)(typed<Intent>(generic), [&answer](std::optional<INObjectCollection> collection,
                                                          std::exception_ptr) { answer = std::move(collection); });
    return answer;
  };
}

// A default as a list: one option, several, or none at all.
template <class Option>
std::optional<std::vector<INObject>> asList(const std::optional<Option>& one) {
  if (!one) return std::nullopt;
  return std::vector<INObject>{*one};
}
template <class Option>
std::optional<std::vector<INObject>> asList(const std::optional<std::vector<Option>>& many) {
  if (!many) return std::nullopt;
  return std::vector<INObject>(many->begin(), many->end());
}
template <class Option>
std::optional<std::vector<INObject>> asList(const std::vector<Option>& many) {
  return std::vector<INObject>(many.begin(), many.end());
}

template <class Intent, class Handler, class Default>
std::function<std::optional<std::vector<INObject>>(const INIntent&)> defaulting(Default method) {
  return [method](const INIntent& generic) { return asList((Handler().*method)(typed<Intent>(generic))); };
}

const std::map<std::string, Route, std::less<>>& routes() {
  using Start = StartToFocusIntentHandler;
  using Record = AddFocusRecordIntentHandler;
  using ScreenTime = ViewScreenTimeWidgetIntentHandler;
  using Focus = ViewFocusWidgetIntentHandler;
  using Lock = LockScreenIntentHandler;
  static const std::map<std::string, Route, std::less<>> all = {
      {"StartToFocusIntent",
       {handling<StartToFocusIntent, Start>(),
        {{"tag", resolving<StartToFocusIntent, Start>(&Start::resolveTag)},
         {"focusType", resolving<StartToFocusIntent, Start>(&Start::resolveFocusType)},
         {"focusMode", resolving<StartToFocusIntent, Start>(&Start::resolveFocusMode)},
         {"duration", resolving<StartToFocusIntent, Start>(&Start::resolveDuration)},
         {"whiteNoise", resolving<StartToFocusIntent, Start>(&Start::resolveWhiteNoise)}},
        {{"tag", providing<StartToFocusIntent, Start>(&Start::provideTagOptionsCollection)}},
        {}}},
      {"AddFocusRecordIntent",
       {handling<AddFocusRecordIntent, Record>(),
        {{"tag", resolving<AddFocusRecordIntent, Record>(&Record::resolveTag)},
         {"start", resolving<AddFocusRecordIntent, Record>(&Record::resolveStart)},
         {"end", resolving<AddFocusRecordIntent, Record>(&Record::resolveEnd)},
         {"durating", resolving<AddFocusRecordIntent, Record>(&Record::resolveDurating)},
         {"recordType", resolving<AddFocusRecordIntent, Record>(&Record::resolveRecordType)}},
        {{"tag", providing<AddFocusRecordIntent, Record>(&Record::provideTagOptionsCollection)}},
        {}}},
      {"StopFocusingIntent", {handling<StopFocusingIntent, StopFocusingInetntHandler>(), {}, {}, {}}},
      {"OpenFlipClockIntent", {handling<OpenFlipClockIntent, OpenFlipClockIntentHandler>(), {}, {}, {}}},
      {"OpenTarnwellIntent", {handling<OpenTarnwellIntent, IntentsDonaterHandler>(), {}, {}, {}}},
      {"LullTimeConfigurationIntent", {handling<LullTimeConfigurationIntent, LullTimeInetntHandler>(), {}, {}, {}}},
      {"FocusSummaryExtraLargeConfigurationIntent",
       {handling<FocusSummaryExtraLargeConfigurationIntent, IntentsDonaterHandler>(), {}, {}, {}}},
      {"ViewScreenTimeLargerWidgetIntent",
       {handling<ViewScreenTimeLargerWidgetIntent, ScreenTime>(),
        {},
        {{"mainItems",
          providing<ViewScreenTimeLargerWidgetIntent, ScreenTime>(&ScreenTime::provideMainItemsOptionsCollection)}},
        {{"mainItems", defaulting<ViewScreenTimeLargerWidgetIntent, ScreenTime>(
                           static_cast<std::vector<ScreenTimeWidgetDataType> (ScreenTime::*)(
                               const ViewScreenTimeLargerWidgetIntent&) const>(&ScreenTime::defaultMainItems))}}}},
      {"ScreenTimeOfDaysConfigurationIntent",
       {handling<ScreenTimeOfDaysConfigurationIntent, ScreenTime>(),
        {},
        {{"mainItems",
          providing<ScreenTimeOfDaysConfigurationIntent, ScreenTime>(&ScreenTime::provideMainItemsOptionsCollection)},
         {"chartItems",
          providing<ScreenTimeOfDaysConfigurationIntent, ScreenTime>(&ScreenTime::provideChartItemsOptionsCollection)}},
        {{"mainItems", defaulting<ScreenTimeOfDaysConfigurationIntent, ScreenTime>(
                           static_cast<std::vector<ScreenTimeWidgetDataType> (ScreenTime::*)(
                               const ScreenTimeOfDaysConfigurationIntent&) const>(&ScreenTime::defaultMainItems))},
         {"chartItems", defaulting<ScreenTimeOfDaysConfigurationIntent, ScreenTime>(&ScreenTime::defaultChartItems)}}}},
      {"ViewFocusWidgetIntent",
       {nullptr,
        {},
        {{"tags", providing<ViewFocusWidgetIntent, Focus>(&Focus::provideTagsOptionsCollection)}},
        {{"tags", defaulting<ViewFocusWidgetIntent, Focus>(&Focus::defaultTags)}}}},
      {"FocusTimeOfDaysConfigurationIntent",
       {handling<FocusTimeOfDaysConfigurationIntent, Focus>(),
        {},
        {{"mainTags", providing<FocusTimeOfDaysConfigurationIntent, Focus>(&Focus::provideMainTagsOptionsCollection)},
         {"chartTags",
          providing<FocusTimeOfDaysConfigurationIntent, Focus>(&Focus::provideChartTagsOptionsCollection)}},
        {{"mainTags", defaulting<FocusTimeOfDaysConfigurationIntent, Focus>(&Focus::defaultMainTags)},
         {"chartTags", defaulting<FocusTimeOfDaysConfigurationIntent, Focus>(&Focus::defaultChartTags)}}}},
      {"FocusSummaryConfigurationIntent", {handling<FocusSummaryConfigurationIntent, Focus>(), {}, {}, {}}},
      {"LSScreenTimeDataConfigurationIntent",
       {nullptr,
        {},
        {{"dataType", providing<LSScreenTimeDataConfigurationIntent, Lock>(&Lock::provideDataTypeOptionsCollection)}},
        {{"dataType", defaulting<LSScreenTimeDataConfigurationIntent, Lock>(&Lock::defaultDataType)}}}},
      {"LSFocusSpecificTagConfigurationIntent",
       {nullptr,
        {},
        {{"tag", providing<LSFocusSpecificTagConfigurationIntent, Lock>(&Lock::provideTagOptionsCollection)}},
        {{"tag",
          defaulting<LSFocusSpecificTagConfigurationIntent, Lock>(
              static_cast<std::optional<LSFocusTag> (Lock::*)(const LSFocusSpecificTagConfigurationIntent&) const>(
                  &Lock::defaultTag))}}}},
      {"LSFocusSummaryConfigurationIntent",
       {nullptr,
        {},
        {{"tag", providing<LSFocusSummaryConfigurationIntent, Lock>(&Lock::provideTagOptionsCollection)}},
        {{"tag", defaulting<LSFocusSummaryConfigurationIntent, Lock>(
                     static_cast<std::optional<LSFocusTag> (Lock::*)(const LSFocusSummaryConfigurationIntent&) const>(
                         &Lock::defaultTag))}}}},
      {"LSLullTimeConfigurationIntent", {nullptr, {}, {}, {}}},
  };
  return all;
}

std::string intentNames() {
  std::string names;
  for (const auto& definition : intentDefinitions())
    names += (names.empty() ? "" : ", ") + std::string(definition.className);
  return names;
}

const IntentDefinition& definitionOf(const std::string& name) {
  const auto* definition = intentDefinition(name);
  if (!definition) refuse("NAME", name, intentNames());
  return *definition;
}

std::int64_t parseWhole(const std::string& name, const std::string& text) {
  std::int64_t value = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
  if (error != std::errc() || end != text.data() + text.size()) refuse(name, text, "a whole number");
  return value;
}

// An option of `type` by identifier: the one the settings sheet offers when
// there is one (with its name and extra parameters), else a bare one, as a
// configuration keeps an option after it left the list.
INObject parseOption(const INIntent& intent, const ParameterDefinition& parameter, const std::string& identifier) {
  const auto& route = routes().at(intent.className());
  if (const auto provider = route.options.find(parameter.name); provider != route.options.end()) {
    if (const auto offered = provider->second(intent)) {
      for (const auto& option : offered->allItems()) {
        if (option.identifier == identifier) return option;
      }
    }
  }
  INObject option;
  option.className = std::string(parameter.type);
  option.identifier = identifier;
  option.displayString = identifier;
  return option;
}

IntentValue parseValue(const INIntent& intent, const ParameterDefinition& parameter, const std::string& text) {
  const std::string name = "--param " + std::string(parameter.name);
  switch (parameter.kind) {
    case ParameterKind::integer:
      return parseWhole(name, text);
    case ParameterKind::enumeration: {
      const auto* enumeration = enumerationDefinition(parameter.type);
      const std::int64_t value = parseWhole(name, text);
      const auto count = static_cast<std::int64_t>(enumeration->cases.size());
      if (value < 0 || value >= count) refuse(name, text, formatString(errorWords("0 to %lld"), {count - 1}));
      return value;
    }
    case ParameterKind::number:
      // Every number of the family is the length of a focus.
      return parseSeconds(name, text, kLongestIntentDuration);
    case ParameterKind::dateComponents:
      return DateComponents::of(parseInstant(text));
    case ParameterKind::object:
      return parseOption(intent, parameter, text);
    case ParameterKind::objects: {
      std::vector<INObject> options;
      std::string_view rest = text;
      while (!rest.empty()) {
        const auto comma = rest.find(',');
        options.push_back(parseOption(intent, parameter, std::string(rest.substr(0, comma))));
        if (comma == std::string_view::npos) break;
        rest.remove_prefix(comma + 1);
      }
      return options;
    }
  }
  throw refusal("%@: cannot be given", {name});
}

INIntent parseIntent(const std::string& name, const std::vector<std::string>& parameters) {
  const auto& definition = definitionOf(name);
  INIntent intent(definition.className);
  for (const auto& pair : parameters) {
    const auto equals = pair.find('=');
    if (equals == std::string::npos) refuse("--param", pair, "KEY=VALUE");
    const std::string key = pair.substr(0, equals);
    const auto* parameter = definition.parameter(key);
    if (!parameter) throw refusal("%1$@ has no parameter \"%2$@\"", {name, key});
    intent.setValue(key, parseValue(intent, *parameter, pair.substr(equals + 1)));
  }
  return intent;
}

nlohmann::ordered_json optionJSON(const INObject& option) {
  nlohmann::ordered_json json = {
      {"class", option.className},
      {"identifier", option.identifier ? nlohmann::ordered_json(*option.identifier) : nullptr},
      {"displayString", option.displayString}};
  for (const auto& [key, value] : option.properties) {
    json[key] = std::visit([](const auto& v) { return nlohmann::ordered_json(v); }, value);
  }
  return json;
}

nlohmann::ordered_json valueJSON(const IntentValue& value) {
  return std::visit(
      [](const auto& v) -> nlohmann::ordered_json {
        using T = std::decay_t<decltype(v)>;
        if constexpr (std::is_same_v<T, DateComponents>) {
          return v.date ? nlohmann::ordered_json(v.date->iso8601()) : nullptr;
        } else if constexpr (std::is_same_v<T, INObject>) {
          return optionJSON(v);
        } else if constexpr (std::is_same_v<T, std::vector<INObject>>) {
          nlohmann::ordered_json all = nlohmann::ordered_json::array();
          for (const auto& option : v) all.push_back(optionJSON(option));
          return all;
        } else {
          return v;
        }
      },
      value);
}

nlohmann::ordered_json userInfoJSON(const UserInfo& info) {
  nlohmann::ordered_json json = nlohmann::ordered_json::object();
  for (const auto& [key, value] : info) {
    json[key] = std::visit(
        [](const auto& v) -> nlohmann::ordered_json {
          if constexpr (std::is_same_v<std::decay_t<decltype(v)>, Date>) {
            return v.iso8601();
          } else {
            return v;
          }
        },
        value);
  }
  return json;
}

std::vector<std::string> optionLines(const std::vector<INObject>& options) {
  std::vector<std::string> lines;
  for (const auto& option : options) lines.push_back(option.identifier.value_or("-") + "  " + option.displayString);
  return lines;
}

struct IntentArguments {
  std::string name, parameter;
  std::vector<std::string> parameters;
};

const Route& routeOf(const std::string& name) {
  definitionOf(name);
  return routes().at(name);
}

// `what` is the kind of answer the command asks for, already in the user's
// language, as the refusal names it.
template <class Map>
const typename Map::mapped_type& entryOf(const Map& map, const IntentArguments& a, const std::string& what) {
  definitionOf(a.name);
  if (!intentDefinition(a.name)->parameter(a.parameter)) {
    throw refusal("%1$@ has no parameter \"%2$@\"", {a.name, a.parameter});
  }
  const auto found = map.find(a.parameter);
  if (found == map.end()) {
    throw refusal("%1$@.%2$@: the platform asks no %3$@ of it", {a.name, a.parameter, what});
  }
  return found->second;
}

}  // namespace

void addIntentCommands(CLI::App& app, const GlobalOptions& options, Action& action) {
  auto a = std::make_shared<IntentArguments>();
  auto* group = app.add_subcommand("intent", "Shortcuts and widget settings as the platform hands them to the app");
  group->require_subcommand(1);

  auto* handle = group->add_subcommand("handle", "The handler's answer: code, activity and its userInfo");
  handle->add_option("NAME", a->name, "An intent class, such as StartToFocusIntent")->required();
  handle->add_option("--param", a->parameters, "KEY=VALUE, once per parameter");
  onRunWithoutStore(handle, action, [&options, a] {
    const auto& route = routeOf(a->name);
    const INIntent intent = parseIntent(a->name, a->parameters);
    if (!route.handle) throw refusal("%@: only configures a widget; nothing handles it", {a->name});
    const INIntentResponse response = route.handle(intent);
    const auto& activity = response.userActivity;
    const nlohmann::ordered_json json = {
        {"code", static_cast<int>(response.code)},
        {"activityType", activity ? nlohmann::ordered_json(activity->activityType) : nullptr},
        {"userInfo", activity ? userInfoJSON(activity->userInfo) : nullptr}};
    // The values start two columns after the longest label.
    const std::string labels[] = {words("Intent.Handle.Code"), words("Intent.Handle.Activity"),
                                  words("Intent.Handle.UserInfo")};
    std::size_t column = 0;
    for (const auto& label : labels) column = std::max(column, columnsOf(label) + 2);
    std::vector<std::string> lines = {padded(labels[0], column) + std::to_string(static_cast<int>(response.code))};
    if (activity) {
      lines.push_back(padded(labels[1], column) + activity->activityType);
      lines.push_back(padded(labels[2], column) + userInfoJSON(activity->userInfo).dump());
    }
    Output(options).print(json, joinLines(lines));
  });

  auto* resolve = group->add_subcommand("resolve", "How the handler judges one parameter");
  resolve->add_option("NAME", a->name, "An intent class")->required();
  resolve->add_option("PARAM", a->parameter, "One of its parameters")->required();
  resolve->add_option("--param", a->parameters, "KEY=VALUE, once per parameter");
  onRunWithoutStore(resolve, action, [&options, a] {
    const auto& resolver = entryOf(routeOf(a->name).resolve, *a, errorWords("resolution"));
    const INResolutionResult result = resolver(parseIntent(a->name, a->parameters));
    nlohmann::ordered_json json = {{"result", name(result.kind)}};
    std::string text(name(result.kind));
    if (result.value) {
      json["value"] = valueJSON(*result.value);
      text += " " + plainText(json["value"]);
    }
    if (result.kind == INResolutionResult::Kind::unsupported) {
      json["reason"] = result.reason;
      text += " " + words("Intent.Resolve.Reason", {result.reason});
    }
    Output(options).print(json, text);
  });

  auto* list = group->add_subcommand("options", "The options a settings sheet offers for a parameter");
  list->add_option("NAME", a->name, "An intent class")->required();
  list->add_option("PARAM", a->parameter, "One of its parameters")->required();
  onRunWithoutStore(list, action, [&options, a] {
    const auto& provider = entryOf(routeOf(a->name).options, *a, errorWords("options"));
    const auto collection = provider(INIntent(a->name));
    if (!collection) return Output(options).print(nullptr, words("Intent.Options.NoList"));
    nlohmann::ordered_json all = nlohmann::ordered_json::array();
    for (const auto& option : collection->allItems()) all.push_back(optionJSON(option));
    Output(options).print(all, joinLines(optionLines(collection->allItems()), words("List.None")));
  });

  auto* fallback = group->add_subcommand("default", "What a new widget starts with for a parameter");
  fallback->add_option("NAME", a->name, "An intent class")->required();
  fallback->add_option("PARAM", a->parameter, "One of its parameters")->required();
  onRunWithoutStore(fallback, action, [&options, a] {
    const auto& provider = entryOf(routeOf(a->name).defaults, *a, errorWords("default"));
    const auto chosen = provider(INIntent(a->name));
    if (!chosen) return Output(options).print(nullptr, words("List.None"));
    nlohmann::ordered_json all = nlohmann::ordered_json::array();
    for (const auto& option : *chosen) all.push_back(optionJSON(option));
    Output(options).print(all, joinLines(optionLines(*chosen), words("List.None")));
  });
}

}  // namespace tarnwell::cli

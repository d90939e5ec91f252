// An intent as the platform may hand it over: a class, and for each of its
// parameters perhaps a value of the parameter's kind, any value of that kind
// (numbers of any bits, enumeration raw values in and around their range,
// dates far from now, options with any identifier). The handler then judges
// each parameter and handles the intent.
#include <cmath>
#include <functional>

#include "FuzzSupport.h"
#include "tarnwell/automation/IntentHandlers.h"

namespace {

using namespace tarnwell;

// The instants a date picker can give: years 1 to 9999.
constexpr double kEarliest = -62135596800.0, kLatest = 253402300799.0;

IntentValue valueOf(const ParameterDefinition& parameter, fuzzing::Input& input) {
  const auto option = [&] {
    INObject object;
    object.className = std::string(parameter.type);
    if (input.byte() % 4 != 0) object.identifier = input.text(64);
    object.displayString = input.text(64);
    for (std::uint8_t count = input.byte() % 3; count > 0; --count) {
      const std::string key = input.text(16);
      if (input.byte() % 2 == 0) {
        object.properties[key] = static_cast<std::int64_t>(input.integer());
      } else {
        object.properties[key] = input.text(64);
      }
    }
    return object;
  };
  switch (parameter.kind) {
    case ParameterKind::integer:
      return static_cast<std::int64_t>(input.integer());
    case ParameterKind::enumeration: {
      const auto* enumeration = enumerationDefinition(parameter.type);
      const auto count = static_cast<std::int64_t>(enumeration ? enumeration->cases.size() : 1);
      return static_cast<std::int64_t>(input.byte() % (count + 4)) - 2;
    }
    case ParameterKind::number:
      return input.number();
    case ParameterKind::dateComponents: {
      const double seconds = input.number();
      if (!std::isfinite(seconds)) return DateComponents{};
      return DateComponents::of(Date::fromTimeIntervalSince1970(std::clamp(seconds, kEarliest, kLatest)));
    }
    case ParameterKind::object:
      return option();
    case ParameterKind::objects: {
      std::vector<INObject> options;
      for (std::uint8_t count = input.byte() % 4; count > 0; --count) options.push_back(option());
      return options;
    }
  }
  return std::int64_t{0};
}

template <class Intent>
Intent typed(const INIntent& generic) {
  Intent intent;
  intent.setValues(generic);
  return intent;
}

template <class Intent, class Handler>
void handle(const INIntent& generic) {
  Handler().handle(typed<Intent>(generic), [](const auto&) {});
}

template <class Intent, class Handler>
void resolve(const INIntent& generic,
             std::initializer_list<void (Handler::*)(const Intent&, const ResolutionCompletion&) const> methods) {
  const Intent intent = typed<Intent>(generic);
  for (const auto method : methods) (Handler().*method)(intent, [](const INResolutionResult&) {});
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  fuzzing::environment();
  fuzzing::Input input(data, size);
  const auto& definitions = intentDefinitions();
  const auto& definition = definitions[input.byte() % definitions.size()];
  INIntent intent(definition.className);
  for (const auto& parameter : definition.parameters) {
    if (input.byte() % 3 != 0) intent.setValue(parameter.name, valueOf(parameter, input));
  }
  const std::string_view name = definition.className;
  using Start = StartToFocusIntentHandler;
  using Record = AddFocusRecordIntentHandler;
  if (name == "StartToFocusIntent") {
    resolve<StartToFocusIntent, Start>(intent, {&Start::resolveTag, &Start::resolveFocusType, &Start::resolveFocusMode,
                                                &Start::resolveDuration, &Start::resolveWhiteNoise});
    handle<StartToFocusIntent, Start>(intent);
    (void)toUserActivityInfo(typed<StartToFocusIntent>(intent));
  } else if (name == "AddFocusRecordIntent") {
    resolve<AddFocusRecordIntent, Record>(intent, {&Record::resolveStart, &Record::resolveEnd, &Record::resolveDurating,
                                                   &Record::resolveTag, &Record::resolveRecordType});
    handle<AddFocusRecordIntent, Record>(intent);
    (void)toUserActivityInfo(typed<AddFocusRecordIntent>(intent));
  } else if (name == "StopFocusingIntent") {
    handle<StopFocusingIntent, StopFocusingInetntHandler>(intent);
  } else if (name == "OpenFlipClockIntent") {
    handle<OpenFlipClockIntent, OpenFlipClockIntentHandler>(intent);
  } else if (name == "LullTimeConfigurationIntent") {
    handle<LullTimeConfigurationIntent, LullTimeInetntHandler>(intent);
  } else if (name == "OpenTarnwellIntent") {
    handle<OpenTarnwellIntent, IntentsDonaterHandler>(intent);
  } else if (name == "FocusSummaryExtraLargeConfigurationIntent") {
    handle<FocusSummaryExtraLargeConfigurationIntent, IntentsDonaterHandler>(intent);
  } else if (name == "ViewScreenTimeLargerWidgetIntent") {
    handle<ViewScreenTimeLargerWidgetIntent, ViewScreenTimeWidgetIntentHandler>(intent);
  } else if (name == "ScreenTimeOfDaysConfigurationIntent") {
    handle<ScreenTimeOfDaysConfigurationIntent, ViewScreenTimeWidgetIntentHandler>(intent);
  } else if (name == "FocusTimeOfDaysConfigurationIntent") {
    handle<FocusTimeOfDaysConfigurationIntent, ViewFocusWidgetIntentHandler>(intent);
  } else if (name == "FocusSummaryConfigurationIntent") {
    handle<FocusSummaryConfigurationIntent, ViewFocusWidgetIntentHandler>(intent);
  }
  return 0;
}

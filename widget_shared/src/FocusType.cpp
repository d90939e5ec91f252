#include "tarnwell/widgets/FocusType.h"

#include <nlohmann/json.hpp>

#include <cmath>
#include <limits>

#include "tarnwell/platform/Localization.h"

namespace tarnwell::widgets {
namespace {

// A count read from JSON: a whole number in an int's range. nlohmann's own
// conversion casts, and a cast of 1e300 to int is undefined.
int wholeCount(const nlohmann::json& value) {
  const double number = value.is_number() ? value.get<double>() : std::nan("");
  if (!(number >= std::numeric_limits<int>::min() && number <= std::numeric_limits<int>::max()) ||
      number != std::floor(number)) {
    throw nlohmann::json::out_of_range::create(406, "a count is a whole number an int holds", &value);
  }
  return static_cast<int>(number);
}

}  // namespace

std::string_view rawValue(AbstractFocusType type) {
  switch (type) {
    case AbstractFocusType::pomodoro:
      return "pomodoro";
    case AbstractFocusType::countdown:
      return "countdown";
    case AbstractFocusType::addTime:
      return "addTime";
  }
  return {};
}

std::optional<AbstractFocusType> abstractFocusTypeFromRawValue(std::string_view text) {
  for (const auto type : kAllAbstractFocusTypes) {
    if (rawValue(type) == text) return type;
  }
  return std::nullopt;
}

std::string title(AbstractFocusType type) {
  switch (type) {
    case AbstractFocusType::pomodoro:
      return localized("Focus.Timer.Pomodoro");
    case AbstractFocusType::countdown:
      return localized("Focus.Timer.Countdown");
    case AbstractFocusType::addTime:
      return localized("Focus.Timer.AddTime");
  }
  return {};
}

FocusType FocusType::pomodoro(double duration, double shortBreak, double longBreak, int longBreakInterval) {
  return FocusType(Pomodoro{duration, shortBreak, longBreak, longBreakInterval});
}

FocusType FocusType::countdown(double duration, double reminderInterval) {
  return FocusType(Countdown{duration, reminderInterval});
}

FocusType FocusType::addTime(double duration, double reminderInterval) {
  return FocusType(AddTime{duration, reminderInterval});
}

FocusType FocusType::defaultType() { return pomodoro(25 * 60, 5 * 60, 15 * 60, 4); }

double FocusType::duration() const {
  return std::visit([](const auto& p) { return p.duration; }, parameters_);
}

void to_json(nlohmann::json& json, const FocusType& type) {
  nlohmann::json parameters;
  std::visit(
      [&parameters](const auto& p) {
        using T = std::decay_t<decltype(p)>;
        parameters["duration"] = p.duration;
        if constexpr (std::is_same_v<T, FocusType::Pomodoro>) {
          parameters["shortBreak"] = p.shortBreak;
          parameters["longBreak"] = p.longBreak;
          parameters["longBreakInterval"] = p.longBreakInterval;
        } else {
          parameters["reminderInterval"] = p.reminderInterval;
        }
      },
      type.parameters());
  json = nlohmann::json{{std::string(rawValue(type.abstractType())), std::move(parameters)}};
}

void from_json(const nlohmann::json& json, FocusType& type) {
  if (!json.is_object() || json.size() != 1) {
    throw nlohmann::json::type_error::create(302, "a focus type is an object with one key", &json);
  }
  const auto entry = json.begin();
  const std::string& name = entry.key();
  const nlohmann::json& p = entry.value();
  const auto kind = abstractFocusTypeFromRawValue(name);
  if (!kind) throw nlohmann::json::out_of_range::create(403, "unknown focus type \"" + name + "\"", &json);
  switch (*kind) {
    case AbstractFocusType::pomodoro:
      type = FocusType::pomodoro(p.at("duration").get<double>(), p.at("shortBreak").get<double>(),
                                 p.at("longBreak").get<double>(), wholeCount(p.at("longBreakInterval")));
      return;
    case AbstractFocusType::countdown:
      type = FocusType::countdown(p.at("duration").get<double>(), p.at("reminderInterval").get<double>());
      return;
    case AbstractFocusType::addTime:
      type = FocusType::addTime(p.at("duration").get<double>(), p.at("reminderInterval").get<double>());
      return;
  }
}

}  // namespace tarnwell::widgets

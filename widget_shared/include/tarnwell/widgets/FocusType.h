// Layers, bottom to top: platform → healthkit → cloudkit → [widgets] → settings → extensions → records → store → sync → health → analytics → charts → modules → automation.
//
// The kinds of focus timer, shared with the widget and intent extensions.
//
// AbstractFocusType names a kind; FocusType is a kind with its parameters,
// the first of which is always a duration in seconds. Both are plain values.

#pragma once

#include <array>
#include <nlohmann/json_fwd.hpp>
#include <optional>
#include <string>
#include <string_view>
#include <variant>

namespace tarnwell::widgets {

enum class AbstractFocusType { pomodoro, countdown, addTime };

inline constexpr std::array<AbstractFocusType, 3> kAllAbstractFocusTypes = {
    AbstractFocusType::pomodoro, AbstractFocusType::countdown, AbstractFocusType::addTime};

// "pomodoro", "countdown", "addTime": the texts records store for a kind.
std::string_view rawValue(AbstractFocusType type);
// The kind of that text; nothing for any other text.
std::optional<AbstractFocusType> abstractFocusTypeFromRawValue(std::string_view text);
// The localized name: "Focus.Timer.Pomodoro", "Focus.Timer.Countdown", "Focus.Timer.AddTime".
std::string title(AbstractFocusType type);

class FocusType {
 public:
  // Work sessions of `duration`, short breaks between them and a long break
  // after every `longBreakInterval` sessions.
  struct Pomodoro {
    double duration = 0;
    double shortBreak = 0;
    double longBreak = 0;
    int longBreakInterval = 0;
    friend bool operator==(const Pomodoro&, const Pomodoro&) = default;
  };
  // Counts down from `duration`; reminds every `reminderInterval` seconds (0: never).
  struct Countdown {
    double duration = 0;
    double reminderInterval = 0;
    friend bool operator==(const Countdown&, const Countdown&) = default;
  };
  // Counts up from `duration`; reminds every `reminderInterval` seconds (0: never).
  struct AddTime {
    double duration = 0;
    double reminderInterval = 0;
    friend bool operator==(const AddTime&, const AddTime&) = default;
  };
  using Parameters = std::variant<Pomodoro, Countdown, AddTime>;

  static FocusType pomodoro(double duration, double shortBreak = 0, double longBreak = 0, int longBreakInterval = 0);
  static FocusType countdown(double duration, double reminderInterval = 0);
  static FocusType addTime(double duration = 0, double reminderInterval = 0);

  // The type a new installation starts from: a pomodoro of 25 minutes with
  // breaks of 5 and 15 minutes, the long one after every 4 sessions.
  static FocusType defaultType();

  explicit FocusType(Parameters parameters) : parameters_(parameters) {}
  // defaultType().
  FocusType() : FocusType(defaultType()) {}

  AbstractFocusType abstractType() const { return static_cast<AbstractFocusType>(parameters_.index()); }
  // The first parameter of every kind.
  double duration() const;
  const Parameters& parameters() const { return parameters_; }

  friend bool operator==(const FocusType&, const FocusType&) = default;

 private:
  Parameters parameters_;
};

// {"countdown": {"duration": 1500.0, "reminderInterval": 0.0}}: the kind as the
// only key, its parameters by name. Decoding throws nlohmann::json::exception
// for any other shape, and for a long-break interval that is not a whole
// number an int holds.
void to_json(nlohmann::json& json, const FocusType& type);
void from_json(const nlohmann::json& json, FocusType& type);

}  // namespace tarnwell::widgets

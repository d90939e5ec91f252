// WidgetFocusGoal: a tag's daily goal as the widget and intent extensions
// see it.

#pragma once

namespace tarnwell::widgets {

struct WidgetFocusGoal {
  enum class Kind { lessThanOrEqualTo, moreThanOrEqualTo };
  Kind kind = Kind::moreThanOrEqualTo;
  // Seconds.
  double duration = 0;

  friend bool operator==(const WidgetFocusGoal&, const WidgetFocusGoal&) = default;
};

}  // namespace tarnwell::widgets

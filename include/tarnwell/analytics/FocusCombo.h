// FocusCombo: a focus tag's run of days, counted back from a day.
//
// The tag page's streak: days in a row on which the tag's goal was reached
// (`streak`), its limit broken (`fail`), or that simply had sessions
// (`focus`). Today is not over, so a day below the goal today does not end
// the run. The walk goes back one day at a time and stops at the first day
// that ends the run, so its cost follows the streak, not the store.

#pragma once

#include <optional>
#include <string>

#include "tarnwell/platform/Date.h"

namespace tarnwell {

struct FocusCombo {
  enum class Kind { streak, fail, focus };
  Kind kind;
  int days;

  static FocusCombo streak(int days) { return {Kind::streak, days}; }
  static FocusCombo fail(int days) { return {Kind::fail, days}; }
  static FocusCombo focus(int days) { return {Kind::focus, days}; }

  // The run of the tag `tagId` back from `relativeDate`'s day; nothing when
  // no day of it counts. A goal of 0 seconds, which every empty day would
  // reach, ends at the tag's first session instead of never. Throws
  // sqlite::Error when the store cannot be read.
  static std::optional<FocusCombo> of(const std::string& tagId, Date relativeDate);

  friend bool operator==(const FocusCombo&, const FocusCombo&) = default;
};

}  // namespace tarnwell

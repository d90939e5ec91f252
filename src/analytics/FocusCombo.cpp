#include "tarnwell/analytics/FocusCombo.h"

#include "tarnwell/records/Tag.h"
#include "tarnwell/store/Reads.h"

namespace tarnwell {

std::optional<FocusCombo> FocusCombo::of(const std::string& tagId, Date relativeDate) {
  const auto tag = store::liveObject<Tag>(tagId);
  const auto tagGoal = tag ? tag->focusGoal() : std::nullopt;
  const bool hasGoal = tagGoal.has_value();
  const FocusGoal goal = tagGoal.value_or(FocusGoal::defaultGoal());

  // Days before the tag's first session are all empty. A real goal or limit
  // ends the walk at the first of them anyway; a goal of 0 seconds, which
  // every empty day would reach, ends there too instead of never.
  const std::optional<Date> earliest = store::firstFocusStart(tagId);

  int combo = 0, focusDays = 0;
  bool onlyFocusDays = false, skipFocusDays = false;
  Date dayStart = relativeDate.startOfDay();
  for (bool isFirst = true; earliest && dayStart + 86400.0 >= *earliest; isFirst = false) {
    const DateInterval day(dayStart, 86400.0);
    dayStart = (dayStart - 1.0).startOfDay();

    const store::FocusProgress sum = store::focusProgress(tagId, day);
    if (!hasGoal || onlyFocusDays) {
      if (sum.count > 0) {
        ++focusDays;
        continue;
      }
      if (isFirst) continue;
      break;
    }

    if (sum.count > 0 && !skipFocusDays) ++focusDays;
    const bool hit = goal.isGoal() ? sum.seconds >= goal.duration() : sum.seconds > goal.duration();
    const bool blank = sum.count == 0 || skipFocusDays;
    if (hit) {
      ++combo;
      skipFocusDays = isFirst ? false : blank;
      continue;
    }
    onlyFocusDays = false;
    skipFocusDays = false;
    if (blank) {
      if (isFirst) continue;
      break;
    }
    // Today is not over: a day below the goal only ends the run from yesterday
    // on, and from there only days with sessions count.
    if (!isFirst) onlyFocusDays = true;
  }

  if (hasGoal && combo >= 1) return goal.isGoal() ? FocusCombo::streak(combo) : FocusCombo::fail(combo);
  if (focusDays > 0) return FocusCombo::focus(focusDays);
  return std::nullopt;
}

}  // namespace tarnwell

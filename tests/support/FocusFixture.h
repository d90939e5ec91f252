// Focus sessions written a number of days before today, and tag goals.

#pragma once

#include <optional>
#include <string>

#include "support/TestEnvironment.h"
#include "tarnwell/modules/Database.h"

namespace tarnwell::testing {

// Today is 2026-11-22 in UTC; it is 10:00.
inline const Date t0 = defaultTestNow();
inline const Date today = t0.startOfDay();

class FocusFixture : public EnvironmentTest {
 protected:
  void SetUp() override { Database::start(); }

  // A session `daysAgo` days before today at `hour`, of `progress` seconds.
  std::string focus(int daysAgo, double hour, double progress, const std::string& tagId = "working",
                    double goal = 1500) {
    const Date start = today.addingDay(-daysAgo) + hour * 3600;
    return Database::addFocus(std::nullopt, start, start + progress, tagId, goal, progress, std::nullopt, std::nullopt,
                              std::nullopt);
  }
  void setGoal(const std::optional<FocusGoal>& goal, const std::string& tagId = "working") {
    TagEdit edit;
    edit.focusGoal = goal;
    Database::editTag(tagId, edit);
  }
};

}  // namespace tarnwell::testing

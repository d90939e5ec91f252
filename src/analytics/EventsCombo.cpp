#include "tarnwell/analytics/EventsCombo.h"

#include <algorithm>

#include "tarnwell/analytics/EventsOfDay.h"
#include "tarnwell/analytics/RememberedDays.h"
#include "tarnwell/platform/Environment.h"
#include "tarnwell/platform/FatalError.h"
#include "tarnwell/settings/Settings.h"

namespace tarnwell {
namespace {

using ComboType = EventsCombo::ComboType;

constexpr int kMaximumDays = 100;

// The walk through the past, made once a day; lives with the Environment.
struct KeptHistory {
  std::optional<EventsCombo> history;
};

enum class Verdict { kept, missed };

// Goals are read at each evaluation, so a walk sees the goals of its time.
std::optional<Verdict> screenTimeVerdict(const ItemLikeEventsOfDay& day) {
  const auto value = day.screenTime();
  if (!value) return std::nullopt;
  return *value <= Settings::defaultScreenTimeGoal() ? Verdict::kept : Verdict::missed;
}

std::optional<Verdict> pickupVerdict(const ItemLikeEventsOfDay& day) {
  const auto value = day.pickupTimes();
  if (!value) return std::nullopt;
  return *value <= Settings::defaultPickupGoal() ? Verdict::kept : Verdict::missed;
}

std::optional<Verdict> sleepVerdict(const ItemLikeEventsOfDay& day) {
  const auto value = day.sleepTime();
  if (!value) return std::nullopt;
  return *value >= Settings::defaultSleepTimeGoal() ? Verdict::kept : Verdict::missed;
}

std::optional<ComboType> failedOnly(std::optional<Verdict> verdict) {
  if (verdict == Verdict::missed) return ComboType::failed(1);
  return std::nullopt;
}

std::optional<ComboType> either(std::optional<Verdict> verdict) {
  if (!verdict) return std::nullopt;
  return *verdict == Verdict::kept ? ComboType::succeed(1) : ComboType::failed(1);
}

ComboType plus(const ComboType& a, int count) {
  int sum = 0;
  if (__builtin_add_overflow(a.count(), count, &sum)) fatalError("EventsCombo: a count overflows");
  return a.kind() == ComboType::Kind::succeed ? ComboType::succeed(sum) : ComboType::failed(sum);
}

// One more day of a streak; false when the day ends it.
bool extend(std::optional<ComboType>& combo, std::optional<Verdict> verdict) {
  if (!verdict) return false;
  const auto kind = *verdict == Verdict::kept ? ComboType::Kind::succeed : ComboType::Kind::failed;
  if (!combo) {
    combo = kind == ComboType::Kind::succeed ? ComboType::succeed(1) : ComboType::failed(1);
    return true;
  }
  if (combo->kind() != kind) return false;
  combo = plus(*combo, 1);
  return true;
}

std::optional<ComboType> merge(const std::optional<ComboType>& today, const std::optional<ComboType>& history) {
  if (!today) return history;
  if (!history) return today;
  if (today->kind() != history->kind()) return today;
  return plus(*today, history->count());
}

}  // namespace

EventsCombo EventsCombo::today() {
  const Date now = Date::now();
  const EventsOfDay day(now, std::nullopt);
  EventsCombo combo(now);
  combo.screenTimeCombo = failedOnly(screenTimeVerdict(day));
  combo.pickupCombo = failedOnly(pickupVerdict(day));
  // Today's sleep is last night's, which is over.
  combo.sleepTimeCombo = either(sleepVerdict(day));
  return combo;
}

EventsCombo EventsCombo::history(Date date) {
  EventsCombo combo(date);
  bool screenTimeEnded = false, pickupEnded = false, sleepEnded = false;
  // Read back in runs of days: most streaks end within the first.
  constexpr int kRun = 10;
  Date end = date.startOfDay();
  for (int visited = 0; visited < kMaximumDays && !(screenTimeEnded && pickupEnded && sleepEnded);) {
    const int count = std::min(kRun, kMaximumDays - visited);
    const auto days = RememberedDays::days(end.addingDay(1 - count), count);
    end = end.addingDay(-count);
    for (auto day = days.rbegin(); day != days.rend() && !(screenTimeEnded && pickupEnded && sleepEnded); ++day) {
      ++visited;
      if (!screenTimeEnded) screenTimeEnded = !extend(combo.screenTimeCombo, screenTimeVerdict(**day));
      if (!pickupEnded) pickupEnded = !extend(combo.pickupCombo, pickupVerdict(**day));
      if (!sleepEnded) sleepEnded = !extend(combo.sleepTimeCombo, sleepVerdict(**day));
    }
  }
  return combo;
}

EventsCombo EventsCombo::merged(const EventsCombo& past) const {
  EventsCombo combo = *this;
  combo.screenTimeCombo = merge(screenTimeCombo, past.screenTimeCombo);
  combo.pickupCombo = merge(pickupCombo, past.pickupCombo);
  // Today has no screen-time or pickup verdict while the day is within its
  // goal, which must not break the streak; a night without a verdict is a
  // night without data, and that does.
  combo.sleepTimeCombo = sleepTimeCombo ? merge(sleepTimeCombo, past.sleepTimeCombo) : std::nullopt;
  return combo;
}

EventsCombo EventsCombo::currentCombo() {
  const EventsCombo now = today();
  auto& kept = Environment::current().component<KeptHistory>().history;
  if (!kept || !kept->date().isYesterdayInCurrentRegion()) kept = history(Date::now().addingDay(-1));
  return now.merged(*kept);
}

}  // namespace tarnwell

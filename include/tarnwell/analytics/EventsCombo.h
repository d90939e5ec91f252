// EventsCombo: for how many days in a row the user has kept, or missed, the
// daily goals of screen time, pickups and sleep.
//
// The walk through the past starts yesterday and is made at most once a
// calendar day: it is kept in memory (one per Environment) and not
// invalidated by a change of goals, of the sleep source or of data, which
// take effect the next day. Today's part is always read afresh. Streaks use
// the fixed goals, never the dynamic ones. currentCombo() keeps its history
// without a lock; call it from one thread at a time.

#pragma once

#include <optional>

#include "tarnwell/platform/Date.h"

namespace tarnwell {

class EventsCombo {
 public:
  // A goal kept, or missed, on `count` days in a row.
  class ComboType {
   public:
    enum class Kind { succeed, failed };

    static ComboType succeed(int count) { return ComboType(Kind::succeed, count); }
    static ComboType failed(int count) { return ComboType(Kind::failed, count); }

    Kind kind() const { return kind_; }
    int count() const { return count_; }

    friend bool operator==(const ComboType&, const ComboType&) = default;

   private:
    ComboType(Kind kind, int count) : kind_(kind), count_(count) {}
    Kind kind_;
    int count_;
  };

  // The streaks as of now. Today can only break the screen-time and pickup
  // streaks, as the day is not over: a day still within its goal is not
  // counted. Sleep counts last night, and without a verdict for last night
  // there is no sleep streak at all, whatever came before. The walk back
  // stops at the first day without data and after 100 days.
  static EventsCombo currentCombo();

  // For the current combo, now; for the kept history, the start of yesterday.
  Date date() const { return date_; }

  std::optional<ComboType> screenTimeCombo;
  std::optional<ComboType> pickupCombo;
  std::optional<ComboType> sleepTimeCombo;

 private:
  explicit EventsCombo(Date date) : date_(date) {}

  // Today's verdicts alone, at now.
  static EventsCombo today();
  // The streaks that end with the day of `date`, walking back.
  static EventsCombo history(Date date);
  // Today with the history added.
  EventsCombo merged(const EventsCombo& history) const;

  Date date_;
};

}  // namespace tarnwell

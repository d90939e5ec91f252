// Focus: one focus session, reported after the fact.
//
// A session runs from `start` to `end` (pauses included) with `goal` seconds
// aimed at and `progress` seconds reached. Its kind of timer and strictness
// are kept as texts, so that a value this version does not know survives in
// the row. `tagId` names the session's Tag; none means the session has no tag.

#pragma once

#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <string_view>
#include <tuple>

#include "tarnwell/platform/Date.h"
#include "tarnwell/records/Properties.h"
#include "tarnwell/widgets/FocusType.h"

namespace tarnwell {

enum class FocusMode { easy, strict };

inline constexpr FocusMode kAllFocusModes[] = {FocusMode::easy, FocusMode::strict};

std::string_view rawValue(FocusMode mode);
std::optional<FocusMode> focusModeFromRawValue(std::string_view text);

// {"type": "easy"}. Decoding never fails: a missing or unknown "type" is easy.
void to_json(nlohmann::json& json, FocusMode mode);
void from_json(const nlohmann::json& json, FocusMode& mode);

// "Countdown, 25m": the kind's title and, but for add-time, the duration.
std::string localizedDescription(const widgets::FocusType& type);

struct Focus {
  static constexpr std::string_view className = "Focus";
  static constexpr std::string_view csvColumns = "id,deviceId,tagId,start,end,goal,progress";

  std::optional<std::string> id;
  std::string deviceId;
  std::optional<std::string> tagId;
  std::optional<Date> start;
  std::optional<Date> end;
  double goal = 0;
  double progress = 0;
  std::optional<std::string> typeString;
  std::optional<std::string> modeString;
  bool isDeleted = false;
  // The watch that recorded the session; none for the phone.
  std::optional<std::string> watchName;

  Focus() = default;
  // A new session of this device. A missing id draws a new UUID; a given one
  // is kept. Only the kind of `type` is stored.
  Focus(std::optional<std::string> id, Date start, Date end, std::optional<std::string> tagId, double goal,
        double progress, const std::optional<widgets::FocusType>& type, std::optional<FocusMode> mode,
        std::optional<std::string> watchName);

  // The kind, read from typeString: nothing for a text that names no kind.
  std::optional<widgets::AbstractFocusType> type() const;
  void setType(std::optional<widgets::AbstractFocusType> type);
  // "easy" or "strict"; nothing for any other text.
  std::optional<FocusMode> mode() const;
  void setMode(std::optional<FocusMode> mode);

  // From start to end when end lies beyond start + progress (the session was
  // paused); otherwise progress seconds from start. Both dates must be present.
  DateInterval interval() const;
  // The goal was not reached.
  bool failed() const { return progress < goal; }
  // The JSON form as a plain object, for health samples; nothing on any failure.
  std::optional<nlohmann::json> metadata() const;

  std::string csvRecord() const;

  static constexpr auto properties() {
    return std::tuple{records::primaryKey("id", &Focus::id),
                      records::property("deviceId", &Focus::deviceId),
                      records::indexed("tagId", &Focus::tagId),
                      records::indexed("start", &Focus::start),
                      records::indexed("end", &Focus::end),
                      records::property("goal", &Focus::goal),
                      records::property("progress", &Focus::progress),
                      records::property("typeString", &Focus::typeString),
                      records::property("modeString", &Focus::modeString),
                      records::property("isDeleted", &Focus::isDeleted),
                      records::property("watchName", &Focus::watchName)};
  }
  friend bool operator==(const Focus&, const Focus&) = default;
};

// Keys in property order; "deviceId", "goal", "progress" and "isDeleted" are
// always written and required on decoding, the others only when present.
// Dates are seconds since 2001-01-01, the default of the platform's coders.
void to_json(nlohmann::ordered_json& json, const Focus& focus);
void from_json(const nlohmann::ordered_json& json, Focus& focus);

}  // namespace tarnwell

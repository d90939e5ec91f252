#include "tarnwell/records/Focus.h"

#include "tarnwell/extensions/Strings.h"
#include "tarnwell/platform/Uuid.h"
#include "tarnwell/records/EventRecords.h"
#include "tarnwell/records/FocusData.h"
#include "tarnwell/records/JSONCoding.h"
#include "tarnwell/settings/Settings.h"

namespace tarnwell {

std::string_view rawValue(FocusMode mode) {
  switch (mode) {
    case FocusMode::easy:
      return "easy";
    case FocusMode::strict:
      return "strict";
  }
  return "easy";
}

std::optional<FocusMode> focusModeFromRawValue(std::string_view text) {
  for (const auto mode : kAllFocusModes) {
    if (rawValue(mode) == text) return mode;
  }
  return std::nullopt;
}

void to_json(nlohmann::json& json, FocusMode mode) { json = nlohmann::json{{"type", rawValue(mode)}}; }

void from_json(const nlohmann::json& json, FocusMode& mode) {
  mode = FocusMode::easy;
  if (!json.is_object()) return;
  const auto type = json.find("type");
  if (type != json.end() && type->is_string() && type->get<std::string>() == "strict") mode = FocusMode::strict;
}

std::string localizedDescription(const widgets::FocusType& type) {
  std::string text = widgets::title(type.abstractType());
  if (type.abstractType() != widgets::AbstractFocusType::addTime) text += ", " + getTimeIntervalString(type.duration());
  return text;
}

Focus::Focus(std::optional<std::string> focusId, Date startDate, Date endDate, std::optional<std::string> tag,
             double goalSeconds, double progressSeconds, const std::optional<widgets::FocusType>& focusType,
             std::optional<FocusMode> focusMode, std::optional<std::string> watch)
    : id(focusId ? std::move(focusId) : makeUUIDString()),
      deviceId(Settings::deviceId()),
      tagId(std::move(tag)),
      start(startDate),
      end(endDate),
      goal(goalSeconds),
      progress(progressSeconds),
      watchName(std::move(watch)) {
  if (focusType) setType(focusType->abstractType());
  setMode(focusMode);
}

std::optional<widgets::AbstractFocusType> Focus::type() const {
  if (!typeString) return std::nullopt;
  return widgets::abstractFocusTypeFromRawValue(*typeString);
}

void Focus::setType(std::optional<widgets::AbstractFocusType> kind) {
  typeString = kind ? std::optional<std::string>(widgets::rawValue(*kind)) : std::nullopt;
}

std::optional<FocusMode> Focus::mode() const {
  if (!modeString) return std::nullopt;
  return focusModeFromRawValue(*modeString);
}

void Focus::setMode(std::optional<FocusMode> focusMode) {
  modeString = focusMode ? std::optional<std::string>(rawValue(*focusMode)) : std::nullopt;
}

DateInterval Focus::interval() const {
  const auto [from, to] = records::requireDates(className, start, end);
  if (to > from + progress) return DateInterval(from, to);
  return DateInterval(from, progress);
}

FocusData FocusData::of(const Focus& focus) {
  return FocusData{focus.id, focus.tagId, focus.interval(), focus.progress, focus.failed()};
}

std::optional<nlohmann::json> Focus::metadata() const {
  try {
    const nlohmann::ordered_json json = *this;
    return nlohmann::json::parse(json.dump());
  } catch (const nlohmann::json::exception&) {
    return std::nullopt;
  }
}

std::string Focus::csvRecord() const {
  if (!id || !tagId || !start || !end) return {};
  using records::quotedField;
  return *id + "," + deviceId + "," + quotedField(*tagId) + "," + quotedField(start->description()) + "," +
         quotedField(end->description()) + "," + formatDouble(goal) + "," + formatDouble(progress);
}

void to_json(nlohmann::ordered_json& json, const Focus& focus) {
  using json_coding::putIfPresent;
  json = nlohmann::ordered_json::object();
  putIfPresent(json, "id", focus.id);
  json["deviceId"] = focus.deviceId;
  putIfPresent(json, "tagId", focus.tagId);
  putIfPresent(json, "start", focus.start);
  putIfPresent(json, "end", focus.end);
  json["goal"] = focus.goal;
  json["progress"] = focus.progress;
  putIfPresent(json, "typeString", focus.typeString);
  putIfPresent(json, "modeString", focus.modeString);
  json["isDeleted"] = focus.isDeleted;
  putIfPresent(json, "watchName", focus.watchName);
}

void from_json(const nlohmann::ordered_json& json, Focus& focus) {
  using json_coding::getIfPresent;
  using json_coding::getRequired;
  Focus decoded;
  getIfPresent(json, "id", decoded.id);
  getRequired(json, "deviceId", decoded.deviceId);
  getIfPresent(json, "tagId", decoded.tagId);
  getIfPresent(json, "start", decoded.start);
  getIfPresent(json, "end", decoded.end);
  getRequired(json, "goal", decoded.goal);
  getRequired(json, "progress", decoded.progress);
  getIfPresent(json, "typeString", decoded.typeString);
  getIfPresent(json, "modeString", decoded.modeString);
  getRequired(json, "isDeleted", decoded.isDeleted);
  getIfPresent(json, "watchName", decoded.watchName);
  focus = std::move(decoded);
}

}  // namespace tarnwell

#include "tarnwell/widgets/Summaries.h"

#include <nlohmann/json.hpp>

#include "tarnwell/widgets/WidgetDatabase.h"
#include "tarnwell/widgets/WidgetTag.h"

namespace tarnwell::widgets {
namespace {

using nlohmann::json;

json encode(Date date) { return date.timeIntervalSinceReferenceDate(); }
json encode(const DateInterval& interval) {
  return {{"start", interval.start().timeIntervalSinceReferenceDate()}, {"duration", interval.duration()}};
}
template <class T>
json encode(const T& value) {
  return value;
}

void decode(const json& value, Date& date) { date = Date::fromTimeIntervalSinceReferenceDate(value.get<double>()); }
void decode(const json& value, DateInterval& interval) {
  const double duration = value.at("duration").get<double>();
  if (!(duration >= 0)) throw json::type_error::create(302, "an interval's duration is negative", &value);
  interval = DateInterval(Date::fromTimeIntervalSinceReferenceDate(value.at("start").get<double>()), duration);
}
template <class T>
void decode(const json& value, T& decoded) {
  decoded = value.get<T>();
}

template <class T>
void put(json& object, const char* key, const std::optional<T>& value) {
  if (value) object[key] = encode(*value);
}
template <class T>
void get(const json& object, const char* key, std::optional<T>& value) {
  value.reset();
  const auto found = object.find(key);
  if (found == object.end() || found->is_null()) return;
  T decoded{};
  decode(*found, decoded);
  value = std::move(decoded);
}

}  // namespace

std::optional<WidgetImage> WidgetTag::icon() const {
  if (!emoji || emoji->empty()) return std::nullopt;
  return WidgetImage::emoji(*emoji);
}

json encodeFocusGoal(const std::optional<WidgetFocusGoal>& goal) {
  if (!goal) return {{"duration", 0.0}, {"kind", 2}};
  return {{"duration", goal->duration}, {"kind", goal->kind == WidgetFocusGoal::Kind::lessThanOrEqualTo ? 0 : 1}};
}

std::optional<WidgetFocusGoal> decodeFocusGoal(const json& value) {
  const int kind = value.at("kind").get<int>();
  if (kind == 2) return std::nullopt;
  if (kind != 0 && kind != 1) throw json::type_error::create(302, "a goal's kind is 0, 1 or 2", &value);
  return WidgetFocusGoal{
      kind == 0 ? WidgetFocusGoal::Kind::lessThanOrEqualTo : WidgetFocusGoal::Kind::moreThanOrEqualTo,
      value.at("duration").get<double>()};
}

void to_json(json& value, const WidgetImage& image) {
  value = {{image.kind == WidgetImage::Kind::named ? "named" : "emoji", image.value}};
}

void from_json(const json& value, WidgetImage& image) {
  if (const auto named = value.find("named"); named != value.end()) {
    image = WidgetImage::named(named->get<std::string>());
  } else {
    image = WidgetImage::emoji(value.at("emoji").get<std::string>());
  }
}

void to_json(json& value, const WidgetTag& tag) {
  value = {{"id", tag.id},
           {"title", tag.title},
           {"focusGoal", encodeFocusGoal(tag.focusGoal)},
           {"type", tag.type},
           {"isDefault", tag.isDefault}};
  put(value, "emoji", tag.emoji);
}

void from_json(const json& value, WidgetTag& tag) {
  tag.id = value.at("id").get<std::string>();
  tag.title = value.at("title").get<std::string>();
  get(value, "emoji", tag.emoji);
  tag.focusGoal = decodeFocusGoal(value.at("focusGoal"));
  tag.type = value.at("type").get<FocusType>();
  tag.isDefault = value.at("isDefault").get<bool>();
}

void to_json(json& value, const ScreenTimeToday& day) {
  value = {{"startOfDay", encode(day.startOfDay)}};
  put(value, "screenTime", day.screenTime);
  put(value, "pickupTimes", day.pickupTimes);
  put(value, "longestPickup", day.longestPickup);
  put(value, "checkingEvery", day.checkingEvery);
  put(value, "walkingLife", day.walkingLife);
  put(value, "firstPickupDate", day.firstPickupDate);
  put(value, "lastPickupDate", day.lastPickupDate);
  put(value, "sleepTime", day.sleepTime);
  put(value, "bestBreak", day.bestBreak);
  put(value, "continuouslyUsage", day.continuouslyUsage);
}

void from_json(const json& value, ScreenTimeToday& day) {
  decode(value.at("startOfDay"), day.startOfDay);
  get(value, "screenTime", day.screenTime);
  get(value, "pickupTimes", day.pickupTimes);
  get(value, "longestPickup", day.longestPickup);
  get(value, "checkingEvery", day.checkingEvery);
  get(value, "walkingLife", day.walkingLife);
  get(value, "firstPickupDate", day.firstPickupDate);
  get(value, "lastPickupDate", day.lastPickupDate);
  get(value, "sleepTime", day.sleepTime);
  get(value, "bestBreak", day.bestBreak);
  get(value, "continuouslyUsage", day.continuouslyUsage);
}

void to_json(json& value, const ScreenTimeOfDays& days) { value = {{"days", days.days}}; }
void from_json(const json& value, ScreenTimeOfDays& days) {
  days.days = value.at("days").get<std::vector<ScreenTimeToday>>();
}

void to_json(json& value, const FocusTimeOfTag& line) {
  value = {{"id", line.id}, {"title", line.title}, {"time", line.time}, {"colorHex", line.colorHex}};
  put(value, "emoji", line.emoji);
  put(value, "goal", line.goal);
}

void from_json(const json& value, FocusTimeOfTag& line) {
  line.id = value.at("id").get<std::string>();
  get(value, "emoji", line.emoji);
  line.title = value.at("title").get<std::string>();
  line.time = value.at("time").get<double>();
  get(value, "goal", line.goal);
  line.colorHex = value.at("colorHex").get<std::string>();
}

double FocusTimeToday::totalTime() const {
  double total = 0;
  for (const auto& line : tags) total += line.time;
  return total;
}

void to_json(json& value, const FocusTimeToday& day) {
  value = {{"date", encode(day.date)},
           {"tags", day.tags},
           {"failedCount", day.failedCount},
           {"lastFocusTime", day.lastFocusTime}};
}

void from_json(const json& value, FocusTimeToday& day) {
  decode(value.at("date"), day.date);
  day.tags = value.at("tags").get<std::vector<FocusTimeOfTag>>();
  day.failedCount = value.at("failedCount").get<int>();
  day.lastFocusTime = value.at("lastFocusTime").get<double>();
}

FocusTimeOfDays::FocusTimeOfDays(const std::optional<std::string>& id,
                                 const std::vector<FocusTimeToday>& focusTimeOfDays)
    : tagId(id) {
  if (!tagId) {
    icon = WidgetImage::named("focus-total-tag");
    for (const auto& day : focusTimeOfDays) days.push_back({day.date, day.totalTime()});
    return;
  }
  for (const auto& day : focusTimeOfDays) {
    double time = 0;
    for (const auto& line : day.tags) {
      if (line.id == *tagId) time += line.time;
    }
    days.push_back({day.date, time});
  }
  const auto published = IntentDatabase::tags();
  if (!published) return;
  for (const auto& tag : *published) {
    if (tag.id != *tagId) continue;
    icon = tag.icon();
    goal = tag.focusGoal;
    return;
  }
}

std::string_view rawValue(WidgetFocusState::State state) {
  switch (state) {
    case WidgetFocusState::State::idle:
      return "idle";
    case WidgetFocusState::State::focusing:
      return "focusing";
    case WidgetFocusState::State::shortBreak:
      return "shortBreak";
    case WidgetFocusState::State::longBreak:
      return "longBreak";
  }
  return {};
}

std::optional<WidgetFocusState::State> widgetFocusStateFromRawValue(std::string_view text) {
  using State = WidgetFocusState::State;
  for (const auto state : {State::idle, State::focusing, State::shortBreak, State::longBreak}) {
    if (rawValue(state) == text) return state;
  }
  return std::nullopt;
}

void to_json(json& value, const WidgetFocusState& state) {
  value = {{"focusType", state.focusType},
           {"state", rawValue(state.state)},
           {"isPaused", state.isPaused},
           {"timeSpent", state.timeSpent},
           {"goal", state.goal}};
  put(value, "tag", state.tag);
}

WidgetFocusState decodeWidgetFocusState(const json& value) {
  std::optional<WidgetTag> tag;
  get(value, "tag", tag);
  const auto state = widgetFocusStateFromRawValue(value.at("state").get<std::string>());
  if (!state) throw json::type_error::create(302, "unknown focus state", &value);
  return WidgetFocusState(std::move(tag), value.at("focusType").get<FocusType>(), *state,
                          value.at("isPaused").get<bool>(), value.at("timeSpent").get<double>(),
                          value.at("goal").get<double>());
}

}  // namespace tarnwell::widgets

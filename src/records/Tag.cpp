#include "tarnwell/records/Tag.h"

#include <unicode/brkiter.h>
#include <unicode/utext.h>

#include <algorithm>
#include <memory>
#include <nlohmann/json.hpp>

#include "platform/Icu.h"
#include "platform/RegionImpl.h"
#include "tarnwell/extensions/Strings.h"
#include "tarnwell/platform/DateFormatting.h"
#include "tarnwell/platform/FatalError.h"
#include "tarnwell/platform/Localization.h"
#include "tarnwell/platform/Region.h"
#include "tarnwell/records/EventRecords.h"
#include "tarnwell/records/JSONCoding.h"

namespace tarnwell {
namespace {

constexpr std::array<DefaultTagInfo, 5> kDefaultTags = {{
    {"default", "Focus.NoTag", std::nullopt, std::numeric_limits<std::int64_t>::min(), "#63c7ba"},
    {"working", "Focus.Tag.Work", "👨‍💻", 0, "#ff954f"},
    {"studying", "Focus.Tag.Study", "💡", 2, "#d85e9e"},
    {"reading", "Focus.Tag.Read", "📖", 1, "#72a7f1"},
    {"meditation", "Focus.Tag.Meditate", "🧘‍♀️", 3, "#d0e265"},
}};

// The user-perceived characters of a UTF-8 text, as views into it.
std::vector<std::string_view> characters(std::string_view text) {
  UErrorCode status = U_ZERO_ERROR;
  std::unique_ptr<UText, decltype(&utext_close)> unicode(
      utext_openUTF8(nullptr, text.data(), static_cast<int64_t>(text.size()), &status), &utext_close);
  std::unique_ptr<icu::BreakIterator> breaks(
      icu::BreakIterator::createCharacterInstance(icu::Locale::getRoot(), status));
  if (U_FAILURE(status)) fatalError("ICU has no character boundaries");
  breaks->setText(unicode.get(), status);
  if (U_FAILURE(status)) fatalError("ICU cannot read the text for character boundaries");
  // On a UTF-8 text the boundaries are byte offsets.
  std::vector<std::string_view> result;
  for (int32_t start = breaks->first(), end = breaks->next(); end != icu::BreakIterator::DONE;
       start = end, end = breaks->next()) {
    result.push_back(text.substr(static_cast<std::size_t>(start), static_cast<std::size_t>(end - start)));
  }
  return result;
}

Data bytesOf(const std::string& text) { return Data(text.begin(), text.end()); }

// The JSON a blob holds, or nothing when it is not JSON.
std::optional<nlohmann::json> parsed(const std::optional<Data>& blob) {
  if (!blob) return std::nullopt;
  auto json = nlohmann::json::parse(blob->begin(), blob->end(), nullptr, false);
  if (json.is_discarded()) return std::nullopt;
  return json;
}

// `T` from a blob, or nothing when the blob is absent or does not decode.
// `value` is only the object to decode into: not every T has a default.
template <class T>
std::optional<T> decoded(const std::optional<Data>& blob, T value) {
  const auto json = parsed(blob);
  if (!json) return std::nullopt;
  try {
    from_json(*json, value);
    return value;
  } catch (const nlohmann::json::exception&) {
    return std::nullopt;
  }
}

// Numbers only: the JSON library would otherwise read true as 1.
double numberAt(const nlohmann::json& json) {
  if (!json.is_number()) throw nlohmann::json::type_error::create(302, "type must be number", &json);
  return json.get<double>();
}

constexpr std::array<std::string_view, 7> kWeekdayNames = {"Sunday",   "Monday", "Tuesday", "Wednesday",
                                                           "Thursday", "Friday", "Saturday"};

std::size_t indexOf(FocusNotification::Weekday day) { return static_cast<std::size_t>(day) - 1; }

}  // namespace

const std::array<std::string_view, 12>& TagColors::palette() {
  static constexpr std::array<std::string_view, 12> colors = {"#63c7ba", "#ff954f", "#d85e9e", "#72a7f1",
                                                              "#d0e265", "#f2c94c", "#9b8afb", "#56ccf2",
                                                              "#eb5757", "#6fcf97", "#bb6bd9", "#a0a4ab"};
  return colors;
}

Tag::Tag(std::string tagId, std::string tagTitle, std::optional<std::string> tagEmoji, std::string color, bool mindful,
         std::int64_t place)
    : id(std::move(tagId)),
      created(Date::now()),
      title(std::move(tagTitle)),
      emoji(std::move(tagEmoji)),
      syncToMindfulness(mindful),
      sort(place),
      colorHex(std::move(color)) {}

std::string Tag::csvRecord() const {
  if (!id || !created || !title) return {};
  using records::quotedField;
  return *id + "," + quotedField(created->description()) + "," + quotedField(*title) + "," +
         quotedField(emoji.value_or("-")) + "," + (isDefault ? "true" : "false");
}

// --- FocusGoal ---

std::string_view FocusGoal::symbol() const { return isGoal() ? "≥" : "≤"; }

std::string FocusGoal::durationDescription() const {
  return localizedFormat("Focus.CreateTag.goal.time.summary", {getTimeIntervalString(duration_, true)});
}

std::string FocusGoal::localizedDescription() const {
  return std::string(symbol()) + " " + getTimeIntervalString(duration_, true);
}

widgets::WidgetFocusGoal FocusGoal::toWidgetFocusGoal() const {
  return {
      isGoal() ? widgets::WidgetFocusGoal::Kind::moreThanOrEqualTo : widgets::WidgetFocusGoal::Kind::lessThanOrEqualTo,
      duration_};
}

void to_json(nlohmann::json& json, const FocusGoal& goal) {
  json = nlohmann::json{{goal.isGoal() ? "moreThanOrEqualTo" : "lessThanOrEqualTo", goal.duration()}};
}

void from_json(const nlohmann::json& json, FocusGoal& goal) {
  if (!json.is_object()) throw nlohmann::json::type_error::create(302, "a focus goal is an object", &json);
  const auto present = [&json](const char* key) {
    const auto found = json.find(key);
    return found != json.end() && !found->is_null() ? &*found : nullptr;
  };
  if (const auto* limit = present("lessThanOrEqualTo")) {
    goal = FocusGoal::lessThanOrEqualTo(numberAt(*limit));
  } else if (const auto* target = present("moreThanOrEqualTo")) {
    goal = FocusGoal::moreThanOrEqualTo(numberAt(*target));
  } else {
    goal = FocusGoal::defaultGoal();
  }
}

// --- FocusNotification ---

FocusNotification::FocusNotification() : notificationDays{today()}, notificationTime(Date::now()) {}

const std::array<FocusNotification::Weekday, 7>& FocusNotification::oneWeek() {
  static constexpr std::array<Weekday, 7> days = {Weekday::sunday,    Weekday::monday,   Weekday::tuesday,
                                                  Weekday::wednesday, Weekday::thursday, Weekday::friday,
                                                  Weekday::saturday};
  return days;
}

FocusNotification::Weekday FocusNotification::today() {
  const Region region = Date::defaultRegion();
  const auto calendar = icu_support::makeGregorianCalendar(region.timeZoneId(), region.impl().locale);
  if (!calendar) return Weekday::sunday;
  UErrorCode status = U_ZERO_ERROR;
  calendar->setTime(Date::now().toUDate(), status);
  const int32_t weekday = calendar->get(UCAL_DAY_OF_WEEK, status);
  if (U_FAILURE(status) || weekday < 1 || weekday > 7) return Weekday::sunday;
  return static_cast<Weekday>(weekday);
}

std::string FocusNotification::localizedTime() const {
  return date_formatting::formatFromTemplate(notificationTime, "h:mm a");
}

std::string FocusNotification::localizedDescription() const {
  const auto has = [this](Weekday day) {
    return std::find(notificationDays.begin(), notificationDays.end(), day) != notificationDays.end();
  };
  std::string days;
  // By count, not by membership: the stored list is what the user picked.
  if (notificationDays.size() == 7) {
    days = localized("Weekday.Everyday");
  } else if (notificationDays.size() == 5 && !has(Weekday::sunday) && !has(Weekday::saturday)) {
    days = localized("Weekday.Workdays");
  } else {
    for (const auto day : notificationDays) {
      if (!days.empty()) days += " ";
      days += shortSymbol(day);
    }
  }
  return localizedFormat("Focus.CreateTag.reminder.summary", {localizedTime(), days});
}

std::string shortSymbol(FocusNotification::Weekday day) {
  return localized("Weekday.ShortSymbol." + std::string(kWeekdayNames[indexOf(day)]));
}

std::string veryShortSymbol(FocusNotification::Weekday day) {
  const std::string letters = localized("Weekday.veryShortSymbols");
  const auto each = characters(letters);
  if (each.size() < 7) fatalError("\"Weekday.veryShortSymbols\" needs a letter for each of the seven days: " + letters);
  return std::string(each[indexOf(day)]);
}

void to_json(nlohmann::json& json, const FocusNotification& notification) {
  nlohmann::json days = nlohmann::json::array();
  for (const auto day : notification.notificationDays) days.push_back(static_cast<int>(day));
  json = nlohmann::json{{"notificationDays", std::move(days)},
                        {"notificationTime", notification.notificationTime.timeIntervalSinceReferenceDate()}};
}

void from_json(const nlohmann::json& json, FocusNotification& notification) {
  std::vector<FocusNotification::Weekday> days;
  for (const auto& day : json.at("notificationDays")) {
    if (!day.is_number_integer() || day.get<std::int64_t>() < 1 || day.get<std::int64_t>() > 7) {
      throw nlohmann::json::type_error::create(302, "a weekday is a number from 1 to 7", &day);
    }
    days.push_back(static_cast<FocusNotification::Weekday>(day.get<int>()));
  }
  const Date time = Date::fromTimeIntervalSinceReferenceDate(numberAt(json.at("notificationTime")));
  notification = FocusNotification(std::move(days), time);
}

// --- FocusTagObject ---

template <class Self>
std::string FocusTagObject<Self>::displayTitle() const {
  if (self().isDefault) return localized("Focus.NoTag");
  if (!self().title) fatalError("A tag that is not the default one has no title");
  return *self().title;
}

template <class Self>
std::string FocusTagObject<Self>::shortDisplayTitle() const {
  constexpr int kWidth = 10;
  const std::string title = displayTitle();
  std::string kept;
  int width = 0;
  for (const auto character : characters(title)) {
    // Wide scripts and emoji take about two columns of a Latin letter.
    const bool ascii = character.size() == 1 || character == "\r\n";
    width += ascii ? 1 : 2;
    if (width >= kWidth) return kept + "…";
    kept += character;
  }
  return title;
}

template <class Self>
std::string FocusTagObject<Self>::typeButtonTitle() const {
  if (self().isDefault) return localized("Focus.SelectTag");
  return self().title.value_or("");
}

template <class Self>
std::string FocusTagObject<Self>::typeButtonTitleWithPrefix() const {
  if (self().isDefault) return localized("Focus.SelectTag");
  return localized("Focus.FocusOn") + self().emoji.value_or("") + self().title.value_or("");
}

template struct FocusTagObject<Tag>;
template struct FocusTagObject<ThreadSafeTag>;

// --- Tag ---

widgets::FocusType Tag::type() const {
  return decoded(typeData, widgets::FocusType()).value_or(widgets::FocusType::defaultType());
}

void Tag::setType(const widgets::FocusType& focusType) { typeData = encode(focusType); }

std::optional<Data> Tag::encode(const widgets::FocusType& type) {
  try {
    return bytesOf(nlohmann::json(type).dump());
  } catch (const nlohmann::json::exception&) {
    return std::nullopt;
  }
}

std::optional<FocusGoal> Tag::focusGoal() const { return decoded(focusGoalData, FocusGoal::defaultGoal()); }

void Tag::setFocusGoal(const std::optional<FocusGoal>& goal) {
  focusGoalData.reset();
  if (!goal) return;
  try {
    focusGoalData = bytesOf(nlohmann::json(*goal).dump());
  } catch (const nlohmann::json::exception&) {
    // A goal that cannot be written is no goal: the field stays cleared.
  }
}

std::optional<FocusNotification> Tag::notification() const {
  // A cleared reminder is kept as the text null, which reads as no reminder:
  // the blob stays so that the clearing syncs.
  return decoded(notificationData, FocusNotification({}, Date()));
}

void Tag::setNotification(const std::optional<FocusNotification>& value) {
  try {
    notificationData = bytesOf(value ? nlohmann::json(*value).dump() : nlohmann::json(nullptr).dump());
  } catch (const nlohmann::json::exception&) {
    notificationData.reset();
  }
}

ThreadSafeTag Tag::threadSafeTag() const {
  ThreadSafeTag copy;
  copy.id = id;
  copy.created = created;
  copy.title = title;
  copy.emoji = emoji;
  copy.syncToMindfulness = syncToMindfulness;
  copy.type = type();
  copy.sort = sort;
  copy.isDefault = isDefault;
  copy.isDeleted = isDeleted;
  copy.isArchived = isArchived;
  copy.color = color();
  copy.focusGoal = focusGoal();
  copy.notification = notification();
  copy.stateOfMindAssociationsRawValue = stateOfMindAssociationsRawValue();
  return copy;
}

void to_json(nlohmann::ordered_json& json, const Tag& tag) {
  using json_coding::putIfPresent;
  json = nlohmann::ordered_json::object();
  putIfPresent(json, "id", tag.id);
  putIfPresent(json, "created", tag.created);
  putIfPresent(json, "title", tag.title);
  putIfPresent(json, "emoji", tag.emoji);
  json["syncToMindfulness"] = tag.syncToMindfulness;
  putIfPresent(json, "typeData", tag.typeData);
  json["sort"] = tag.sort;
  json["isDefault"] = tag.isDefault;
  json["isDeleted"] = tag.isDeleted;
  json["isArchived"] = tag.isArchived;
  json["colorHex"] = tag.colorHex;
  putIfPresent(json, "focusGoalData", tag.focusGoalData);
  putIfPresent(json, "notificationData", tag.notificationData);
  json["stateOfMindAssociationsList"] = tag.stateOfMindAssociationsList;
}

void from_json(const nlohmann::ordered_json& json, Tag& tag) {
  using json_coding::getIfPresent;
  using json_coding::getRequired;
  Tag decodedTag;
  getIfPresent(json, "id", decodedTag.id);
  getIfPresent(json, "created", decodedTag.created);
  getIfPresent(json, "title", decodedTag.title);
  getIfPresent(json, "emoji", decodedTag.emoji);
  getRequired(json, "syncToMindfulness", decodedTag.syncToMindfulness);
  getIfPresent(json, "typeData", decodedTag.typeData);
  getRequired(json, "sort", decodedTag.sort);
  getRequired(json, "isDefault", decodedTag.isDefault);
  getRequired(json, "isDeleted", decodedTag.isDeleted);
  getRequired(json, "isArchived", decodedTag.isArchived);
  getRequired(json, "colorHex", decodedTag.colorHex);
  getIfPresent(json, "focusGoalData", decodedTag.focusGoalData);
  getIfPresent(json, "notificationData", decodedTag.notificationData);
  getRequired(json, "stateOfMindAssociationsList", decodedTag.stateOfMindAssociationsList);
  tag = std::move(decodedTag);
}

// --- Default tags ---

const DefaultTagInfo& info(DefaultTagType type) { return kDefaultTags[static_cast<std::size_t>(type)]; }

std::optional<std::string_view> defaultTagColorHex(std::string_view id) {
  for (const auto& tag : kDefaultTags) {
    if (tag.id == id) return tag.colorHex;
  }
  return std::nullopt;
}

}  // namespace tarnwell

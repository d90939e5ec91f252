// Tag: what a focus session was for, with that purpose's settings.
//
// The stored properties of a tag; the typed views over its blobs (focus
// type, goal, reminder, colour) read and write `typeData`, `focusGoalData`,
// `notificationData` and `colorHex`. A default tag has a fixed id, the same
// on every device (DefaultTagType); a user's tag has a UUID text.

#pragma once

#include <array>
#include <cstdint>
#include <limits>
#include <optional>
#include <string>
#include <string_view>
#include <tuple>
#include <utility>
#include <vector>

#include <nlohmann/json_fwd.hpp>

#include "tarnwell/healthkit/Samples.h"
#include "tarnwell/platform/Color.h"
#include "tarnwell/platform/Data.h"
#include "tarnwell/platform/Date.h"
#include "tarnwell/records/Properties.h"
#include "tarnwell/widgets/FocusType.h"
#include "tarnwell/widgets/WidgetFocusGoal.h"
#include "tarnwell/widgets/WidgetTag.h"

namespace tarnwell {

// The tag colours of the appearance subsystem, as "#rrggbb" texts.
struct TagColors {
  static constexpr std::string_view defaultColor = "#63c7ba";
  // Every colour of the palette, in palette order.
  static const std::array<std::string_view, 12>& palette();
};

// A tag's daily aim: at least `duration` seconds of focus (a goal), or at
// most (a limit).
class FocusGoal {
 public:
  enum class Kind { lessThanOrEqualTo, moreThanOrEqualTo };

  static FocusGoal lessThanOrEqualTo(double duration) { return FocusGoal(Kind::lessThanOrEqualTo, duration); }
  static FocusGoal moreThanOrEqualTo(double duration) { return FocusGoal(Kind::moreThanOrEqualTo, duration); }
  // At least 90 minutes.
  static FocusGoal defaultGoal() { return moreThanOrEqualTo(5400); }

  Kind kind() const { return kind_; }
  double duration() const { return duration_; }
  void setDuration(double duration) { duration_ = duration; }
  // A goal to reach, not a limit to stay under.
  bool isGoal() const { return kind_ == Kind::moreThanOrEqualTo; }
  // "≥" or "≤".
  std::string_view symbol() const;
  // The localized "Focus.CreateTag.goal.time.summary" with the duration.
  std::string durationDescription() const;
  // "≥ 1h30m".
  std::string localizedDescription() const;
  widgets::WidgetFocusGoal toWidgetFocusGoal() const;

  friend bool operator==(const FocusGoal&, const FocusGoal&) = default;

 private:
  FocusGoal(Kind kind, double duration) : kind_(kind), duration_(duration) {}
  Kind kind_ = Kind::moreThanOrEqualTo;
  double duration_ = 0;
};

// {"moreThanOrEqualTo": 5400.0}. Decoding looks for "lessThanOrEqualTo"
// first; without it the goal is moreThanOrEqualTo, 5400 seconds when that key
// is missing too, so {} is the default. Only a value of the wrong type throws.
void to_json(nlohmann::json& json, const FocusGoal& goal);
void from_json(const nlohmann::json& json, FocusGoal& goal);

// A reminder at a time of day on chosen weekdays.
struct FocusNotification {
  // The calendar's weekday numbers.
  enum class Weekday { sunday = 1, monday, tuesday, wednesday, thursday, friday, saturday };

  std::vector<Weekday> notificationDays;
  // Only the time of day counts.
  Date notificationTime;

  // Today's weekday alone, at now.
  FocusNotification();
  FocusNotification(std::vector<Weekday> days, Date time) : notificationDays(std::move(days)), notificationTime(time) {}

  // All seven, from Sunday.
  static const std::array<Weekday, 7>& oneWeek();
  // The weekday of now in the default region.
  static Weekday today();

  // The time in the locale's form of "h:mm a".
  std::string localizedTime() const;
  // The time and the days: "Everyday", "Workdays", or the days' short names.
  std::string localizedDescription() const;

  friend bool operator==(const FocusNotification&, const FocusNotification&) = default;
};

// The localized "Weekday.ShortSymbol.<Name>".
std::string shortSymbol(FocusNotification::Weekday day);
// The day's letter from the localized "Weekday.veryShortSymbols", Sunday first.
std::string veryShortSymbol(FocusNotification::Weekday day);

// {"notificationDays": [2, 3], "notificationTime": <seconds since 2001>};
// both keys are required.
void to_json(nlohmann::json& json, const FocusNotification& notification);
void from_json(const nlohmann::json& json, FocusNotification& notification);

// The texts both a Tag and its ThreadSafeTag show; Self has `title`, `emoji`
// and `isDefault`.
template <class Self>
struct FocusTagObject {
  // The localized "Focus.NoTag" for the default tag, else the title, which
  // a tag that is not default must have.
  std::string displayTitle() const;
  // displayTitle cut to a width of 10 (1 per ASCII character, 2 per other)
  // with "…" when cut.
  std::string shortDisplayTitle() const;
  // "Select Tag" for the default tag, else the title.
  std::string typeButtonTitle() const;
  // "Select Tag" for the default tag, else "Focus on", the emoji and the title.
  std::string typeButtonTitleWithPrefix() const;
  // The stored raw values as the health store's associations, in order; a
  // raw value the store does not know stays as it is (it reads "Others").
  std::vector<HKStateOfMindAssociation> stateOfMindAssociations() const {
    std::vector<HKStateOfMindAssociation> associations;
    const auto& raws = [this]() -> const std::vector<std::int64_t>& {
      if constexpr (requires { self().stateOfMindAssociationsList; }) {
        return self().stateOfMindAssociationsList;  // the stored row
      } else {
        return self().stateOfMindAssociationsRawValue;  // the typed copy
      }
    }();
    for (const auto raw : raws) {
      associations.push_back(static_cast<HKStateOfMindAssociation>(raw));
    }
    return associations;
  }

  // The tag as widgets and shortcuts list it.
  widgets::WidgetTag widgetTag() const {
    const Self& tag = self();
    const auto [goal, type] = [&tag] {
      if constexpr (requires { tag.focusGoal(); }) {
        return std::pair(tag.focusGoal(), tag.type());  // the stored row
      } else {
        return std::pair(tag.focusGoal, tag.type);  // the typed copy
      }
    }();
    return {tag.id.value_or(""),
            displayTitle(),
            tag.emoji,
            goal ? std::optional(goal->toWidgetFocusGoal()) : std::nullopt,
            type,
            tag.isDefault};
  }

  friend bool operator==(const FocusTagObject&, const FocusTagObject&) = default;

 private:
  const Self& self() const { return static_cast<const Self&>(*this); }
};

struct ThreadSafeTag;

struct Tag : FocusTagObject<Tag> {
  static constexpr std::string_view className = "Tag";
  static constexpr std::string_view csvColumns = "id,created,title,emoji,isDefault";
  // A tag that has no place in the user's order yet.
  static constexpr std::int64_t kUnplacedSort = std::numeric_limits<std::int64_t>::max();

  std::optional<std::string> id;
  std::optional<Date> created;
  std::optional<std::string> title;
  std::optional<std::string> emoji;
  // Sessions of this tag are written to the health store as mindful time.
  bool syncToMindfulness = false;
  std::optional<Data> typeData;
  std::int64_t sort = kUnplacedSort;
  // Only the tag that stands for sessions without a tag.
  bool isDefault = false;
  bool isDeleted = false;
  // Hidden from pickers, kept for statistics.
  bool isArchived = false;
  std::string colorHex = std::string(TagColors::defaultColor);
  std::optional<Data> focusGoalData;
  std::optional<Data> notificationData;
  std::vector<std::int64_t> stateOfMindAssociationsList;

  Tag() = default;
  // `created` is now; `isDefault` false.
  Tag(std::string id, std::string title, std::optional<std::string> emoji, std::string colorHex, bool syncToMindfulness,
      std::int64_t sort);

  // id,"created","title","emoji",isDefault: empty without an id, a creation
  // date or a title; a missing emoji is written as "-".
  std::string csvRecord() const;

  // --- Typed views of the stored blobs; none of them throws ---

  // The decoded typeData, or FocusType::defaultType() when absent or undecodable.
  widgets::FocusType type() const;
  void setType(const widgets::FocusType& type);
  // The JSON of a focus type as typeData keeps it; nothing when encoding fails.
  static std::optional<Data> encode(const widgets::FocusType& type);
  // Nothing when focusGoalData is absent or undecodable; writing nothing clears it.
  std::optional<FocusGoal> focusGoal() const;
  void setFocusGoal(const std::optional<FocusGoal>& goal);
  // Nothing when notificationData is absent or undecodable. Writing nothing
  // stores the JSON text null, which reads back as nothing: the blob stays.
  std::optional<FocusNotification> notification() const;
  void setNotification(const std::optional<FocusNotification>& notification);
  Color color() const { return Color::fromHex(colorHex); }
  void setColor(const Color& color) { colorHex = color.hex(false); }
  const std::vector<std::int64_t>& stateOfMindAssociationsRawValue() const { return stateOfMindAssociationsList; }

  // A copy in typed form, for another thread or for keeping.
  ThreadSafeTag threadSafeTag() const;

  static constexpr auto properties() {
    return std::tuple{records::primaryKey("id", &Tag::id),
                      records::property("created", &Tag::created),
                      records::property("title", &Tag::title),
                      records::property("emoji", &Tag::emoji),
                      records::property("syncToMindfulness", &Tag::syncToMindfulness),
                      records::property("typeData", &Tag::typeData),
                      records::property("sort", &Tag::sort),
                      records::property("isDefault", &Tag::isDefault),
                      records::property("isDeleted", &Tag::isDeleted),
                      records::property("isArchived", &Tag::isArchived),
                      records::property("colorHex", &Tag::colorHex),
                      records::property("focusGoalData", &Tag::focusGoalData),
                      records::property("notificationData", &Tag::notificationData),
                      records::property("stateOfMindAssociationsList", &Tag::stateOfMindAssociationsList)};
  }
  friend bool operator==(const Tag&, const Tag&) = default;
};

// Keys in property order, optional ones only when present; the blobs go as
// base64 text. "syncToMindfulness", "sort", "isDefault", "isDeleted",
// "isArchived", "colorHex" and "stateOfMindAssociationsList" are required.
void to_json(nlohmann::ordered_json& json, const Tag& tag);
void from_json(const nlohmann::ordered_json& json, Tag& tag);

// A tag in typed form, as a plain value.
struct ThreadSafeTag : FocusTagObject<ThreadSafeTag> {
  std::optional<std::string> id;
  std::optional<Date> created;
  std::optional<std::string> title;
  std::optional<std::string> emoji;
  bool syncToMindfulness = false;
  widgets::FocusType type;
  std::int64_t sort = Tag::kUnplacedSort;
  bool isDefault = false;
  bool isDeleted = false;
  bool isArchived = false;
  Color color;
  std::optional<FocusGoal> focusGoal;
  std::optional<FocusNotification> notification;
  std::vector<std::int64_t> stateOfMindAssociationsRawValue;

  friend bool operator==(const ThreadSafeTag&, const ThreadSafeTag&) = default;
};

// The tags every installation knows by id. Only `theDefault` is a default
// tag in the sense of Tag::isDefault.
enum class DefaultTagType { theDefault, working, studying, reading, meditation };

struct DefaultTagInfo {
  std::string_view id;
  std::string_view titleKey;
  std::optional<std::string_view> emoji;
  std::int64_t sort;
  std::string_view colorHex;
};

const DefaultTagInfo& info(DefaultTagType type);

struct DefaultTagTypes {
  // Created on a new installation, in this order.
  static constexpr std::array<DefaultTagType, 3> initialTags = {DefaultTagType::theDefault, DefaultTagType::working,
                                                                DefaultTagType::studying};
  static constexpr std::array<DefaultTagType, 5> allTags = {DefaultTagType::theDefault, DefaultTagType::working,
                                                            DefaultTagType::studying, DefaultTagType::reading,
                                                            DefaultTagType::meditation};
  // Shipped formerly: no longer created, still recognised and repaired.
  static constexpr std::array<DefaultTagType, 2> removedTags = {DefaultTagType::reading, DefaultTagType::meditation};
};

// The colour a migrated tag of that id gets, when the id is a default tag's.
std::optional<std::string_view> defaultTagColorHex(std::string_view id);

}  // namespace tarnwell

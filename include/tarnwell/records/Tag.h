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
#include <vector>

#include "tarnwell/platform/Data.h"
#include "tarnwell/platform/Date.h"
#include "tarnwell/store/Schema.h"

namespace tarnwell {

// The tag colours of the appearance subsystem, as "#rrggbb" texts.
struct TagColors {
  static constexpr std::string_view defaultColor = "#63c7ba";
  // Every colour of the palette, in palette order.
  static const std::array<std::string_view, 12>& palette();
};

struct Tag {
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

  static constexpr auto properties() {
    return std::tuple{store::primaryKey("id", &Tag::id),
                      store::property("created", &Tag::created),
                      store::property("title", &Tag::title),
                      store::property("emoji", &Tag::emoji),
                      store::property("syncToMindfulness", &Tag::syncToMindfulness),
                      store::property("typeData", &Tag::typeData),
                      store::property("sort", &Tag::sort),
                      store::property("isDefault", &Tag::isDefault),
                      store::property("isDeleted", &Tag::isDeleted),
                      store::property("isArchived", &Tag::isArchived),
                      store::property("colorHex", &Tag::colorHex),
                      store::property("focusGoalData", &Tag::focusGoalData),
                      store::property("notificationData", &Tag::notificationData),
                      store::property("stateOfMindAssociationsList", &Tag::stateOfMindAssociationsList)};
  }
  friend bool operator==(const Tag&, const Tag&) = default;
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

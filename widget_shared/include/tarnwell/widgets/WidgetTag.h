// WidgetTag: a focus tag as widgets and intents see it, without the store.

#pragma once

#include <nlohmann/json_fwd.hpp>
#include <optional>
#include <string>

#include "tarnwell/widgets/FocusType.h"
#include "tarnwell/widgets/WidgetFocusGoal.h"

namespace tarnwell::widgets {

// An image a widget draws: a resource of the framework by name, or an emoji
// drawn as text.
struct WidgetImage {
  enum class Kind { named, emoji };
  Kind kind = Kind::named;
  std::string value;

  static WidgetImage named(std::string name) { return {Kind::named, std::move(name)}; }
  static WidgetImage emoji(std::string glyph) { return {Kind::emoji, std::move(glyph)}; }

  friend bool operator==(const WidgetImage&, const WidgetImage&) = default;
};

struct WidgetTag {
  std::string id;
  // The display title: the localized "no tag" text for the default tag.
  std::string title;
  std::optional<std::string> emoji;
  std::optional<WidgetFocusGoal> focusGoal;
  FocusType type;
  bool isDefault = false;

  // The tag's emoji as an image; a tag without one (the default tag) has none.
  std::optional<WidgetImage> icon() const;

  friend bool operator==(const WidgetTag&, const WidgetTag&) = default;
};

// A goal travels as {"duration": seconds, "kind": 0 | 1 | 2}: 0 for at most,
// 1 for at least, 2 for no goal at all.
nlohmann::json encodeFocusGoal(const std::optional<WidgetFocusGoal>& goal);
std::optional<WidgetFocusGoal> decodeFocusGoal(const nlohmann::json& json);

void to_json(nlohmann::json& json, const WidgetImage& image);
void from_json(const nlohmann::json& json, WidgetImage& image);
void to_json(nlohmann::json& json, const WidgetTag& tag);
void from_json(const nlohmann::json& json, WidgetTag& tag);

}  // namespace tarnwell::widgets

#include "tarnwell/records/Tag.h"

#include "tarnwell/records/EventRecords.h"

namespace tarnwell {
namespace {

constexpr std::array<DefaultTagInfo, 5> kDefaultTags = {{
    {"default", "Focus.NoTag", std::nullopt, std::numeric_limits<std::int64_t>::min(), "#63c7ba"},
    {"working", "Focus.Tag.Work", "👨‍💻", 0, "#ff954f"},
    {"studying", "Focus.Tag.Study", "💡", 2, "#d85e9e"},
    {"reading", "Focus.Tag.Read", "📖", 1, "#72a7f1"},
    {"meditation", "Focus.Tag.Meditate", "🧘‍♀️", 3, "#d0e265"},
}};

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

const DefaultTagInfo& info(DefaultTagType type) { return kDefaultTags[static_cast<std::size_t>(type)]; }

std::optional<std::string_view> defaultTagColorHex(std::string_view id) {
  for (const auto& tag : kDefaultTags) {
    if (tag.id == id) return tag.colorHex;
  }
  return std::nullopt;
}

}  // namespace tarnwell

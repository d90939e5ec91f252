// Tags and the two repairs that keep each default tag in one row.

#include <algorithm>
#include <limits>

#include "modules/DatabaseSupport.h"
#include "tarnwell/modules/Database.h"
#include "tarnwell/platform/Environment.h"
#include "tarnwell/platform/FatalError.h"
#include "tarnwell/platform/Localization.h"
#include "tarnwell/platform/Log.h"
#include "tarnwell/platform/NotificationCenter.h"
#include "tarnwell/platform/Uuid.h"
#include "tarnwell/settings/Settings.h"
#include "tarnwell/store/Reads.h"
#include "tarnwell/widgets/WidgetDatabase.h"

namespace tarnwell {

using namespace database_support;
using store::Query;
using store::QueryValue;
using store::Store;
using store::UpdatePolicy;
using store::WriteTransaction;

namespace {

// "working" for "working-3F2A..." and for "working": a copy of a default tag
// made on another device stands under the plain id. Other ids stay as they are.
std::string normalizedTagId(std::string id) {
  std::string_view first = id;
  first.remove_prefix(std::min(first.find_first_not_of('-'), first.size()));
  first = first.substr(0, first.find('-'));
  for (const auto type : DefaultTagTypes::allTags) {
    if (info(type).id == first) return std::string(first);
  }
  return id;
}

void postUpdateRelevantShortcuts() {
  NotificationCenter::defaultCenter().post(Database::NotificationName::updateRelevantShortcuts);
}

// A default focus tag that is gone gives way to the default tag.
void repairDefaultFocusTag(bool onlyIfThisTag, std::string_view tagId) {
  const auto chosen = Settings::defaultFocusTagId();
  if (!chosen) return;
  if (onlyIfThisTag ? *chosen != tagId : Database::getTag(*chosen).has_value()) return;
  Settings::setDefaultFocusTagId(*Database::getDefaultTag().id);
}

}  // namespace

namespace database_support {

Tag makeDefaultTag(DefaultTagType type) {
  const DefaultTagInfo& tagInfo = info(type);
  Tag tag(std::string(tagInfo.id), localized(tagInfo.titleKey),
          tagInfo.emoji ? std::optional<std::string>(*tagInfo.emoji) : std::nullopt, std::string(tagInfo.colorHex),
          true, tagInfo.sort);
  tag.isDefault = type == DefaultTagType::theDefault;
  return tag;
}

}  // namespace database_support

void Database::clearRealmDatabase() {
  clearTags();
  resetInvalidateTagSort();
}

std::vector<std::string> Database::getTags(bool archived, bool discardDefault) {
  Query query;
  query.filter("isDeleted = 0 AND isArchived = ?", {archived});
  if (discardDefault) query.filter("isDefault = 0");
  // Sorted by sort, then (applied last, so it wins) by isDefault descending.
  query.sorted("isDefault DESC, sort ASC");
  const auto rows = store::selectIds(Tag::className, "id", query);
  std::vector<std::string> ids;
  for (const auto& row : rows) {
    std::string id = normalizedTagId(row);
    if (std::find(ids.begin(), ids.end(), id) == ids.end()) ids.push_back(std::move(id));
  }
  // Two rows under one id: fold them, but answer with the list as it was read.
  if (ids.size() != rows.size()) clearTags();
  return ids;
}

std::optional<Tag> Database::getTag(const std::string& id) { return store::liveObject<Tag>(id); }

Tag Database::getDefaultTag() {
  Store store = Store::open();
  if (auto tag = store.object<Tag>(info(DefaultTagType::theDefault).id)) return std::move(*tag);
  Tag tag = makeDefaultTag(DefaultTagType::theDefault);
  store.write([&tag](WriteTransaction& t) { t.add(tag, UpdatePolicy::all); });
  return tag;
}

std::string Database::addTag(const std::string& title, const std::optional<std::string>& emoji, const Color& color,
                             const widgets::FocusType& focusType, const std::optional<FocusGoal>& focusGoal,
                             const std::optional<FocusNotification>& notification, bool syncToMindfulness,
                             const std::optional<std::vector<std::int64_t>>& stateOfMindAssociationsRawValue) {
  log.info("✍️ Add Tag: " + title + " " + emoji.value_or(""),
           {.function = "addTag(title:emoji:color:focusType:focusGoal:notification:syncToMindfulness:"
                        "stateOfMindAssociationsRawValue:)"});
  Store store = Store::open();
  std::int64_t last = -1;
  {
    auto rows = store.select("SELECT MAX(sort) FROM Tag");
    if (rows.next() && !rows->isNull(0)) last = rows->int64(0);
  }
  // An unplaced tag would overflow here; the repair at start keeps them away.
  if (last == Tag::kUnplacedSort) fatalError("addTag: a tag without a place (sort " + std::to_string(last) + ")");
  Tag tag(makeUUIDString(), title, emoji, color.hex(false), syncToMindfulness, last + 1);
  tag.setType(focusType);
  tag.setFocusGoal(focusGoal);
  tag.setNotification(notification);
  if (stateOfMindAssociationsRawValue) tag.stateOfMindAssociationsList = *stateOfMindAssociationsRawValue;
  store.write([&tag](WriteTransaction& t) { t.add(tag, UpdatePolicy::all); });
  postUpdateRelevantShortcuts();
  return *tag.id;
}

std::string Database::editTag(const std::string& id, const TagEdit& edit) {
  const auto tag = getTag(id);
  if (!tag) return id;
  log.info("✍️ Edit Tag: " + id + " " + edit.title.value_or("-") + " " + edit.emoji.value_or("-"),
           {.function = "editTag(id:title:emoji:color:focusType:updateFocusGoal:updateNotification:syncToMindfulness:"
                        "stateOfMindAssociationsRawValue:)"});
  // Only the given fields are written, so that a concurrent change of another
  // field survives. The blobs are made by the typed views of a copy.
  Tag typed = *tag;
  std::vector<std::pair<std::string_view, QueryValue>> assignments;
  const auto blob = [](const std::optional<Data>& data) -> QueryValue {
    if (data) return *data;
    return nullptr;
  };
  if (edit.title) assignments.emplace_back("title", *edit.title);
  if (edit.emoji) assignments.emplace_back("emoji", tag->isDefault ? QueryValue(nullptr) : QueryValue(*edit.emoji));
  if (edit.color) assignments.emplace_back("colorHex", edit.color->hex(false));
  if (edit.focusType) assignments.emplace_back("typeData", blob(Tag::encode(*edit.focusType)));
  if (edit.focusGoal) {
    typed.setFocusGoal(*edit.focusGoal);
    assignments.emplace_back("focusGoalData", blob(typed.focusGoalData));
  }
  if (edit.notification) {
    typed.setNotification(*edit.notification);
    assignments.emplace_back("notificationData", blob(typed.notificationData));
  }
  if (edit.syncToMindfulness) assignments.emplace_back("syncToMindfulness", *edit.syncToMindfulness);
  if (edit.stateOfMindAssociationsRawValue) {
    assignments.emplace_back("stateOfMindAssociationsList", *edit.stateOfMindAssociationsRawValue);
  }
  if (!assignments.empty()) {
    Store::open().write([&](WriteTransaction& t) { t.updateObject<Tag>(id, assignments); });
  }
  postUpdateRelevantShortcuts();
  return id;
}

void Database::moveTag(const std::string& id, const std::string& after) {
  if (!getTag(id)) return;
  Store store = Store::open();
  // Every row, archived and soft-deleted ones too: their numbers are shared.
  const auto tags = store.objects<Tag>(Query().sorted("sort ASC"));
  const auto position = [&tags](const std::string& key) {
    return std::find_if(tags.begin(), tags.end(), [&key](const Tag& tag) { return tag.id == key; }) - tags.begin();
  };
  const auto i = position(id), j = position(after);
  const auto count = static_cast<std::ptrdiff_t>(tags.size());
  if (i == count || j == count || i == j) {
    updateTagsDisplayInIntent();
    return;
  }
  const auto first = std::min(i, j), last = std::max(i, j);
  std::vector<std::string> span;
  std::int64_t smallest = std::numeric_limits<std::int64_t>::max();
  for (auto k = first; k <= last; ++k) {
    if (k != i) span.push_back(tags[k].id.value_or(""));
    smallest = std::min(smallest, tags[k].sort);
  }
  // Moving up, the tag lands just before `after`; moving down, just behind it.
  if (i > j) {
    span.insert(span.begin(), id);
  } else {
    span.push_back(id);
  }
  store.write([&](WriteTransaction& t) {
    std::int64_t sort = smallest;
    for (const auto& key : span) t.updateObject<Tag>(key, {{"sort", sort++}});
  });
  updateTagsDisplayInIntent();
}

void Database::deleteTag(const std::string& id, const std::optional<std::string>& migrateTo) {
  if (!getTag(id)) return;
  log.info("✍️ Delete Tag: " + id, {.function = "deleteTag(id:migrateTo:)"});
  for (const auto& focusId : getFocuses(id)) {
    if (migrateTo) {
      Store::open().write([&](WriteTransaction& t) { t.updateObject<Focus>(focusId, {{"tagId", *migrateTo}}); });
    } else {
      deleteFocus(focusId);
    }
  }
  Store::open().write([&id](WriteTransaction& t) { t.updateObject<Tag>(id, {{"isDeleted", true}}); });
  repairDefaultFocusTag(true, id);
  updateTagsDisplayInIntent();
  postUpdateRelevantShortcuts();
}

namespace {

void writeArchived(const std::vector<std::string>& ids, bool archive) {
  Store::open().write([&](WriteTransaction& t) {
    for (const auto& id : ids) t.updateObject<Tag>(id, {{"isArchived", archive}}, "isDeleted = 0");
  });
  if (archive) {
    for (const auto& id : ids) repairDefaultFocusTag(true, id);
  }
}

}  // namespace

// The one tag's form leaves the published lists to the tag observer; the
// list's form publishes them itself.
void Database::archiveTag(const std::string& id, bool archive) {
  if (!getTag(id)) return;
  writeArchived({id}, archive);
  postUpdateRelevantShortcuts();
}

void Database::archiveTags(const std::vector<std::string>& ids, bool archive) {
  writeArchived(ids, archive);
  updateTagsDisplayInIntent();
  postUpdateRelevantShortcuts();
}

void Database::updateTagsDisplayInIntent() {
  const auto tags = Store::open().objects<Tag>(
      Query().filter("isDeleted = 0 AND isArchived = 0 AND isDefault = 0").sorted("created DESC, isDefault DESC"));
  std::vector<widgets::WidgetTag> published;
  published.reserve(tags.size());
  for (const auto& tag : tags) published.push_back(tag.widgetTag());
  widgets::IntentDatabase::setTags(published);
  if (Environment::current().device().platformVersion >= 14) widgets::refreshFocusWidget();
}

void Database::clearTags() {
  Store store = Store::open();
  for (const auto type : DefaultTagTypes::allTags) {
    const std::string id(info(type).id);
    Query strayTags;
    if (type == DefaultTagType::theDefault) {
      strayTags.filter("isDeleted = 0 AND isDefault = 1 AND id IS NOT ?", {id});
    } else {
      strayTags.filter("isDeleted = 0 AND instr(id, ?) = 1 AND id != ?", {id, id});
    }
    const auto strays = store.objects<Tag>(strayTags.sorted("created ASC"));
    const auto strayFocuses = Query().filter("isDeleted = 0 AND instr(tagId, ?) = 1 AND tagId != ?", {id, id});
    if (strays.empty() && store::selectIds(Focus::className, "id", strayFocuses).empty()) continue;

    const auto real = store.object<Tag>(id);
    Tag tag = real && !real->isDeleted ? *real : makeDefaultTag(type);
    if (!real || real->isDeleted) store.write([&tag](WriteTransaction& t) { t.add(tag, UpdatePolicy::all); });

    // A rename made on the copy survives the fold.
    const Tag standard = makeDefaultTag(type);
    store.write([&](WriteTransaction& t) {
      for (const auto& stray : strays) {
        std::vector<std::pair<std::string_view, QueryValue>> kept;
        if (stray.title && stray.title != standard.title) kept.emplace_back("title", *stray.title);
        if (stray.emoji && stray.emoji != standard.emoji) kept.emplace_back("emoji", *stray.emoji);
        if (!kept.empty()) t.updateObject<Tag>(id, kept);
        if (stray.id) t.updateObject<Tag>(*stray.id, {{"isDeleted", true}});
      }
    });
    for (const auto& stray : strays) {
      if (!stray.id) continue;
      store.write([&](WriteTransaction& t) {
        t.update<Focus>({{"tagId", id}}, Query().filter("tagId = ?", {*stray.id}));
      });
    }
    store.write([&](WriteTransaction& t) { t.update<Focus>({{"tagId", id}}, strayFocuses); });
  }
  repairDefaultFocusTag(false, {});
}

void Database::resetInvalidateTagSort() {
  Store store = Store::open();
  const auto unplaced = store.objects<Tag>(Query().filter("sort = ?", {Tag::kUnplacedSort}).sorted("created ASC"));
  if (unplaced.empty()) return;
  std::int64_t last = 0;
  {
    auto rows = store.select("SELECT MAX(sort) FROM Tag WHERE sort != ?1", {Tag::kUnplacedSort});
    if (rows.next() && !rows->isNull(0)) last = rows->int64(0);
  }
  store.write([&](WriteTransaction& t) {
    for (const auto& tag : unplaced) {
      if (!tag.id) continue;
      const std::int64_t sort = tag.isDefault ? std::numeric_limits<std::int64_t>::min() : ++last;
      t.updateObject<Tag>(*tag.id, {{"sort", sort}});
    }
  });
}

}  // namespace tarnwell

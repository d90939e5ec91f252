// `tarnwell tag ...` and `tarnwell focus ...`: focus tags with their goals,
// order and summaries, and the focus sessions themselves.

#include <cmath>
#include <regex>
#include <tuple>

#include "Cli.h"
#include "tarnwell/extensions/Strings.h"
#include "tarnwell/modules/Database.h"

namespace tarnwell::cli {
namespace {

using widgets::FocusType;

// FocusArguments of every tag and focus command, kept alive with the command line.
struct FocusArguments {
  std::string id, title, start, end, after;
  std::vector<std::string> ids;
  std::optional<std::string> emoji, color, goal, type, mode, tag, date, migrateTo, newId, progress, mindful, focusStart;
  RangeOptions range;
  bool archived = false, noDefault = false, mindfulFlag = false;
};

Color parseColor(const std::string& text) {
  static const std::regex hex("#?([0-9a-fA-F]{3}|[0-9a-fA-F]{6}|[0-9a-fA-F]{8})");
  if (!std::regex_match(text, hex)) refuse("--color", text, "a colour (#rgb, #rrggbb or #rrggbbaa)");
  return Color::fromHex(text);
}

// ">=SECONDS" (a goal to reach) or "<=SECONDS" (a limit to stay under), of
// one day's focus: 0 to 86400 seconds.
FocusGoal parseGoal(const std::string& text) {
  constexpr const char* kAccepts = "a daily goal (>=SECONDS or <=SECONDS, 0 to 86400 seconds)";
  if (text.size() < 3 || (text.compare(0, 2, ">=") != 0 && text.compare(0, 2, "<=") != 0)) {
    refuse("--goal", text, kAccepts);
  }
  const double seconds = parseNumberIn("--goal", text.substr(2), 0, kOneDay, kAccepts);
  return text[0] == '>' ? FocusGoal::moreThanOrEqualTo(seconds) : FocusGoal::lessThanOrEqualTo(seconds);
}

FocusMode parseMode(const std::string& text) {
  if (auto mode = focusModeFromRawValue(text)) return *mode;
  refuse("--mode", text, "easy or strict");
}

nlohmann::ordered_json tagJSON(const Tag& tag) {
  const auto goal = tag.focusGoal();
  const auto notification = tag.notification();
  return {{"id", json_detail::value(tag.id)},
          {"title", json_detail::value(tag.title)},
          {"displayTitle", tag.displayTitle()},
          {"emoji", json_detail::value(tag.emoji)},
          {"color", tag.colorHex},
          {"sort", tag.sort},
          {"isDefault", tag.isDefault},
          {"isArchived", tag.isArchived},
          {"syncToMindfulness", tag.syncToMindfulness},
          {"type", nlohmann::json(tag.type())},
          {"focusGoal", goal ? nlohmann::json(*goal) : nlohmann::json(nullptr)},
          {"notification", notification ? nlohmann::json(*notification) : nlohmann::json(nullptr)},
          {"created", json_detail::value(tag.created)}};
}

std::string tagLine(const Tag& tag) {
  std::string text = tag.id.value_or("-") + "  ";
  if (tag.emoji) text += *tag.emoji + " ";
  text += tag.displayTitle() + "  " + tag.colorHex + "  " + localizedDescription(tag.type());
  if (const auto goal = tag.focusGoal()) text += "  " + words("Tag.Line.Goal", {goal->localizedDescription()});
  if (tag.syncToMindfulness) text += "  " + words("Tag.Line.Mindful");
  if (tag.isArchived) text += "  " + words("Tag.Line.Archived");
  return text;
}

std::string focusLine(const Focus& focus) {
  std::string text = focus.id.value_or("-") + "  " + (focus.start ? dayAndClockTime(*focus.start, true) : "-") + "  " +
                     (focus.end ? dayAndClockTime(*focus.end, true) : "-") + "  " +
                     focus.tagId.value_or(words("Focus.Line.NoTag")) + "  " +
                     words("Focus.Line.Progress", {getTimeIntervalString(focus.progress, true, true),
                                                   getTimeIntervalString(focus.goal, true, true)});
  if (focus.failed()) text += "  " + words("Focus.Line.Failed");
  return text;
}

void printTag(const GlobalOptions& options, const std::string& id) {
  const auto tag = Database::getTag(id);
  Output(options).print(tag ? tagJSON(*tag) : nlohmann::ordered_json(nullptr), tag ? tagLine(*tag) : id);
}

void printFocus(const GlobalOptions& options, const std::string& id) {
  const auto row = Database::getFocus(id);
  Output(options).print(row ? recordJSON(*row) : nlohmann::ordered_json(nullptr), row ? focusLine(*row) : id);
}

// The options add and edit share; `edit` offers "none" to clear the goal.
void addTagOptions(CLI::App* command, FocusArguments& a, bool edit) {
  command->add_option("--emoji", a.emoji, "One emoji");
  command->add_option("--color", a.color, "Colour, #rrggbb");
  command->add_option(
      "--goal", a.goal,
      edit ? "Daily goal >=SECONDS, limit <=SECONDS, or none" : "Daily goal >=SECONDS or limit <=SECONDS");
  command->add_option("--type", a.type, "Timer: pomodoro:SECONDS, countdown:SECONDS or addTime");
}

void addTagCommands(CLI::App& app, const GlobalOptions& options, Action& action) {
  auto a = std::make_shared<FocusArguments>();
  auto* tag = app.add_subcommand("tag", "Focus tags: goals, order, archive, streaks");
  tag->require_subcommand(1);

  auto* list = tag->add_subcommand("list", "Tags in the user's order, the default tag first");
  list->add_flag("--archived", a->archived, "The archived tags instead");
  list->add_flag("--no-default", a->noDefault, "Leave out the default tag");
  onRun(list, action, [&options, a] {
    printRows(options, Database::getTags(a->archived, a->noDefault), &Database::getTag, tagJSON, tagLine);
  });

  auto* add = tag->add_subcommand("add", "Make a tag; prints it");
  add->add_option("TITLE", a->title)->required();
  addTagOptions(add, *a, false);
  add->add_flag("--mindful", a->mindfulFlag, "Write its sessions to the health store as mindful time");
  onRun(
      add, action,
      [a] {
        if (a->title.empty()) throw refusal("a tag needs a title");
        const Color color = parseColor(a->color.value_or(std::string(TagColors::defaultColor)));
        const auto goal = a->goal ? std::optional(parseGoal(*a->goal)) : std::nullopt;
        const FocusType type = a->type ? parseFocusType("--type", *a->type) : FocusType::defaultType();
        return std::tuple(color, goal, type);
      },
      [&options, a](const auto& input) {
        const auto& [color, goal, type] = input;
        printTag(options,
                 Database::addTag(a->title, a->emoji, color, type, goal, std::nullopt, a->mindfulFlag, std::nullopt));
      });

  auto* edit = tag->add_subcommand("edit", "Change a tag's fields; the others stay");
  edit->add_option("ID", a->id)->required();
  edit->add_option("--title", a->title, "New title");
  addTagOptions(edit, *a, true);
  edit->add_option("--mindful", a->mindful, "true or false");
  onRun(
      edit, action,
      [a] {
        TagEdit changes;
        if (!a->title.empty()) changes.title = a->title;
        changes.emoji = a->emoji;
        if (a->color) changes.color = parseColor(*a->color);
        if (a->goal) changes.focusGoal = *a->goal == "none" ? std::nullopt : std::optional(parseGoal(*a->goal));
        if (a->type) changes.focusType = parseFocusType("--type", *a->type);
        if (a->mindful) changes.syncToMindfulness = parseBool("--mindful", *a->mindful);
        return changes;
      },
      [&options, a](const TagEdit& changes) {
        requireTag(a->id);
        printTag(options, Database::editTag(a->id, changes));
      });

  auto* move = tag->add_subcommand("move", "Put a tag in the place of another");
  move->add_option("ID", a->id)->required();
  move->add_option("--after", a->after, "The tag whose place it takes")->required();
  onRun(move, action, [&options, a] {
    requireTag(a->id);
    requireTag(a->after);
    Database::moveTag(a->id, a->after);
    const auto ids = Database::getTags(false, false);
    Output(options).print(ids, joinLines(ids));
  });

  for (const bool archive : {true, false}) {
    auto* command =
        tag->add_subcommand(archive ? "archive" : "unarchive",
                            archive ? "Hide tags from pickers, keeping their statistics" : "Show tags again");
    command->add_option("ID", a->ids)->required();
    onRun(command, action, [&options, a, archive] {
      for (const auto& id : a->ids) {
        // The default tag is what a chosen tag falls back to once archived
        // or deleted: archived itself, the fallback would be hidden too.
        if (Database::getTag(requireTag(id))->isDefault && archive) {
          throw refusal("the default tag cannot be archived");
        }
      }
      Database::archiveTags(a->ids, archive);
      Output(options).print(a->ids, joinLines(a->ids));
    });
  }

  auto* remove = tag->add_subcommand("delete", "Delete a tag; its sessions move to another or are deleted");
  remove->add_option("ID", a->id)->required();
  remove->add_option("--migrate-to", a->migrateTo, "The tag that takes the sessions");
  onRun(remove, action, [&options, a] {
    const auto row = Database::getTag(requireTag(a->id));
    if (row->isDefault) throw refusal("the default tag cannot be deleted");
    if (a->migrateTo) {
      // Sessions moved to the tag being deleted would be left with no tag at all.
      if (*a->migrateTo == a->id) throw refusal("a tag cannot take its own sessions when deleted");
      requireTag(*a->migrateTo);
    }
    Database::deleteTag(a->id, a->migrateTo);
    Output(options).print({{"id", a->id}}, a->id);
  });

  auto* streak = tag->add_subcommand("streak", "The tag's run of days back from a day");
  streak->add_option("ID", a->id)->required();
  streak->add_option("--date", a->date, "ISO 8601 (default: now)");
  onRun(
      streak, action, [a] { return parseInstantOrNow(a->date); },
      [&options, a](Date date) {
        const auto run = tagStreak(requireTag(a->id), date);
        if (!run) return Output(options).print({{"tagId", a->id}, {"combo", nullptr}}, words("Tag.Streak.None"));
        Output(options).print({{"tagId", a->id}, {"combo", {{"kind", run->kind}, {"days", run->days}}}}, run->text());
      });

  auto* progress = tag->add_subcommand("progress", "Seconds focused on a day over the tag's goal");
  progress->add_option("ID", a->id)->required();
  progress->add_option("--date", a->date, "ISO 8601 (default: now)");
  onRun(
      progress, action, [a] { return parseInstantOrNow(a->date); },
      [&options, a](Date date) {
        const auto value = Database::getGoalProgress(requireTag(a->id), date);
        const bool finite = value && std::isfinite(*value);
        Output(options).print({{"tagId", a->id}, {"progress", finite ? nlohmann::ordered_json(*value) : nullptr}},
                              !value   ? words("Tag.Progress.NoGoal")
                              : finite ? std::to_string(std::lround(*value * 100)) + "%"
                                       : "-");
      });
}

void addFocusSessionCommands(CLI::App& app, const GlobalOptions& options, Action& action) {
  auto a = std::make_shared<FocusArguments>();
  auto* focus = app.add_subcommand("focus", "Focus sessions");
  focus->require_subcommand(1);

  auto* add = focus->add_subcommand("add", "Record a session; prints it");
  add->add_option("START", a->start, "ISO 8601 start")->required();
  add->add_option("END", a->end, "ISO 8601 end (pauses included)")->required();
  add->add_option("--tag", a->tag, "Tag id (default: none)");
  add->add_option("--goal", a->goal, "Seconds aimed at (default: the whole session)");
  add->add_option("--progress", a->progress, "Seconds focused (default: the whole session)");
  add->add_option("--type", a->type, "Timer: pomodoro:SECONDS, countdown:SECONDS or addTime");
  add->add_option("--mode", a->mode, "easy or strict");
  add->add_option("--id", a->newId, "Id; a session of that id is replaced");
  onRun(
      add, action,
      [a] {
        const auto [start, end] = parseSpan(a->start, a->end, kOneDay);
        const double length = end - start;
        const double goal = a->goal ? parseSeconds("--goal", *a->goal, kOneDay) : length;
        // Pauses are within the span, so the time focused cannot exceed it.
        const double progress = a->progress ? parseSeconds("--progress", *a->progress, length) : length;
        const auto type = a->type ? std::optional(parseFocusType("--type", *a->type)) : std::nullopt;
        const auto mode = a->mode ? std::optional(parseMode(*a->mode)) : std::nullopt;
        return std::tuple(start, end, goal, progress, type, mode);
      },
      [&options, a](const auto& input) {
        const auto& [start, end, goal, progress, type, mode] = input;
        if (a->tag) requireTag(*a->tag);
        printFocus(options, Database::addFocus(a->newId, start, end, a->tag, goal, progress, type, mode, std::nullopt));
      });

  auto* edit = focus->add_subcommand("edit", "Change a session; a new progress moves its end");
  edit->add_option("ID", a->id)->required();
  edit->add_option("--tag", a->tag, "Tag id");
  edit->add_option("--start", a->focusStart, "ISO 8601 start");
  edit->add_option("--progress", a->progress, "Seconds focused; the end becomes start + progress");
  edit->add_option("--goal", a->goal, "Seconds aimed at");
  edit->add_option("--type", a->type, "pomodoro, countdown or addTime");
  edit->add_option("--mode", a->mode, "easy or strict");
  onRun(
      edit, action,
      [a] {
        FocusEdit changes;
        changes.tagId = a->tag;
        if (a->focusStart) changes.start = parseInstant(*a->focusStart);
        if (a->progress) changes.progress = parseSeconds("--progress", *a->progress, kOneDay);
        if (a->goal) changes.goal = parseSeconds("--goal", *a->goal, kOneDay);
        if (a->type) {
          changes.type = widgets::abstractFocusTypeFromRawValue(*a->type);
          if (!changes.type) refuse("--type", *a->type, "pomodoro, countdown or addTime");
        }
        if (a->mode) changes.mode = parseMode(*a->mode);
        return changes;
      },
      [&options, a](const FocusEdit& changes) {
        if (a->tag) requireTag(*a->tag);
        // A new start alone keeps the end: the span it leaves must still be one.
        if (const auto row = Database::getFocus(a->id); row && changes.start && !changes.progress && row->end) {
          checkSpan(*changes.start, *row->end, kOneDay);
        }
        Database::editFocus(a->id, changes);
        printFocus(options, a->id);
      });

  auto* remove = focus->add_subcommand("delete", "Delete a session; an unknown id changes nothing");
  remove->add_option("ID", a->id)->required();
  onRun(remove, action, [&options, a] {
    Database::deleteFocus(a->id);
    Output(options).print({{"id", a->id}}, a->id);
  });

  auto* list = focus->add_subcommand("list", "Sessions by tag and by start");
  list->add_option("--tag", a->tag, "Tag id");
  a->range.addTo(list, "ISO 8601: sessions starting from then", "ISO 8601: sessions starting until then");
  onRun(
      list, action, [a] { return a->range.parse(); },
      [&options, a](const std::optional<DateInterval>& range) {
        const auto ids = a->tag ? (range ? Database::getFocuses(*a->tag, *range) : Database::getFocuses(*a->tag))
                                : (range ? Database::getFocuses(*range) : Database::getFocuses());
        printRows(
            options, ids, [](const std::string& id) { return Database::getFocus(id); }, recordJSON<Focus>, focusLine);
      });

  onRun(focus->add_subcommand("clean", "Delete copies of sessions that start less than a second apart"), action,
        [&options] {
          const std::size_t before = Database::getFocuses().size();
          Database::clearFocuses();
          const std::size_t removed = before - Database::getFocuses().size();
          Output(options).print({{"removed", removed}},
                                words("Focus.Clean.Removed", {static_cast<std::int64_t>(removed)}));
        });
}

}  // namespace

std::string requireTag(const std::string& id) {
  if (!Database::getTag(id)) throw refusal("no tag has the id %@", {id});
  return id;
}

std::string TagStreak::text() const {
  const bool one = days == 1;
  const char* key = kind == "streak" ? (one ? "Tag.Streak.GoalReached.OneDay" : "Tag.Streak.GoalReached.Days")
                    : kind == "fail" ? (one ? "Tag.Streak.LimitBroken.OneDay" : "Tag.Streak.LimitBroken.Days")
                                     : (one ? "Tag.Streak.Focused.OneDay" : "Tag.Streak.Focused.Days");
  return words(key, {days});
}

std::optional<TagStreak> tagStreak(const std::string& tagId, Date date) {
  const auto combo = Database::getFocusCombo(tagId, date);
  if (!combo) return std::nullopt;
  static constexpr const char* kKinds[] = {"streak", "fail", "focus"};
  return TagStreak{kKinds[static_cast<int>(combo->kind)], combo->days};
}

void addFocusCommands(CLI::App& app, const GlobalOptions& options, Action& action) {
  addTagCommands(app, options, action);
  addFocusSessionCommands(app, options, action);
}

}  // namespace tarnwell::cli

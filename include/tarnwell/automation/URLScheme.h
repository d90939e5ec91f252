// Layers, bottom to top: platform → healthkit → cloudkit → widgets → settings → extensions → records → store → sync → health → analytics → charts → modules → [automation].
//
// URLScheme: the deep links through which widgets, controls, notifications
// and shortcuts tell the app what to open.
//
// A value names what to open; `url()` is its written form, which outlives
// versions (a widget placed by an older version keeps its link), so the form
// is fixed letter for letter: "tarnwell://x-callback-url/" + action word,
// then "?" and the pairs "key=value" joined by "&" when there are any. Text
// is joined as it stands, never escaped: a caller may only put values that
// read back as themselves into a payload (isSafeValue), and `url()` stops the
// process for any other. `text()` gives the join without that check, for
// callers that vet input.

#pragma once

#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <type_traits>
#include <utility>
#include <variant>

#include "tarnwell/charts/ScreenTimeDataType.h"
#include "tarnwell/charts/StatisticsData.h"
#include "tarnwell/platform/URL.h"
#include "tarnwell/platform/WidgetCenter.h"
#include "tarnwell/widgets/FocusType.h"

namespace tarnwell {

// The pairs of a link. Their order in the text is not part of the form:
// readers accept any order.
using URLParameters = std::map<std::string, std::string>;

// What a link asks of the focus under way.
enum class CurrentFocusAction { open, pause, resume, stop, startBreak, skipBreak };

// "open", "pause", "resume", "stop", "startBreak", "skipBreak".
std::string_view rawValue(CurrentFocusAction action);
// Exact match only; nothing for any other text.
std::optional<CurrentFocusAction> currentFocusActionFromRawValue(std::string_view text);

// One tag by id, or all tags.
class TagType {
 public:
  static TagType tag(std::string id) { return TagType(std::move(id)); }
  static TagType all() { return TagType(std::nullopt); }

  bool isAll() const { return !id_; }
  // The id of `tag`; nothing for `all`.
  const std::optional<std::string>& id() const { return id_; }

  friend bool operator==(const TagType&, const TagType&) = default;

 private:
  explicit TagType(std::optional<std::string> id) : id_(std::move(id)) {}
  std::optional<std::string> id_;
};

// Which widget or control a link came from.
struct WidgetContext {
  // The widget's name, as its configuration gives it.
  std::string name;
  // The raw value of its WidgetFamily.
  int familyRaw = 0;
  bool isStandBy = false;
  // The source is a control, not a widget.
  bool isControl = false;

  WidgetContext(std::string widgetName, WidgetFamily widgetFamily, bool standBy = false)
      : name(std::move(widgetName)), familyRaw(static_cast<int>(widgetFamily)), isStandBy(standBy) {}
  // A control: family systemSmall, not stand-by.
  static WidgetContext control(std::string controlName);

  // Reads "widget_name" and "widget_family" back; nothing when either is
  // missing. Never fails on the family word: "stand_by" and "control" set
  // their flag; a word this platform is too old for, or any other ("corner",
  // "unknown" and "nil" among them), reads as systemSmall. So "corner" is
  // written but never read back, on purpose.
  static std::optional<WidgetContext> fromParameters(const URLParameters& parameters);

  // Nothing when `familyRaw` names no family.
  std::optional<WidgetFamily> family() const { return widgetFamilyFromRawValue(familyRaw); }
  // "small", "medium", "large", "extra_large", "corner", "circular",
  // "rectangular", "inline"; "unknown" for a later family; "nil" for a raw
  // value that names none, or on a platform older than 14.
  std::string familyName() const;
  // "widget_name", and "widget_family": "stand_by" if stand-by (which wins
  // over control), else "control" for a control, else the family word.
  URLParameters parameters() const;

  friend bool operator==(const WidgetContext&, const WidgetContext&) = default;
};

class URLScheme {
 public:
  struct OpenFromWidget {
    std::optional<WidgetContext> context;
    friend bool operator==(const OpenFromWidget&, const OpenFromWidget&) = default;
  };
  struct ViewScreenTime {
    std::optional<ScreenTimeDataType> type;
    std::optional<StatisticsDateRange> dateRange;
    std::optional<WidgetContext> widgetContext;
    friend bool operator==(const ViewScreenTime&, const ViewScreenTime&) = default;
  };
  struct ViewFocus {
    std::optional<TagType> tag;
    std::optional<StatisticsDateRange> dateRange;
    std::optional<WidgetContext> widgetContext;
    friend bool operator==(const ViewFocus&, const ViewFocus&) = default;
  };
  struct StartFocus {
    std::optional<std::string> tagId;
    std::optional<WidgetContext> widgetContext;
    friend bool operator==(const StartFocus&, const StartFocus&) = default;
  };
  struct StartFocusPopup {
    widgets::AbstractFocusType focusType = widgets::AbstractFocusType::pomodoro;
    std::optional<WidgetContext> widgetContext;
    friend bool operator==(const StartFocusPopup&, const StartFocusPopup&) = default;
  };
  struct CurrentFocus {
    CurrentFocusAction action = CurrentFocusAction::open;
    friend bool operator==(const CurrentFocus&, const CurrentFocus&) = default;
  };
  struct ShareFocus {
    std::optional<std::string> activityID;
    std::optional<std::string> focusID;
    double progress = 0;
    double goal = 0;
    friend bool operator==(const ShareFocus&, const ShareFocus&) = default;
  };
  struct ScheduleList {
    std::optional<WidgetContext> widgetContext;
    friend bool operator==(const ScheduleList&, const ScheduleList&) = default;
  };
  struct StopLullTimeBreak {
    friend bool operator==(const StopLullTimeBreak&, const StopLullTimeBreak&) = default;
  };
  // In the order of the cases.
  using Value = std::variant<OpenFromWidget, ViewScreenTime, ViewFocus, StartFocus, StartFocusPopup, CurrentFocus,
                             ShareFocus, ScheduleList, StopLullTimeBreak>;

  static constexpr std::string_view scheme = "tarnwell";
  // "tarnwell://", the link that only opens the app.
  static URL schemeURL();

  // Implicit, so that a case reads as the link: URLScheme link = URLScheme::CurrentFocus{...}.
  template <class Case>
  requires std::is_constructible_v<Value, Case&&> URLScheme(Case&& value) : value_(std::forward<Case>(value)) {}

  template <class Case>
  const Case* as() const {
    return std::get_if<Case>(&value_);
  }
  const Value& value() const { return value_; }

  // The path word: "open-from-widget", "view-screen-time", "view-focus-time",
  // "start-focus", "start-focus-popup", "current-focus", "share-focus",
  // "schedule-list", "stop-lulltime-break".
  std::string_view action() const;
  // The pairs. Absent, not empty, for openFromWidget and scheduleList
  // without a context and for stopLullTimeBreak. viewScreenTime writes
  // "type" and "dateRange" only with a type, viewFocus "tagId" ("All" for
  // all tags) and "dateRange" only with a tag; an absent range is "week".
  std::optional<URLParameters> parameters() const;
  // Whether `value` reads back from a pair as itself: letters, digits and
  // "-._~!$'()*+,;:@/" only. "&", "=", "#" and "?" would end the pair or the
  // query early (a tag id could add a widget context of its own), and "%"
  // would be read as the start of an escape ("100%25" as "100%").
  static bool isSafeValue(std::string_view value);

  // The link joined as it stands; it may not be a URL.
  std::string text() const;
  // The link. Stops the process when a value is not safe, or text() is not
  // a URL.
  URL url() const;

  // The app's side: a link of this scheme read back by the tables above.
  // Nothing for another scheme or host, an unknown action word, or a pair a
  // case needs that is missing or unreadable.
  static std::optional<URLScheme> fromURL(const URL& url);

  friend bool operator==(const URLScheme&, const URLScheme&) = default;

 private:
  Value value_;
};

}  // namespace tarnwell

#include "tarnwell/automation/URLScheme.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <limits>

#include "tarnwell/platform/Environment.h"
#include "tarnwell/platform/FatalError.h"

namespace tarnwell {
namespace {

constexpr std::string_view kPrefix = "tarnwell://x-callback-url/";
constexpr std::string_view kHost = "x-callback-url";
constexpr std::string_view kName = "widget_name";
constexpr std::string_view kFamily = "widget_family";
constexpr std::string_view kAllTags = "All";

struct FamilyWord {
  WidgetFamily family;
  std::string_view word;
  // The first platform version that reads the word back as this family.
  int readFrom;
};

// corner is written but not read back at any version: the reader never knew it.
constexpr std::array<FamilyWord, 8> kFamilyWords = {{
    {WidgetFamily::systemSmall, "small", 0},
    {WidgetFamily::systemMedium, "medium", 0},
    {WidgetFamily::systemLarge, "large", 0},
    {WidgetFamily::systemExtraLarge, "extra_large", 15},
    {WidgetFamily::accessoryCorner, "corner", std::numeric_limits<int>::max()},
    {WidgetFamily::accessoryCircular, "circular", 16},
    {WidgetFamily::accessoryRectangular, "rectangular", 16},
    {WidgetFamily::accessoryInline, "inline", 16},
}};

constexpr std::array<std::string_view, 6> kActionWords = {"open", "pause", "resume", "stop", "startBreak", "skipBreak"};

// The range word; "week" when there is none.
std::string_view rangeWord(const std::optional<StatisticsDateRange>& range) {
  return range ? rawValue(*range) : rawValue(StatisticsDateRange::week);
}

void addContext(URLParameters& parameters, const std::optional<WidgetContext>& context) {
  if (context) parameters.merge(context->parameters());
}

std::optional<std::string> find(const URLParameters& parameters, std::string_view key) {
  const auto found = parameters.find(std::string(key));
  if (found == parameters.end()) return std::nullopt;
  return found->second;
}

std::optional<double> readDouble(const std::string& text) {
  double value = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
  if (error != std::errc() || end != text.data() + text.size()) return std::nullopt;
  return value;
}

// An optional payload: absent without its key, unreadable (nothing at all)
// when the key is there but its value is not a value of the payload.
template <class T, class Read>
bool readOptional(const URLParameters& parameters, std::string_view key, Read read, std::optional<T>& into) {
  const auto text = find(parameters, key);
  if (!text) return true;
  into = read(*text);
  return into.has_value();
}

std::optional<URLScheme::Value> readCase(std::string_view action, const URLParameters& p) {
  const auto context = WidgetContext::fromParameters(p);
  const auto range = [](const std::string& t) { return statisticsDateRangeFromRawValue(t); };
  if (action == "open-from-widget") return URLScheme::OpenFromWidget{context};
  if (action == "schedule-list") return URLScheme::ScheduleList{context};
  if (action == "stop-lulltime-break") return URLScheme::StopLullTimeBreak{};
  if (action == "view-screen-time") {
    URLScheme::ViewScreenTime link{{}, {}, context};
    const auto type = [](const std::string& t) { return ScreenTimeDataType::fromIdentifier(t); };
    if (!readOptional(p, "type", type, link.type) || !readOptional(p, "dateRange", range, link.dateRange)) return {};
    return link;
  }
  if (action == "view-focus-time") {
    URLScheme::ViewFocus link{{}, {}, context};
    if (const auto id = find(p, "tagId")) link.tag = *id == kAllTags ? TagType::all() : TagType::tag(*id);
    if (!readOptional(p, "dateRange", range, link.dateRange)) return {};
    return link;
  }
  if (action == "start-focus") return URLScheme::StartFocus{find(p, "tagId"), context};
  if (action == "start-focus-popup") {
    const auto word = find(p, "focusType");
    const auto type = word ? widgets::abstractFocusTypeFromRawValue(*word) : std::nullopt;
    if (!type) return {};
    return URLScheme::StartFocusPopup{*type, context};
  }
  if (action == "current-focus") {
    const auto word = find(p, "action");
    const auto focusAction = word ? currentFocusActionFromRawValue(*word) : std::nullopt;
    if (!focusAction) return {};
    return URLScheme::CurrentFocus{*focusAction};
  }
  if (action == "share-focus") {
    const auto progress = find(p, "progress"), goal = find(p, "goal");
    const auto progressValue = progress ? readDouble(*progress) : std::nullopt;
    const auto goalValue = goal ? readDouble(*goal) : std::nullopt;
    if (!progressValue || !goalValue) return {};
    return URLScheme::ShareFocus{find(p, "activityID"), find(p, "focusID"), *progressValue, *goalValue};
  }
  return {};
}

template <class... Cases>
struct Overloaded : Cases... {
  using Cases::operator()...;
};
// Spelled out for compilers without deduction for aggregates (clang before 17).
template <class... Cases>
Overloaded(Cases...) -> Overloaded<Cases...>;

}  // namespace

std::string_view rawValue(CurrentFocusAction action) { return kActionWords[static_cast<std::size_t>(action)]; }

std::optional<CurrentFocusAction> currentFocusActionFromRawValue(std::string_view text) {
  for (std::size_t i = 0; i < kActionWords.size(); ++i) {
    if (kActionWords[i] == text) return static_cast<CurrentFocusAction>(i);
  }
  return std::nullopt;
}

WidgetContext WidgetContext::control(std::string controlName) {
  WidgetContext context(std::move(controlName), WidgetFamily::systemSmall);
  context.isControl = true;
  return context;
}

std::optional<WidgetContext> WidgetContext::fromParameters(const URLParameters& parameters) {
  const auto name = find(parameters, kName);
  const auto word = find(parameters, kFamily);
  if (!name || !word) return std::nullopt;
  const int version = Environment::platformVersion();
  // Before 14 the platform has no families: every raw value is 0.
  WidgetContext context(*name, WidgetFamily::systemSmall);
  if (*word == "stand_by") {
    context.isStandBy = true;
  } else if (*word == "control") {
    context.isControl = true;
  } else if (version >= 14) {
    for (const auto& entry : kFamilyWords) {
      if (entry.word == *word && version >= entry.readFrom) context.familyRaw = static_cast<int>(entry.family);
    }
  }
  return context;
}

std::string WidgetContext::familyName() const {
  const auto known = family();
  if (!known || Environment::platformVersion() < 14) return "nil";
  for (const auto& entry : kFamilyWords) {
    if (entry.family == *known) return std::string(entry.word);
  }
  return "unknown";
}

URLParameters WidgetContext::parameters() const {
  std::string word = isStandBy ? "stand_by" : isControl ? "control" : familyName();
  return {{std::string(kName), name}, {std::string(kFamily), std::move(word)}};
}

URL URLScheme::schemeURL() { return *URL::parse(std::string(scheme) + "://"); }

std::string_view URLScheme::action() const {
  static constexpr std::array<std::string_view, std::variant_size_v<Value>> kActions = {
      "open-from-widget", "view-screen-time", "view-focus-time", "start-focus",        "start-focus-popup",
      "current-focus",    "share-focus",      "schedule-list",   "stop-lulltime-break"};
  return kActions[value_.index()];
}

std::optional<URLParameters> URLScheme::parameters() const {
  const auto contextOnly = [](const std::optional<WidgetContext>& context) -> std::optional<URLParameters> {
    if (!context) return std::nullopt;
    return context->parameters();
  };
  return std::visit(Overloaded{
                        [&](const OpenFromWidget& link) { return contextOnly(link.context); },
                        [&](const ScheduleList& link) { return contextOnly(link.widgetContext); },
                        [](const StopLullTimeBreak&) -> std::optional<URLParameters> { return std::nullopt; },
                        [](const ViewScreenTime& link) -> std::optional<URLParameters> {
                          URLParameters p;
                          if (link.type) {
                            p["type"] = link.type->identifier();
                            p["dateRange"] = rangeWord(link.dateRange);
                          }
                          addContext(p, link.widgetContext);
                          return p;
                        },
                        [](const ViewFocus& link) -> std::optional<URLParameters> {
                          URLParameters p;
                          if (link.tag) {
                            p["tagId"] = link.tag->isAll() ? std::string(kAllTags) : *link.tag->id();
                            p["dateRange"] = rangeWord(link.dateRange);
                          }
                          addContext(p, link.widgetContext);
                          return p;
                        },
                        [](const StartFocus& link) -> std::optional<URLParameters> {
                          URLParameters p;
                          if (link.tagId) p["tagId"] = *link.tagId;
                          addContext(p, link.widgetContext);
                          return p;
                        },
                        [](const StartFocusPopup& link) -> std::optional<URLParameters> {
                          URLParameters p{{"focusType", std::string(widgets::rawValue(link.focusType))}};
                          addContext(p, link.widgetContext);
                          return p;
                        },
                        [](const CurrentFocus& link) -> std::optional<URLParameters> {
                          return URLParameters{{"action", std::string(rawValue(link.action))}};
                        },
                        [](const ShareFocus& link) -> std::optional<URLParameters> {
                          URLParameters p{{"progress", formatDouble(link.progress)}, {"goal", formatDouble(link.goal)}};
                          if (link.focusID) p["focusID"] = *link.focusID;
                          if (link.activityID) p["activityID"] = *link.activityID;
                          return p;
                        },
                    },
                    value_);
}

std::string URLScheme::text() const {
  std::string text = std::string(kPrefix) + std::string(action());
  const auto pairs = parameters();
  if (!pairs || pairs->empty()) return text;
  char separator = '?';
  for (const auto& [key, value] : *pairs) {
    text += separator + key + '=' + value;
    separator = '&';
  }
  return text;
}

bool URLScheme::isSafeValue(std::string_view value) {
  return std::all_of(value.begin(), value.end(), [](char c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
           std::string_view("-._~!$'()*+,;:@/").find(c) != std::string_view::npos;
  });
}

URL URLScheme::url() const {
  const std::string joined = text();
  const auto pairs = parameters();
  const bool safe =
      !pairs || std::all_of(pairs->begin(), pairs->end(), [](const auto& pair) { return isSafeValue(pair.second); });
  auto parsed = URL::parse(joined);
  if (!safe || !parsed) fatalError("A deep link holds text that is not URL-safe: " + joined);
  return std::move(*parsed);
}

std::optional<URLScheme> URLScheme::fromURL(const URL& url) {
  if (url.scheme() != scheme || url.host() != kHost) return std::nullopt;
  const std::string path = url.path();
  if (!path.starts_with('/')) return std::nullopt;
  URLParameters pairs;
  // The first of a repeated key wins, as a reader of query items would take it.
  for (auto& [key, value] : url.queryItems()) pairs.emplace(std::move(key), std::move(value));
  auto value = readCase(std::string_view(path).substr(1), pairs);
  if (!value) return std::nullopt;
  return URLScheme(std::move(*value));
}

}  // namespace tarnwell

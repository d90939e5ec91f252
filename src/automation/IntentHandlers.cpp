#include "tarnwell/automation/IntentHandlers.h"

#include <cmath>
#include <mutex>

#include "tarnwell/platform/Environment.h"
#include "tarnwell/platform/FatalError.h"
#include "tarnwell/platform/Localization.h"
#include "tarnwell/widgets/WidgetDatabase.h"

namespace tarnwell {
namespace {

constexpr std::string_view kTotalTag = "total";

template <class Response>
Response continueInApp(std::string_view activityType, std::optional<UserInfo> userInfo = std::nullopt) {
  NSUserActivity activity{std::string(activityType)};
  if (userInfo) activity.addUserInfoEntries(*userInfo);
  return Response(INIntentResponseCode::continueInApp, std::move(activity));
}

// "[W]" and the localized weekly suffix, and so on; stops for another range.
std::pair<std::string, std::string> rangeWords(DateRange range) {
  switch (range) {
    case DateRange::unknown:
      return {"[U]", "Unknown"};
    case DateRange::weekly:
      return {"[W]", localized("WidgetDateRange.Weekly.Suffix")};
    case DateRange::monthly:
      // "Data", not "Date": the key as the texts have it.
      return {"[M]", localized("WidgetDataRange.Monthly.Suffix")};
  }
  fatalError("Unexpected enumeration value of DateRange: " + std::to_string(static_cast<int>(range)));
}

// The option of a period: the id and name inside, the period around them.
template <class Ranged>
Ranged ranged(const INObject& item, DateRange range, const char* nameKey, const char* idKey) {
  if (Environment::platformVersion() < 13) return Ranged(item.identifier, item.displayString);
  const auto [prefix, suffix] = rangeWords(range);
  Ranged option(item.identifier ? std::optional(prefix + *item.identifier) : std::nullopt, item.displayString + suffix);
  option.properties["dateRange"] = static_cast<std::int64_t>(range);
  option.properties[nameKey] = item.displayString;
  if (item.identifier) option.properties[idKey] = *item.identifier;
  return option;
}

// The tags offered to shortcuts and widget sheets, as objects of `Option`;
// nothing before the app published them.
template <class Option>
std::optional<std::vector<Option>> intentTags() {
  const auto tags = widgets::IntentDatabase::tags();
  if (!tags) return std::nullopt;
  std::vector<Option> options;
  for (const auto& tag : *tags) options.emplace_back(tag.id, tag.title);
  return options;
}

// A raw value given that names no case of the enumeration.
template <class Enumeration>
bool namesNoCase(const INIntent& intent, std::string_view parameter) {
  const auto raw = intent.integer(parameter);
  return raw && !fromRawValue<Enumeration>(*raw);
}

// A number given that is no intent duration.
bool isBadDuration(const std::optional<double>& seconds) { return seconds && !isIntentDuration(*seconds); }

// Resolves an optional enumeration parameter: success when set, else not
// required; unsupported for a raw value that names no case.
template <class Enumeration, class Result>
INResolutionResult resolveOptional(const INIntent& intent, std::string_view parameter, Enumeration value) {
  if (namesNoCase<Enumeration>(intent, parameter)) return INResolutionResult::unsupported();
  if (value == Enumeration::unknown) return INResolutionResult::notRequired();
  return Result::success(value);
}

FocusWidgetTag totalTag() { return FocusWidgetTag(std::string(kTotalTag), localized("Focus.Tag.All")); }

// The focus widgets' tags, "total" first when asked. (The sheets' search
// term is never passed by these handlers, so none is taken.)
std::optional<std::vector<FocusWidgetTag>> focusTagOptions(bool withTotal) {
  auto tags = intentTags<FocusWidgetTag>();
  if (!tags) return std::nullopt;
  if (withTotal) tags->insert(tags->begin(), totalTag());
  return tags;
}

void provideIntentTags(
    const std::function<void(std::optional<std::vector<IntentTag>>, std::exception_ptr)>& completion) {
  completion(intentTags<IntentTag>().value_or(std::vector<IntentTag>{}), nullptr);
}

void provideIntentTagCollection(const CollectionCompletion& completion) {
  const auto tags = intentTags<IntentTag>();
  completion(INObjectCollection(tags.value_or(std::vector<IntentTag>{})), nullptr);
}

INResolutionResult resolveTagOf(const std::optional<IntentTag>& tag, bool required) {
  if (tag) return IntentTagResolutionResult::success(*tag);
  return required ? INResolutionResult::needsValue() : INResolutionResult::notRequired();
}

std::vector<LSFocusTag> lockScreenTags() {
  std::vector<LSFocusTag> tags;
  for (const auto& tag : widgets::WidgetDatabase::tags()) {
    if (!tag.isDefault) tags.emplace_back(tag.id, tag.title);
  }
  return tags;
}

struct LockScreenState {
  std::mutex mutex;
  std::optional<LSFocusTag> allFocusSummaryTag;
};

}  // namespace

// --- Date-ranged options ---

ScreenTimeWidgetDataTypeWithDateRange withDateRange(const ScreenTimeWidgetDataType& item, DateRange range) {
  return ranged<ScreenTimeWidgetDataTypeWithDateRange>(item, range, "dataName", "dataID");
}

FocusWidgetTagWithDateRange withDateRange(const FocusWidgetTag& tag, DateRange range) {
  return ranged<FocusWidgetTagWithDateRange>(tag, range, "tagName", "tagID");
}

ScreenTimeWidgetDataType dataType(const ScreenTimeWidgetDataTypeWithDateRange& item) {
  if (Environment::platformVersion() >= 14)
    return ScreenTimeWidgetDataType(item.dataID(), item.dataName().value_or(item.displayString));
  return ScreenTimeWidgetDataType(item.identifier, item.displayString);
}

// --- Shortcuts ---

bool isIntentDuration(double seconds) { return seconds >= 0 && seconds <= kLongestIntentDuration; }

UserInfo toUserActivityInfo(const StartToFocusIntent& intent) {
  UserInfo info;
  if (const auto tag = intent.tag(); tag && tag->identifier) info["tagId"] = *tag->identifier;
  if (intent.focusMode() != IntentFocusMode::unknown)
    info["focusMode"] = std::int64_t{static_cast<int>(intent.focusMode())};
  if (intent.focusType() != IntentFocusType::unknown)
    info["focusType"] = std::int64_t{static_cast<int>(intent.focusType())};
  // A duration of 0 means none was set.
  if (const auto duration = intent.duration();
      Environment::platformVersion() >= 13 && duration && *duration != 0 && isIntentDuration(*duration)) {
    info["duration"] = *duration;
  }
  if (intent.whiteNoise() != IntentWhiteNoise::unknown) {
    info["whiteNoise"] = std::int64_t{static_cast<int>(intent.whiteNoise())};
  }
  return info;
}

std::optional<UserInfo> toUserActivityInfo(const AddFocusRecordIntent& intent) {
  const auto tag = intent.tag();
  if (!tag || !tag->identifier) return std::nullopt;
  if (Environment::platformVersion() < 13) return UserInfo{{"tagId", *tag->identifier}};
  const auto start = intent.start();
  if (!start || !start->date) return std::nullopt;
  Date end;
  switch (intent.recordType()) {
    case IntentRecordType::end: {
      const auto given = intent.end();
      if (!given || !given->date) return std::nullopt;
      end = *given->date;
      break;
    }
    case IntentRecordType::duration: {
      const auto durating = intent.durating();
      if (!durating || !isIntentDuration(*durating)) return std::nullopt;
      // Whole seconds, as the calendar adds them.
      end = *start->date + static_cast<double>(static_cast<std::int64_t>(*durating));
      break;
    }
    case IntentRecordType::unknown:
      return std::nullopt;
  }
  return UserInfo{{"tagId", *tag->identifier}, {"start", *start->date}, {"end", end}};
}

void StartToFocusIntentHandler::resolveTag(const StartToFocusIntent& intent,
                                           const ResolutionCompletion& completion) const {
  completion(resolveTagOf(intent.tag(), false));
}
void StartToFocusIntentHandler::resolveFocusType(const StartToFocusIntent& intent,
                                                 const ResolutionCompletion& completion) const {
  completion(
      resolveOptional<IntentFocusType, IntentFocusTypeResolutionResult>(intent, "focusType", intent.focusType()));
}
void StartToFocusIntentHandler::resolveFocusMode(const StartToFocusIntent& intent,
                                                 const ResolutionCompletion& completion) const {
  completion(
      resolveOptional<IntentFocusMode, IntentFocusModeResolutionResult>(intent, "focusMode", intent.focusMode()));
}
void StartToFocusIntentHandler::resolveWhiteNoise(const StartToFocusIntent& intent,
                                                  const ResolutionCompletion& completion) const {
  completion(
      resolveOptional<IntentWhiteNoise, IntentWhiteNoiseResolutionResult>(intent, "whiteNoise", intent.whiteNoise()));
}
void StartToFocusIntentHandler::resolveDuration(const StartToFocusIntent& intent,
                                                const ResolutionCompletion& completion) const {
  const auto duration = intent.duration();
  if (isBadDuration(duration)) return completion(INResolutionResult::unsupported());
  completion(duration ? INResolutionResult::success(*duration) : INResolutionResult::notRequired());
}
void StartToFocusIntentHandler::provideTagOptions(
    const StartToFocusIntent&,
    const std::function<void(std::optional<std::vector<IntentTag>>, std::exception_ptr)>& completion) const {
  provideIntentTags(completion);
}
void StartToFocusIntentHandler::provideTagOptionsCollection(const StartToFocusIntent&,
                                                            const CollectionCompletion& completion) const {
  provideIntentTagCollection(completion);
}
void StartToFocusIntentHandler::handle(const StartToFocusIntent& intent,
                                       const std::function<void(StartToFocusIntentResponse)>& completion) const {
  if (namesNoCase<IntentFocusType>(intent, "focusType") || namesNoCase<IntentFocusMode>(intent, "focusMode") ||
      namesNoCase<IntentWhiteNoise>(intent, "whiteNoise") || isBadDuration(intent.duration())) {
    return completion(StartToFocusIntentResponse(INIntentResponseCode::failure, std::nullopt));
  }
  completion(continueInApp<StartToFocusIntentResponse>(NSUserActivity::startToFocusType, toUserActivityInfo(intent)));
}

void StopFocusingInetntHandler::handle(const StopFocusingIntent&,
                                       const std::function<void(StopFocusingIntentResponse)>& completion) const {
  completion(continueInApp<StopFocusingIntentResponse>(NSUserActivity::stopFocusingType));
}

void AddFocusRecordIntentHandler::resolveStart(const AddFocusRecordIntent& intent,
                                               const ResolutionCompletion& completion) const {
  const auto start = intent.start();
  if (!start || !start->date) return completion(INResolutionResult::needsValue());
  // The present instant itself is accepted.
  if (*start->date > Date::now()) {
    return completion(
        AddFocusRecordStartResolutionResult::unsupported(AddFocusRecordStartUnsupportedReason::startInTheFuture));
  }
  completion(INResolutionResult::success(*start));
}
void AddFocusRecordIntentHandler::resolveEnd(const AddFocusRecordIntent& intent,
                                             const ResolutionCompletion& completion) const {
  const auto end = intent.end();
  if (!end || !end->date) return completion(INResolutionResult::needsValue());
  const auto start = intent.start();
  if (!start || !start->date || !(*end->date > *start->date)) {
    return completion(
        AddFocusRecordEndResolutionResult::unsupported(AddFocusRecordEndUnsupportedReason::endNotAfterStart));
  }
  completion(INResolutionResult::success(*end));
}
void AddFocusRecordIntentHandler::resolveDurating(const AddFocusRecordIntent& intent,
                                                  const ResolutionCompletion& completion) const {
  const auto durating = intent.durating();
  if (isBadDuration(durating)) return completion(INResolutionResult::unsupported());
  completion(durating ? INResolutionResult::success(*durating) : INResolutionResult::needsValue());
}
void AddFocusRecordIntentHandler::resolveTag(const AddFocusRecordIntent& intent,
                                             const ResolutionCompletion& completion) const {
  completion(resolveTagOf(intent.tag(), true));
}
void AddFocusRecordIntentHandler::resolveRecordType(const AddFocusRecordIntent& intent,
                                                    const ResolutionCompletion& completion) const {
  const auto type = intent.recordType();
  if (namesNoCase<IntentRecordType>(intent, "recordType")) return completion(INResolutionResult::unsupported());
  completion(type == IntentRecordType::unknown ? INResolutionResult::needsValue()
                                               : IntentRecordTypeResolutionResult::success(type));
}
void AddFocusRecordIntentHandler::provideTagOptions(
    const AddFocusRecordIntent&,
    const std::function<void(std::optional<std::vector<IntentTag>>, std::exception_ptr)>& completion) const {
  provideIntentTags(completion);
}
void AddFocusRecordIntentHandler::provideTagOptionsCollection(const AddFocusRecordIntent&,
                                                              const CollectionCompletion& completion) const {
  provideIntentTagCollection(completion);
}
void AddFocusRecordIntentHandler::handle(const AddFocusRecordIntent& intent,
                                         const std::function<void(AddFocusRecordIntentResponse)>& completion) const {
  const auto info = toUserActivityInfo(intent);
  if (!info) return completion(AddFocusRecordIntentResponse(INIntentResponseCode::failure, std::nullopt));
  completion(continueInApp<AddFocusRecordIntentResponse>(NSUserActivity::addFocusRecordType, info));
}

void OpenFlipClockIntentHandler::handle(const OpenFlipClockIntent&,
                                        const std::function<void(OpenFlipClockIntentResponse)>& completion) const {
  completion(continueInApp<OpenFlipClockIntentResponse>(NSUserActivity::openFlipClockType));
}

void LullTimeInetntHandler::handle(const LullTimeConfigurationIntent&,
                                   const std::function<void(LullTimeConfigurationIntentResponse)>& completion) const {
  completion(continueInApp<LullTimeConfigurationIntentResponse>(NSUserActivity::lullTime));
}

void IntentsDonaterHandler::handle(const OpenTarnwellIntent&,
                                   const std::function<void(OpenTarnwellIntentResponse)>& completion) const {
  completion(continueInApp<OpenTarnwellIntentResponse>(NSUserActivity::openTarnwell));
}
void IntentsDonaterHandler::handle(
    const FocusSummaryExtraLargeConfigurationIntent& intent,
    const std::function<void(FocusSummaryExtraLargeConfigurationIntentResponse)>& completion) const {
  NSUserActivity activity{std::string(NSUserActivity::viewFocusReportType)};
  activity.setUserInfo({{"dateRange", intent.dateRange()}});
  completion(FocusSummaryExtraLargeConfigurationIntentResponse(INIntentResponseCode::continueInApp, activity));
}

// --- Widget settings ---

const std::vector<ScreenTimeWidgetDataType>& ViewScreenTimeWidgetIntentHandler::allItems() {
  static const auto items = [] {
    std::vector<ScreenTimeWidgetDataType> all;
    for (int raw = 0; raw <= 6; ++raw) all.push_back(getItem(*ScreenTimeDataType::fromRawValue(raw)));
    return all;
  }();
  return items;
}

const std::vector<ScreenTimeWidgetDataType>& ViewScreenTimeWidgetIntentHandler::mainItems() {
  static const std::vector<ScreenTimeWidgetDataType> items = {getItem(ScreenTimeDataType::Case::screenTime),
                                                              getItem(ScreenTimeDataType::Case::pickups)};
  return items;
}

const std::vector<ScreenTimeWidgetDataType>& ViewScreenTimeWidgetIntentHandler::displayItems() {
  static const auto items = [] {
    std::vector<ScreenTimeWidgetDataType> all;
    for (int raw = 2; raw <= 9; ++raw) all.push_back(getItem(*ScreenTimeDataType::fromRawValue(raw)));
    return all;
  }();
  return items;
}

const ScreenTimeWidgetDataType& ViewScreenTimeWidgetIntentHandler::defaultSingleItem() {
  static const ScreenTimeWidgetDataType item = getItem(ScreenTimeDataType::Case::screenTime);
  return item;
}

const ScreenTimeWidgetDataType& ViewScreenTimeWidgetIntentHandler::defaultPickupsItem() {
  static const ScreenTimeWidgetDataType item = getItem(ScreenTimeDataType::Case::pickups);
  return item;
}

ScreenTimeWidgetDataType ViewScreenTimeWidgetIntentHandler::getItem(const ScreenTimeDataType& type) {
  return ScreenTimeWidgetDataType(type.identifier(), type.title().value_or("-"));
}

std::optional<ScreenTimeDataType> ViewScreenTimeWidgetIntentHandler::dataType(const ScreenTimeWidgetDataType& item) {
  return ScreenTimeDataType::fromIdentifier(item.identifier.value_or(""));
}

void ViewScreenTimeWidgetIntentHandler::provideMainItemsOptionsCollection(
    const ViewScreenTimeLargerWidgetIntent&, const CollectionCompletion& completion) const {
  completion(INObjectCollection(allItems()), nullptr);
}
void ViewScreenTimeWidgetIntentHandler::provideMainItemsOptionsCollection(
    const ScreenTimeOfDaysConfigurationIntent&, const CollectionCompletion& completion) const {
  completion(INObjectCollection(allItems()), nullptr);
}
std::vector<ScreenTimeWidgetDataType> ViewScreenTimeWidgetIntentHandler::defaultMainItems(
    const ViewScreenTimeLargerWidgetIntent&) const {
  return displayItems();
}
std::vector<ScreenTimeWidgetDataType> ViewScreenTimeWidgetIntentHandler::defaultMainItems(
    const ScreenTimeOfDaysConfigurationIntent&) const {
  return mainItems();
}
void ViewScreenTimeWidgetIntentHandler::provideChartItemsOptionsCollection(
    const ScreenTimeOfDaysConfigurationIntent&, const CollectionCompletion& completion) const {
  std::vector<ScreenTimeWidgetDataTypeWithDateRange> options;
  for (const auto& item : allItems()) {
    options.push_back(withDateRange(item, DateRange::weekly));
    options.push_back(withDateRange(item, DateRange::monthly));
  }
  completion(INObjectCollection(options), nullptr);
}
std::vector<ScreenTimeWidgetDataTypeWithDateRange> ViewScreenTimeWidgetIntentHandler::defaultChartItems(
    const ScreenTimeOfDaysConfigurationIntent&) const {
  return {withDateRange(defaultSingleItem(), DateRange::weekly),
          withDateRange(defaultPickupsItem(), DateRange::weekly)};
}
void ViewScreenTimeWidgetIntentHandler::handle(
    const ViewScreenTimeLargerWidgetIntent&,
    const std::function<void(ViewScreenTimeLargerWidgetIntentResponse)>& completion) const {
  completion(continueInApp<ViewScreenTimeLargerWidgetIntentResponse>(NSUserActivity::viewScreenTimeType));
}
void ViewScreenTimeWidgetIntentHandler::handle(
    const ScreenTimeOfDaysConfigurationIntent& intent,
    const std::function<void(ScreenTimeOfDaysConfigurationIntentResponse)>& completion) const {
  std::optional<UserInfo> info;
  const auto chartItems = intent.chartItems();
  if (chartItems && !chartItems->empty()) {
    const auto identifier = tarnwell::dataType(chartItems->front()).identifier;
    if (const auto type = ScreenTimeDataType::fromIdentifier(identifier.value_or(""))) {
      info = UserInfo{{"dataType", std::int64_t{type->rawValue()}}};
    }
  }
  completion(
      continueInApp<ScreenTimeOfDaysConfigurationIntentResponse>(NSUserActivity::viewScreenTimeWeeklyDataType, info));
}

void ViewFocusWidgetIntentHandler::provideTagsOptionsCollection(const ViewFocusWidgetIntent&,
                                                                const CollectionCompletion& completion) const {
  const auto tags = focusTagOptions(false);
  completion(tags ? std::optional(INObjectCollection(*tags)) : std::nullopt, nullptr);
}
void ViewFocusWidgetIntentHandler::provideMainTagsOptionsCollection(const FocusTimeOfDaysConfigurationIntent&,
                                                                    const CollectionCompletion& completion) const {
  const auto tags = focusTagOptions(false);
  completion(tags ? std::optional(INObjectCollection(*tags)) : std::nullopt, nullptr);
}
std::optional<std::vector<FocusWidgetTag>> ViewFocusWidgetIntentHandler::defaultTags(
    const ViewFocusWidgetIntent&) const {
  return focusTagOptions(false);
}
std::optional<std::vector<FocusWidgetTag>> ViewFocusWidgetIntentHandler::defaultMainTags(
    const FocusTimeOfDaysConfigurationIntent&) const {
  return focusTagOptions(false);
}
void ViewFocusWidgetIntentHandler::provideChartTagsOptionsCollection(const FocusTimeOfDaysConfigurationIntent&,
                                                                     const CollectionCompletion& completion) const {
  const auto tags = focusTagOptions(true);
  if (!tags) return completion(std::nullopt, nullptr);
  std::vector<FocusWidgetTagWithDateRange> options;
  for (const auto& tag : *tags) {
    options.push_back(withDateRange(tag, DateRange::weekly));
    options.push_back(withDateRange(tag, DateRange::monthly));
  }
  completion(INObjectCollection(options), nullptr);
}
std::vector<FocusWidgetTagWithDateRange> ViewFocusWidgetIntentHandler::defaultChartTags(
    const FocusTimeOfDaysConfigurationIntent&) const {
  return {withDateRange(totalTag(), DateRange::weekly), withDateRange(totalTag(), DateRange::monthly)};
}
void ViewFocusWidgetIntentHandler::handle(
    const FocusTimeOfDaysConfigurationIntent& intent,
    const std::function<void(FocusTimeOfDaysConfigurationIntentResponse)>& completion) const {
  std::optional<UserInfo> info;
  const auto chartTags = intent.chartTags();
  if (chartTags && !chartTags->empty() && chartTags->front().identifier) {
    info = UserInfo{{"tagId", *chartTags->front().identifier}};
  }
  completion(continueInApp<FocusTimeOfDaysConfigurationIntentResponse>(NSUserActivity::viewFocusWeeklyDataType, info));
}
void ViewFocusWidgetIntentHandler::handle(
    const FocusSummaryConfigurationIntent&,
    const std::function<void(FocusSummaryConfigurationIntentResponse)>& completion) const {
  completion(continueInApp<FocusSummaryConfigurationIntentResponse>(NSUserActivity::todayFocus));
}

void LockScreenIntentHandler::provideDataTypeOptionsCollection(const LSScreenTimeDataConfigurationIntent&,
                                                               const CollectionCompletion& completion) const {
  std::vector<LSScreenTimeDataType> options;
  for (const auto& type : ScreenTimeDataType::allCases()) {
    options.emplace_back(type.identifier(), type.title().value_or("-"));
  }
  completion(INObjectCollection(options), nullptr);
}
std::optional<LSScreenTimeDataType> LockScreenIntentHandler::defaultDataType(
    const LSScreenTimeDataConfigurationIntent&) const {
  const auto& first = ScreenTimeDataType::allCases().front();
  return LSScreenTimeDataType(first.identifier(), first.title().value_or("-"));
}
void LockScreenIntentHandler::provideTagOptionsCollection(const LSFocusSpecificTagConfigurationIntent&,
                                                          const CollectionCompletion& completion) const {
  completion(INObjectCollection(lockScreenTags()), nullptr);
}
void LockScreenIntentHandler::provideTagOptionsCollection(const LSFocusSummaryConfigurationIntent&,
                                                          const CollectionCompletion& completion) const {
  auto tags = lockScreenTags();
  tags.insert(tags.begin(), defaultAllFocusSummaryTag());
  completion(INObjectCollection(tags), nullptr);
}
std::optional<LSFocusTag> LockScreenIntentHandler::defaultTag(const LSFocusSpecificTagConfigurationIntent&) const {
  return std::nullopt;
}
std::optional<LSFocusTag> LockScreenIntentHandler::defaultTag(const LSFocusSummaryConfigurationIntent&) const {
  return defaultAllFocusSummaryTag();
}

LSFocusTag LockScreenIntentHandler::defaultAllFocusSummaryTag() {
  auto& state = Environment::current().component<LockScreenState>();
  std::lock_guard lock(state.mutex);
  if (!state.allFocusSummaryTag) {
    state.allFocusSummaryTag = LSFocusTag(std::string("LockScreen.AllFocusSummary"), localized("Focus.Tag.All"));
  }
  return *state.allFocusSummaryTag;
}

void LockScreenIntentHandler::setDefaultAllFocusSummaryTag(LSFocusTag tag) {
  auto& state = Environment::current().component<LockScreenState>();
  std::lock_guard lock(state.mutex);
  state.allFocusSummaryTag = std::move(tag);
}

}  // namespace tarnwell

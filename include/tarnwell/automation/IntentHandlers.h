// The handlers of shortcuts, voice requests and widget settings sheets.
//
// A handler runs in an extension process: it changes nothing and starts
// nothing. It checks parameters, offers options from the tag lists the app
// published (IntentDatabase for intents and widget sheets, WidgetDatabase
// for the lock screen), and answers "continue in app" (2) with an
// NSUserActivity whose userInfo carries the request; the app does the work.
// Every completion is called once, on the caller's thread. Handlers hold no
// state beyond lists built once, and may be called from any thread.

#pragma once

#include <exception>
#include <functional>
#include <optional>
#include <vector>

#include "tarnwell/automation/IntentClasses.h"
#include "tarnwell/charts/ScreenTimeDataType.h"

namespace tarnwell {

using ResolutionCompletion = std::function<void(INResolutionResult)>;
using CollectionCompletion = std::function<void(std::optional<INObjectCollection>, std::exception_ptr)>;

// A chart option that carries a period: "[W]" or "[M]" before the id
// ("[U]" for unknown), the localized period after the name; the old id and
// name kept in dataID/tagID and dataName/tagName. Below platform 13 the
// option keeps its id and name and nothing else. A range other than the
// three cases stops the process.
ScreenTimeWidgetDataTypeWithDateRange withDateRange(const ScreenTimeWidgetDataType& item, DateRange range);
FocusWidgetTagWithDateRange withDateRange(const FocusWidgetTag& tag, DateRange range);
// The metric of a chart option again: dataID and dataName (from platform
// 14), else the identifier and display string.
ScreenTimeWidgetDataType dataType(const ScreenTimeWidgetDataTypeWithDateRange& item);

// The longest duration an intent may carry: a day, as the longest focus. A
// duration that is not a number, is negative or is longer names no focus;
// it is unsupported on resolution and fails the handling, and is never
// converted (a conversion of 1e300 seconds to whole seconds is undefined).
inline constexpr double kLongestIntentDuration = 24 * 3600;
// Whether `seconds` is such a duration: from 0 to kLongestIntentDuration.
bool isIntentDuration(double seconds);

// The dictionary the app reads, or nothing when the intent cannot give one.
// A duration that is no intent duration is left out.
UserInfo toUserActivityInfo(const StartToFocusIntent& intent);
std::optional<UserInfo> toUserActivityInfo(const AddFocusRecordIntent& intent);

class StartToFocusIntentHandler : public StartToFocusIntentHandling {
 public:
  // Every parameter is optional: unset ones are "not required". A raw value
  // that names no case, and a duration that is no intent duration, are
  // unsupported; handling such an intent fails (code 5, no activity).
  void resolveTag(const StartToFocusIntent& intent, const ResolutionCompletion& completion) const;
  void resolveFocusType(const StartToFocusIntent& intent, const ResolutionCompletion& completion) const;
  void resolveFocusMode(const StartToFocusIntent& intent, const ResolutionCompletion& completion) const;
  void resolveDuration(const StartToFocusIntent& intent, const ResolutionCompletion& completion) const;
  void resolveWhiteNoise(const StartToFocusIntent& intent, const ResolutionCompletion& completion) const;
  // The intent list's tags; none, and no error, before the app published it.
  void provideTagOptions(
      const StartToFocusIntent& intent,
      const std::function<void(std::optional<std::vector<IntentTag>>, std::exception_ptr)>& completion) const;
  void provideTagOptionsCollection(const StartToFocusIntent& intent, const CollectionCompletion& completion) const;
  void handle(const StartToFocusIntent& intent,
              const std::function<void(StartToFocusIntentResponse)>& completion) const override;
};

class StopFocusingInetntHandler : public StopFocusingIntentHandling {
 public:
  void handle(const StopFocusingIntent& intent,
              const std::function<void(StopFocusingIntentResponse)>& completion) const override;
};

class AddFocusRecordIntentHandler : public AddFocusRecordIntentHandling {
 public:
  // A missing value stops the shortcut ("needs value"). A start after the
  // clock's now, and an end not after the start, are unsupported (reason 1);
  // so are a durating that is no intent duration and a record type raw
  // value that names no case (reason 0), and handling them fails.
  void resolveStart(const AddFocusRecordIntent& intent, const ResolutionCompletion& completion) const;
  void resolveEnd(const AddFocusRecordIntent& intent, const ResolutionCompletion& completion) const;
  void resolveDurating(const AddFocusRecordIntent& intent, const ResolutionCompletion& completion) const;
  void resolveTag(const AddFocusRecordIntent& intent, const ResolutionCompletion& completion) const;
  void resolveRecordType(const AddFocusRecordIntent& intent, const ResolutionCompletion& completion) const;
  void provideTagOptions(
      const AddFocusRecordIntent& intent,
      const std::function<void(std::optional<std::vector<IntentTag>>, std::exception_ptr)>& completion) const;
  void provideTagOptionsCollection(const AddFocusRecordIntent& intent, const CollectionCompletion& completion) const;
  // Code 5 and no activity when the intent gives no dictionary.
  void handle(const AddFocusRecordIntent& intent,
              const std::function<void(AddFocusRecordIntentResponse)>& completion) const override;
};

class OpenFlipClockIntentHandler : public OpenFlipClockIntentHandling {
 public:
  void handle(const OpenFlipClockIntent& intent,
              const std::function<void(OpenFlipClockIntentResponse)>& completion) const override;
};

class LullTimeInetntHandler : public LullTimeConfigurationIntentHandling {
 public:
  void handle(const LullTimeConfigurationIntent& intent,
              const std::function<void(LullTimeConfigurationIntentResponse)>& completion) const override;
};

class IntentsDonaterHandler : public OpenTarnwellIntentHandling,
                              public FocusSummaryExtraLargeConfigurationIntentHandling {
 public:
  void handle(const OpenTarnwellIntent& intent,
              const std::function<void(OpenTarnwellIntentResponse)>& completion) const override;
  // "dateRange": the intent's date range.
  void handle(const FocusSummaryExtraLargeConfigurationIntent& intent,
              const std::function<void(FocusSummaryExtraLargeConfigurationIntentResponse)>& completion) const override;
};

class ViewScreenTimeWidgetIntentHandler : public ViewScreenTimeLargerWidgetIntentHandling,
                                          public ScreenTimeOfDaysConfigurationIntentHandling {
 public:
  // Metrics 0 to 6, 0 and 1, 2 to 9; screen time; pickups.
  static const std::vector<ScreenTimeWidgetDataType>& allItems();
  static const std::vector<ScreenTimeWidgetDataType>& mainItems();
  static const std::vector<ScreenTimeWidgetDataType>& displayItems();
  static const ScreenTimeWidgetDataType& defaultSingleItem();
  static const ScreenTimeWidgetDataType& defaultPickupsItem();

  // The metric's identifier and title ("-" without one).
  static ScreenTimeWidgetDataType getItem(const ScreenTimeDataType& type);
  // The metric of that identifier; nothing for none.
  static std::optional<ScreenTimeDataType> dataType(const ScreenTimeWidgetDataType& item);

  void provideMainItemsOptionsCollection(const ViewScreenTimeLargerWidgetIntent& intent,
                                         const CollectionCompletion& completion) const;
  void provideMainItemsOptionsCollection(const ScreenTimeOfDaysConfigurationIntent& intent,
                                         const CollectionCompletion& completion) const;
  // The larger widget's main items default to the long list: required.
  std::vector<ScreenTimeWidgetDataType> defaultMainItems(const ViewScreenTimeLargerWidgetIntent& intent) const;
  std::vector<ScreenTimeWidgetDataType> defaultMainItems(const ScreenTimeOfDaysConfigurationIntent& intent) const;
  // Every metric twice: weekly, then monthly.
  void provideChartItemsOptionsCollection(const ScreenTimeOfDaysConfigurationIntent& intent,
                                          const CollectionCompletion& completion) const;
  std::vector<ScreenTimeWidgetDataTypeWithDateRange> defaultChartItems(
      const ScreenTimeOfDaysConfigurationIntent& intent) const;

  void handle(const ViewScreenTimeLargerWidgetIntent& intent,
              const std::function<void(ViewScreenTimeLargerWidgetIntentResponse)>& completion) const override;
  // "dataType": the raw value of the first chart item's metric, if it has one.
  void handle(const ScreenTimeOfDaysConfigurationIntent& intent,
              const std::function<void(ScreenTimeOfDaysConfigurationIntentResponse)>& completion) const override;
};

class ViewFocusWidgetIntentHandler : public FocusTimeOfDaysConfigurationIntentHandling,
                                     public FocusSummaryConfigurationIntentHandling {
 public:
  // The intent list's tags; no collection at all before the app published it.
  void provideTagsOptionsCollection(const ViewFocusWidgetIntent& intent, const CollectionCompletion& completion) const;
  void provideMainTagsOptionsCollection(const FocusTimeOfDaysConfigurationIntent& intent,
                                        const CollectionCompletion& completion) const;
  std::optional<std::vector<FocusWidgetTag>> defaultTags(const ViewFocusWidgetIntent& intent) const;
  std::optional<std::vector<FocusWidgetTag>> defaultMainTags(const FocusTimeOfDaysConfigurationIntent& intent) const;
  // "total" first, then the tags, each weekly then monthly.
  void provideChartTagsOptionsCollection(const FocusTimeOfDaysConfigurationIntent& intent,
                                         const CollectionCompletion& completion) const;
  std::vector<FocusWidgetTagWithDateRange> defaultChartTags(const FocusTimeOfDaysConfigurationIntent& intent) const;

  // "tagId": the first chart tag's identifier, range prefix and all.
  void handle(const FocusTimeOfDaysConfigurationIntent& intent,
              const std::function<void(FocusTimeOfDaysConfigurationIntentResponse)>& completion) const override;
  void handle(const FocusSummaryConfigurationIntent& intent,
              const std::function<void(FocusSummaryConfigurationIntentResponse)>& completion) const override;
};

class LockScreenIntentHandler {
 public:
  // All ten metrics.
  void provideDataTypeOptionsCollection(const LSScreenTimeDataConfigurationIntent& intent,
                                        const CollectionCompletion& completion) const;
  std::optional<LSScreenTimeDataType> defaultDataType(const LSScreenTimeDataConfigurationIntent& intent) const;
  // The widget list without the default tag; for the summary, "all" first.
  void provideTagOptionsCollection(const LSFocusSpecificTagConfigurationIntent& intent,
                                   const CollectionCompletion& completion) const;
  void provideTagOptionsCollection(const LSFocusSummaryConfigurationIntent& intent,
                                   const CollectionCompletion& completion) const;
  std::optional<LSFocusTag> defaultTag(const LSFocusSpecificTagConfigurationIntent& intent) const;
  std::optional<LSFocusTag> defaultTag(const LSFocusSummaryConfigurationIntent& intent) const;

  // "LockScreen.AllFocusSummary", shown as the localized "Focus.Tag.All"
  // unless set otherwise.
  static LSFocusTag defaultAllFocusSummaryTag();
  static void setDefaultAllFocusSummaryTag(LSFocusTag tag);
};

}  // namespace tarnwell

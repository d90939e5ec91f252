// The one declaration of the intent family, as tables of macros.
//
// IntentClasses.h expands them into the typed classes (intents, responses,
// handling protocols, option objects, enumerations and their resolution
// results), and Intents.cpp into the run-time definitions that the host and
// the backing store check against. A new intent, parameter, option class or
// enumeration is one line here.

#pragma once

// INTENT(Class, PARAMETERS), PARAMETERS being P(name, kind, type) for each
// parameter in order; kind is a ParameterKind, type the enumeration or
// option class (empty for the plain kinds).
#define TARNWELL_INTENTS(INTENT, P)                                                                                   \
  INTENT(ViewFocusWidgetIntent, P(theme, integer, ) P(tags, objects, FocusWidgetTag))                                 \
  INTENT(ViewScreenTimeLargerWidgetIntent, P(theme, integer, ) P(mainItems, objects, ScreenTimeWidgetDataType))       \
  INTENT(FocusSummaryConfigurationIntent, P(theme, integer, ) P(content, enumeration, FocusSummaryContent))           \
  INTENT(ScreenTimeOfDaysConfigurationIntent,                                                                         \
         P(theme, integer, ) P(chartItems, objects, ScreenTimeWidgetDataTypeWithDateRange)                            \
             P(mainItems, objects, ScreenTimeWidgetDataType))                                                         \
  INTENT(FocusTimeOfDaysConfigurationIntent,                                                                          \
         P(theme, integer, ) P(chartTags, objects, FocusWidgetTagWithDateRange) P(mainTags, objects, FocusWidgetTag)) \
  INTENT(FocusSummaryExtraLargeConfigurationIntent, P(theme, integer, ) P(dateRange, integer, ))                      \
  INTENT(LullTimeConfigurationIntent, P(theme, integer, ))                                                            \
  INTENT(LSScreenTimeDataConfigurationIntent, P(dataType, object, LSScreenTimeDataType))                              \
  INTENT(LSFocusSpecificTagConfigurationIntent, P(tag, object, LSFocusTag))                                           \
  INTENT(LSFocusSummaryConfigurationIntent, P(tag, object, LSFocusTag))                                               \
  INTENT(LSLullTimeConfigurationIntent, )                                                                             \
  INTENT(StartToFocusIntent, P(tag, object, IntentTag) P(focusType, enumeration, IntentFocusType)                     \
                                 P(focusMode, enumeration, IntentFocusMode) P(duration, number, )                     \
                                     P(whiteNoise, enumeration, IntentWhiteNoise))                                    \
  INTENT(StopFocusingIntent, )                                                                                        \
  INTENT(AddFocusRecordIntent, P(tag, object, IntentTag) P(start, dateComponents, ) P(end, dateComponents, )          \
                                   P(durating, number, ) P(recordType, enumeration, IntentRecordType))                \
  INTENT(OpenFlipClockIntent, )                                                                                       \
  INTENT(OpenTarnwellIntent, )

// OPTION(Class, EXTRAS), EXTRAS being X(name, type) for each extra parameter,
// type std::int64_t or std::string.
#define TARNWELL_OPTION_CLASSES(OPTION, X)                                                                      \
  OPTION(ScreenTimeWidgetDataType, )                                                                            \
  OPTION(FocusWidgetTag, )                                                                                      \
  OPTION(ScreenTimeWidgetDataTypeWithDateRange,                                                                 \
         X(dateRange, std::int64_t) X(dataName, std::string) X(dataID, std::string))                            \
  OPTION(FocusWidgetTagWithDateRange, X(dateRange, std::int64_t) X(tagName, std::string) X(tagID, std::string)) \
  OPTION(IntentTag, )                                                                                           \
  OPTION(LSFocusTag, )                                                                                          \
  OPTION(LSScreenTimeDataType, )

// ENUMERATION(Name, cases...), raw values from 0 ("unknown") in order. The
// intent definitions name only the counts; the words are this library's.
#define TARNWELL_ENUMERATIONS(ENUMERATION)                                                                            \
  ENUMERATION(IntentFocusType, unknown, pomodoro, countdown, addTime)                                                 \
  ENUMERATION(IntentFocusMode, unknown, easy, strict)                                                                 \
  ENUMERATION(IntentWhiteNoise, unknown, rain, forest, ocean, stream, wind, fire, cafe, train, night, birds, thunder, \
              library, fan, brown, white)                                                                             \
  ENUMERATION(IntentRecordType, unknown, end, duration)                                                               \
  ENUMERATION(WidgetTheme, unknown, system, light, dark)                                                              \
  ENUMERATION(WidgetLightDarkTheme, unknown, light, dark, tinted)                                                     \
  ENUMERATION(FocusSummaryContent, unknown, today, week, month)                                                       \
  ENUMERATION(DateRange, unknown, weekly, monthly)                                                                    \
  ENUMERATION(RicherDateRange, unknown, day, week, month, year)

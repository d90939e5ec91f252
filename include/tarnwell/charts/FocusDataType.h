// FocusDataType: the metrics of focus charts: the time of one tag, the time
// of all focuses, and the number of failed focuses.
//
// A chart of a tag reads the tag anew whenever it needs it, from a store
// handle opened on the calling thread: once the tag is deleted the chart has
// no title and no goal, and shows the focuses of every tag rather than going
// empty. Points are the focus time (or failures) of the sessions that start
// in each bucket; a bucket without sessions has no value, which is not 0.

#pragma once

#include <optional>
#include <string>

#include "tarnwell/charts/StatisticsData.h"
#include "tarnwell/records/Tag.h"

namespace tarnwell {

class FocusDataType final : public StatisticsDataType {
 public:
  enum class Kind { tag, focus, failedTimes };

  // The focus time of the tag of that id.
  static FocusDataType tag(std::string id) { return FocusDataType(Kind::tag, std::move(id)); }
  // The focus time of all tags.
  static FocusDataType focus() { return FocusDataType(Kind::focus, std::nullopt); }
  // The number of failed focuses of all tags.
  static FocusDataType failedTimes() { return FocusDataType(Kind::failedTimes, std::nullopt); }

  Kind kind() const { return kind_; }
  // The id of a tag's case; nothing for the other two.
  const std::optional<std::string>& tagId() const { return tagId_; }
  // The tag whose id is "default", the one for sessions without a tag.
  bool isDefaultTag() const { return tagId_ == "default"; }
  // The tag of a tag's case, unless it is gone (or the store does not open).
  std::optional<Tag> tag() const;

  // The tag's id for a tag's case, else "focus" or "failedTimes".
  std::string identifier() const override;
  // "tag" for a tag's case, so that no id reaches the log.
  std::string identifierForLog() const override;
  // A tag's display title; nothing when the tag is gone.
  std::optional<std::string> title() const override;
  std::optional<std::string> description() const override { return std::nullopt; }
  bool canEditSleepSource() const override { return false; }
  bool isEditable() const override { return kind_ == Kind::tag; }
  // The duration of a tag's goal; nothing without tag or goal.
  std::optional<double> dailyBaseline() const override;
  std::optional<double> yearlyBaseline() const override { return std::nullopt; }
  // A limit when a tag's goal is one; a goal otherwise.
  StatisticsBaselineType baselineType() const override;
  StatisticsChartType chartType() const override { return StatisticsChartType::bar; }
  bool showsDailyChart() const override { return true; }
  bool showsTotalValue() const override { return true; }
  // True, although points carry no interval: the chart then falls back to
  // each point's own value and date.
  bool showsDateInterval() const override { return true; }
  std::string minimumDescription() const override;
  bool minimumValueShouldExcludeToday() const override { return true; }
  std::string maximumDescription() const override;
  StatisticsValueType valueType() const override;

  // One point per hour of the day, or per day of the week, month or year
  // (the year's days are collapsed into months by the chart), the future
  // included, all cut from one read of the period.
  std::vector<StatisticsDataPoint> getPoints(Date date, StatisticsDateRange range) const override;

  friend bool operator==(const FocusDataType& a, const FocusDataType& b) {
    return a.kind_ == b.kind_ && a.tagId_ == b.tagId_;
  }

 private:
  FocusDataType(Kind kind, std::optional<std::string> tagId) : kind_(kind), tagId_(std::move(tagId)) {}

  Kind kind_;
  std::optional<std::string> tagId_;
};

}  // namespace tarnwell

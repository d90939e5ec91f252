#include "tarnwell/healthkit/Samples.h"

#include <algorithm>

#include "tarnwell/platform/FatalError.h"

namespace tarnwell {

std::string_view identifier(HKSampleType type) {
  switch (type) {
    case HKSampleType::mindfulSession:
      return "HKCategoryTypeIdentifierMindfulSession";
    case HKSampleType::sleepAnalysis:
      return "HKCategoryTypeIdentifierSleepAnalysis";
    case HKSampleType::stateOfMind:
      return "HKDataTypeStateOfMind";
  }
  fatalError("A sample type outside its enumeration");
}

std::optional<HKSampleType> sampleTypeFromIdentifier(std::string_view text) {
  for (const HKSampleType type :
       {HKSampleType::mindfulSession, HKSampleType::sleepAnalysis, HKSampleType::stateOfMind}) {
    if (identifier(type) == text) return type;
  }
  return std::nullopt;
}

HKSample HKSample::category(HKSampleType type, std::int64_t value, Date start, Date end, HKMetadata metadata) {
  if (type == HKSampleType::stateOfMind) fatalError("A state of mind is not a category sample");
  HKSample sample;
  sample.sampleType = type;
  sample.categoryValue = value;
  sample.startDate = start;
  sample.endDate = end;
  sample.metadata = std::move(metadata);
  return sample;
}

HKSample HKSample::stateOfMindSample(Date date, HKStateOfMind value, HKMetadata metadata) {
  HKSample sample;
  sample.sampleType = HKSampleType::stateOfMind;
  sample.stateOfMind = std::move(value);
  sample.startDate = date;
  sample.endDate = date;
  sample.metadata = std::move(metadata);
  return sample;
}

HKQueryPredicate HKQueryPredicate::forSamples(std::optional<Date> start, std::optional<Date> end) {
  return HKQueryPredicate(DateRange{start, end});
}

HKQueryPredicate HKQueryPredicate::forObjects(std::string metadataKey, std::vector<nlohmann::json> allowedValues) {
  return HKQueryPredicate(MetadataValues{std::move(metadataKey), std::move(allowedValues)});
}

bool HKQueryPredicate::evaluate(const HKSample& sample) const {
  if (const auto* range = std::get_if<DateRange>(&condition_)) {
    // A sample ending exactly where the span starts still overlaps it, as on
    // the platform; one starting exactly at the span's end does not.
    if (range->start && sample.endDate < *range->start) return false;
    if (range->end && !(sample.startDate < *range->end)) return false;
    return true;
  }
  const auto& values = std::get<MetadataValues>(condition_);
  if (!sample.metadata.is_object()) return false;
  const auto found = sample.metadata.find(values.key);
  if (found == sample.metadata.end()) return false;
  return std::find(values.allowedValues.begin(), values.allowedValues.end(), *found) != values.allowedValues.end();
}

}  // namespace tarnwell

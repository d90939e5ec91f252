// A chart model drawn as a person sees it: title and subtitle, both axes,
// bars or a line, the baseline and average lines, and the figures below.
//
// Values in, bytes out: nothing is kept between calls, and a drawing that
// fails throws ChartDrawingError with one line.

#pragma once

#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "tarnwell/charts/StatisticsData.h"

namespace tarnwell::cli {

class ChartDrawingError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// In CSS pixels; a PNG has one pixel for each.
struct ChartSize {
  int width = 720;
  int height = 360;
};

// A standalone SVG document. Its glyphs are outlines, so it carries the
// chart's texts again in <title> and <desc> for readers that need words.
std::string drawChartSVG(const StatisticsData& chart, ChartSize size = {});
std::string drawChartPNG(const StatisticsData& chart, ChartSize size = {});

// The chart's name as its title shows it: the metric's title, or its identifier.
std::string chartTitle(const StatisticsData& chart);

// The figures under the plot, as caption and value: the average, the total
// where the metric adds up, and the extremes that exist.
struct ChartFigure {
  std::string caption, value;
};
std::vector<ChartFigure> chartFigures(const StatisticsData& chart);

// `text` with each byte that is not UTF-8 replaced.
std::string validUTF8(std::string_view text);
// `text` safe as XML or HTML text and inside a quoted attribute.
std::string escapeMarkup(std::string_view text);

}  // namespace tarnwell::cli

#include "ChartDrawing.h"

#include <cairo-svg.h>
#include <cairo.h>
#include <pango/pangocairo.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <memory>
#include <numbers>
#include <optional>
#include <vector>

#include "tarnwell/extensions/Strings.h"
#include "tarnwell/platform/Localization.h"

namespace tarnwell::cli {
namespace {

struct Rgb {
  double r, g, b;
};

// Text is dark on white and every mark a person must find stands out from
// the light grid; text keeps at least 4.5:1 against white.
constexpr Rgb kInk{0.11, 0.12, 0.14};
constexpr Rgb kMuted{0.30, 0.32, 0.36};
constexpr Rgb kGrid{0.88, 0.89, 0.91};
constexpr Rgb kAxis{0.55, 0.57, 0.61};
constexpr Rgb kBar{0.45, 0.60, 0.86};
constexpr Rgb kBarToday{0.11, 0.31, 0.66};
constexpr Rgb kLine{0.11, 0.31, 0.66};
constexpr Rgb kGoal{0.09, 0.45, 0.20};
constexpr Rgb kLimit{0.70, 0.16, 0.12};
constexpr Rgb kAverage{0.30, 0.32, 0.36};

constexpr double kPad = 16;
constexpr double kTitlePx = 17, kSubtitlePx = 13, kAxisPx = 12, kCaptionPx = 12, kValuePx = 14;

struct SurfaceFree {
  void operator()(cairo_surface_t* surface) const { cairo_surface_destroy(surface); }
};
struct ContextFree {
  void operator()(cairo_t* context) const { cairo_destroy(context); }
};
struct ObjectFree {
  void operator()(gpointer object) const { g_object_unref(object); }
};
struct FontFree {
  void operator()(PangoFontDescription* font) const { pango_font_description_free(font); }
};
using Surface = std::unique_ptr<cairo_surface_t, SurfaceFree>;
using Context = std::unique_ptr<cairo_t, ContextFree>;
using FontMap = std::unique_ptr<PangoFontMap, ObjectFree>;
using PangoContextRef = std::unique_ptr<PangoContext, ObjectFree>;
using Layout = std::unique_ptr<PangoLayout, ObjectFree>;
using Font = std::unique_ptr<PangoFontDescription, FontFree>;

void check(cairo_status_t status) {
  if (status != CAIRO_STATUS_SUCCESS) {
    throw ChartDrawingError(std::string("drawing the chart failed: ") + cairo_status_to_string(status));
  }
}

cairo_status_t appendTo(void* closure, const unsigned char* data, unsigned int length) {
  static_cast<std::string*>(closure)->append(reinterpret_cast<const char*>(data), length);
  return CAIRO_STATUS_SUCCESS;
}

enum class Align { left, center, right };

struct Extent {
  double width = 0, height = 0;
};

// Text by pango on one cairo context, measured before it is placed.
class Painter {
 public:
  // A font map of its own rather than pango's default, which lives as long
  // as the thread and keeps every font it ever matched.
  explicit Painter(cairo_t* context)
      : cr_(context),
        fonts_(pango_cairo_font_map_new()),
        pango_(fonts_ ? pango_font_map_create_context(fonts_.get()) : nullptr),
        layout_(pango_ ? pango_layout_new(pango_.get()) : nullptr) {
    if (!layout_) throw ChartDrawingError("drawing the chart failed: no text layout");
    pango_cairo_update_context(cr_, pango_.get());
    // The user's language, not the process's, picks the glyphs a script
    // shares: a Japanese kanji drawn in a Chinese face reads as foreign.
    const std::string language = Environment::current().region().languageCode();
    pango_context_set_language(pango_.get(), pango_language_from_string(language.c_str()));
    pango_layout_context_changed(layout_.get());
  }

  Extent measure(const std::string& text, double px, bool bold = false) {
    prepare(text, px, bold);
    int width = 0, height = 0;
    pango_layout_get_pixel_size(layout_.get(), &width, &height);
    return {static_cast<double>(width), static_cast<double>(height)};
  }

  // `x` is the left edge, the centre or the right edge as `align` says; `y` the top.
  Extent text(const std::string& text, double x, double y, double px, const Rgb& color, Align align = Align::left,
              bool bold = false) {
    const Extent extent = measure(text, px, bold);
    pango_layout_set_alignment(layout_.get(), align == Align::center  ? PANGO_ALIGN_CENTER
                                              : align == Align::right ? PANGO_ALIGN_RIGHT
                                                                      : PANGO_ALIGN_LEFT);
    const double left = align == Align::center ? x - extent.width / 2 : align == Align::right ? x - extent.width : x;
    cairo_set_source_rgb(cr_, color.r, color.g, color.b);
    cairo_move_to(cr_, left, y);
    pango_cairo_show_layout(cr_, layout_.get());
    return extent;
  }

 private:
  void prepare(const std::string& text, double px, bool bold) {
    const Font font(pango_font_description_from_string("DejaVu Sans"));
    pango_font_description_set_absolute_size(font.get(), px * PANGO_SCALE);
    pango_font_description_set_weight(font.get(), bold ? PANGO_WEIGHT_BOLD : PANGO_WEIGHT_NORMAL);
    pango_layout_set_font_description(layout_.get(), font.get());
    pango_layout_set_alignment(layout_.get(), PANGO_ALIGN_LEFT);
    const std::string valid = validUTF8(text);
    pango_layout_set_text(layout_.get(), valid.c_str(), static_cast<int>(valid.size()));
  }

  cairo_t* cr_;
  FontMap fonts_;
  PangoContextRef pango_;
  Layout layout_;
};

void line(cairo_t* cr, double x0, double y0, double x1, double y1, const Rgb& color, double width,
          const std::vector<double>& dashes = {}) {
  cairo_save(cr);
  cairo_set_source_rgb(cr, color.r, color.g, color.b);
  cairo_set_line_width(cr, width);
  cairo_set_dash(cr, dashes.data(), static_cast<int>(dashes.size()), 0);
  cairo_move_to(cr, x0, y0);
  cairo_line_to(cr, x1, y1);
  cairo_stroke(cr);
  cairo_restore(cr);
}

// A line across the plot worth naming: the baseline or the average.
struct Marker {
  double value;
  std::string label;
  Rgb color;
  std::vector<double> dashes;
  double y = 0;
};

// Every how many entries an x label fits without touching its neighbours:
// hours by divisors of the day, days of a month by a few, months each.
std::size_t labelStride(const std::vector<double>& widths, double slot, StatisticsDateRange range) {
  static constexpr std::array<std::size_t, 6> kHours{1, 2, 3, 4, 6, 12};
  static constexpr std::array<std::size_t, 6> kDays{1, 2, 3, 5, 7, 14};
  const double widest = widths.empty() ? 0 : *std::max_element(widths.begin(), widths.end());
  const auto& candidates = range == StatisticsDateRange::day ? kHours : kDays;
  for (const std::size_t stride : candidates) {
    if (static_cast<double>(stride) * slot >= widest + 10) return stride;
  }
  return candidates.back();
}

bool hasData(const StatisticsData& chart) {
  return std::any_of(chart.entries.begin(), chart.entries.end(), [](const auto& entry) { return entry.y; });
}

// The index of the running day among a week's or a month's entries.
std::optional<std::size_t> todayIndex(const StatisticsData& chart) {
  const Date now = Date::now();
  if (chart.range != StatisticsDateRange::week && chart.range != StatisticsDateRange::month) return std::nullopt;
  if (!chart.interval.contains(now)) return std::nullopt;
  const std::string today = getDateString(now);
  for (std::size_t i = 0; i < chart.entries.size(); ++i) {
    if (chart.entries[i].labelString == today) return i;
  }
  return std::nullopt;
}

void draw(cairo_t* cr, const StatisticsData& chart, ChartSize size) {
  const auto& type = *chart.dataType;
  const double width = size.width, height = size.height;
  Painter painter(cr);

  cairo_set_source_rgb(cr, 1, 1, 1);
  cairo_paint(cr);

  // Title and subtitle.
  double top = 12;
  top += painter.text(chartTitle(chart), kPad, top, kTitlePx, kInk, Align::left, true).height + 2;
  top += painter.text(chart.subtitle(), kPad, top, kSubtitlePx, kMuted).height;

  // The figures at the foot: in even columns when each fits its column,
  // otherwise one after the other, wrapping onto a second row.
  const auto footer = chartFigures(chart);
  const double captionHeight = painter.measure("Ag", kCaptionPx).height;
  const double rowHeight = captionHeight + painter.measure("Ag", kValuePx, true).height + 6;
  const double available = width - 2 * kPad, gap = 28;
  std::vector<double> widths;
  for (const auto& figure : footer) {
    widths.push_back(std::max(painter.measure(figure.caption, kCaptionPx).width,
                              painter.measure(figure.value, kValuePx, true).width));
  }
  const double column = available / static_cast<double>(footer.size());
  const bool even = std::all_of(widths.begin(), widths.end(), [&](double w) { return w + gap <= column; });
  std::vector<std::pair<double, int>> places;  // left edge and row of each figure
  for (std::size_t i = 0, row = 0; i < footer.size(); ++i) {
    if (even) {
      places.emplace_back(kPad + column * static_cast<double>(i), 0);
      continue;
    }
    const double x =
        i == 0 || places.back().second != static_cast<int>(row) ? kPad : places.back().first + widths[i - 1] + gap;
    if (x > kPad && x + widths[i] > width - kPad) {
      places.emplace_back(kPad, static_cast<int>(++row));
    } else {
      places.emplace_back(x, static_cast<int>(row));
    }
  }
  const int rows = places.empty() ? 1 : places.back().second + 1;
  const double footerTop = height - 4 - rowHeight * rows;
  for (std::size_t i = 0; i < footer.size(); ++i) {
    const double x = places[i].first, y = footerTop + rowHeight * places[i].second;
    painter.text(footer[i].caption, x, y, kCaptionPx, kMuted);
    painter.text(footer[i].value, x, y + captionHeight, kValuePx, kInk, Align::left, true);
  }

  // The y axis: its labels fix the plot's left edge.
  const int labelCount = std::max(chart.yAxisLabelCount, 2);
  const double step = chart.yAxisGranularity > 0 ? chart.yAxisGranularity : 1;
  const double low = chart.yAxisMinimum;
  const double high = std::max(chart.yAxisMaximum, low + step * (labelCount - 1));
  std::vector<std::string> yLabels;
  double yLabelWidth = 0;
  for (int i = 0; i < labelCount; ++i) {
    yLabels.push_back(type.axisValueFormatter(low + step * i));
    yLabelWidth = std::max(yLabelWidth, painter.measure(yLabels.back(), kAxisPx).width);
  }

  // The markers' labels sit right of the plot, so they never cover a bar:
  // the word above, the value below.
  std::vector<Marker> markers;
  if (chart.baseline) {
    const bool limit = chart.baselineType == StatisticsBaselineType::limit;
    markers.push_back({*chart.baseline,
                       localized(limit ? "Statistics.Chart.Limit" : "Statistics.Chart.Goal") + "\n" +
                           type.valueFormatter(*chart.baseline),
                       limit ? kLimit : kGoal,
                       {7, 4}});
  }
  if (chart.averageLine && hasData(chart)) {
    markers.push_back(
        {*chart.averageLine, chart.averageLabel() + "\n" + type.valueFormatter(*chart.averageLine), kAverage, {2, 3}});
  }
  double markerWidth = 0;
  for (const auto& marker : markers) markerWidth = std::max(markerWidth, painter.measure(marker.label, kAxisPx).width);

  std::size_t xLines = 1;
  for (const auto& entry : chart.entries) {
    xLines = std::max<std::size_t>(
        xLines, 1 + static_cast<std::size_t>(std::count(entry.xAxisString.begin(), entry.xAxisString.end(), '\n')));
  }
  const double axisLineHeight = painter.measure("Ag", kAxisPx).height;
  const double plotLeft = kPad + yLabelWidth + 8;
  const double plotRight = width - kPad - (markerWidth > 0 ? markerWidth + 8 : 0);
  const double plotTop = top + 14 + axisLineHeight / 2;
  const double plotBottom = footerTop - 12 - axisLineHeight * static_cast<double>(xLines) - 6;
  if (plotRight - plotLeft < 40 || plotBottom - plotTop < 40) {
    throw ChartDrawingError("drawing the chart failed: " + std::to_string(size.width) + "x" +
                            std::to_string(size.height) + " leaves no room for the plot");
  }
  const auto yOf = [&](double value) {
    const double clamped = std::clamp(value, low, high);
    return plotBottom - (clamped - low) / (high - low) * (plotBottom - plotTop);
  };

  // Gridlines and y labels; labels thin out if they would crowd.
  const double spacing = (plotBottom - plotTop) / (labelCount - 1);
  const int labelEvery = std::max(1, static_cast<int>(std::ceil((axisLineHeight + 4) / spacing)));
  for (int i = 0; i < labelCount; ++i) {
    const double y = std::round(yOf(low + step * i)) + 0.5;
    line(cr, plotLeft, y, plotRight, y, i == 0 ? kAxis : kGrid, 1);
    if (i % labelEvery == 0) {
      painter.text(yLabels[static_cast<std::size_t>(i)], plotLeft - 8, y - axisLineHeight / 2, kAxisPx, kMuted,
                   Align::right);
    }
  }

  // X labels under the entries' slots.
  const std::size_t count = chart.entries.size();
  const double slot = count ? (plotRight - plotLeft) / static_cast<double>(count) : 0;
  const auto xOf = [&](std::size_t i) { return plotLeft + slot * (static_cast<double>(i) + 0.5); };
  std::vector<double> xWidths;
  for (const auto& entry : chart.entries) xWidths.push_back(painter.measure(entry.xAxisString, kAxisPx).width);
  const std::size_t stride = labelStride(xWidths, slot, chart.range);
  for (std::size_t i = 0; i < count; i += stride) {
    painter.text(chart.entries[i].xAxisString, xOf(i), plotBottom + 6, kAxisPx, kMuted, Align::center);
  }

  // The marks.
  const auto today = todayIndex(chart);
  if (chart.chartType == StatisticsChartType::bar) {
    const double barWidth = std::max(2.0, std::min(slot * 0.62, 44.0));
    for (std::size_t i = 0; i < count; ++i) {
      const auto& y = chart.entries[i].y;
      if (!y) continue;
      const double y0 = yOf(low), y1 = yOf(*y);
      const Rgb& color = today == i ? kBarToday : kBar;
      cairo_set_source_rgb(cr, color.r, color.g, color.b);
      cairo_rectangle(cr, xOf(i) - barWidth / 2, y1, barWidth, y0 - y1);
      cairo_fill(cr);
    }
  } else {
    cairo_save(cr);
    cairo_set_source_rgb(cr, kLine.r, kLine.g, kLine.b);
    cairo_set_line_width(cr, 2.5);
    cairo_set_line_join(cr, CAIRO_LINE_JOIN_ROUND);
    cairo_set_line_cap(cr, CAIRO_LINE_CAP_ROUND);
    // An entry without a value breaks the line: no data is not zero.
    bool drawing = false;
    for (std::size_t i = 0; i < count; ++i) {
      const auto& y = chart.entries[i].y;
      if (!y) {
        drawing = false;
        continue;
      }
      if (drawing) {
        cairo_line_to(cr, xOf(i), yOf(*y));
      } else {
        cairo_move_to(cr, xOf(i), yOf(*y));
      }
      drawing = true;
    }
    cairo_stroke(cr);
    for (std::size_t i = 0; i < count; ++i) {
      if (const auto& y = chart.entries[i].y) {
        cairo_new_sub_path(cr);
        cairo_arc(cr, xOf(i), yOf(*y), today == i ? 4.5 : 3.5, 0, 2 * std::numbers::pi);
      }
    }
    cairo_fill(cr);
    cairo_restore(cr);
  }

  // Baseline and average over the marks; their labels, two lines each, are
  // centred on their lines unless that would make them touch.
  for (auto& marker : markers) {
    marker.y = yOf(marker.value);
    line(cr, plotLeft, marker.y, plotRight + 3, marker.y, marker.color, 1.8, marker.dashes);
  }
  const double labelHeight = 2 * axisLineHeight + 2;
  if (markers.size() == 2 && std::abs(markers[0].y - markers[1].y) < labelHeight) {
    const bool firstAbove = markers[0].y <= markers[1].y;
    const double middle = (markers[0].y + markers[1].y) / 2;
    markers[0].y = middle + (firstAbove ? -1 : 1) * labelHeight / 2;
    markers[1].y = middle + (firstAbove ? 1 : -1) * labelHeight / 2;
  }
  for (const auto& marker : markers) {
    const double y = std::clamp(marker.y - axisLineHeight, plotTop - axisLineHeight, plotBottom - axisLineHeight);
    painter.text(marker.label, plotRight + 6, y, kAxisPx, marker.color);
  }
  check(cairo_status(cr));
}

// The chart in words, for the SVG's <desc>: the axes' labels, the lines and
// the figures, in the order the eye meets them.
std::string describe(const StatisticsData& chart) {
  const auto& type = *chart.dataType;
  const auto oneLine = [](std::string text) {
    std::replace(text.begin(), text.end(), '\n', ' ');
    return text;
  };
  std::string text = chart.subtitle() + ". Y axis:";
  for (int i = 0; i < chart.yAxisLabelCount; ++i) {
    text += (i ? ", " : " ") + type.axisValueFormatter(chart.yAxisMinimum + chart.yAxisGranularity * i);
  }
  text += ". X axis:";
  for (std::size_t i = 0; i < chart.entries.size(); ++i) {
    const auto& entry = chart.entries[i];
    text += (i ? ", " : " ") + oneLine(entry.xAxisString) + " " + entry.yAxisString.value_or("-");
  }
  text += ".";
  if (chart.baseline) {
    text += " " +
            localized(chart.baselineType == StatisticsBaselineType::limit ? "Statistics.Chart.Limit"
                                                                          : "Statistics.Chart.Goal") +
            " " + type.valueFormatter(*chart.baseline) + ".";
  }
  for (const auto& figure : chartFigures(chart)) text += " " + figure.caption + ": " + figure.value + ".";
  return text;
}

// Cairo writes the glyphs as shapes; the words go in after the root's start tag.
std::string withWords(std::string svg, const StatisticsData& chart) {
  const auto root = svg.find("<svg");
  const auto end = root == std::string::npos ? root : svg.find('>', root);
  if (end == std::string::npos) throw ChartDrawingError("drawing the chart failed: the SVG has no root element");
  svg.insert(end + 1, "\n<title>" + escapeMarkup(chartTitle(chart)) + "</title>\n<desc>" +
                          escapeMarkup(describe(chart)) + "</desc>");
  return svg;
}

}  // namespace

std::string validUTF8(std::string_view text) {
  if (g_utf8_validate(text.data(), static_cast<gssize>(text.size()), nullptr)) return std::string(text);
  gchar* valid = g_utf8_make_valid(text.data(), static_cast<gssize>(text.size()));
  std::string out(valid);
  g_free(valid);
  return out;
}

std::string escapeMarkup(std::string_view text) {
  std::string out;
  out.reserve(text.size());
  for (const char c : validUTF8(text)) {
    // Control characters other than white space may not appear in XML at all.
    if (static_cast<unsigned char>(c) < 0x20 && c != '\t' && c != '\n' && c != '\r') continue;
    switch (c) {
      case '&':
        out += "&amp;";
        break;
      case '<':
        out += "&lt;";
        break;
      case '>':
        out += "&gt;";
        break;
      case '"':
        out += "&quot;";
        break;
      case '\'':
        out += "&#39;";
        break;
      default:
        out += c;
    }
  }
  return out;
}

namespace {

// An hourly chart's extremes are hours, but the model names a point by its
// day, which every hour of the chart shares, and captions it as a day. The
// hour of the entry that holds the extreme is shown instead, under the
// caption the metric has for a stretch of time. `last` picks the last entry
// of that value (the maximum's), otherwise the first (the minimum's).
void nameTheHour(const StatisticsData& chart, std::string& description, std::string& label, double value, bool last) {
  if (chart.range != StatisticsDateRange::day) return;
  const StatisticsChartEntry* found = nullptr;
  for (const auto& entry : chart.entries) {
    if (entry.y == value && (last || !found)) found = &entry;
  }
  // A label of its own (the span of a break, say) already tells the time.
  if (!found || label != found->labelString) return;
  label = found->xAxisString;
  for (const auto& [day, time] : {std::pair{"Timeline.TheLongest.Day", "Timeline.TheLongest.Time"},
                                  std::pair{"Timeline.TheShortest.Day", "Timeline.TheShortest.Time"}}) {
    const std::string dayCaption = localized(day);
    if (description.ends_with(dayCaption)) {
      description.replace(description.size() - dayCaption.size(), dayCaption.size(), localized(time));
    }
  }
}

}  // namespace

std::vector<ChartFigure> chartFigures(const StatisticsData& chart) {
  const auto& type = *chart.dataType;
  // Without a value there is no average; the model's 0 would read as
  // midnight on an axis of clock times.
  std::vector<ChartFigure> out{{chart.averageLabel(), hasData(chart) ? type.valueFormatter(chart.averageValue) : "-"}};
  if (type.showsTotalValue()) out.push_back({chart.totalLabel(), type.valueFormatter(chart.totalValue)});
  const auto extreme = [&](std::string description, const std::optional<std::string>& label,
                           const std::optional<double>& value, bool maximum) {
    if (!label || *label == "-" || !value) return;
    std::string named = *label;
    nameTheHour(chart, description, named, *value, maximum);
    out.push_back({description + " · " + named, type.valueFormatter(*value)});
  };
  extreme(chart.maximumDescription(), chart.maximumLabel, chart.maximumValue, true);
  extreme(chart.minimumDescription(), chart.minimumLabel, chart.minimumValue, false);
  return out;
}

std::string chartTitle(const StatisticsData& chart) {
  return chart.dataType->title().value_or(chart.dataType->identifier());
}

std::string drawChartSVG(const StatisticsData& chart, ChartSize size) {
  std::string bytes;
  {
    const Surface surface(cairo_svg_surface_create_for_stream(appendTo, &bytes, size.width, size.height));
    check(cairo_surface_status(surface.get()));
    cairo_svg_surface_set_document_unit(surface.get(), CAIRO_SVG_UNIT_PX);
    {
      const Context context(cairo_create(surface.get()));
      check(cairo_status(context.get()));
      draw(context.get(), chart, size);
    }
    cairo_surface_finish(surface.get());
    check(cairo_surface_status(surface.get()));
  }
  return withWords(std::move(bytes), chart);
}

std::string drawChartPNG(const StatisticsData& chart, ChartSize size) {
  const Surface surface(cairo_image_surface_create(CAIRO_FORMAT_RGB24, size.width, size.height));
  check(cairo_surface_status(surface.get()));
  {
    const Context context(cairo_create(surface.get()));
    check(cairo_status(context.get()));
    draw(context.get(), chart, size);
  }
  std::string bytes;
  check(cairo_surface_write_to_png_stream(surface.get(), appendTo, &bytes));
  return bytes;
}

}  // namespace tarnwell::cli

// Fontconfig (2.14) loses a few bytes while it parses its configuration
// files, once a process, out of reach of any call. Its code has no frame
// pointers, so the leak checker of sanitized builds sees no deeper than the
// library itself: it is told to pass over what was lost inside fontconfig,
// quietly, since a refused command has one line to say. Weak: a program
// that has suppressions of its own (the tests) names fontconfig there.
extern "C" __attribute__((weak)) const char* __lsan_default_suppressions() { return "leak:libfontconfig.so\n"; }
extern "C" __attribute__((weak)) const char* __lsan_default_options() { return "print_suppressions=0"; }

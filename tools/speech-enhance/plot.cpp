#include "plot.h"

#include <algorithm>
#include <vector>

#include "drawing.h"

namespace se_tool {
namespace {

using namespace wide_page;

// Pixels.
constexpr int kHeight = 1090;
constexpr double kSpectrumHeight = 330;
constexpr double kLevelHeight = 170;
constexpr double kGap = 48;
constexpr double kOutputTop = kTop + kSpectrumHeight + kGap;
constexpr double kLevelTop = kOutputTop + kSpectrumHeight + kGap;

constexpr double kSpectrumRangeDb = 80;
constexpr double kLevelRangeDb = 80;
constexpr Ink kInputInk = {0.62, 0.64, 0.67};
constexpr Ink kOutputInk = {0.60, 0.12, 0.42};

float highest(const std::vector<float>& left, const std::vector<float>& right) {
  return std::max(*std::max_element(left.begin(), left.end()),
                  *std::max_element(right.begin(), right.end()));
}

// One point per column; the area below it filled, so that a quiet signal reads as little ink.
void draw_level(const Pen& pen, const Box& box, const SpectrumPicture& picture, const Range& range,
                const Ink& ink, double fill_opacity) {
  cairo_t* cr = pen.context();
  const double step = box.width / static_cast<double>(picture.columns);
  const auto y_of = [&](float level) { return box.bottom() - range.place(level) * box.height; };
  cairo_save(cr);
  cairo_rectangle(cr, box.left, box.top, box.width, box.height);
  cairo_clip(cr);
  cairo_new_path(cr);
  cairo_move_to(cr, box.left, y_of(picture.level_db.front()));
  for (std::size_t i = 0; i < picture.columns; ++i) {
    cairo_line_to(cr, box.left + (static_cast<double>(i) + 0.5) * step, y_of(picture.level_db[i]));
  }
  cairo_line_to(cr, box.right(), y_of(picture.level_db.back()));
  pen.ink(ink);
  cairo_set_line_width(cr, 1.4);
  cairo_stroke_preserve(cr);
  cairo_line_to(cr, box.right(), box.bottom());
  cairo_line_to(cr, box.left, box.bottom());
  cairo_close_path(cr);
  pen.ink(ink, fill_opacity);
  cairo_fill(cr);
  cairo_restore(cr);
}

void draw_legend(const Pen& pen, const Box& box) {
  const double y = box.top - 14;
  const auto entry = [&](double x, const Ink& ink, const char* label) {
    pen.ink(ink);
    cairo_rectangle(pen.context(), x, y - 5, 22, 10);
    cairo_fill(pen.context());
    pen.ink(kText);
    pen.text(x + 30, y, Align::kToRight, label);
  };
  entry(box.right() - 190, kInputInk, "input");
  entry(box.right() - 90, kOutputInk, "output");
}

void draw_levels(const Pen& pen, const Box& box, const SpectrumPicture& input,
                 const SpectrumPicture& output) {
  const Range range = range_below(highest(input.level_db, output.level_db), 20, kLevelRangeDb);
  for (double db = range.low; db <= range.high; db += 20) {
    const double y = box.bottom() - range.place(db) * box.height;
    pen.ink(kFaint);
    pen.line(box.left, y, box.right(), y);
    pen.left_tick(box, y, plain(db));
  }
  draw_level(pen, box, input, range, kInputInk, 0.35);
  draw_level(pen, box, output, range, kOutputInk, 0.25);
  pen.frame(box);
  pen.ink(kText);
  pen.upward_text(box.left - 64, box.top + box.height / 2, "Level (dBFS)");
  draw_legend(pen, box);
}

}  // namespace

std::string draw_plot(const std::string& title, double duration_s, const SpectrumPicture& input,
                      const SpectrumPicture& output) {
  const Page page(kWidth, kHeight, kLeft, title);
  const Pen& pen = page.pen();

  const Box input_box = {kLeft, kTop, kPanelWidth, kSpectrumHeight};
  const Box output_box = {kLeft, kOutputTop, kPanelWidth, kSpectrumHeight};
  const Box level_box = {kLeft, kLevelTop, kPanelWidth, kLevelHeight};
  const Box bar = {kBarLeft, kTop, kBarWidth, output_box.bottom() - kTop};

  const Range range = range_below(highest(input.power_db, output.power_db), 10, kSpectrumRangeDb);
  draw_spectrum(pen, input_box, input, range);
  draw_heading(pen, input_box, "Input");
  draw_spectrum(pen, output_box, output, range);
  draw_heading(pen, output_box, "Output");
  draw_colour_bar(pen, bar, range, "Power per bin (dB of a full-scale sine)");
  draw_levels(pen, level_box, input, output);
  draw_heading(pen, level_box, "Level");
  draw_time_axis(pen, {input_box, output_box, level_box}, duration_s);
  return page.png();
}

}  // namespace se_tool

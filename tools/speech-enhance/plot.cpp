#include "plot.h"

#include <cairo.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <filesystem>
#include <memory>
#include <vector>

#include "colour_map.h"
#include "errors.h"

namespace se_tool {
namespace {

// Pixels.
constexpr int kWidth = 1400;
constexpr int kHeight = 1090;
constexpr double kLeft = 96;
constexpr double kPanelWidth = 1152;
constexpr double kSpectrumHeight = 330;
constexpr double kLevelHeight = 170;
constexpr double kGap = 48;
constexpr double kInputTop = 92;
constexpr double kOutputTop = kInputTop + kSpectrumHeight + kGap;
constexpr double kLevelTop = kOutputTop + kSpectrumHeight + kGap;
constexpr double kBarLeft = kLeft + kPanelWidth + 32;
constexpr double kBarWidth = 22;

constexpr double kTextSize = 15;
constexpr double kTitleSize = 20;
constexpr double kTick = 6;

constexpr double kSpectrumRangeDb = 80;
constexpr double kLevelRangeDb = 80;
constexpr double kTopKhz = 8;

struct Box {
  double left, top, width, height;

  double bottom() const { return top + height; }
  double right() const { return left + width; }
};

struct Ink {
  double red, green, blue;
};
constexpr Ink kText = {0.13, 0.14, 0.16};
constexpr Ink kFaint = {0.88, 0.89, 0.90};
constexpr Ink kFrame = {0.45, 0.46, 0.48};
constexpr Ink kInputInk = {0.62, 0.64, 0.67};
constexpr Ink kOutputInk = {0.60, 0.12, 0.42};

struct DestroySurface {
  void operator()(cairo_surface_t* surface) const { cairo_surface_destroy(surface); }
};
using SurfaceHandle = std::unique_ptr<cairo_surface_t, DestroySurface>;
struct DestroyContext {
  void operator()(cairo_t* context) const { cairo_destroy(context); }
};
using ContextHandle = std::unique_ptr<cairo_t, DestroyContext>;

// On which side of its anchor a text lies.
enum class Align { kToRight, kCentred, kToLeft };

// What the axes have in common: lines on whole pixels, text by its anchor.
class Pen {
 public:
  explicit Pen(cairo_t* context) : cr_(context) { text_size(kTextSize); }

  cairo_t* context() const { return cr_; }

  void ink(const Ink& ink, double opacity = 1) const {
    cairo_set_source_rgba(cr_, ink.red, ink.green, ink.blue, opacity);
  }

  void text_size(double size, bool bold = false) const {
    cairo_select_font_face(cr_, "sans-serif", CAIRO_FONT_SLANT_NORMAL,
                           bold ? CAIRO_FONT_WEIGHT_BOLD : CAIRO_FONT_WEIGHT_NORMAL);
    cairo_set_font_size(cr_, size);
  }

  // `y` is the middle of the text's digits.
  void text(double x, double y, Align align, const std::string& text) const {
    cairo_text_extents_t extents;
    cairo_text_extents(cr_, text.c_str(), &extents);
    cairo_text_extents_t digit;
    cairo_text_extents(cr_, "0", &digit);
    const double shift = align == Align::kToRight ? 0 : align == Align::kCentred ? 0.5 : 1;
    cairo_move_to(cr_, x - shift * extents.x_advance, y + digit.height / 2);
    cairo_show_text(cr_, text.c_str());
  }

  void upward_text(double x, double y, const std::string& words) const {
    cairo_save(cr_);
    cairo_translate(cr_, x, y);
    cairo_rotate(cr_, -std::acos(0.0));
    text(0, 0, Align::kCentred, words);
    cairo_restore(cr_);
  }

  void line(double x0, double y0, double x1, double y1) const {
    cairo_set_line_width(cr_, 1);
    cairo_move_to(cr_, std::floor(x0) + 0.5, std::floor(y0) + 0.5);
    cairo_line_to(cr_, std::floor(x1) + 0.5, std::floor(y1) + 0.5);
    cairo_stroke(cr_);
  }

  void frame(const Box& box) const {
    ink(kFrame);
    line(box.left, box.top, box.right(), box.top);
    line(box.left, box.bottom(), box.right(), box.bottom());
    line(box.left, box.top, box.left, box.bottom());
    line(box.right(), box.top, box.right(), box.bottom());
  }

  // A tick and its label left of the box.
  void left_tick(const Box& box, double y, const std::string& label) const {
    ink(kText);
    line(box.left - kTick, y, box.left, y);
    text(box.left - kTick - 5, y, Align::kToLeft, label);
  }

 private:
  cairo_t* cr_;
};

std::string plain(double value) {
  char text[32];
  std::snprintf(text, sizeof text, "%s%g", value < 0 ? "\u2212" : "", std::abs(value));
  return text;
}

// A range of decibels.
struct Range {
  double low, high;

  double place(double value) const { return std::clamp((value - low) / (high - low), 0.0, 1.0); }
};

// The range of `span` that ends at the next multiple of `step` above `highest`.
Range range_below(double highest, double step, double span) {
  const double top = std::clamp(std::ceil(highest / step) * step, -80.0, 40.0);
  return {top - span, top};
}

float highest(const std::vector<float>& left, const std::vector<float>& right) {
  return std::max(*std::max_element(left.begin(), left.end()),
                  *std::max_element(right.begin(), right.end()));
}

// The picture pixel by pixel: a column is one pixel wide and a bin one high, bin 0 at the bottom.
void draw_spectrum(const Pen& pen, const Box& box, const SpectrumPicture& picture,
                   const Range& range) {
  constexpr int kBins = SpectrumPicture::kBins;
  const int columns = static_cast<int>(picture.columns);
  const SurfaceHandle image(cairo_image_surface_create(CAIRO_FORMAT_RGB24, columns, kBins));
  unsigned char* pixels = cairo_image_surface_get_data(image.get());
  const int stride = cairo_image_surface_get_stride(image.get());
  cairo_surface_flush(image.get());
  for (int bin = 0; bin < kBins; ++bin) {
    auto* row = reinterpret_cast<std::uint32_t*>(pixels + (kBins - 1 - bin) * stride);
    for (int column = 0; column < columns; ++column) {
      const Colour colour = map_colour(
          range.place(picture.at(static_cast<std::size_t>(column), static_cast<std::size_t>(bin))));
      row[column] =
          std::uint32_t{colour.red} << 16 | std::uint32_t{colour.green} << 8 | colour.blue;
    }
  }
  cairo_surface_mark_dirty(image.get());

  cairo_t* cr = pen.context();
  cairo_save(cr);
  cairo_rectangle(cr, box.left, box.top, box.width, box.height);
  cairo_clip(cr);
  cairo_translate(cr, box.left, box.top);
  cairo_scale(cr, box.width / columns, box.height / kBins);
  cairo_set_source_surface(cr, image.get(), 0, 0);
  cairo_pattern_set_extend(cairo_get_source(cr), CAIRO_EXTEND_PAD);
  cairo_pattern_set_filter(cairo_get_source(cr), CAIRO_FILTER_BILINEAR);
  cairo_paint(cr);
  cairo_restore(cr);

  pen.frame(box);
  for (double khz = 0; khz <= kTopKhz; khz += 2) {
    pen.left_tick(box, box.bottom() - khz / kTopKhz * box.height, plain(khz));
  }
  pen.upward_text(box.left - 64, box.top + box.height / 2, "Frequency (kHz)");
}

void draw_colour_bar(const Pen& pen, const Box& box, const Range& range) {
  for (int y = 0; y < static_cast<int>(box.height); ++y) {
    const Colour colour = map_colour(1 - y / box.height);
    pen.ink({colour.red / 255.0, colour.green / 255.0, colour.blue / 255.0});
    cairo_rectangle(pen.context(), box.left, box.top + y, box.width, 1);
    cairo_fill(pen.context());
  }
  pen.frame(box);
  for (double db = range.low; db <= range.high; db += 10) {
    const double y = box.bottom() - range.place(db) * box.height;
    pen.ink(kText);
    pen.line(box.right(), y, box.right() + kTick, y);
    pen.text(box.right() + kTick + 40, y, Align::kToLeft, plain(db));
  }
  pen.upward_text(box.right() + kTick + 58, box.top + box.height / 2,
                  "Power per bin (dB of a full-scale sine)");
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

// The smallest of the steps people count in that leaves at most `ticks` of them.
double time_step(double duration_s, int ticks) {
  for (double unit = 0.001; unit < 1; unit *= 10) {
    for (const double step : {unit, 2 * unit, 5 * unit}) {
      if (duration_s <= ticks * step) return step;
    }
  }
  for (const double step : {1., 2., 5., 10., 15., 30., 60., 120., 300., 600., 900., 1800., 3600.}) {
    if (duration_s <= ticks * step) return step;
  }
  return std::ceil(duration_s / 3600 / ticks) * 3600;
}

std::string time_label(double seconds, bool in_minutes) {
  if (!in_minutes) return plain(seconds);
  const long whole = std::lround(seconds);
  char text[32];
  std::snprintf(text, sizeof text, "%ld:%02ld", whole / 60, whole % 60);
  return text;
}

void draw_time_axis(const Pen& pen, const std::vector<Box>& panels, double duration_s) {
  const bool in_minutes = duration_s > 180;
  const double step = time_step(duration_s, 12);
  const Box& lowest = panels.back();
  for (int i = 0; i * step <= duration_s; ++i) {
    const double x = lowest.left + i * step / duration_s * lowest.width;
    pen.ink(kText);
    for (const Box& panel : panels) pen.line(x, panel.bottom(), x, panel.bottom() + kTick);
    pen.text(x, lowest.bottom() + kTick + 14, Align::kCentred, time_label(i * step, in_minutes));
  }
  pen.text(lowest.left + lowest.width / 2, lowest.bottom() + kTick + 40, Align::kCentred,
           in_minutes ? "Time (min:s)" : "Time (s)");
}

void draw_heading(const Pen& pen, const Box& box, const char* heading) {
  pen.ink(kText);
  pen.text_size(kTextSize, true);
  pen.text(box.left, box.top - 14, Align::kToRight, heading);
  pen.text_size(kTextSize);
}

std::string encode_png(cairo_surface_t* surface) {
  std::string png;
  const auto append = [](void* target, const unsigned char* bytes, unsigned count) {
    static_cast<std::string*>(target)->append(reinterpret_cast<const char*>(bytes), count);
    return CAIRO_STATUS_SUCCESS;
  };
  const cairo_status_t status = cairo_surface_write_to_png_stream(surface, append, &png);
  if (status != CAIRO_STATUS_SUCCESS) {
    throw Error(ExitCode::kInternal,
                std::string("the plot cannot be drawn: ") + cairo_status_to_string(status));
  }
  return png;
}

}  // namespace

std::string draw_plot(const std::string& title, double duration_s, const SpectrumPicture& input,
                      const SpectrumPicture& output) {
  const SurfaceHandle surface(cairo_image_surface_create(CAIRO_FORMAT_RGB24, kWidth, kHeight));
  const ContextHandle context(cairo_create(surface.get()));
  cairo_set_source_rgb(context.get(), 1, 1, 1);
  cairo_paint(context.get());
  const Pen pen(context.get());

  const Box input_box = {kLeft, kInputTop, kPanelWidth, kSpectrumHeight};
  const Box output_box = {kLeft, kOutputTop, kPanelWidth, kSpectrumHeight};
  const Box level_box = {kLeft, kLevelTop, kPanelWidth, kLevelHeight};
  const Box bar = {kBarLeft, kInputTop, kBarWidth, output_box.bottom() - kInputTop};

  pen.ink(kText);
  pen.text_size(kTitleSize, true);
  pen.text(kLeft, 36, Align::kToRight, std::filesystem::path(title).filename().string());
  pen.text_size(kTextSize);

  const Range range = range_below(highest(input.power_db, output.power_db), 10, kSpectrumRangeDb);
  draw_spectrum(pen, input_box, input, range);
  draw_heading(pen, input_box, "Input");
  draw_spectrum(pen, output_box, output, range);
  draw_heading(pen, output_box, "Output");
  draw_colour_bar(pen, bar, range);
  draw_levels(pen, level_box, input, output);
  draw_heading(pen, level_box, "Level");
  draw_time_axis(pen, {input_box, output_box, level_box}, duration_s);
  return encode_png(surface.get());
}

}  // namespace se_tool

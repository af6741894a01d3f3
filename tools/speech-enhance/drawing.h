// What the tool's pictures are drawn with: a page, a pen, panels over one axis of time.
#pragma once

#include <cairo.h>

#include <algorithm>
#include <memory>
#include <string>
#include <vector>

#include "spectrogram.h"

namespace se_tool {

// Pixels.
inline constexpr double kTextSize = 15;
inline constexpr double kTitleSize = 20;

// The wide page: spectra under each other, and right of them what their colours say.
namespace wide_page {
inline constexpr int kWidth = 1400;
inline constexpr double kLeft = 96;
inline constexpr double kTop = 92;
inline constexpr double kPanelWidth = 1152;
inline constexpr double kBarLeft = kLeft + kPanelWidth + 32;
inline constexpr double kBarWidth = 22;
}  // namespace wide_page

struct Box {
  double left, top, width, height;

  double bottom() const { return top + height; }
  double right() const { return left + width; }
};

struct Ink {
  double red, green, blue;
};
inline constexpr Ink kText = {0.13, 0.14, 0.16};
inline constexpr Ink kFaint = {0.88, 0.89, 0.90};
inline constexpr Ink kFrame = {0.45, 0.46, 0.48};

// On which side of its anchor a text lies.
enum class Align { kToRight, kCentred, kToLeft };

// Lines on whole pixels, text by its anchor.
class Pen {
 public:
  explicit Pen(cairo_t* context) : cr_(context) { text_size(kTextSize); }

  cairo_t* context() const { return cr_; }
  void ink(const Ink& colour, double opacity = 1) const;
  void text_size(double size, bool bold = false) const;

  // `y` is the middle of the text's digits.
  void text(double x, double y, Align align, const std::string& words) const;
  void upward_text(double x, double y, const std::string& words) const;

  void line(double x0, double y0, double x1, double y1) const;
  void frame(const Box& box) const;

  // A tick and its label left of the box.
  void left_tick(const Box& box, double y, const std::string& label) const;

 private:
  cairo_t* cr_;
};

// A white page with a title.
class Page {
 public:
  Page(int width, int height, double left, const std::string& title);

  const Pen& pen() const { return pen_; }

  // The finished picture as the bytes of a PNG file.
  std::string png() const;

 private:
  struct Destroy {
    void operator()(cairo_surface_t* surface) const { cairo_surface_destroy(surface); }
    void operator()(cairo_t* context) const { cairo_destroy(context); }
  };

  std::unique_ptr<cairo_surface_t, Destroy> surface_;
  std::unique_ptr<cairo_t, Destroy> context_;
  Pen pen_;
};

// A number as axes show it.
std::string plain(double value);

// A range of decibels.
struct Range {
  double low, high;

  double place(double value) const { return std::clamp((value - low) / (high - low), 0.0, 1.0); }
};

// The range of `span` that ends at the next multiple of `step` above `highest`.
Range range_below(double highest, double step, double span);

void draw_heading(const Pen& pen, const Box& box, const std::string& heading);

// The picture pixel by pixel over 0 to 8 kHz: a column of it is one pixel wide and a bin one high,
// bin 0 at the bottom.
void draw_spectrum(const Pen& pen, const Box& box, const SpectrumPicture& picture,
                   const Range& range);

// What the colours of a spectrum say.
void draw_colour_bar(const Pen& pen, const Box& box, const Range& range, const char* label);

// The one axis of panels of equal width that lie under each other.
void draw_time_axis(const Pen& pen, const std::vector<Box>& panels, double duration_s);

}  // namespace se_tool

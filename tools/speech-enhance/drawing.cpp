#include "drawing.h"

#include <algorithm>
#include <cmath>
#include <filesystem>

#include "colour_map.h"
#include "errors.h"
#include "formatted.h"

namespace se_tool {
namespace {

constexpr double kTick = 6;
constexpr double kTopKhz = 8;

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
  return formatted("%ld:%02ld", whole / 60, whole % 60);
}

}  // namespace

void Pen::ink(const Ink& colour, double opacity) const {
  cairo_set_source_rgba(cr_, colour.red, colour.green, colour.blue, opacity);
}

void Pen::text_size(double size, bool bold) const {
  cairo_select_font_face(cr_, "sans-serif", CAIRO_FONT_SLANT_NORMAL,
                         bold ? CAIRO_FONT_WEIGHT_BOLD : CAIRO_FONT_WEIGHT_NORMAL);
  cairo_set_font_size(cr_, size);
}

void Pen::text(double x, double y, Align align, const std::string& words) const {
  cairo_text_extents_t extents;
  cairo_text_extents(cr_, words.c_str(), &extents);
  cairo_text_extents_t digit;
  cairo_text_extents(cr_, "0", &digit);
  const double shift = align == Align::kToRight ? 0 : align == Align::kCentred ? 0.5 : 1;
  cairo_move_to(cr_, x - shift * extents.x_advance, y + digit.height / 2);
  cairo_show_text(cr_, words.c_str());
}

void Pen::upward_text(double x, double y, const std::string& words) const {
  cairo_save(cr_);
  cairo_translate(cr_, x, y);
  cairo_rotate(cr_, -std::acos(0.0));
  text(0, 0, Align::kCentred, words);
  cairo_restore(cr_);
}

void Pen::line(double x0, double y0, double x1, double y1) const {
  cairo_set_line_width(cr_, 1);
  cairo_move_to(cr_, std::floor(x0) + 0.5, std::floor(y0) + 0.5);
  cairo_line_to(cr_, std::floor(x1) + 0.5, std::floor(y1) + 0.5);
  cairo_stroke(cr_);
}

void Pen::frame(const Box& box) const {
  ink(kFrame);
  line(box.left, box.top, box.right(), box.top);
  line(box.left, box.bottom(), box.right(), box.bottom());
  line(box.left, box.top, box.left, box.bottom());
  line(box.right(), box.top, box.right(), box.bottom());
}

void Pen::left_tick(const Box& box, double y, const std::string& label) const {
  ink(kText);
  line(box.left - kTick, y, box.left, y);
  text(box.left - kTick - 5, y, Align::kToLeft, label);
}

Page::Page(int width, int height, double left, const std::string& title)
    : surface_(cairo_image_surface_create(CAIRO_FORMAT_RGB24, width, height)),
      context_(cairo_create(surface_.get())),
      pen_(context_.get()) {
  cairo_set_source_rgb(context_.get(), 1, 1, 1);
  cairo_paint(context_.get());
  pen_.ink(kText);
  pen_.text_size(kTitleSize, true);
  pen_.text(left, 36, Align::kToRight, std::filesystem::path(title).filename().string());
  pen_.text_size(kTextSize);
}

std::string Page::png() const {
  std::string bytes;
  const auto append = [](void* target, const unsigned char* part, unsigned count) {
    static_cast<std::string*>(target)->append(reinterpret_cast<const char*>(part), count);
    return CAIRO_STATUS_SUCCESS;
  };
  const cairo_status_t status = cairo_surface_write_to_png_stream(surface_.get(), append, &bytes);
  if (status != CAIRO_STATUS_SUCCESS) {
    throw Error(ExitCode::kInternal,
                std::string("the picture cannot be drawn: ") + cairo_status_to_string(status));
  }
  return bytes;
}

std::string plain(double value) {
  return formatted("%s%g", value < 0 ? "\u2212" : "", std::abs(value));
}

Range range_below(double highest, double step, double span) {
  const double top = std::clamp(std::ceil(highest / step) * step, -80.0, 40.0);
  return {top - span, top};
}

void draw_heading(const Pen& pen, const Box& box, const std::string& heading) {
  pen.ink(kText);
  pen.text_size(kTextSize, true);
  pen.text(box.left, box.top - 14, Align::kToRight, heading);
  pen.text_size(kTextSize);
}

void draw_spectrum(const Pen& pen, const Box& box, const SpectrumPicture& picture,
                   const Range& range) {
  constexpr int kBins = SpectrumPicture::kBins;
  const int columns = static_cast<int>(picture.columns);
  const std::unique_ptr<cairo_surface_t, decltype(&cairo_surface_destroy)> image(
      cairo_image_surface_create(CAIRO_FORMAT_RGB24, columns, kBins), cairo_surface_destroy);
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

void draw_colour_bar(const Pen& pen, const Box& box, const Range& range, const char* label) {
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
  pen.upward_text(box.right() + kTick + 58, box.top + box.height / 2, label);
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

}  // namespace se_tool

#include "inspect/stages_picture.h"

#include <algorithm>

#include "drawing.h"

namespace se_tool {
namespace {

using namespace wide_page;

// Pixels.
constexpr double kPanelHeight = 150;
constexpr double kOnlyPanelHeight = 330;
constexpr double kGap = 40;
constexpr double kBottom = 60;

constexpr double kPowerRangeDb = 80;
constexpr Range kGainRange = {-40, 0};

Range power_range(const std::vector<Panel>& panels) {
  float highest = -200;
  for (const Panel& panel : panels) {
    if (panel.is_gain) continue;
    const std::vector<float>& power = panel.picture->power_db;
    highest = std::max(highest, *std::max_element(power.begin(), power.end()));
  }
  return range_below(highest, 10, kPowerRangeDb);
}

}  // namespace

std::string draw_stages(const std::string& title, double duration_s,
                        const std::vector<Panel>& panels) {
  const double height = panels.size() == 1 ? kOnlyPanelHeight : kPanelHeight;
  const auto count = static_cast<double>(panels.size());
  const Page page(kWidth, static_cast<int>(kTop + count * (height + kGap) - kGap + kBottom), kLeft,
                  title);
  const Range powers = power_range(panels);
  std::vector<Box> boxes;
  for (const Panel& panel : panels) {
    const Box box = {kLeft, kTop + static_cast<double>(boxes.size()) * (height + kGap), kPanelWidth,
                     height};
    const Range& range = panel.is_gain ? kGainRange : powers;
    draw_spectrum(page.pen(), box, *panel.picture, range);
    draw_heading(page.pen(), box, panel.heading);
    draw_colour_bar(page.pen(), {kBarLeft, box.top, kBarWidth, height}, range,
                    panel.is_gain ? "Gain (dB)" : "dBFS");
    boxes.push_back(box);
  }
  draw_time_axis(page.pen(), boxes, duration_s);
  return page.png();
}

}  // namespace se_tool

#include "colour_map.h"

#include <algorithm>
#include <cmath>

namespace se_tool {
namespace {

constexpr double kPi = 3.14159265358979323846;

struct LinearRgb {
  double red, green, blue;

  bool is_displayable() const {
    return std::min({red, green, blue}) >= 0 && std::max({red, green, blue}) <= 1;
  }
};

LinearRgb from_oklab(double lightness, double a, double b) {
  const auto cube = [](double x) { return x * x * x; };
  const double l = cube(lightness + 0.3963377774 * a + 0.2158037573 * b);
  const double m = cube(lightness - 0.1055613458 * a - 0.0638541728 * b);
  const double s = cube(lightness - 0.0894841775 * a - 1.2914855480 * b);
  return {4.0767416621 * l - 3.3077115913 * m + 0.2309699292 * s,
          -1.2684380046 * l + 2.6097574011 * m - 0.3413193965 * s,
          -0.0041960863 * l - 0.7034186147 * m + 1.7076147010 * s};
}

// The transfer function of sRGB (IEC 61966-2-1), to 8 bits.
std::uint8_t encode(double linear) {
  const double value =
      linear <= 0.0031308 ? 12.92 * linear : 1.055 * std::pow(linear, 1 / 2.4) - 0.055;
  return static_cast<std::uint8_t>(std::lround(255 * std::clamp(value, 0.0, 1.0)));
}

}  // namespace

Colour map_colour(double value) {
  const double t = std::clamp(value, 0.0, 1.0);
  const double lightness = 0.10 + 0.88 * t;
  const double hue = (280 + 185 * t) * kPi / 180;
  // As colourful as screens can show it, up to a bound that leaves the ends calm.
  double chroma = 0.21 * std::pow(std::sin(kPi * (0.06 + 0.84 * t)), 0.8);
  LinearRgb rgb = from_oklab(lightness, chroma * std::cos(hue), chroma * std::sin(hue));
  while (!rgb.is_displayable() && chroma > 1e-3) {
    chroma *= 0.98;
    rgb = from_oklab(lightness, chroma * std::cos(hue), chroma * std::sin(hue));
  }
  return {encode(rgb.red), encode(rgb.green), encode(rgb.blue)};
}

}  // namespace se_tool

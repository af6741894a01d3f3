// The colours of the spectrograms.
#pragma once

#include <cstdint>

namespace se_tool {

struct Colour {
  std::uint8_t red, green, blue;
};

// From near black (0) through violet, red and orange to light yellow (1); values outside are taken
// as the nearer end. Perceived lightness rises in equal steps, so that equal differences look
// equal, also without colour: lightness, chroma and hue are set in the Oklab space (B. Ottosson, "A
// perceptual color space for image processing", 2020).
Colour map_colour(double value);

}  // namespace se_tool

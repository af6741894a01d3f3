// The picture of a recording before and after.
#pragma once

#include <string>

#include "spectrogram.h"

namespace se_tool {

// A PNG image: the spectrograms of input and output on one scale of colours and their levels, over
// one axis of time.
std::string draw_plot(const std::string& title, double duration_s, const SpectrumPicture& input,
                      const SpectrumPicture& output);

}  // namespace se_tool

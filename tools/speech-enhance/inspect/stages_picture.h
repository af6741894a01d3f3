// Pictures of the engine's stages.
#pragma once

#include <string>
#include <vector>

#include "spectrogram.h"

namespace se_tool {

struct Panel {
  std::string heading;
  const SpectrumPicture* picture;
  bool is_gain = false;  // in dB of gain instead of power
};

// A PNG image of panels under each other over one axis of time; the powers share one scale of
// colours, the gains another.
std::string draw_stages(const std::string& title, double duration_s,
                        const std::vector<Panel>& panels);

}  // namespace se_tool

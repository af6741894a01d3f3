// By how many samples the engine's stages lag its input.
#pragma once

#include "common/geometry.h"
#include "speechenhance/speechenhance.h"

namespace se {

constexpr int kLookAhead = 5;  // frames the denoiser sees beyond the one it shapes

constexpr int kTransformDelay = kFrameLen - SE_BLOCK_LEN;  // analysis and synthesis
constexpr int kDenoiserDelay = kTransformDelay + kLookAhead * SE_BLOCK_LEN;
constexpr int kLimiterDelay = 16;  // beyond that, where it is on

}  // namespace se

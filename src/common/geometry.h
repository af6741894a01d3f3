// The geometry of the engine, which every module shares: 10 ms frames at 16 kHz under transforms of
// 512 points.
#pragma once

namespace se {

constexpr int kFrameLen = 512;               // samples per transform
constexpr int kNumBins = kFrameLen / 2 + 1;  // of a spectrum, 31.25 Hz apart
constexpr int kFrameMs = 10;                 // from one frame to the next

}  // namespace se

// The shape of the denoiser network, written once: the driver, the model format and the training
// helper take every number from here.
#pragma once

#include <cstdint>

#include "common/geometry.h"

namespace se::nn {

constexpr int kBins = kNumBins;
constexpr int kBands = 128;   // per channel
constexpr int kChannels = 3;  // microphone 0, microphone 1, reference
constexpr int kFeatures = kChannels * kBands;
constexpr int kMagnitudes = kChannels * kBins;

// Start bins of the bands: band i spans kBandStart[i] up to kBandStart[i + 1], the last entry only
// closes band 126. Bin 256 (Nyquist) belongs to no band.
constexpr std::int16_t kBandStart[] = {
#include "nn/band_start.def"
};
static_assert(sizeof kBandStart / sizeof kBandStart[0] == kBands);

// Convolution layers. Each spans three frames and lags one, so that the network lags five.
struct ConvShape {
  int in_channels, in_width;
  int out_channels, out_width;
  int kernel_freq, freq_stride, freq_pad;

  constexpr int in_size() const { return in_channels * in_width; }
  constexpr int out_size() const { return out_channels * out_width; }
};
constexpr int kConvLayers = 5;
constexpr int kKernelTime = 3;
constexpr int kPastFrames = kKernelTime - 1;
constexpr int kTimeStride = 1;
constexpr int kTimePad = 1;
constexpr int kGroups = 1;
constexpr ConvShape kConv[kConvLayers] = {
    {kChannels, kBands, 8, 64, 5, 2, 2}, {8, 64, 16, 32, 3, 2, 1},  {16, 32, 32, 16, 3, 2, 1},
    {32, 16, 64, 16, 3, 1, 1},           {64, 16, 16, 16, 3, 1, 1},
};

constexpr int largest_conv_out() {
  int largest = 0;
  for (const ConvShape& shape : kConv) {
    if (shape.out_size() > largest) largest = shape.out_size();
  }
  return largest;
}
constexpr int kMaxConvOut = largest_conv_out();  // values

// GRU layers: two pairs, the first of which sees one half of the frequency axis each.
constexpr int kGruLayers = 4;
constexpr int kGruHidden = 200;
constexpr int kGruInput[kGruLayers] = {128, 128, kGruHidden, kGruHidden};

// The fully connected heads. The model has two; the second alone is computed.
constexpr int kHeads = 2;
constexpr int kHeadInput = 2 * kGruHidden;
constexpr int kUsedHead = 1;

constexpr float kQ10 = 1024.0f;  // scale of convolution inputs
constexpr float kQ11 = 2048.0f;  // scale of GRU and fully connected inputs

}  // namespace se::nn

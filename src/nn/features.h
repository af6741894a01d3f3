// The network's input features: what training and the driver share.
#pragma once

#include "nn/network.h"
#include "speechenhance/types.h"

namespace se::nn {

// Working areas of `features`: kMagnitudes, kFeatures and kFeatures floats.
struct FeatureBuffers {
  float* mag;   // magnitudes, three channels of kBins
  float* band;  // band means, three channels of kBands
  float* feat;  // the result: square roots of the bands, three channels of kBands
};

// Computes the features of one frame from the spectra of its channels, microphone 0, microphone 1
// and the reference, kBins each: `buffers.feat`[c * kBands + i] for channel c.
void features(const zel_lcomplex* const (&spectra)[kChannels], const FeatureBuffers& buffers);

// The opposite way for the network's output: expands kBands band values to kBins gains,
// interpolated between neighbouring bands and divided by the band's width. Bin 256 gets 0.
void expand_bands(const float* bands, float* gain);

}  // namespace se::nn

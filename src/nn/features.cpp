// Band features of the denoiser and the way back from bands to bins.
//
// A bin at the fraction f of its band's width counts with 1 - f for its own band and with f for the
// next one; every share is divided by the width, so that a band's value is a mean and not a sum.
// Bins 0..255 are used, 2 x 3 x 256 fused operations per frame.
#include "nn/features.h"

#include <cmath>

#include "kernels/kernels.h"

namespace se::nn {
namespace {

constexpr bool bands_are_ascending() {
  for (int i = 0; i + 1 < kBands; ++i) {
    const int width = kBandStart[i + 1] - kBandStart[i];
    if (width < 1 || width > kMaxBandWidth) return false;
  }
  return kBandStart[0] == 0 && kBandStart[kBands - 1] == kBins - 1;
}
static_assert(bands_are_ascending());

void pool(const float* mag, float* band) {
  for (int i = 0; i < kBands; ++i) band[i] = 0.0f;
  for (int i = 0; i + 1 < kBands; ++i) {
    const int width = kBandStart[i + 1] - kBandStart[i];
    const float r = kInverseWidth[width];
    const float* const x = mag + kBandStart[i];
    for (int j = 0; j < width; ++j) {
      const float f = static_cast<float>(j) * r;
      band[i + 1] = std::fma(f * x[j], r, band[i + 1]);
      band[i] = std::fma(1.0f - f, x[j] * r, band[i]);
    }
  }
}

}  // namespace

void features(const zel_lcomplex* spec_mics, const zel_lcomplex* spec_ref,
              const FeatureBuffers& buffers) {
  const NnKernels& k = *kernels().nn;
  k.magnitude(spec_mics, 2 * kBins, buffers.mag);
  k.magnitude(spec_ref, kBins, buffers.mag + 2 * kBins);
  for (int c = 0; c < kChannels; ++c) pool(buffers.mag + c * kBins, buffers.band + c * kBands);
  k.compress(buffers.band, kFeatures, buffers.feat);
}

void expand_bands(const float* bands, float* gain) {
  for (int i = 0; i + 1 < kBands; ++i) {
    const int width = kBandStart[i + 1] - kBandStart[i];
    const float r = kInverseWidth[width];
    for (int j = 0; j < width; ++j) {
      const float f = static_cast<float>(j) * r;
      gain[kBandStart[i] + j] = std::fma(bands[i], 1.0f - f, bands[i + 1] * f) * r;
    }
  }
  gain[kBins - 1] = 0.0f;
}

}  // namespace se::nn

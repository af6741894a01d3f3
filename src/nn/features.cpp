// Band features of the denoiser and the way back from bands to bins.
//
// A bin at the fraction f of its band's width counts with 1 - f for its own band and with f for the
// next one; every share is divided by the width, so that a band's value is a mean and not a sum.
// Bins 0..255 are used, 2 x 3 x 256 fused operations per frame.
#include "nn/features.h"

#include "kernels/kernels.h"

namespace se::nn {
namespace {

constexpr int kPooledBins = kBins - 1;

constexpr bool bands_are_ascending() {
  for (int i = 0; i + 1 < kBands; ++i) {
    if (kBandStart[i + 1] <= kBandStart[i]) return false;
  }
  return kBandStart[0] == 0 && kBandStart[kBands - 1] == kPooledBins;
}
static_assert(bands_are_ascending());

struct ShareTables {
  std::uint8_t band[kPooledBins];
  float fraction[kPooledBins];
  float inverse_width[kPooledBins];
};

constexpr ShareTables make_tables() {
  ShareTables tables = {};
  for (int i = 0; i + 1 < kBands; ++i) {
    const int width = kBandStart[i + 1] - kBandStart[i];
    const float r = 1.0f / static_cast<float>(width);
    for (int j = 0; j < width; ++j) {
      const int k = kBandStart[i] + j;
      tables.band[k] = static_cast<std::uint8_t>(i);
      tables.fraction[k] = static_cast<float>(j) * r;
      tables.inverse_width[k] = r;
    }
  }
  return tables;
}

constexpr ShareTables kTables = make_tables();
constexpr BinShares kShares = {kPooledBins, kTables.band, kTables.fraction, kTables.inverse_width};

}  // namespace

void features(const zel_lcomplex* const (&spectra)[kChannels], const FeatureBuffers& buffers) {
  const Kernels& k = kernels();
  for (int c = 0; c < kChannels; ++c) {
    k.spectral->magnitude(spectra[c], kFeatureFloor, buffers.mag + c * kBins, kBins);
  }
  k.nn->pool(kShares, buffers.mag, kBins, buffers.band, kBands);
  k.nn->compress(buffers.band, kFeatures, buffers.feat);
}

void expand_bands(const float* bands, float* gain) {
  kernels().nn->expand(kShares, bands, gain);
  gain[kBins - 1] = 0.0f;
}

}  // namespace se::nn

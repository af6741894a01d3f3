// Twelve-band equaliser on a spectrum of 257 bins.
//
// Every band multiplies a range of bins by a real gain that is linear in the bin number: a shelf
// ramps over eight bins between 1 and its attenuation, a peak is a triangle. Real gains leave the
// phase alone, and overlap-add smooths what circular convolution they cause. The mapping from hertz
// to bins divides by 31, slightly less than the true spacing of 31.25 Hz, so that bands sit up to
// 1 % (two bins at 8 kHz) high. Cost: one multiplication per bin and component within the band and
// one exponential per band.
#include "engine/equaliser.h"

#include <cmath>

#include "common/decibel.h"

namespace se {
namespace {

constexpr int kNumBins = 257;
constexpr int kHzPerBin = 31;
constexpr float kBinPerHz = 0.0322580636f;  // 1/31
constexpr int kRamp = 8;                    // bins over which a shelf falls
constexpr float kRampStep = 0.125f;

void scale(zel_lcomplex& bin, float gain) {
  bin.re *= gain;
  bin.im *= gain;
}

// The corner of a shelf, clamped to -kNumBins..kNumBins so that no setting leaves the integer
// range; a corner that is not a number becomes 0.
int corner_bin(float freq_hz) {
  const float bin = freq_hz * kBinPerHz;
  if (!(bin > -static_cast<float>(kNumBins))) return bin != bin ? 0 : -kNumBins;
  if (bin > static_cast<float>(kNumBins)) return kNumBins;
  return static_cast<int>(bin);
}

// Gain of a shelf at `distance` bins inside its corner: 1 at the corner, `level` from `kRamp` on,
// never above 1.
float shelf_gain(int distance, float level, float step) {
  float gain = level;
  if (distance < kRamp) {
    gain = std::fma(step, static_cast<float>(distance), 1.0f);
    if (gain < level) gain = level;
  }
  return gain > 1.0f ? 1.0f : gain;
}

void apply_low_shelf(zel_lcomplex* spectrum, const ShelfBand& band) {
  const int corner = corner_bin(band.freq_hz);
  if (corner <= kRamp) return;
  const float level = amplitude_from_db(-band.atten_db);
  const float step = -(kRampStep * (1.0f - level));
  for (int j = 0; j <= corner && j < kNumBins; ++j) {
    scale(spectrum[j], shelf_gain(corner - j, level, step));
  }
}

void apply_high_shelf(zel_lcomplex* spectrum, const ShelfBand& band) {
  const int corner = corner_bin(band.freq_hz);
  if (kNumBins - corner <= kRamp) return;
  const float level = amplitude_from_db(-band.atten_db);
  const float step = -(kRampStep * (1.0f - level));
  for (int j = corner < 0 ? 0 : corner; j < kNumBins; ++j) {
    scale(spectrum[j], shelf_gain(j - corner, level, step));
  }
}

// One side of a peak: `count` bins from `first` upwards, of which bin `first + i` lies
// `distance + i * direction` bins from the centre.
void apply_slope(zel_lcomplex* spectrum, int first, int count, int distance, int direction,
                 float level, float step) {
  const int end = count < kNumBins - first ? count : kNumBins - first;
  for (int i = first < 0 ? -first : 0; i < end; ++i) {
    const auto from_centre = static_cast<float>(distance + i * direction);
    scale(spectrum[first + i], std::fma(-from_centre, step, level));
  }
}

void apply_peak(zel_lcomplex* spectrum, const PeakBand& band) {
  const int centre = band.center_hz / kHzPerBin;  // below 2^27, as everything from here on
  const int width = centre / band.q;
  const int rising = width / 2;
  const int falling = width - rising;
  const float level = amplitude_from_db(band.gain_db);
  if (rising > 0) {
    const float step = (level - 1.0f) / static_cast<float>(rising);
    apply_slope(spectrum, centre - rising, rising, rising, -1, level, step);
  }
  if (falling > 0) {
    const float step = (level - 1.0f) / static_cast<float>(falling);
    apply_slope(spectrum, centre, falling, 0, 1, level, step);
  }
}

}  // namespace

void equalise(zel_lcomplex* spectrum, const ShelfBand& low_shelf, const ShelfBand& high_shelf,
              const PeakBand (&peak)[kNumPeakBands]) {
  if (low_shelf.enable != 0) apply_low_shelf(spectrum, low_shelf);
  if (high_shelf.enable != 0) apply_high_shelf(spectrum, high_shelf);
  for (const PeakBand& band : peak) {
    if (band.q != 0) apply_peak(spectrum, band);
  }
}

}  // namespace se

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
#include "common/geometry.h"
#include "engine/setting_ranges.h"
#include "kernels/kernels.h"

namespace se {
namespace {

constexpr float kBinPerHz = 0.0322580636f;  // 1/31
constexpr int kRamp = 8;                    // bins over which a shelf falls
constexpr float kRampStep = 0.125f;

// The corner of a shelf, clamped to -kNumBins..kNumBins so that no setting leaves the integer
// range; a corner that is not a number becomes 0.
int corner_bin(float freq_hz) {
  const float bin = freq_hz * kBinPerHz;
  if (!(bin > -static_cast<float>(kNumBins))) return bin != bin ? 0 : -kNumBins;
  if (bin > static_cast<float>(kNumBins)) return kNumBins;
  return static_cast<int>(bin);
}

// Multiplies `count` bins from `first` upwards, as far as they are bins of the spectrum, by `level`
// plus `step` times the whole number `start + i * direction` for bin first + i. Fused.
void apply_slope(zel_lcomplex* spectrum, int first, int count, int start, int direction, float step,
                 float level) {
  if (first < 0) {
    start -= first * direction;
    count += first;
    first = 0;
  }
  if (first + count > kNumBins) count = kNumBins - first;
  // Far from any audible centre the numbers are no longer exact: then each bin rounds its own.
  constexpr int kExact = 1 << 23;
  const int run = start > -kExact && start < kExact ? count : 1;
  for (int i = 0; i < count; i += run) {
    kernels().spectral->apply_slope(spectrum + first + i, static_cast<float>(start + i * direction),
                                    static_cast<float>(direction), step, level, run);
  }
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

// The ramp of a shelf, bin by bin away from its corner, and the flat part, `flat` to `flat_end`.
// A shelf only takes away: nothing happens at 0 dB or below, or where the setting is not a number.
void apply_shelf(zel_lcomplex* spectrum, float atten_db, int corner, int direction, int flat,
                 int flat_end) {
  if (!(atten_db > 0.0f)) return;
  const float level = amplitude_from_db(-atten_db);
  const float step = -(kRampStep * (1.0f - level));
  for (int distance = 0; distance < kRamp; ++distance) {
    const int bin = corner + distance * direction;
    if (bin < 0 || bin >= kNumBins) continue;
    apply_slope(spectrum, bin, 1, 0, 0, 0.0f, shelf_gain(distance, level, step));
  }
  apply_slope(spectrum, flat, flat_end - flat, 0, 0, 0.0f, shelf_gain(kRamp, level, step));
}

void apply_low_shelf(zel_lcomplex* spectrum, const ShelfBand& band) {
  const int corner = corner_bin(band.freq_hz);
  if (corner <= kRamp) return;
  apply_shelf(spectrum, band.atten_db, corner, -1, 0, corner - kRamp + 1);
}

void apply_high_shelf(zel_lcomplex* spectrum, const ShelfBand& band) {
  const int corner = corner_bin(band.freq_hz);
  if (kNumBins - corner <= kRamp) return;
  apply_shelf(spectrum, band.atten_db, corner, 1, corner + kRamp, kNumBins);
}

void apply_peak(zel_lcomplex* spectrum, const PeakBand& band) {
  const int centre = band.center_hz / kEqualiserHzPerBin;  // below 2^27, as everything from here on
  const int width = centre / band.q;
  const int rising = width / 2;
  const int falling = width - rising;
  const float level = amplitude_from_db(band.gain_db);
  if (rising > 0) {
    const float step = (level - 1.0f) / static_cast<float>(rising);
    apply_slope(spectrum, centre - rising, rising, -rising, 1, step, level);
  }
  if (falling > 0) {
    const float step = (level - 1.0f) / static_cast<float>(falling);
    apply_slope(spectrum, centre, falling, 0, -1, step, level);
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

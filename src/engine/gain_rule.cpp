#include "engine/gain_rule.h"

#include <cstring>

#include "kernels/kernels.h"
#include "nn/denoiser.h"

namespace se {
namespace {

// The delay line's slot of the frame that lies `ago` frames back.
zel_lcomplex* history(const SEInstance& s, int ago) {
  return s.spec_history + ((s.frame_count + kHistoryLen - ago) % kHistoryLen) * kNumBins;
}

void suppress(SEInstance& s, zel_lcomplex* spectrum) {
  float power[kNumBins];
  kernels().spectral->power_spectrum(spectrum, power, kNumBins);
  noise_estimate_process(s.noise_est, power, s.noise_spec);
  noise_suppress_process(s.noise_sup, s.noise_spec, spectrum, s.ns_spec);
  std::memcpy(spectrum, s.ns_spec, kNumBins * sizeof *spectrum);
}

}  // namespace

void reshape_gains(float* gain, float ref_energy) {
  if (static_cast<double>(ref_energy) > kFarEndEnergy) {
    for (int k = 0; k < kNumBins; ++k) {
      const float squared = gain[k] * gain[k];
      gain[k] = static_cast<double>(squared) < kFarEndGate ? 0.0f : squared;
    }
  }
  for (int k = 0; k < kFirstKeptBin; ++k) gain[k] = 0.0f;
  for (int k = kFirstKeptBin; k < kFirstFullBin; ++k) gain[k] *= kLowMakeUp;
  for (int k = kFirstFullBin; k < kNumBins; ++k) gain[k] *= kMakeUp;
}

void apply_gain_rule(SEInstance& s, const float* bands, float ref_energy) {
  zel_lcomplex* const spectrum = s.mic_spec[1];
  std::memcpy(history(s, 0), spectrum, kNumBins * sizeof *spectrum);
  if (bands != nullptr) nn::gains_from_bands(bands, s.nn_gain);
  reshape_gains(s.nn_gain, ref_energy);
  kernels().spectral->apply_gain(history(s, kLookAhead), s.nn_gain, spectrum, kNumBins);
}

void mix_unprocessed(SEInstance& s, bool use_ns) {
  zel_lcomplex* const spectrum = s.mic_spec[1];
  const int first = use_ns ? 0 : kFirstKeptBin;
  kernels().spectral->mix(spectrum + first, history(s, kLookAhead) + first, kMakeUp,
                          use_ns ? s.ns_dry_mix : s.dry_mix, spectrum + first, kNumBins - first);
  if (use_ns) suppress(s, spectrum);
}

}  // namespace se

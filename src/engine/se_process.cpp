// The frame pipeline: 10 ms of two microphones and the reference in, 10 ms of clean voice out.
//
// The output spectrum is the echo-reduced spectrum of microphone 1 of five frames ago, shaped by
// the gain that the denoiser derives with those five frames of look-ahead. Everything per bin runs
// in kernels; the order of steps is fixed here.
#include <cstring>

#include "engine/se_instance.h"
#include "kernels/kernels.h"

namespace {

using se::kHistoryLen;
using se::kNumBins;

constexpr float kMakeUp = 3.0f;          // of the output, on the delayed spectrum
constexpr int kFirstKeptBin = 4;         // bins below (125 Hz) are removed from the denoised path
constexpr int kFirstFullBin = 8;         // bins below get half the make-up gain
constexpr double kFarEndEnergy = 0.01;   // reference energy above which the far end is active
constexpr double kFarEndGainGate = 0.1;  // squared gains below it become 0 while it is

void analyse(SEInstance* s, const float* mic, const float* ref) {
  for (int c = 0; c < 2; ++c) {
    zel_stft_analysis(s->stft_mic[c], mic + SE_BLOCK_LEN * c, s->mic_spec[c]);
    se::kernels().spectral->power_spectrum(s->mic_spec[c], s->mic_pow[c], kNumBins);
  }
  zel_stft_analysis(s->stft_ref, ref, s->ref_spec);
}

bool far_end_active(const SEInstance* s) {
  float power[kNumBins];
  const se::SpectralKernels& kernel = *se::kernels().spectral;
  kernel.power_spectrum(s->ref_spec, power, kNumBins);
  const float energy = power[kNumBins - 1] + kernel.sum(power, kNumBins - 1);
  return static_cast<double>(energy) > kFarEndEnergy;
}

void denoise(SEInstance* s, bool nn_only, bool use_ns) {
  zel_lcomplex mics[2 * kNumBins];
  for (int c = 0; c < 2; ++c) {
    std::memcpy(mics + c * kNumBins, s->mic_spec[c], kNumBins * sizeof *mics);
  }
  nn_process_api(s->nn, mics, s->ref_spec, s->nn_gain, nn_only, use_ns);
}

// Turns the denoiser's gains into those of the output. While the far end is active they are squared
// and gated, which removes the echo that cancellation left.
void shape_gain(float* gain, bool far_end) {
  if (far_end) {
    for (int k = 0; k < kNumBins; ++k) {
      const float squared = gain[k] * gain[k];
      gain[k] = static_cast<double>(squared) < kFarEndGainGate ? 0.0f : squared;
    }
  }
  for (int k = 0; k < kFirstKeptBin; ++k) gain[k] = 0.0f;
  for (int k = kFirstKeptBin; k < kFirstFullBin; ++k) gain[k] *= 0.5f * kMakeUp;
  for (int k = kFirstFullBin; k < kNumBins; ++k) gain[k] *= kMakeUp;
}

// Adds the unprocessed spectrum `dry` to `out` and runs the classical suppressor on the sum.
void mix_and_suppress(SEInstance* s, const zel_lcomplex* dry, zel_lcomplex* out) {
  float power[kNumBins];
  const se::SpectralKernels& kernel = *se::kernels().spectral;
  kernel.mix(out, dry, s->ns_dry_mix, out, kNumBins);
  kernel.power_spectrum(out, power, kNumBins);
  noise_estimate_process(s->noise_est, power, s->noise_spec);
  noise_suppress_process(s->noise_sup, s->noise_spec, out, s->ns_spec);
  std::memcpy(out, s->ns_spec, kNumBins * sizeof *out);
}

}  // namespace

void se_process(SEInstance* s, const float* mic, const float* ref, float* out, bool nn_only,
                bool use_ns) {
  analyse(s, mic, ref);
  aec_process(s->aec, s->mic_spec, s->mic_pow, s->ref_spec);
  const bool far_end = far_end_active(s);
  zel_lcomplex* const spectrum = s->mic_spec[1];

  std::memcpy(s->spec_history + (s->frame_count % kHistoryLen) * kNumBins, spectrum,
              kNumBins * sizeof *spectrum);
  const zel_lcomplex* delayed = s->spec_history + ((s->frame_count + 1) % kHistoryLen) * kNumBins;

  denoise(s, nn_only, use_ns);
  shape_gain(s->nn_gain, far_end);
  se::kernels().spectral->apply_gain(delayed, s->nn_gain, spectrum, kNumBins);

  if (!nn_only) {
    if (use_ns) {
      mix_and_suppress(s, delayed, spectrum);
    } else {
      zel_lcomplex* const kept = spectrum + kFirstKeptBin;
      se::kernels().spectral->mix(kept, delayed + kFirstKeptBin, s->dry_mix, kept,
                                  kNumBins - kFirstKeptBin);
    }
  }
  se::equalise(spectrum, s->low_shelf, s->high_shelf, s->peak);
  zel_stft_synthesis_envelop(s->stft_out, spectrum, out);

  if (s->limiter_enable != 0) {
    limiter_set_max_gain(s->limiter, s->limiter_max_gain);
    limiter_process_float(s->limiter, out, SE_BLOCK_LEN, nn_only, s->limiter_level_db);
  }
  ++s->frame_count;
}

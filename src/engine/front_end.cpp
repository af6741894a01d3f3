#include "engine/front_end.h"

#include "kernels/kernels.h"
#include "nn/denoiser.h"

namespace se {
namespace {

// Asks for the lines of the engine's memory that a frame touches. Where many engines take turns,
// none of them is in a cache when its turn comes: asked for all at once, the lines come in while
// the transforms run, which saves an eighth of a frame's time and more. (Inlined by force: GCC
// drops calls of a function that does nothing else.)
__attribute__((always_inline)) inline void prefetch_state([[maybe_unused]] const SEInstance& s) {
#if defined(__x86_64__)
  constexpr int kLine = 64, kIntoSecondLevel = 2;
  const auto* const end = reinterpret_cast<const char*>(s.spec_history);
  for (auto* at = reinterpret_cast<const char*>(&s); at < end; at += 4 * kLine) {
    __builtin_prefetch(at, 0, kIntoSecondLevel);
    __builtin_prefetch(at + kLine, 0, kIntoSecondLevel);
    __builtin_prefetch(at + 2 * kLine, 0, kIntoSecondLevel);
    __builtin_prefetch(at + 3 * kLine, 0, kIntoSecondLevel);
  }
#endif
}

// Holds the samples to what every state of the engine can take, and leave again.
void analyse(stft_state* stft, const float* samples, zel_lcomplex* spectrum) {
  float limited[SE_BLOCK_LEN];
  kernels().sample->limit(samples, SE_MAX_SAMPLE, limited, SE_BLOCK_LEN);
  zel_stft_analysis(stft, limited, spectrum);
}

void analyse(SEInstance& s, const float* mic, const float* ref) {
  for (int c = 0; c < 2; ++c) {
    analyse(s.stft_mic[c], mic + SE_BLOCK_LEN * c, s.mic_spec[c]);
    kernels().spectral->power_spectrum(s.mic_spec[c], s.mic_pow[c], kNumBins);
  }
  analyse(s.stft_ref, ref, s.ref_spec);
}

float energy(const zel_lcomplex* spectrum) {
  float power[kNumBins];
  kernels().spectral->power_spectrum(spectrum, power, kNumBins);
  return power[kNumBins - 1] + kernels().spectral->sum(power, kNumBins - 1);
}

}  // namespace

FrontEndResult run_front_end(SEInstance& s, const float* mic, const float* ref) {
  prefetch_state(s);
  analyse(s, mic, ref);
  aec_process(s.aec, s.mic_spec, s.mic_pow, s.ref_spec);
  const auto& denoiser = *static_cast<const nn::NNDenoiser*>(s.nn);
  return {energy(s.ref_spec),
          nn::make_features(denoiser, s.mic_spec[0], s.mic_spec[1], s.ref_spec)};
}

}  // namespace se

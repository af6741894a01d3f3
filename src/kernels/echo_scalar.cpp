// Echo subtraction with two filters per bin, in scalar code: the definition of every variant.
//
// Per bin, an adaptive filter A and a stored filter B each predict the echo from the reference row;
// what they leave of the microphone bin are the two residuals. The better residual is the output.
// Smoothed powers of the microphone and of both residuals then decide: a filter that makes things
// much louder has diverged and is cleared; a filter that is clearly better than the other is copied
// over it. A bin whose powers no audio can have starts anew. Last, A takes a normalised LMS step on
// its residual.
#include "kernels/echo_kernels.h"

namespace se {
namespace {

struct SmoothedPowers {
  float mic;
  float adaptive;
  float stored;
};

float power(zel_lcomplex x) {
  return x.re * x.re + x.im * x.im;
}

template <int Taps>
zel_lcomplex residual(zel_lcomplex mic, const zel_lcomplex* ref, const zel_lcomplex* filter) {
  zel_lcomplex sum[Taps];
  for (int t = 0; t < Taps; ++t) {
    sum[t].re = ref[t].re * filter[t].re - ref[t].im * filter[t].im;
    sum[t].im = ref[t].re * filter[t].im + ref[t].im * filter[t].re;
  }
  for (int half = Taps / 2; half > 0; half /= 2) {
    for (int t = 0; t < half; ++t) {
      sum[t].re += sum[t + half].re;
      sum[t].im += sum[t + half].im;
    }
  }
  return {mic.re - sum[0].re, mic.im - sum[0].im};
}

template <int Taps>
void clear(zel_lcomplex* filter) {
  for (int t = 0; t < Taps; ++t) filter[t] = {0.0f, 0.0f};
}

template <int Taps>
void copy(const zel_lcomplex* from, zel_lcomplex* to) {
  for (int t = 0; t < Taps; ++t) to[t] = from[t];
}

template <int Taps>
void adapt(zel_lcomplex err, float ref_energy, const zel_lcomplex* ref, zel_lcomplex* filter) {
  const float gain = kStepSize / (ref_energy + kEnergyFloor);
  const zel_lcomplex step = {gain * err.re, gain * err.im};
  for (int t = 0; t < Taps; ++t) {
    filter[t].re += step.re * ref[t].re + step.im * ref[t].im;
    filter[t].im += step.im * ref[t].re - step.re * ref[t].im;
  }
}

// Not so with NaN.
bool are_of_audio(const SmoothedPowers& s) {
  return (s.mic + s.adaptive) + s.stored <= kBeyondAudio;
}

// Compares the filters of one bin and clears or copies them. Returns the residual from which the
// adaptive filter learns: the microphone itself for one that starts anew.
template <int Taps>
zel_lcomplex choose_filters(SmoothedPowers& s, zel_lcomplex mic, zel_lcomplex err_adaptive,
                            zel_lcomplex err_stored, zel_lcomplex* adaptive, zel_lcomplex* stored) {
  if (!are_of_audio(s)) {
    clear<Taps>(adaptive);
    clear<Taps>(stored);
    s = {0.0f, 0.0f, 0.0f};
    return mic;
  }
  if (s.adaptive > kDiverged * s.mic) {
    clear<Taps>(adaptive);
    s = {0.0f, 0.0f, 0.0f};
    return err_adaptive;
  }
  if (s.mic > kCancels * s.adaptive && s.stored > kClearlyBetter * s.adaptive) {
    copy<Taps>(adaptive, stored);
    s.stored = s.adaptive;
  } else if (s.stored > kDiverged * s.mic) {
    clear<Taps>(stored);
    s = {0.0f, 0.0f, 0.0f};
  } else if (s.mic > kCancels * s.stored && s.adaptive > kClearlyBetter * s.stored) {
    copy<Taps>(stored, adaptive);
    s.adaptive = s.stored;
    return err_stored;
  }
  return err_adaptive;
}

template <int Taps>
void subtract(const EchoBand& band) {
  for (int bin = 0; bin < band.bins; ++bin) {
    const zel_lcomplex* ref = band.ref + bin * Taps;
    zel_lcomplex* adaptive = band.adaptive + bin * Taps;
    zel_lcomplex* stored = band.stored + bin * Taps;
    const zel_lcomplex mic = band.mic[bin];
    const float mic_power = band.mic_power[bin];

    const zel_lcomplex err_adaptive = residual<Taps>(mic, ref, adaptive);
    const zel_lcomplex err_stored = residual<Taps>(mic, ref, stored);
    const float adaptive_power = power(err_adaptive);
    const float stored_power = power(err_stored);

    SmoothedPowers s = {band.mic_smooth[bin], band.err_adaptive[bin], band.err_stored[bin]};
    s.mic += band.smoothing * (mic_power - s.mic);
    s.adaptive += band.smoothing * (adaptive_power - s.adaptive);
    s.stored += band.smoothing * (stored_power - s.stored);

    if (mic_power > adaptive_power || mic_power > stored_power) {
      const bool adaptive_wins = adaptive_power < stored_power;
      band.mic[bin] = adaptive_wins ? err_adaptive : err_stored;
      band.mic_power[bin] = adaptive_wins ? adaptive_power : stored_power;
    }

    const zel_lcomplex err =
        choose_filters<Taps>(s, mic, err_adaptive, err_stored, adaptive, stored);
    if (band.adapt[bin] != 0) adapt<Taps>(err, band.ref_energy[bin], ref, adaptive);

    band.mic_smooth[bin] = s.mic;
    band.err_adaptive[bin] = s.adaptive;
    band.err_stored[bin] = s.stored;
  }
}

constexpr EchoKernels table() {
  EchoKernels k = {};
  k.subtract_8 = subtract<8>;
  k.subtract_4 = subtract<4>;
  k.subtract_2 = subtract<2>;
  return k;
}

}  // namespace

const EchoKernels kScalarEcho = table();

}  // namespace se

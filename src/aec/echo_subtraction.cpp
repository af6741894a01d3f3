// Echo subtraction: two short filters per bin take the loudspeaker's echo out of one microphone.
//
// Method: multi-delay filtering in the short-time Fourier domain with a normalised LMS update
// (J. S. Soo, K. K. Pang, "Multidelay block frequency domain adaptive filter", IEEE Trans. ASSP 38,
// 1990, reduced here to independent bins) and the two-path structure of K. Ochiai, T. Araseki,
// T. Ogihara, "Echo canceler with two echo path models", IEEE Trans. Commun. 25, 1977: one filter
// adapts all the time, a second one keeps a state that was seen to work. During double talk the
// adaptive filter may go astray; the output then comes from the stored one, which no step spoils.
// Unlike Ochiai's, the copy goes both ways, and either filter is cleared when it has diverged. A
// bin with powers that no audio has, NaN among them, is cleared whole, so that it learns anew from
// the first frame whose reference history is ordinary again.
//
// Cost per frame: 874 complex taps, each multiplied into two filters and updated once, and about 30
// operations for the decisions of each of the 254 bins. The kernels hold the loop itself.
//
// Limits: a bin sees only its own reference bin, so the aliasing between the bins of overlapping
// windows bounds the cancellation (about 15 to 25 dB on speech); echoes later than the filter (80,
// 40, 20 ms by band) are left to the denoiser.
#include "aec/echo_bands.h"
#include "aec/echo_subtraction_state.h"
#include "kernels/kernels.h"

namespace {

constexpr float kSmoothingLow = 0.03f;   // about 330 ms
constexpr float kSmoothingHigh = 0.05f;  // mid and high band: about 200 ms

struct Layout {
  echo_subtraction_state* state;
  echo_subtraction_state fields;
};

Layout lay_out(se::MemoryWalk& mem) {
  return {mem.record<echo_subtraction_state>(se::kEchoSubtractionSlot),
          {mem.buffer<zel_lcomplex>(se::kLowBand.row_entries()),
           mem.buffer<zel_lcomplex>(se::kLowBand.row_entries()),
           mem.buffer<zel_lcomplex>(se::kMidBand.row_entries()),
           mem.buffer<zel_lcomplex>(se::kMidBand.row_entries()),
           mem.buffer<zel_lcomplex>(se::kHighBand.row_entries()),
           mem.buffer<zel_lcomplex>(se::kHighBand.row_entries()), mem.buffer<float>(se::kEchoBins),
           mem.buffer<float>(se::kEchoBins), mem.buffer<float>(se::kEchoBins)}};
}

}  // namespace

size_t echo_subtraction_query_mem() {
  return se::measured(lay_out);
}

echo_subtraction_state* echo_subtraction_init(void* mem) {
  se::MemoryWalk walk(mem);
  const Layout layout = lay_out(walk);
  *layout.state = layout.fields;
  return layout.state;
}

void echo_subtraction_process(echo_subtraction_state* state, zel_lcomplex* mic_spectrum,
                              float* mic_power, const zel_lcomplex* ref_history_low,
                              const zel_lcomplex* ref_history_mid,
                              const zel_lcomplex* ref_history_high, const float* ref_energy,
                              const int32_t* adapt_flags) {
  const auto band = [&](const se::EchoBandShape& shape, float smoothing, const zel_lcomplex* ref,
                        zel_lcomplex* adaptive, zel_lcomplex* stored) {
    return se::EchoBand{shape.bins,
                        smoothing,
                        ref,
                        ref_energy + shape.index(),
                        adapt_flags + shape.index(),
                        adaptive,
                        stored,
                        state->err_adaptive_smooth + shape.index(),
                        state->err_stored_smooth + shape.index(),
                        state->mic_smooth + shape.index(),
                        mic_spectrum + shape.first,
                        mic_power + shape.first};
  };
  const se::EchoKernels& kernels = *se::kernels().echo;
  kernels.subtract_8(
      band(se::kLowBand, kSmoothingLow, ref_history_low, state->adaptive_low, state->stored_low));
  kernels.subtract_4(
      band(se::kMidBand, kSmoothingHigh, ref_history_mid, state->adaptive_mid, state->stored_mid));
  kernels.subtract_2(band(se::kHighBand, kSmoothingHigh, ref_history_high, state->adaptive_high,
                          state->stored_high));
}

// The gain control with its own ears: level and activity of a frame from its spectrum.
//
// The level is the mean bin power, averaged with the frame before; activity is a fixed threshold on
// it. Cost: one pass over the spectrum, besides the gain control's own.
#include "common/geometry.h"
#include "common/lane_sum.h"
#include "dynamics/agc_state.h"

namespace {

constexpr float kPerBin = 0.0038910506f;            // 1 / 257
constexpr float kActiveThreshold = 3.1622776e-06f;  // -55 dB

struct Layout {
  AgcCore* core;
  void* agc;
};

Layout lay_out(se::MemoryWalk& mem) {
  return {mem.record<AgcCore>(se::kAgcCoreSlot), mem.nested(agc_query_mem())};
}

}  // namespace

size_t agc_core_query_mem() {
  return se::measured(lay_out);
}

size_t agc_core_query_scratch() {
  return 0;
}

AgcCore* agc_core_init(void* mem, void* /*scratch*/, float window_energy_db) {
  se::MemoryWalk walk(mem);
  const Layout layout = lay_out(walk);
  layout.core->agc = agc_init(layout.agc, window_energy_db);
  layout.core->active_threshold = kActiveThreshold;
  return layout.core;
}

void agc_core_process(AgcCore* core, zel_lcomplex* spectrum) {
  const float mean_power =
      se::lane_sum(se::kNumBins,
                   [spectrum](int k) {
                     return spectrum[k].re * spectrum[k].re + spectrum[k].im * spectrum[k].im;
                   }) *
      kPerBin;
  const float level = 0.5f * (mean_power + core->prev_power);
  core->prev_power = mean_power;
  agc_process(core->agc, spectrum, core->active_threshold < level, level);
}

void agc_core_set_max_gain(AgcCore* core, float max_gain) {
  agc_set_max_gain(core->agc, max_gain);
}

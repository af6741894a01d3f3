// The order of a frame's stages, with a place to look behind each of them.
#pragma once

#include "engine/front_end.h"
#include "engine/gain_rule.h"
#include "nn/denoiser.h"

namespace se {

// Looks at nothing. What a caller passes instead has these functions; each is called when the stage
// is through and finds its results in the instance.
struct NoWatch {
  void after_front_end(const FrontEndResult&) {}           // mic_spec, ref_spec
  void after_gain_rule(const float* /*bands or null*/) {}  // nn_gain, mic_spec[1]: denoised
  void after_mix() {}                                      // mic_spec[1], noise_spec
  void after_synthesis(const float* /*out*/) {}            // equalised, not yet limited
};

// What se_process() does; arguments are the same.
template <class Watch>
void run_pipeline(SEInstance& s, const float* mic, const float* ref, float* out, bool nn_only,
                  bool use_ns, Watch&& watch) {
  const FrontEndResult front = run_front_end(s, mic, ref);
  watch.after_front_end(front);
  const float* bands = nn::run_network(*static_cast<const nn::NNDenoiser*>(s.nn), front.features);
  apply_gain_rule(s, bands, front.ref_energy);
  watch.after_gain_rule(bands);
  if (!nn_only) {
    mix_unprocessed(s, use_ns);
    watch.after_mix();
  }
  equalise(s.mic_spec[1], s.low_shelf, s.high_shelf, s.peak);
  zel_stft_synthesis_envelop(s.stft_out, s.mic_spec[1], out);
  watch.after_synthesis(out);

  if (s.limiter_enable != 0) {
    limiter_set_max_gain(s.limiter, s.limiter_max_gain);
    limiter_process_float(s.limiter, out, SE_BLOCK_LEN, nn_only, s.limiter_level_db);
  }
  ++s.frame_count;
}

}  // namespace se

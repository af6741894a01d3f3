// The first half of the frame pipeline: from samples to what the network and the gain rule take.
// Training sees its data through the same function.
#pragma once

#include "engine/se_instance.h"

namespace se {

struct FrontEndResult {
  float ref_energy;       // sum of |X[k]|^2 over the 257 bins of the reference spectrum
  const float* features;  // 3 x 128: microphone 0, microphone 1, reference; in the scratch block,
                          // valid until another module of the instance runs
};

// Analyses one frame of three signals, cancels the echo in both microphones and computes the
// network's features.
//
//   in   mic          2 x 160 samples at full scale +-1.0: microphone 0, then microphone 1
//        ref          160 samples of the loudspeaker signal of the same 10 ms; in all three, what
//                     lies beyond +-SE_MAX_SAMPLE is taken as that, NaN as silence
//   out  s.mic_spec   both microphones' spectra after echo cancellation
//        s.mic_pow    their power spectra, as the canceller leaves them
//        s.ref_spec   the reference's spectrum
//
// The four analysis and canceller states of the instance advance by one frame, nothing else does.
FrontEndResult run_front_end(SEInstance& s, const float* mic, const float* ref);

}  // namespace se

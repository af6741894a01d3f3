// The frame pipeline: 10 ms of two microphones and the reference in, 10 ms of clean voice out.
//
// The output spectrum is the echo-reduced spectrum of microphone 1 of five frames ago, shaped by
// the gain that the denoiser derives with those five frames of look-ahead. Everything per bin runs
// in kernels; the order of steps is fixed in pipeline.h and its two halves.
#include "engine/pipeline.h"

void se_process(SEInstance* s, const float* mic, const float* ref, float* out, bool nn_only,
                bool use_ns) {
  se::run_pipeline(*s, mic, ref, out, nn_only, use_ns, se::NoWatch());
}

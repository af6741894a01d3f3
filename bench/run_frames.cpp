// Runs the engine for a number of frames and nothing else: the program whose instructions are
// counted, and a target for any profiler.
//
//   run_frames FRAMES [denoised | full]
//
// "full", the default, has everything on: mix, noise suppression, equaliser, limiter. "denoised" is
// the denoised path alone. The input, distinct frames of voice, noise and echo, is made before the
// first frame and comes round after kSceneFrames.
#include <speechenhance/speechenhance.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "test_signal.h"

namespace {

constexpr int kBlock = SE_BLOCK_LEN;
constexpr int kSceneFrames = 360;  // three times the scene's own period

struct Frame {
  float mic[2 * kBlock];
  float ref[kBlock];
};

Frame scene[kSceneFrames];

NnProcessConfig everything_on() {
  NnProcessConfig config = {};
  config.residual_db = 14;
  config.ns_residual_db = 26;
  config.limiter_enable = 1;
  config.limiter_max_gain = 0.9f;
  config.limiter_level_db = 6.0f;
  config.low_shelf = {1, 400.0f, 12.0f};
  config.high_shelf = {1, 6000.0f, 5.0f};
  for (int i = 0; i < 10; ++i) config.peak[i] = {700 * (i + 1), i % 2 ? 3.0f : -3.0f, 4};
  return config;
}

}  // namespace

int main(int argc, char** argv) {
  const bool full = argc < 3 || std::strcmp(argv[2], "full") == 0;
  if (argc < 2 || argc > 3 || (!full && std::strcmp(argv[2], "denoised") != 0)) {
    std::fprintf(stderr, "usage: run_frames FRAMES [denoised | full]\n");
    return 2;
  }
  const int frames = std::atoi(argv[1]);
  TestSignal signal(5);
  for (Frame& frame : scene) signal.next(frame.mic, frame.ref);

  SEInstance* engine = se_create();
  if (engine == nullptr) return 1;
  if (full) set_nn_process_config(engine, everything_on());
  float peak = 0.0f;
  for (int i = 0; i < frames; ++i) {
    const Frame& frame = scene[i % kSceneFrames];
    float out[kBlock];
    se_process(engine, frame.mic, frame.ref, out, !full, full);
    peak = out[0] > peak ? out[0] : peak;
  }
  se_destroy(engine);
  std::printf("%d frames, largest first sample %g\n", frames, static_cast<double>(peak));
  return 0;
}

// Any configuration, at any time, and any samples, numbers or not, through every way of the
// pipeline.
//
// Input: how to run (nn_only 1, use_ns 2, 16-bit samples 4, the rest chooses the kernels), the 43
// words of a configuration, then frames: a byte whose bit pairs say what microphone 0, microphone 1
// and the reference hold, 0xC0 to take a new configuration first, and the bits of a float. Whatever
// that was, with an ordinary configuration and ordinary sound the output is numbers again, as soon
// as what the last gains made too large for a float has left the overlap and the limiter.
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <vector>

#include "engine/owned_engine.h"
#include "fuzz_target.h"
#include "kernels/kernels.h"
#include "random_signal.h"
#include "speechenhance/speechenhance.h"

namespace {

constexpr std::size_t kBlock = SE_BLOCK_LEN;
constexpr int kMostFrames = 32, kOrdinaryFrames = 6, kFramesToForget = 4;

enum Sound { kSilence, kConstant, kNoise, kClick };

void choose_kernels(int wanted) {
  int count = 0;
  while (se::available_kernels(count) != nullptr) ++count;
  se::use_kernels(se::available_kernels(wanted % count)->name);
}

void make_sound(int sound, float value, RandomSignal& random, float* block) {
  for (std::size_t i = 0; i < kBlock; ++i) {
    block[i] = sound == kConstant ? value : sound == kSilence ? 0.0f : random.uniform();
    if (sound == kNoise) block[i] *= value;
  }
  if (sound == kClick) block[77] = value;
}

std::int16_t to_s16(float sample) {
  const float scaled = sample * 32768.0f;
  return static_cast<std::int16_t>(scaled > 32767.0f    ? 32767.0f
                                   : scaled > -32768.0f ? scaled
                                                        : -32768.0f);
}

// One block of the exact size for each signal, so that the sanitizers see a step over its end.
class Frame {
 public:
  void make(int sounds, float value, RandomSignal& random) {
    for (std::size_t i = 0; i < 2; ++i) {
      make_sound(sounds >> (2 * i) & 3, value, random, &mic_[i * kBlock]);
    }
    make_sound(sounds >> 4 & 3, value, random, ref_.data());
  }

  void process(SEInstance* engine, bool nn_only, bool use_ns) {
    se_process(engine, mic_.data(), ref_.data(), out_.data(), nn_only, use_ns);
  }

  bool is_finite() const {
    return std::all_of(out_.begin(), out_.end(),
                       [](float sample) { return std::isfinite(sample); });
  }

  void process_s16(SEInstance* engine, bool nn_only, bool use_ns) {
    for (std::size_t i = 0; i < kBlock; ++i) {
      mic_s16_[2 * i] = to_s16(mic_[i]);
      mic_s16_[2 * i + 1] = to_s16(mic_[kBlock + i]);
      ref_s16_[i] = to_s16(ref_[i]);
    }
    se_process_frames(engine, mic_s16_.data(), ref_s16_.data(), kBlock, out_s16_.data(), nn_only,
                      use_ns);
  }

 private:
  std::vector<float> mic_ = std::vector<float>(2 * kBlock), ref_ = std::vector<float>(kBlock),
                     out_ = ref_;
  std::vector<std::int16_t> mic_s16_ = std::vector<std::int16_t>(2 * kBlock),
                            ref_s16_ = std::vector<std::int16_t>(kBlock), out_s16_ = ref_s16_;
};

// The lines of the library are not wanted.
[[maybe_unused]] const bool g_quiet = [] {
  const int nowhere = open("/dev/null", O_WRONLY);
  return nowhere >= 0 && dup2(nowhere, STDOUT_FILENO) >= 0;
}();

}  // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  se_fuzz::Input input(data, size);
  const auto how = input.take<std::uint8_t>();
  choose_kernels(how >> 3);
  const se::OwnedEngine engine(se_create());
  set_nn_process_config(engine.get(), input.take<NnProcessConfig>());

  RandomSignal random(1);
  Frame frame;
  for (int i = 0; i < kMostFrames && !input.empty(); ++i) {
    const auto sounds = input.take<std::uint8_t>();
    if (sounds >= 0xC0) set_nn_process_config(engine.get(), input.take<NnProcessConfig>());
    frame.make(sounds, input.take<float>(), random);
    const bool nn_only = (how & 1) != 0, use_ns = (how & 2) != 0;
    if ((how & 4) != 0) {
      frame.process_s16(engine.get(), nn_only, use_ns);
    } else {
      frame.process(engine.get(), nn_only, use_ns);
    }
  }

  set_nn_process_config(engine.get(), NnProcessConfig{});
  for (int i = 0; i < kOrdinaryFrames; ++i) {
    frame.make(kNoise | kNoise << 2 | kNoise << 4, 0.1f, random);
    frame.process(engine.get(), (how & 1) != 0, (how & 2) != 0);
    se_fuzz::check(i < kFramesToForget || frame.is_finite(),
                   "ordinary sound comes out as numbers, whatever was before");
  }
  return 0;
}

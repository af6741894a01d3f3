// Two engines on two threads: no data races (the thread sanitizer watches), and each gives what it
// gives alone.
#include <gtest/gtest.h>

#include <thread>
#include <vector>

#include "speechenhance/denoiser.h"
#include "speechenhance/speechenhance.h"
#include "test_signal.h"

namespace {

constexpr int kBlock = SE_BLOCK_LEN;

std::vector<float> run_alone(std::uint32_t seed, int frames) {
  SEInstance* engine = se_create();
  TestSignal signal(seed);
  std::vector<float> out(static_cast<std::size_t>(frames) * kBlock);
  for (std::size_t at = 0; at < out.size(); at += kBlock) {
    float mic[2 * kBlock], ref[kBlock];
    signal.next(mic, ref);
    se_process(engine, mic, ref, &out[at], false, true);
  }
  se_destroy(engine);
  return out;
}

TEST(Threads, EnginesDoNotDisturbEachOther) {
  constexpr int kFrames = 60;  // well below what turns the shared quiet history on
  std::vector<float> together[2];
  {
    std::thread first([&] { together[0] = run_alone(1, kFrames); });
    std::thread second([&] { together[1] = run_alone(2, kFrames); });
    first.join();
    second.join();
  }
  EXPECT_EQ(together[0], run_alone(1, kFrames));
  EXPECT_EQ(together[1], run_alone(2, kFrames));

  int ones = 0;
  for (const std::int32_t flag : noise_buf) ones += flag;
  EXPECT_EQ(noise_flag_sum, ones);
}

}  // namespace

// Eight engines on eight threads, others created and destroyed meanwhile: no data races (the thread
// sanitizer watches), and each gives what it gives alone.
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
  // All frames of this test are fewer than what turns the shared quiet history on.
  constexpr std::size_t kEngines = 8;
  constexpr int kFrames = 50;
  std::vector<float> together[kEngines];
  {
    std::vector<std::thread> threads;
    for (std::size_t i = 0; i < kEngines; ++i) {
      threads.emplace_back(
          [&, i] { together[i] = run_alone(static_cast<std::uint32_t>(i), kFrames); });
    }
    for (int i = 0; i < 2; ++i) {
      threads.emplace_back([] {
        for (std::uint32_t life = 0; life < 20; ++life) run_alone(life, 1);
      });
    }
    for (std::thread& thread : threads) thread.join();
  }
  for (std::size_t i = 0; i < kEngines; ++i) {
    EXPECT_EQ(together[i], run_alone(static_cast<std::uint32_t>(i), kFrames)) << i;
  }

  int ones = 0;
  for (const std::int32_t flag : noise_buf) ones += flag;
  EXPECT_EQ(noise_flag_sum, ones);
}

}  // namespace

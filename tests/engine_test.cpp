// The engine's life, queries, configuration and the invariants of its interface.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <numeric>
#include <string>
#include <vector>

#include "allocation_trap.h"
#include "engine/se_instance.h"
#include "random_signal.h"
#include "rough_signals.h"
#include "speechenhance/denoiser.h"
#include "speechenhance/speechenhance.h"

namespace {

constexpr int kBlock = SE_BLOCK_LEN;

class Engine {
 public:
  Engine() {
    testing::internal::CaptureStdout();
    instance_ = se_create();
    lines_ = testing::internal::GetCapturedStdout();
  }
  ~Engine() { se_destroy(instance_); }
  Engine(const Engine&) = delete;

  void configure(const NnProcessConfig& config) {
    testing::internal::CaptureStdout();
    set_nn_process_config(instance_, config);
    config_line_ = testing::internal::GetCapturedStdout();
  }
  SEInstance* operator->() const { return instance_; }
  SEInstance* get() const { return instance_; }
  const std::string& lines() const { return lines_; }
  const std::string& config_line() const { return config_line_; }

 private:
  SEInstance* instance_;
  std::string lines_, config_line_;
};

std::vector<std::int16_t> noise_s16(std::size_t n, float amplitude, std::uint64_t seed) {
  std::vector<std::int16_t> samples;
  for (const float x : RandomSignal(seed).reals(n, amplitude * 32767.0f)) {
    samples.push_back(static_cast<std::int16_t>(x));
  }
  return samples;
}

// Runs both microphones on `mic` and returns the output.
std::vector<float> run(SEInstance* engine, const std::vector<float>& mic,
                       const std::vector<float>& ref, bool nn_only, bool use_ns) {
  std::vector<float> out(mic.size());
  for (std::size_t at = 0; at + kBlock <= mic.size(); at += kBlock) {
    float mics[2 * kBlock];
    std::memcpy(mics, &mic[at], sizeof mics / 2);
    std::memcpy(mics + kBlock, &mic[at], sizeof mics / 2);
    se_process(engine, mics, &ref[at], &out[at], nn_only, use_ns);
  }
  return out;
}

TEST(Engine, ReportsItsMemory) {
  const auto size = [](auto bytes) { return static_cast<long>(bytes); };
  const long stft = 2 * size(zel_stft_query_mem(512, 0)) + size(zel_stft_query_mem(512, 1)) + 2063,
             aec = size(aec_query_mem()) + size(zel_stft_query_mem(512, 0)) + 2071,
             nn = nn_query_mem_api() + size(noise_estimate_query_mem(10, 257)) +
                  size(noise_suppress_query_mem(257)) + 16508,
             limiter = size(limiter_query_mem()), agc = size(agc_core_query_mem()),
             rest = size(sizeof(SEInstance)) + 7 + 2 * 2071 + 2 * 1043;
  char expected[300];
  std::snprintf(expected, sizeof expected,
                "Static mem: %ld, stft: %ld, aec: %ld, nn: %ld, limiter: %ld, agc: %ld\n"
                "Scratch mem: 138489, stft: 6174, aec: 2074, nn: 138489\n",
                stft + aec + nn + limiter + agc + rest, stft, aec, nn, limiter, agc);
  EXPECT_EQ(Engine().lines(), expected);
  EXPECT_TRUE(sizeof(void*) != 4 || sizeof(SEInstance) == 280);
}

TEST(Engine, AllocatesTwiceAndNeverWhileProcessing) {
  if (!kAllocationTrapWorks) GTEST_SKIP() << "the sanitizer owns the allocator";
  se_destroy(se_create());  // the first print allocates standard output's buffer
  const long live = g_live;
  const std::size_t before = g_allocations;
  SEInstance* engine = se_create();
  EXPECT_EQ(g_allocations - before, 2u);

  NnProcessConfig config = {};
  config.limiter_enable = 1;
  config.limiter_max_gain = 0.9f;
  config.low_shelf = {1, 1000.0f, 20.0f};
  config.peak[3] = {1000, 6.0f, 2};
  set_nn_process_config(engine, config);
  const auto mic = noise_s16(2 * 8 * kBlock, 0.3f, 1), ref = noise_s16(8 * kBlock, 0.3f, 2);
  std::vector<std::int16_t> out(ref.size());
  const std::size_t idle = g_allocations;
  se_process_frames(engine, mic.data(), ref.data(), 8 * kBlock, out.data(), false, true);
  se_process_frames(engine, mic.data(), ref.data(), 8 * kBlock, out.data(), false, false);
  EXPECT_EQ(g_allocations, idle);
  se_destroy(engine);
  EXPECT_GE(live + 3, g_live);  // the two blocks are gone; this test's vectors remain
}

TEST(Engine, FailedAllocationGivesNullAfterBothLines) {
  if (!kAllocationTrapWorks) GTEST_SKIP() << "the sanitizer owns the allocator";
  for (const int failing : {1, 2}) {
    testing::internal::CaptureStdout();
    const long live = g_live;
    g_failing_calloc = failing;
    SEInstance* engine = se_create();
    g_failing_calloc = 0;
    EXPECT_EQ(g_live, live);
    const std::string lines = testing::internal::GetCapturedStdout();
    EXPECT_EQ(engine, nullptr);
    EXPECT_NE(lines.find("Static mem: "), std::string::npos);
    EXPECT_NE(lines.find("Scratch mem: "), std::string::npos);
  }
  se_destroy(nullptr);
}

TEST(Engine, AnswersQueries) {
  EXPECT_STREQ(se_get_version(), "1.0.0-branch(HEAD)-hash()-build(2024-08-14 03:45)");
  EXPECT_EQ(se_get_aec_process_delay(), 320);
  EXPECT_EQ(se_get_process_delay(), 1120);

  char text[64];
  EXPECT_EQ(se_get_statistic_info(nullptr, text, sizeof text), 30);
  EXPECT_STREQ(text, "max_noise_db=0,avg_noise_db=0\n");
  EXPECT_EQ(se_get_statistic_info(nullptr, text, 10), 30);
  EXPECT_STREQ(text, "max_noise");
  text[0] = 'x';
  EXPECT_EQ(se_get_statistic_info(nullptr, text, -1), 30);
  EXPECT_EQ(text[0], 'x');

  for (const auto query : {se_get_aec_out, se_get_nn_out}) {
    float block[kBlock + 1];
    std::fill(std::begin(block), std::end(block), 7.0f);
    query(nullptr, block);
    for (int i = 0; i < kBlock; ++i) EXPECT_EQ(block[i], 0.0f);
    EXPECT_EQ(block[kBlock], 7.0f);
  }
}

// What the other fields do is the pipeline's to test.
TEST(Engine, ConfigurationReachesTheInstance) {
  static_assert(sizeof(NnProcessConfig) == 43 * 4);
  Engine engine;
  EXPECT_EQ(engine->dry_mix, 0.0f);
  engine.configure(NnProcessConfig{});
  EXPECT_EQ(engine.config_line(), "########### set over ##############\n");
  EXPECT_TRUE(engine->dry_mix == 1.0f && engine->ns_dry_mix == 1.0f);

  NnProcessConfig config = {};
  config.residual_db = 20;
  config.ns_residual_db = 30;
  config.reserved_a = 5;
  config.reserved_b = 6;
  engine.configure(config);
  EXPECT_TRUE(engine->reserved_a == 5 && engine->reserved_b == 6);
  EXPECT_FLOAT_EQ(engine->dry_mix, 0.1f);
  EXPECT_FLOAT_EQ(engine->ns_dry_mix, 0.1f);
  config.residual_db = -6;
  config.ns_residual_db = INT32_MIN;
  engine.configure(config);
  EXPECT_TRUE(engine->dry_mix == 1.0f && engine->ns_dry_mix == 1.0f);
}

TEST(Engine, SilenceInSilenceOut) {
  for (const bool nn_only : {true, false}) {
    for (const bool use_ns : {true, false}) {
      Engine engine;
      engine.configure(NnProcessConfig{});
      const std::vector<float> zeros(20 * kBlock, 0.0f);
      EXPECT_EQ(run(engine.get(), zeros, zeros, nn_only, use_ns), zeros);
      EXPECT_EQ(engine->frame_count, 20);
    }
  }
}

double energy(const std::vector<float>& x, std::size_t from) {
  return std::inner_product(x.begin() + static_cast<std::ptrdiff_t>(from), x.end(),
                            x.begin() + static_cast<std::ptrdiff_t>(from), 0.0);
}

// The recurrent layers start from nothing: what they make of noise before anybody has spoken is for
// training to have taught them.
TEST(Engine, TakesNoiseAndEchoDownFromTheStart) {
  constexpr std::size_t kStart = SE_SAMPLE_RATE / 2;
  struct Sound {
    const char* name;
    float colour, tones;
    bool is_echo;
  };
  for (const Sound& sound : {Sound{"white noise", 0.0f, 0.0f, false},
                             {"rumble", 0.95f, 0.0f, false},
                             {"a machine's tones", 0.0f, 0.3f, false},
                             {"echo", 0.7f, 0.0f, true}}) {
    RandomSignal random(7);
    std::vector<float> mic(2 * SE_SAMPLE_RATE), ref(mic.size(), 0.0f);
    float low = 0.0f;
    for (std::size_t i = 0; i < mic.size(); ++i) {
      low = sound.colour * low + (1.0f - sound.colour) * random.uniform();
      mic[i] = 0.02f * low;
      for (const float bin : {10.0f, 20.0f, 40.0f, 60.0f}) {
        mic[i] += 0.02f * sound.tones * std::sin(0.01234f * bin * static_cast<float>(i));
      }
    }
    if (sound.is_echo) {
      ref = mic;
      for (std::size_t i = mic.size(); i-- > 0;) mic[i] = i < 200 ? 0.0f : 0.6f * mic[i - 200];
    }
    Engine engine;
    engine.configure(NnProcessConfig{});
    const std::vector<float> out = run(engine.get(), mic, ref, true, false);
    EXPECT_LT(energy(out, kStart), energy(mic, kStart) * 1e-3) << sound.name;
  }
}

TEST(Engine, AnySplitOfAStreamGivesTheSameOutput) {
  constexpr std::size_t kFrames = 60;
  const auto mic = noise_s16(2 * kFrames * kBlock, 0.4f, 6);
  const auto ref = noise_s16(kFrames * kBlock, 0.2f, 7);
  for (const bool nn_only : {true, false}) {
    Engine whole, split;
    NnProcessConfig config = {};
    config.residual_db = 12;
    config.ns_residual_db = 15;
    whole.configure(config);
    split.configure(config);
    std::vector<std::int16_t> expected(ref.size(), 0), actual(ref.size(), 0);
    se_process_frames(whole.get(), mic.data(), ref.data(), static_cast<int>(ref.size()),
                      expected.data(), nn_only, true);
    std::size_t at = 0;
    for (std::size_t frames = 1; at < kFrames; ++frames) {
      const std::size_t now = std::min(frames, kFrames - at);
      se_process_frames(split.get(), &mic[2 * at * kBlock], &ref[at * kBlock],
                        static_cast<int>(now) * kBlock, &actual[at * kBlock], nn_only, true);
      at += now;
    }
    EXPECT_EQ(actual, expected);
    EXPECT_EQ(split->frame_count, static_cast<std::int64_t>(kFrames));
  }
}

TEST(Engine, PartialBlocksAreLeftAlone) {
  Engine engine;
  const auto mic = noise_s16(1000, 0.4f, 8), ref = noise_s16(500, 0.2f, 9);
  std::vector<std::int16_t> out(500, 77);
  for (const int n : {-1, INT32_MIN, 0, 159}) {
    se_process_frames(engine.get(), mic.data(), ref.data(), n, out.data(), true, false);
  }
  EXPECT_EQ(out, std::vector<std::int16_t>(500, 77));
  EXPECT_EQ(engine->frame_count, 0);
  se_process_frames(engine.get(), mic.data(), ref.data(), 500, out.data(), true, false);
  EXPECT_EQ(engine->frame_count, 3);
  EXPECT_EQ(out[479], 0);
  for (std::size_t i = 480; i < 500; ++i) EXPECT_EQ(out[i], 77);
}

TEST(Engine, DeinterleavesAnyNumberOfChannels) {
  const std::vector<std::int16_t> src = {1, 2, 3, 4, 5, 6}, expected = {1, 4, 2, 5, 3, 6};
  std::vector<std::int16_t> dst(6);
  deinterleave(src.data(), dst.data(), 2, 3);
  deinterleave(src.data(), dst.data(), -1, 3);
  deinterleave(src.data(), dst.data(), 2, 0);
  EXPECT_EQ(dst, expected);
}

// Whatever comes in, every output sample is finite, and five seconds later the echo canceller is as
// good as that of an engine of this age.
TEST(Engine, SurvivesAnySamplesAndRecovers) {
  NnProcessConfig config = {};  // mixes the unprocessed signal in full
  config.limiter_enable = 1;
  config.limiter_max_gain = 0.9f;
  Engine hurt, fresh;
  hurt.configure(config);
  fresh.configure(config);
  Room room(3, kHere);
  for (const float bad : {NAN, INFINITY, 1e20f, 1e4f}) {
    for (int signal = 0; signal < 3; ++signal) {
      for (const int samples : {1, SE_SAMPLE_RATE / 2}) {
        for (int at = 0; at < samples + 10 * kBlock; at += kBlock) {
          float block[3 * kBlock], out[kBlock];  // microphones 0 and 1, reference
          room.next(FarEnd::kClippedMusic, block, block + 2 * kBlock);
          for (int i = 0; i < kBlock && at + i < samples; ++i) {
            block[signal * kBlock + i] = i % 3 == 0 ? -bad : bad;
          }
          se_process(hurt.get(), block, block + 2 * kBlock, out, false, signal == 1);
          ASSERT_TRUE(std::all_of(out, out + kBlock, [](float y) { return std::isfinite(y); }))
              << samples << " of " << bad << " in signal " << signal << ", sample " << at;
        }
      }
    }
  }
  room.change_path(kElsewhere);
  double energy[2] = {};
  for (int block = 0; block < 500; ++block) {
    float mic[2 * kBlock], ref[kBlock], out[kBlock];
    room.next(FarEnd::kQuietNoise, mic, ref);
    for (Engine* engine : {&hurt, &fresh}) {
      se_process(engine->get(), mic, ref, out, false, false);
      double& sum = energy[engine == &fresh];
      if (block >= 400) sum = std::inner_product(out, out + kBlock, out, sum);
    }
  }
  EXPECT_LT(10 * std::log10(energy[0] / energy[1]), 3.0);
}

}  // namespace

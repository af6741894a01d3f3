// Streams through the interface that hosts use: latency, blocks, channels, settings, and what must
// not happen on an audio thread.
#include "speechenhance/stream.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cfloat>
#include <cmath>
#include <cstring>
#include <limits>
#include <memory>
#include <thread>
#include <vector>

#include "allocation_trap.h"
#include "common/float_mode.h"
#include "random_signal.h"
#include "stream/tests/stream_support.h"
#include "stream/tests/system_call_trap.h"

namespace {

constexpr float kInfinity = std::numeric_limits<float>::infinity();

TEST(Stream, RefusesWhatItCannotDo) {
  SEStream* stream = nullptr;
  const auto result = [&stream](int rate, int mics, int refs, int delay) {
    const int32_t code = se_stream_create(rate, mics, refs, delay, &stream);
    EXPECT_EQ(stream == nullptr, code != SE_STREAM_OK);
    se_stream_destroy(stream);
    return code;
  };
  EXPECT_EQ(result(8000, 1, 0, 0), SE_STREAM_OK);
  EXPECT_EQ(result(192000, 2, 2, SE_STREAM_DELAY_AUTO), SE_STREAM_OK);
  EXPECT_EQ(result(7999, 1, 0, 0), SE_STREAM_BAD_RATE);
  EXPECT_EQ(result(192001, 1, 0, 0), SE_STREAM_BAD_RATE);
  EXPECT_EQ(result(16000, 0, 0, 0), SE_STREAM_BAD_CHANNELS);
  EXPECT_EQ(result(16000, 3, 0, 0), SE_STREAM_BAD_CHANNELS);
  EXPECT_EQ(result(16000, 1, 3, 0), SE_STREAM_BAD_CHANNELS);
  EXPECT_EQ(result(16000, 1, 1, 501), SE_STREAM_BAD_DELAY);
  EXPECT_EQ(result(16000, 1, 1, INT32_MIN), SE_STREAM_BAD_DELAY);

  for (int code = 1; code >= -12; --code) {
    const std::string text = se_stream_error_text(code);
    EXPECT_GT(text.size(), 5u);
    EXPECT_EQ(text == "unknown error", code > 0 || code < SE_STREAM_BAD_PEAK);
  }
}

TEST(Stream, RefusesMemoryThatIsNotThere) {
  if (!kAllocationTrapWorks) GTEST_SKIP() << "no allocation trap under sanitizers";
  SEStream* stream = nullptr;
  for (int failing = 1;; ++failing) {
    const long live = g_live;
    g_failing_calloc = failing;
    const int32_t code = se_stream_create(44100, 2, 1, SE_STREAM_DELAY_AUTO, &stream);
    const bool all_served = g_failing_calloc > 0;
    g_failing_calloc = 0;
    if (all_served) break;
    EXPECT_EQ(code, SE_STREAM_NO_MEMORY);
    EXPECT_EQ(g_live, live);
  }
  se_stream_destroy(stream);
}

// ---- Latency and blocks
// ---------------------------------------------------------------------------

class Rates : public testing::TestWithParam<int> {};

// Where the engine takes nothing away, a click comes out where the latency says; and with amount 0
// the input itself does.
TEST_P(Rates, LatencyIsWhatTheStreamSays) {
  const int rate = GetParam();
  for (const int delay_ms : {0, -30}) {
    StreamHandle stream = make_stream(rate, 1, 1, delay_ms);
    const int latency = se_stream_latency(stream.get());
    EXPECT_GT(latency, rate * (73 + std::max(0, -delay_ms)) / 1000);
    EXPECT_LT(latency, rate * (105 + std::max(0, -delay_ms)) / 1000);

    SEStreamSettings settings = preset("plain");
    settings.mode = SE_STREAM_MIX;
    settings.engine.residual_db = 0;
    const int click = rate / 4;
    for (const float amount : {1.0f, 0.0f}) {
      settings.amount = amount;
      ASSERT_EQ(se_stream_set_settings(stream.get(), &settings), SE_STREAM_OK);
      se_stream_reset(stream.get());
      std::vector<float> mic(static_cast<std::size_t>(rate / 2));
      // Some samples wide, so that its middle is well inside the band of the engine.
      for (int i = -rate / 1000; i <= rate / 1000; ++i) {
        const double x = i * 3.14159265358979 * 1000 / rate;
        mic[static_cast<std::size_t>(click + i)] = static_cast<float>(0.25 * (1 + std::cos(x)));
      }
      const std::vector<float> out = run(stream.get(), {mic}, {}, 441);
      // To 10 us: what the gains shape of the click moves its middle by less than that.
      EXPECT_NEAR(centre_of(out), click + latency, rate / 96000)
          << rate << " Hz, amount " << amount;
    }
  }
}

TEST_P(Rates, BlocksChangeNothing) {
  const int rate = GetParam();
  RandomSignal random(7);
  const Scene scene(rate, 1.5);
  StreamHandle stream = make_stream(rate, 2, 2, SE_STREAM_DELAY_AUTO);
  const std::vector<float> whole = run(stream.get(), scene.mics, scene.refs, 1 << 30);
  EXPECT_GT(energy_of(whole), 0.0);
  for (const int longest : {1, 160, 7919}) {
    se_stream_reset(stream.get());
    const std::vector<float> split =
        run(stream.get(), scene.mics, scene.refs, longest, [&random](int most) {
          return 1 + static_cast<int>(random.bits() % static_cast<unsigned>(most));
        });
    EXPECT_EQ(std::memcmp(split.data(), whole.data(), whole.size() * sizeof(float)), 0) << longest;
  }
}

INSTANTIATE_TEST_SUITE_P(Stream, Rates,
                         testing::Values(8000, 11025, 16000, 22050, 32000, 44100, 44101, 48000,
                                         96000, 192000));

// ---- Channels
// --------------------------------------------------------------------------------------

TEST(Stream, OutputMayBeAnInput) {
  const Scene scene(48000, 0.5);
  StreamHandle stream = make_stream(48000, 2, 1, 0);
  const std::vector<float> apart = run(stream.get(), scene.mics, scene.refs, 1000);
  for (int shared = 0; shared < 3; ++shared) {
    se_stream_reset(stream.get());
    std::vector<float> signals[3] = {scene.mics[0], scene.mics[1], scene.refs[0]};
    const float* mics[] = {signals[0].data(), signals[1].data()};
    const float* refs[] = {signals[2].data()};
    se_stream_process(stream.get(), mics, refs, signals[shared].data(),
                      static_cast<int32_t>(apart.size()));
    EXPECT_EQ(signals[shared], apart) << shared;
  }
}

TEST(Stream, NullPointersAreSilence) {
  const Scene scene(16000, 0.5);
  const std::vector<float> silence(scene.mics[0].size());
  StreamHandle stream = make_stream(16000, 2, 1, 0);
  const std::vector<float> zeros = run(stream.get(), {silence, scene.mics[1]}, {silence}, 500);
  se_stream_reset(stream.get());
  std::vector<float> out(silence.size());
  const float* mics[] = {nullptr, scene.mics[1].data()};
  se_stream_process(stream.get(), mics, nullptr, out.data(), static_cast<int32_t>(out.size()));
  EXPECT_EQ(out, zeros);

  se_stream_process(stream.get(), mics, nullptr, nullptr, 0);
  se_stream_process(stream.get(), mics, nullptr, nullptr, -5);
  se_stream_process(stream.get(), nullptr, nullptr, out.data(), 160);
}

TEST(Stream, TwoReferencesAreAveraged) {
  const Scene scene(16000, 1.0);
  std::vector<float> sum(scene.refs[0].size());
  for (std::size_t i = 0; i < sum.size(); ++i) {
    sum[i] = 0.5f * (scene.refs[0][i] + scene.refs[1][i]);
  }
  StreamHandle two = make_stream(16000, 1, 2, 0);
  StreamHandle one = make_stream(16000, 1, 1, 0);
  EXPECT_EQ(run(two.get(), {scene.mics[0]}, scene.refs, 300),
            run(one.get(), {scene.mics[0]}, {sum}, 300));
}

TEST(Stream, SurvivesWhatNoRecordingHolds) {
  const Scene scene(48000, 1.0);
  StreamHandle stream = make_stream(48000, 1, 1, SE_STREAM_DELAY_AUTO);
  std::vector<float> mic = scene.mics[0];
  std::vector<float> ref = scene.refs[0];
  const float bad[] = {kInfinity, -kInfinity, std::nanf(""), FLT_MAX, -FLT_MAX, FLT_MIN / 4};
  for (std::size_t i = 0; i < mic.size() / 2; ++i) {
    if (i % 7 == 0) mic[i] = bad[i % 6];
    if (i % 11 == 0) ref[i] = bad[i % 6];
  }
  for (const float sample : run(stream.get(), {mic}, {ref}, 480)) {
    ASSERT_TRUE(std::isfinite(sample));
  }
  // And works as before once the sound is sound again.
  const std::vector<float> after = run(stream.get(), {scene.mics[0]}, {scene.refs[0]}, 480);
  EXPECT_GT(energy_of(after), 1e-4 * energy_of(scene.mics[0]));
}

// ---- Settings
// ---------------------------------------------------------------------------------------

TEST(Stream, TakesSettingsWhileItRuns) {
  const Scene scene(16000, 1.0);
  StreamHandle stream = make_stream(16000, 1, 0, 0);
  SEStreamSettings voice = preset("voice"), got = {};
  ASSERT_EQ(se_stream_set_settings(stream.get(), &voice), SE_STREAM_OK);
  se_stream_get_settings(stream.get(), &got);
  EXPECT_EQ(std::memcmp(&got, &voice, sizeof got), 0);

  SEStreamSettings wrong = voice;
  wrong.amount = std::nanf("");
  EXPECT_EQ(se_stream_set_settings(stream.get(), &wrong), SE_STREAM_BAD_AMOUNT);
  wrong = voice;
  wrong.mode = 3;
  EXPECT_EQ(se_stream_set_settings(stream.get(), &wrong), SE_STREAM_BAD_MODE);
  wrong = voice;
  wrong.engine.peak[9].q = 1000;
  EXPECT_EQ(se_stream_set_settings(stream.get(), &wrong), SE_STREAM_BAD_PEAK);
  se_stream_get_settings(stream.get(), &got);
  EXPECT_EQ(std::memcmp(&got, &voice, sizeof got), 0);

  EXPECT_EQ(se_stream_get_preset("no such", &got), SE_STREAM_NO_PRESET);
  EXPECT_EQ(se_stream_set_delay(stream.get(), -1), SE_STREAM_BAD_DELAY);
  EXPECT_EQ(se_stream_set_delay(stream.get(), 500), SE_STREAM_OK);
}

// Limiter and amount may be switched at any time: no step is larger than what a steady tone's own
// steps and the gains on both sides explain.
TEST(Stream, SwitchesWithoutClicks) {
  constexpr int kRate = 48000;
  std::vector<float> tone(kRate * 2);
  for (std::size_t i = 0; i < tone.size(); ++i) {
    tone[i] = 0.3f * std::sin(2 * 3.14159265f * 300.0f * static_cast<float>(i) / kRate);
  }
  StreamHandle stream = make_stream(kRate, 1, 0, 0);
  SEStreamSettings plain = preset("plain");
  plain.mode = SE_STREAM_MIX;
  plain.engine.residual_db = 0;
  SEStreamSettings limited = plain;
  limited.engine.limiter_enable = 1;
  limited.engine.limiter_max_gain = 0.5f;
  SEStreamSettings bypass = plain;
  bypass.amount = 0.0f;
  std::vector<float> out;
  const std::size_t part = tone.size() / 8;
  const SEStreamSettings* const order[] = {&plain,   &limited, &plain,   &bypass,
                                           &limited, &bypass,  &limited, &plain};
  for (int i = 0; i < 8; ++i) {
    ASSERT_EQ(se_stream_set_settings(stream.get(), order[i]), SE_STREAM_OK);
    const auto start = tone.begin() + static_cast<std::ptrdiff_t>(part) * i;
    const std::vector<float> piece(start, start + static_cast<std::ptrdiff_t>(part));
    const std::vector<float> given = run(stream.get(), {piece}, {}, 512);
    out.insert(out.end(), given.begin(), given.end());
  }
  float loudest = 0.0f, steepest = 0.0f;
  for (std::size_t i = kRate / 4; i < out.size(); ++i) {
    loudest = std::max(loudest, std::abs(out[i]));
    steepest = std::max(steepest, std::abs(out[i] - out[i - 1]));
  }
  EXPECT_LT(steepest, 1.3f * loudest * 2 * 3.14159265f * 300.0f / kRate);
}

TEST(Stream, ResetForgets) {
  const Scene scene(44100, 1.0);
  StreamHandle used = make_stream(44100, 2, 1, SE_STREAM_DELAY_AUTO);
  StreamHandle fresh = make_stream(44100, 2, 1, SE_STREAM_DELAY_AUTO);
  const SEStreamSettings steady = preset("steady");
  se_stream_set_settings(used.get(), &steady);
  se_stream_set_settings(fresh.get(), &steady);
  run(used.get(), scene.mics, scene.refs, 333);
  se_stream_reset(used.get());
  EXPECT_EQ(run(used.get(), scene.mics, scene.refs, 100),
            run(fresh.get(), scene.mics, scene.refs, 100));
}

// A long noise in one stream turns on what the engine shares in a process; not here.
TEST(Stream, StreamsDoNotHearEachOther) {
  RandomSignal random(3);
  const Scene scene(16000, 1.0);
  StreamHandle first = make_stream(16000, 1, 0, 0);
  const std::vector<float> alone = run(first.get(), {scene.mics[0]}, {}, 160);
  StreamHandle noisy = make_stream(16000, 1, 0, 0);
  run(noisy.get(), {random.reals(16000 * 12, 0.01f)}, {}, 160);
  StreamHandle second = make_stream(16000, 1, 0, 0);
  EXPECT_EQ(run(second.get(), {scene.mics[0]}, {}, 160), alone);
}

TEST(Stream, ShowsLevels) {
  std::vector<float> tone(16000);
  for (std::size_t i = 0; i < tone.size(); ++i) tone[i] = i % 2 == 0 ? 0.1f : -0.1f;
  StreamHandle stream = make_stream(16000, 1, 1, 40);
  SEStreamStatus status;
  se_stream_get_status(stream.get(), &status);
  EXPECT_EQ(status.mic_db, -150.0f);
  run(stream.get(), {tone}, {std::vector<float>(tone.size())}, 160);
  se_stream_get_status(stream.get(), &status);
  EXPECT_NEAR(status.mic_db, -20.0f, 0.1f);
  EXPECT_EQ(status.ref_db, -150.0f);
  EXPECT_EQ(status.delay_found, 1);
  EXPECT_EQ(status.delay_ms, 40.0f);
  EXPECT_EQ(status.echo_reduction_db, 0.0f);
}

// ---- On an audio thread
// ---------------------------------------------------------------------------

TEST(Stream, LeavesTheFloatingPointMode) {
  const se::FloatControl mode = se::float_control();
#if defined(__SSE__) || defined(__aarch64__)
  EXPECT_EQ(mode & se::kFlushSubnormals, 0u) << "loading the library set it";
#endif
  StreamHandle stream = make_stream(44100, 1, 1, 0);
  const Scene scene(44100, 0.5);
  const std::vector<float> expected = run(stream.get(), {scene.mics[0]}, {scene.refs[0]}, 256);
  EXPECT_EQ(se::float_control(), mode);

#if defined(__SSE__)
  // Rounding toward zero and subnormals flushed, as some other plugin may have left it.
  constexpr se::FloatControl kOther = 0x1F80 | 0x6000 | 0x8000;
  se::set_float_control(kOther);
  se_stream_reset(stream.get());
  const std::vector<float> other = run(stream.get(), {scene.mics[0]}, {scene.refs[0]}, 256);
  EXPECT_EQ(se::float_control(), kOther);
  se::set_float_control(mode);
  EXPECT_EQ(other, expected);
#endif
}

// Processing, reset and every function for other threads, with everything on.
void use_on_audio_thread(SEStream* stream, const Scene& scene, std::vector<float>& out) {
  const float* mics[] = {scene.mics[0].data(), scene.mics[1].data()};
  const float* refs[] = {scene.refs[0].data(), scene.refs[1].data()};
  SEStreamSettings settings;
  SEStreamStatus status;
  for (const char* name : {"call", "steady"}) {
    se_stream_get_preset(name, &settings);
    se_stream_set_settings(stream, &settings);
    se_stream_process(stream, mics, refs, out.data(), static_cast<int32_t>(out.size()));
    se_stream_set_delay(stream, 100);
    se_stream_process(stream, mics, refs, out.data(), static_cast<int32_t>(out.size()));
    se_stream_get_status(stream, &status);
    se_stream_get_settings(stream, &settings);
    se_stream_reset(stream);
    se_stream_set_delay(stream, SE_STREAM_DELAY_AUTO);
  }
}

TEST(Stream, NeitherAllocatesNorLocksNorCallsTheSystem) {
  if (!kAllocationTrapWorks) GTEST_SKIP() << "no traps under sanitizers";
  for (const int rate : {16000, 44100, 48000}) {
    const Scene scene(rate, 1.0);
    StreamHandle stream = make_stream(rate, 2, 2, SE_STREAM_DELAY_AUTO);
    std::vector<float> out(scene.mics[0].size());
    // On a thread that never saw the library, as a host's audio thread.
    std::thread([&] {
      const std::size_t allocations = g_allocations;
      const std::size_t locks = g_locks;
      use_on_audio_thread(stream.get(), scene, out);
      EXPECT_EQ(g_allocations, allocations);
      EXPECT_EQ(g_locks, locks);
    }).join();
    const auto use = [&] { use_on_audio_thread(stream.get(), scene, out); };
    EXPECT_TRUE(runs_without_system_calls(use)) << rate;
    EXPECT_FALSE(runs_without_system_calls([] { std::this_thread::yield(); }));
  }
}

TEST(Stream, IsSilentOnTheConsole) {
  testing::internal::CaptureStdout();
  testing::internal::CaptureStderr();
  {
    const Scene scene(48000, 0.2);
    StreamHandle stream = make_stream(48000, 2, 2, SE_STREAM_DELAY_AUTO);
    std::vector<float> out(scene.mics[0].size());
    use_on_audio_thread(stream.get(), scene, out);
  }
  std::fflush(stdout);
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
}

// For the thread sanitizer, and for torn settings: every record that a reader sees is one that was
// written.
TEST(Stream, ThreadsMaySetAndLook) {
  const Scene scene(16000, 2.0);
  StreamHandle stream = make_stream(16000, 1, 1, SE_STREAM_DELAY_AUTO);
  std::atomic<bool> done{false};
  const SEStreamSettings choices[] = {preset("call"), preset("natural")};
  se_stream_set_settings(stream.get(), &choices[0]);
  std::thread setter([&] {
    for (int i = 0; !done; ++i) {
      se_stream_set_settings(stream.get(), &choices[i % 2]);
      se_stream_set_delay(stream.get(), i % 100);
      std::this_thread::yield();
    }
  });
  std::thread looker([&] {
    while (!done) {
      SEStreamSettings seen;
      se_stream_get_settings(stream.get(), &seen);
      EXPECT_TRUE(std::memcmp(&seen, &choices[0], sizeof seen) == 0 ||
                  std::memcmp(&seen, &choices[1], sizeof seen) == 0);
      SEStreamStatus status;
      se_stream_get_status(stream.get(), &status);
      EXPECT_GE(se_stream_latency(stream.get()), 1327);
      std::this_thread::yield();
    }
  });
  for (const float sample : run(stream.get(), {scene.mics[0]}, {scene.refs[0]}, 64)) {
    ASSERT_TRUE(std::isfinite(sample));
  }
  done = true;
  setter.join();
  looker.join();
}

}  // namespace

// The automatic gain control: its start, its steps, its peak tracker, and the core's measurements.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <deque>
#include <vector>

#include "dynamics/agc_state.h"
#include "guarded_region.h"
#include "random_signal.h"
#include "speechenhance/dynamics.h"

namespace {

constexpr float kWindowDb = 22.8f;

struct Agc {
  explicit Agc(size_t misalignment = 0)
      : mem(agc_query_mem(), misalignment), state(agc_init(mem.data(), kWindowDb)) {
    spectrum.assign(257, {1.0f, -1.0f});
  }

  float step(bool active, float level) {
    agc_process(state, spectrum.data(), active, level);
    return state->gain;
  }
  // The level whose desired gain is `gain`.
  float level_for(float gain) const {
    const float amplitude = state->target_amp / gain;
    return amplitude * amplitude;
  }
  // Runs through the first second and the first 50 updates (frames 100 to 149).
  void start(float level) {
    for (int frame = 1; frame <= 149; ++frame) {
      ASSERT_EQ(0, state->update_count - std::max(0, frame - 100)) << frame;
      step(true, level);
    }
  }

  GuardedRegion mem;
  AgcState* state;
  std::vector<zel_lcomplex> spectrum;
};

TEST(Agc, StepsUpToTheDesiredGainAndHolds) {
  Agc agc;
  agc.start(agc.level_for(8.0f));
  EXPECT_EQ(1.0f, agc.state->gain);
  EXPECT_EQ(1.0f, agc.spectrum[256].re);  // a unit gain is not applied
  EXPECT_EQ(2.0f, agc.step(true, agc.level_for(8.0f)));
  EXPECT_EQ(2.0f, agc.spectrum[256].re);
  EXPECT_EQ(-2.0f, agc.spectrum[0].im);
  EXPECT_FLOAT_EQ(3.7f, agc.step(true, agc.level_for(8.0f)));
  for (int i = 0; i < 300; ++i) {
    EXPECT_FLOAT_EQ(6.845f, agc.step(true, agc.level_for(8.0f)));
  }
}

TEST(Agc, StepsDownToTheDesiredGainAndHolds) {
  Agc agc;
  const float level = agc.level_for(0.19f);
  agc.state->min_gain = 0.1f;  // the lowest would be 0.501
  for (int frame = 1; frame <= 149; ++frame) agc.step(true, level);
  agc.state->gain = 1.0f;  // the overload guard was at work until the first update
  float gain = 1.0f;
  for (int i = 0; i < 100; ++i) {
    const float ratio = gain / 0.19f;
    gain *= ratio > 4.0f ? 0.8f : ratio > 2.0f ? 0.9f : ratio > 1.414f ? 0.95f : 1.0f;
    EXPECT_FLOAT_EQ(gain, agc.step(true, level));
  }
  EXPECT_LT(gain, 0.19f * 1.414f);
}

TEST(Agc, KeepsWithinItsLimits) {
  Agc loud, quiet, capped;
  loud.start(loud.level_for(0.01f));
  quiet.start(quiet.level_for(400.0f));
  capped.start(capped.level_for(8.0f));
  agc_set_max_gain(capped.state, 1.0f);
  for (int i = 0; i < 300; ++i) {
    loud.step(true, loud.level_for(0.01f));
    EXPECT_LE(quiet.step(true, quiet.level_for(400.0f)), 316.3f);
    EXPECT_LE(capped.step(true, capped.level_for(8.0f)), 1.0f);
  }
  EXPECT_NEAR(0.5011872f, loud.state->gain, 0.5011872f * 0.414f);
  EXPECT_GT(quiet.state->gain, 316.0f * 0.7f);
}

TEST(Agc, WaitsInSilenceAndGuardsAgainstOverload) {
  Agc silent;
  for (int i = 0; i < 500; ++i) EXPECT_EQ(1.0f, silent.step(false, 0.0f));
  EXPECT_EQ(0, silent.state->update_count);
  EXPECT_NEAR(0.0f, silent.state->smooth_level, 1e-20f);
  EXPECT_EQ(1.0f, silent.spectrum[5].re);

  // Activity is believed from its second frame on.
  Agc agc;
  for (int i = 0; i < 200; ++i) {
    agc.step(i % 2 == 0, 1e-3f);
    EXPECT_EQ(0, agc.state->update_count);
  }
  agc.step(true, 1e-3f);
  agc.step(true, 1e-3f);
  EXPECT_EQ(1, agc.state->update_count);

  // Too loud, but not speech: the gain falls only while it would carry the level to twice the
  // target, also within the first second.
  Agc guarded;
  const float level = guarded.level_for(0.1f);
  for (int i = 0; i < 90; ++i) {
    const float before = guarded.state->gain;
    const float gain = guarded.step(false, level);
    const bool overloads =
        std::sqrt(guarded.state->smooth_level) * before > 2.0f * guarded.state->target_amp;
    EXPECT_FLOAT_EQ(overloads ? 0.9f * before : before, gain);
  }
  EXPECT_LT(guarded.state->gain, 0.21f);

  // A gain this close to 1 is kept, but not applied.
  silent.state->gain = 1.005f;
  silent.step(false, 0.0f);
  EXPECT_EQ(1.005f, silent.state->gain);
  EXPECT_EQ(1.0f, silent.spectrum[9].re);
}

// The tracked peak over 30 s of wandering levels, against a model that keeps all means.
TEST(Agc, TracksThePeakOfTheMeanLevel) {
  Agc agc;
  RandomSignal random(5);
  std::deque<double> ring;
  std::vector<double> since;  // means since the age passed half the window
  double peak = 0;
  int age = 0, replaced = 0;
  float scale = 1.0f;
  for (int frame = 1; frame <= 3000; ++frame) {
    if (frame % 70 == 0) scale = std::pow(10.0f, 1.5f * random.uniform());
    const float level = 1e-3f * scale * (1.5f + random.uniform());
    agc.step(true, level);
    if (frame < 100) continue;
    ring.push_back(double{level});
    if (ring.size() > 20) ring.pop_front();
    double mean = 0;
    for (double l : ring) mean += l / static_cast<double>(ring.size());
    if (mean > peak) {
      peak = mean;
      age = 0;
      since.clear();
    } else if (++age > 50) {
      since.push_back(mean);
    }
    if (age == 100) {
      peak = *std::max_element(since.begin(), since.end());
      since.clear();
      age = 50;
      ++replaced;
    }
    ASSERT_NEAR(peak, agc.state->peak_level, 1e-4 * peak) << frame;
  }
  EXPECT_GT(replaced, 5);
}

TEST(AgcCore, MeasuresLevelAndActivity) {
  GuardedRegion mem(agc_core_query_mem());
  AgcCore* core = agc_core_init(mem.data(), nullptr, kWindowDb);
  std::vector<zel_lcomplex> spectrum(257, {0.0f, 0.0f});
  const float threshold_amplitude = std::sqrt(3.1622776e-06f);
  const auto frame = [&](float amplitude) {
    for (auto& bin : spectrum) bin = {0.6f * amplitude, 0.8f * amplitude};
    agc_core_process(core, spectrum.data());
  };
  for (int i = 0; i < 120; ++i) frame(0.99f * threshold_amplitude);
  EXPECT_EQ(0, core->agc->active_run);
  frame(1.02f * threshold_amplitude);  // averaged with the frame before: just above
  EXPECT_EQ(1, core->agc->active_run);
  frame(1.02f * threshold_amplitude);
  EXPECT_EQ(1, core->agc->update_count);
  EXPECT_NEAR(1.0404f * 3.1622776e-06f, core->agc->level_hist[0], 1e-11f);

  // The Nyquist bin counts like every other.
  spectrum.assign(257, {0.0f, 0.0f});
  spectrum[256].re = 257.0f;
  agc_core_process(core, spectrum.data());
  EXPECT_NEAR(257.0f, core->prev_power, 1e-3f);
  agc_core_set_max_gain(core, 2.5f);
  EXPECT_EQ(2.5f, core->agc->max_gain);
}

TEST(Agc, TakesThePublishedMemoryAtAnyAlignment) {
  const bool wide = sizeof(void*) != 4;
  EXPECT_EQ(182 + (wide ? sizeof(AgcState) - 80 : 0), agc_query_mem());
  EXPECT_EQ(agc_query_mem() + 19 + (wide ? sizeof(AgcCore) - 12 : 0), agc_core_query_mem());
  EXPECT_EQ(0u, agc_core_query_scratch());
  for (size_t misalignment = 0; misalignment < 16; ++misalignment) {
    GuardedRegion mem(agc_core_query_mem(), misalignment);
    AgcCore* core = agc_core_init(mem.data(), nullptr, kWindowDb);
    EXPECT_TRUE(mem.holds(core, 1, alignof(AgcCore)));
    EXPECT_TRUE(mem.holds(core->agc, 1, 8));
    EXPECT_TRUE(mem.holds(core->agc->level_hist, 20, 16));
    std::vector<zel_lcomplex> spectrum(257, {1.0f, 0.0f});
    for (int i = 0; i < 200; ++i) agc_core_process(core, spectrum.data());
    EXPECT_TRUE(mem.intact());
  }
  Agc agc;
  EXPECT_NEAR(std::pow(10.0, (kWindowDb - 22) / 20), agc.state->target_amp, 1e-6);
  EXPECT_NEAR(std::pow(10.0, (kWindowDb - 80) / 10), agc.state->active_level, 1e-11);
}

}  // namespace

// The bits of the signal modules' outputs, the same with every compiler, at every optimisation
// level and on every architecture.
#include <gtest/gtest.h>

#include <cstring>
#include <vector>

#include "bit_hash.h"
#include "guarded_region.h"
#include "random_signal.h"
#include "speechenhance/aec.h"
#include "speechenhance/dynamics.h"
#include "speechenhance/noise_reduction.h"

namespace {

constexpr size_t kBins = 257;

std::vector<zel_lcomplex> random_spectrum(RandomSignal& random, float scale) {
  std::vector<zel_lcomplex> x(kBins);
  for (auto& bin : x) {
    bin.re = scale * random.uniform();
    bin.im = scale * random.uniform();
  }
  return x;
}

std::vector<float> powers(const std::vector<zel_lcomplex>& x) {
  std::vector<float> result;
  for (const auto& bin : x) result.push_back(bin.re * bin.re + bin.im * bin.im);
  return result;
}

// Golden numbers: printed by this test itself on x86-64 with GCC 12 at -O3; equal there at -O0,
// with Clang 14, and on ARMv7 under qemu-arm.
TEST(ModuleBits, AreTheSameEverywhere) {
  GuardedRegion aec_mem(aec_query_mem()), aec_scratch(aec_query_scratch());
  GuardedRegion est_mem(noise_estimate_query_mem(10, 257)),
      est_scratch(noise_estimate_query_scratch(257));
  GuardedRegion sup_mem(noise_suppress_query_mem(257)),
      sup_scratch(noise_suppress_query_scratch(257));
  GuardedRegion agc_mem(agc_core_query_mem()), limiter_mem(limiter_query_mem());
  aec_state* aec = aec_init(aec_mem.data(), aec_scratch.data());
  NoiseEstimator* estimator =
      noise_estimate_init(est_mem.data(), est_scratch.data(), 10, 257, 192.0f);
  NoiseSuppressor* suppressor =
      noise_suppress_init(sup_mem.data(), sup_scratch.data(), 10, 257, 10.0f);
  AgcCore* agc = agc_core_init(agc_mem.data(), nullptr, 22.75f);
  LimiterStruct* limiter = limiter_init(limiter_mem.data());

  BitHash aec_hash, noise_hash, agc_hash, limiter_hash;
  RandomSignal random(2024);
  std::vector<zel_lcomplex> suppressed(kBins);
  std::vector<float> noise(kBins);
  for (int frame = 0; frame < 1000; ++frame) {
    const float level = frame % 90 < 40 ? 2.0f : 0.05f;
    const auto ref = random_spectrum(random, frame % 200 < 150 ? 3.0f : 0.0f);
    auto mic0 = random_spectrum(random, level), mic1 = random_spectrum(random, 0.3f * level);
    for (size_t k = 0; k < kBins; ++k) {
      mic0[k].re += (frame < 500 ? 0.5f : -0.2f) * ref[k].re;
      mic0[k].im += (frame < 500 ? 0.5f : -0.2f) * ref[k].im;
      mic1[k].re -= 0.75f * ref[k].im;
      mic1[k].im += 0.75f * ref[k].re;
    }
    auto power0 = powers(mic0), power1 = powers(mic1);
    zel_lcomplex* const mics[2] = {mic0.data(), mic1.data()};
    float* const mic_powers[2] = {power0.data(), power1.data()};
    aec_process(aec, mics, mic_powers, ref.data());
    aec_hash.add(mic0);
    aec_hash.add(mic1);
    aec_hash.add(power1);

    noise_estimate_process(estimator, power1.data(), noise.data());
    noise_suppress_process(suppressor, noise.data(), mic1.data(), suppressed.data());
    noise_hash.add(noise);
    noise_hash.add(suppressed);

    agc_core_process(agc, suppressed.data());
    agc_hash.add(suppressed);

    std::vector<float> samples(160);
    for (auto& x : samples) x = 0.7f * level * random.uniform();
    limiter_process_float(limiter, samples.data(), 160, false,
                          0.37f * static_cast<float>(frame % 31));
    limiter_hash.add(samples);
  }
  EXPECT_EQ(8032545448787065942u, aec_hash.value());
  EXPECT_EQ(15379850304948195001u, noise_hash.value());
  EXPECT_EQ(12841877117688420775u, agc_hash.value());
  EXPECT_EQ(13547415869755741771u, limiter_hash.value());
}

}  // namespace

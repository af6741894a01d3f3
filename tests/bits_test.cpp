// The bits of what the engine does not run - general transform lengths and the gain control - on
// every machine, with every compiler, at every optimisation level. What it runs is pinned by the
// golden hash of the pipeline.
#include <gtest/gtest.h>

#include "bit_hash.h"
#include "guarded_region.h"
#include "random_signal.h"
#include "speechenhance/dynamics.h"
#include "speechenhance/zel_fft.h"

// Golden numbers: printed by these tests on x86-64 with GCC 12 at -O3; equal there at -O0, with
// Clang 14, and on ARMv7 under qemu-arm. When results change on purpose, see these agree again.
TEST(Bits, OfTransformsOfAnyLength) {
  BitHash hash;
  RandomSignal random(12);
  for (const int n : {60, 77, 128, 240, 256, 480}) {
    GuardedRegion mem(zel_fft_c2c_float32_query_mem(n)), real_mem(zel_fft_r2c_query_mem_api(n)),
        scratch(zel_fft_r2c_query_scratch_mem_api(n) + zel_fft_c2c_float32_query_scratch_mem(n));
    c2c_plan* plan = ne10_fft_init_c2c_float32_c_x(n, mem.data(), scratch.data());
    const auto x = random.complexes(n);
    auto spectrum = x;
    for (const int inverse : {0, 1}) {
      ne10_fft_c2c_1d_float32_c_x(spectrum.data(), x.data(), plan, inverse);
      hash.add(spectrum);
    }
    r2c_handle* handle = zel_fft_init_r2c(n, real_mem.data(), scratch.data());
    auto signal = random.reals(n);
    zel_CLfftL(handle, spectrum.data(), signal.data());
    hash.add(spectrum);
    zel_LifftCL(handle, signal.data(), spectrum.data());
    hash.add(signal);
  }
  EXPECT_EQ(hash.value(), 0x8ba3eaae8772544fu) << std::hex << "0x" << hash.value();
}

TEST(Bits, OfTheGainControl) {
  GuardedRegion mem(agc_core_query_mem());
  AgcCore* agc = agc_core_init(mem.data(), nullptr, 22.75f);
  RandomSignal random(2024);
  BitHash hash;
  for (int frame = 0; frame < 1000; ++frame) {
    std::vector<zel_lcomplex> spectrum = random.complexes(257, frame % 90 < 40 ? 2.0f : 0.05f);
    agc_core_process(agc, spectrum.data());
    hash.add(spectrum);
  }
  EXPECT_EQ(hash.value(), 0xf10899b8915181u) << std::hex << "0x" << hash.value();
}

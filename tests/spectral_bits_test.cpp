// One hash over runs of all transforms: the same bits on every machine, with every compiler, at
// every optimisation level. When results change on purpose, run this test on x86-64 at -O0 and -O3
// and on ARMv7 (qemu-arm), see the three agree, and store the value that they print.
#include "bit_hash.h"
#include "spectral_test_support.h"
#include "speechenhance/zel_fft.h"
#include "speechenhance/zel_stft.h"

using namespace spectral_test;

TEST(SpectralBits, AreTheSameEverywhere) {
  constexpr std::uint64_t kGolden = 0xe01d2822a7302580u;
  BitHash hash;
  Noise noise(12);

  for (const int n : {60, 77, 128, 240, 256}) {
    GuardedRegion mem(zel_fft_c2c_float32_query_mem(n));
    GuardedRegion scratch(zel_fft_c2c_float32_query_scratch_mem(n));
    c2c_plan* plan = ne10_fft_init_c2c_float32_c_x(n, mem.data(), scratch.data());
    const std::vector<zel_lcomplex> x = noise.complexes(n);
    std::vector<zel_lcomplex> out(x.size());
    for (const int inverse : {0, 1}) {
      ne10_fft_c2c_1d_float32_c_x(out.data(), x.data(), plan, inverse);
      hash.add(out);
    }
  }

  for (const int n : {128, 480, 512}) {
    GuardedRegion mem(zel_fft_r2c_query_mem_api(n));
    GuardedRegion scratch(zel_fft_r2c_query_scratch_mem_api(n));
    r2c_handle* handle = zel_fft_init_r2c(n, mem.data(), scratch.data());
    std::vector<float> x = noise.reals(n);
    std::vector<zel_lcomplex> spectrum(x.size() / 2 + 1);
    zel_CLfftL(handle, spectrum.data(), x.data());
    hash.add(spectrum);
    zel_LifftCL(handle, x.data(), spectrum.data());
    hash.add(x);
  }

  GuardedRegion analysis_mem(zel_stft_query_mem(512, 0));
  GuardedRegion synthesis_mem(zel_stft_query_mem(512, 1));
  GuardedRegion scratch(zel_stft_query_scratch(512));
  stft_state* analysis = zel_stft_init(analysis_mem.data(), scratch.data(), p_win_tmp, 512, 160, 0);
  stft_state* synthesis =
      zel_stft_init(synthesis_mem.data(), scratch.data(), p_win_tmp, 512, 160, 1);
  for (int t = 0; t < 50; ++t) {
    std::vector<zel_lcomplex> spectrum(257);
    std::vector<float> block = noise.reals(160);
    zel_stft_analysis(analysis, block.data(), spectrum.data());
    hash.add(spectrum);
    zel_stft_synthesis_envelop(synthesis, spectrum.data(), block.data());
    hash.add(block);
  }

  EXPECT_EQ(hash.value(), kGolden) << std::hex << "0x" << hash.value();
}

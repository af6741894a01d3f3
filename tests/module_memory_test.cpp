// What all modules have in common: memory and scratch memory of the size that the headers state.
#include <gtest/gtest.h>

#include "aec/aec_state.h"
#include "aec/echo_subtraction_state.h"
#include "dynamics/agc_state.h"
#include "dynamics/limiter_struct.h"
#include "nn/denoiser.h"
#include "ns/noise_estimator_state.h"
#include "ns/noise_suppressor_state.h"
#include "spectral/fft_plans.h"
#include "speechenhance/zel_stft.h"

namespace {

// What a record is larger by than with 4-byte pointers, for which its size is stated.
template <class Record>
std::size_t growth(std::size_t stated) {
  EXPECT_TRUE(sizeof(void*) != 4 || sizeof(Record) == stated);
  return sizeof(Record) - stated;
}

TEST(ModuleMemory, FollowsTheFiguresInTheHeaders) {
  const std::size_t c2c = growth<c2c_plan>(24), r2c = growth<r2c_plan>(20),
                    real = c2c + growth<real_plan>(20), handle = growth<r2c_handle>(12),
                    stft = sizeof(void*) == 4 ? 0 : 24,
                    subtraction = growth<echo_subtraction_state>(36),
                    aec = 2 * subtraction + growth<aec_state>(44), agc = growth<AgcState>(80),
                    conv = growth<Conv2D>(124), gru = growth<Gru>(32),
                    network = growth<se::nn::NNDenoiser>(116) + 5 * conv + 4 * gru;
  const auto conv_mem = [](int in_channels, int in_width, int freq_pad) {
    return static_cast<std::size_t>(conv2d_query_mem(2, in_channels, in_width, freq_pad));
  };
  const auto conv_scratch = [](int in_channels, int in_width, int kernel_freq) {
    return static_cast<std::size_t>(conv2d_query_scratch(in_channels, 3, kernel_freq, in_width, 1));
  };
  const struct {
    const char* module;
    std::size_t actual, stated, growth;
  } figures[] = {
      {"complex transform", zel_fft_c2c_float32_query_mem(480), 8 * 480 + 302, c2c},
      {"its scratch", zel_fft_c2c_float32_query_scratch_mem(480), 8 * 480 + 15, 0},
      {"power of two", zel_fft_r2c_float32_query_mem(1024), 768 * 8 + 294, r2c},
      {"general length", zel_fft_real_float32_query_mem(9), 8 * 4 + 302 + 16 * 4 + 38, real},
      {"its scratch", zel_fft_real_float32_query_scratch_mem(9), 8 * 4 + 15 + 16 * 4 + 23, 0},
      {"real transform", zel_fft_r2c_query_mem_api(512), 3381, handle + r2c},
      {"real transform", zel_fft_r2c_u_float32_query_mem(480), 6100 + 15, handle + real},
      {"its scratch", zel_fft_r2c_query_scratch_mem_api(512), 4111, 0},
      {"its scratch", zel_fft_r2c_u_float32_query_scratch_mem(480), 5798, 0},
      {"analysis", zel_stft_query_mem(512, 0), 5487, stft + handle + r2c},
      {"synthesis", zel_stft_query_mem(512, 1), 7550, stft + handle + r2c},
      {"their scratch", zel_stft_query_scratch(512), 6174, 0},
      {"echo subtraction", echo_subtraction_query_mem(), 17210, subtraction},
      {"canceller", aec_query_mem(), 46080, aec},
      {"its scratch", aec_query_scratch(), 2074, 0},
      {"estimator", noise_estimate_query_mem(10, 257), 10442, growth<NoiseEstimator>(72)},
      {"its scratch", noise_estimate_query_scratch(257), 1043, 0},
      {"suppressor", noise_suppress_query_mem(257), 1098, growth<NoiseSuppressor>(48)},
      {"its scratch", noise_suppress_query_scratch(257), 3129, 0},
      {"gain control", agc_query_mem(), 182, agc},
      {"its core", agc_core_query_mem(), 201, agc + growth<AgcCore>(12)},
      {"its scratch", agc_core_query_scratch(), 0, 0},
      {"limiter", limiter_query_mem(), 246, growth<LimiterStruct>(36)},
      {"convolution 1", conv_mem(3, 128, 2), 2552, conv},
      {"its scratch", conv_scratch(3, 128, 5), 7053, 0},
      {"convolution 5", conv_mem(64, 16, 1), 7088, conv},
      {"its scratch", conv_scratch(64, 16, 3), 134317, 0},
      {"GRU", static_cast<std::size_t>(gru_query_mem(200)), 450, gru},
      {"its scratch", static_cast<std::size_t>(gru_query_scratch(200, 128)), 2716, 0},
      {"denoiser", static_cast<std::size_t>(nn_query_mem_api()), 37598, network},
      {"its scratch", static_cast<std::size_t>(nn_query_scratch_api()), 134317, 0},
  };
  for (const auto& f : figures) EXPECT_EQ(f.actual, f.stated + f.growth) << f.module;
}

}  // namespace

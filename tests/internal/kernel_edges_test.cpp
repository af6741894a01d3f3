// What only the plain kernels can show: the edges of their ranges and the order of their sums.
#include <gtest/gtest.h>

#include <cmath>
#include <vector>

#include "kernels/kernels.h"

namespace {

const se::SampleKernels& sample = *se::kScalarKernels.sample;
const se::SpectralKernels& spectral = *se::kScalarKernels.spectral;

TEST(SampleKernels, ConvertEverySixteenBitValueThereAndBack) {
  std::vector<int16_t> all, back(65536);
  for (int v = -32768; v <= 32767; ++v) all.push_back(static_cast<int16_t>(v));
  std::vector<float> floats(all.size());
  sample.s16_to_float(all.data(), floats.data(), 65536);
  sample.float_to_s16(floats.data(), back.data(), 65536);
  EXPECT_EQ(all, back);
  EXPECT_EQ(-1.0f, floats.front());
  EXPECT_EQ(0.999969482421875f, floats.back());
}

TEST(SampleKernels, SaturateAndTruncate) {
  const std::pair<float, int16_t> cases[] = {{1.0f, 32767},
                                             {-1.2f, -32768},
                                             {0.5f + 1.0f / 65536, 16384},
                                             {-0.5f - 1.0f / 65536, -16384},
                                             {3e38f, 32767},
                                             {INFINITY, 32767},
                                             {-INFINITY, -32768},
                                             {NAN, 0},
                                             {0.9f / 32768, 0},
                                             {-0.9f / 32768, 0}};
  for (const auto& [in, expected] : cases) {
    int16_t out = 99;
    sample.float_to_s16(&in, &out, 1);
    EXPECT_EQ(expected, out) << in;
  }
}

TEST(SampleKernels, FindPeaksThatAreNumbers) {
  const std::vector<float> x = {0.25f, -3.0f, NAN, 2.0f};
  EXPECT_EQ(3.0f, sample.peak(x.data(), 4));
  EXPECT_EQ(0.0f, sample.peak(x.data() + 2, 1));
  EXPECT_EQ(0.0f, sample.peak(nullptr, 0));
}

TEST(SpectralKernels, DivideByZeroAndSumInFourPartialSums) {
  std::vector<float> quotient = {1.0f, 2.0f, 3.0f};
  const float divisor[] = {0.0f, 4.0f, -0.0f};
  spectral.divide_or_zero(quotient.data(), divisor, quotient.data(), 3);
  EXPECT_EQ(quotient, (std::vector<float>{0.0f, 0.5f, 0.0f}));
  // Only this order keeps the small values: 1e8 and -1e8 meet in one partial sum.
  const float order[] = {1e8f, 1, 1, 1, -1e8f, 1, 1, 1};
  EXPECT_EQ(spectral.sum(order, 8), 6.0f);
}

}  // namespace

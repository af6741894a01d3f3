// The sample kernels at the edges of their ranges.
#include "kernels/sample_kernels.h"

#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <vector>

namespace {

using se::kScalarSample;

TEST(SampleKernels, ConvertEverySixteenBitValueThereAndBack) {
  std::vector<int16_t> all, back(65536);
  for (int v = -32768; v <= 32767; ++v) all.push_back(static_cast<int16_t>(v));
  std::vector<float> floats(all.size());
  kScalarSample.s16_to_float(all.data(), floats.data(), 65536);
  kScalarSample.float_to_s16(floats.data(), back.data(), 65536);
  EXPECT_EQ(all, back);
  EXPECT_EQ(-1.0f, floats.front());
  EXPECT_EQ(0.999969482421875f, floats.back());
}

TEST(SampleKernels, SaturateAndTruncate) {
  constexpr float kInfinity = std::numeric_limits<float>::infinity();
  const struct {
    float in;
    int16_t out;
  } cases[] = {{1.0f, 32767},
               {-1.0f, -32768},
               {1.2f, 32767},
               {-1.2f, -32768},
               {0.5f + 1.0f / 65536, 16384},
               {-0.5f - 1.0f / 65536, -16384},
               {3e38f, 32767},
               {-3e38f, -32768},
               {kInfinity, 32767},
               {-kInfinity, -32768},
               {std::nanf(""), 0},
               {0.9f / 32768, 0},
               {-0.9f / 32768, 0}};
  for (const auto& c : cases) {
    int16_t out = 99;
    kScalarSample.float_to_s16(&c.in, &out, 1);
    EXPECT_EQ(c.out, out) << c.in;
  }
}

TEST(SampleKernels, FindPeaksAndApplyRamps) {
  const std::vector<float> x = {0.25f, -3.0f, std::nanf(""), 2.0f};
  EXPECT_EQ(3.0f, kScalarSample.peak(x.data(), 4));
  EXPECT_EQ(0.25f, kScalarSample.peak(x.data(), 1));
  EXPECT_EQ(0.0f, kScalarSample.peak(x.data() + 2, 1));
  EXPECT_EQ(0.0f, kScalarSample.peak(nullptr, 0));
  std::vector<float> y = {2.0f, 2.0f, 2.0f, 9.0f};
  kScalarSample.apply_ramp(y.data(), 1.0f, -0.25f, y.data(), 3);
  EXPECT_EQ((std::vector<float>{2.0f, 1.5f, 1.0f, 9.0f}), y);
}

}  // namespace

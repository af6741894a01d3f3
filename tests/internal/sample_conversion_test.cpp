// The conversion between 16-bit samples and floats over its whole range.
#include <gtest/gtest.h>

#include <cmath>
#include <vector>

#include "kernels/kernels.h"

namespace {

const se::SampleKernels& sample = *se::kScalarKernels.sample;

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

}  // namespace

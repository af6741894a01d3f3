// The library's tanh on every 997th float, and the denoiser's activations built on it. All floats:
// bench/tanh_exhaustive.cpp.
#include "kernels/tanh.h"

#include <gtest/gtest.h>

#include <cfloat>
#include <cmath>
#include <vector>

#include "kernels/kernels.h"

namespace {

using se::float_bits;
using se::float_from_bits;
using se::tanh_scalar;

double ulps_off(float x) {
  const double truth = std::tanh(static_cast<double>(x));
  const double ulp = std::ldexp(1.0, std::max(std::ilogb(truth), -126) - 23);
  return std::fabs(tanh_scalar(x) - truth) / ulp;
}

TEST(Tanh, IsWithinOneAndAHalfUlpAndOdd) {
  double worst = 0.0;
  for (std::uint32_t bits = float_bits(FLT_MIN); bits <= float_bits(FLT_MAX); bits += 997) {
    const float x = float_from_bits(bits);
    worst = std::max(worst, ulps_off(x));
    ASSERT_EQ(float_bits(tanh_scalar(-x)), float_bits(tanh_scalar(x)) ^ 0x80000000u) << x;
  }
  EXPECT_LE(worst, 1.5);
  RecordProperty("largest_error_in_ulp", std::to_string(worst));
}

TEST(Tanh, MeetsItsLimits) {
  EXPECT_EQ(float_bits(tanh_scalar(0.0f)), 0u);
  EXPECT_EQ(float_bits(tanh_scalar(-0.0f)), 0x80000000u);
  EXPECT_LT(tanh_scalar(9.0f), 1.0f);
  for (const float x : {9.02f, 20.0f, 1e10f, FLT_MAX, INFINITY}) {
    EXPECT_EQ(tanh_scalar(x), 1.0f) << x;
    EXPECT_EQ(tanh_scalar(-x), -1.0f) << x;
  }
  EXPECT_TRUE(std::isnan(tanh_scalar(NAN)));
  const float subnormal = FLT_MIN / 8;  // itself, or zero where subnormals are flushed
  EXPECT_TRUE(tanh_scalar(subnormal) == subnormal || tanh_scalar(subnormal) == 0.0f);
}

TEST(Tanh, ArraysOfAnyLengthFollowTheSingleFunction) {
  for (const std::size_t n : {1u, 3u, 8u, 17u, 200u}) {
    std::vector<float> values;
    for (std::size_t i = 0; i < n; ++i) values.push_back(12.0f * std::sin(1.7f * float(i)));
    std::vector<float> t = values, s = values;
    t.push_back(77.0f);  // behind the end
    s.push_back(77.0f);
    se::kernels().nn->tanh(t.data(), static_cast<int>(n));
    se::kernels().nn->sigmoid(s.data(), static_cast<int>(n));
    for (std::size_t i = 0; i < n; ++i) {
      ASSERT_EQ(t[i], tanh_scalar(values[i]));
      ASSERT_EQ(s[i], 0.5f * (tanh_scalar(0.5f * values[i]) + 1.0f));
    }
    ASSERT_EQ(t[n], 77.0f);
    ASSERT_EQ(s[n], 77.0f);
  }
}

}  // namespace

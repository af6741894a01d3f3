// The library's tanh on every 997th float. All floats: bench/tanh_exhaustive.cpp.
#include "kernels/tanh.h"

#include <gtest/gtest.h>

#include <cfloat>
#include <cmath>

namespace {

using se::float_bits;
using se::float_from_bits;
using se::tanh_scalar;

TEST(Tanh, IsWithinOneAndAHalfUlpAndOdd) {
  for (std::uint32_t bits = float_bits(FLT_MIN); bits <= float_bits(FLT_MAX); bits += 997) {
    const float x = float_from_bits(bits);
    const double truth = std::tanh(static_cast<double>(x));
    const double ulp = std::ldexp(1.0, std::max(std::ilogb(truth), -126) - 23);
    ASSERT_LE(std::fabs(tanh_scalar(x) - truth), 1.5 * ulp) << x;
    ASSERT_EQ(float_bits(tanh_scalar(-x)), float_bits(tanh_scalar(x)) ^ 0x80000000u) << x;
  }
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

}  // namespace

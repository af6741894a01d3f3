// The library's tanh against the double-precision one over every float: the largest error in units in
// the last place, where it occurs, and whether the function is odd. Takes a few minutes. Exits with
// 1 when the error exceeds 1.5.
#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstdio>

#include "kernels/tanh.h"

int main() {
  constexpr std::uint32_t kInfinity = 0x7f800000u;
  double worst = 0.0;
  float worst_at = 0.0f;
  std::uint64_t not_odd = 0;
  for (std::uint32_t bits = 0; bits <= kInfinity; ++bits) {
    const float x = se::float_from_bits(bits);
    const float y = se::tanh_scalar(x);
    not_odd += se::float_bits(se::tanh_scalar(-x)) != (se::float_bits(y) | 0x80000000u);
    // Beyond 10 the true value is closer to 1 than any other float; below 2^-13 it is x to within
    // half an ulp, which the comparison of the other arguments need not repeat through libm.
    const double truth = x > 10.0f     ? 1.0
                         : x < 0x1p-13 ? static_cast<double>(x) * (1.0 - double{x} * x / 3.0)
                                       : std::tanh(static_cast<double>(x));
    const int exponent = bits == 0 ? -126 : std::max(std::ilogb(truth), -126);
    const double error = std::fabs(y - truth) * std::ldexp(1.0, 23 - exponent);
    if (error > worst) {
      worst = error;
      worst_at = x;
    }
  }
  std::printf("largest error %.4f ulp at %.9g; %llu arguments where tanh(-x) != -tanh(x)\n", worst,
              static_cast<double>(worst_at), static_cast<unsigned long long>(not_odd));
  return worst <= 1.5 && not_odd == 0 ? 0 : 1;
}

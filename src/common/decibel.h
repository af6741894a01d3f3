// Decibels to linear amplitude, the same bits on every machine.
//
// The exponential is the library's own: the C library's differs between versions and CPUs in the
// last place, and levels are converted while audio runs (limiter, equaliser), where such a
// difference would reach the output.
#pragma once

#include <cstdint>
#include <cstring>

namespace se {

// e^x in double precision: x = k ln 2 + r with |r| <= ln 2 / 2, a Taylor polynomial of degree 13
// for e^r, scaled by 2^k. Below 1 ulp off for results in the normal range; 0 below it, infinity
// above it, NaN for NaN. The high part of ln 2 has 32 trailing zero bits, so k times it is exact
// without a fused multiply-add.
inline double deterministic_exp(double x) {
  constexpr double kLog2e = 1.4426950408889634;
  constexpr double kLn2High = 6.93147180369123816490e-01;
  constexpr double kLn2Low = 1.90821492927058770002e-10;
  if (!(x > -708.0)) return x != x ? x : 0.0;
  if (x > 709.0) return static_cast<double>(__builtin_inf());

  const auto k = static_cast<std::int64_t>(x * kLog2e + (x < 0.0 ? -0.5 : 0.5));
  const double r = (x - static_cast<double>(k) * kLn2High) - static_cast<double>(k) * kLn2Low;
  constexpr double kInverseFactorial[] = {1.0 / 6227020800.0, 1.0 / 479001600.0, 1.0 / 39916800.0,
                                          1.0 / 3628800.0,    1.0 / 362880.0,    1.0 / 40320.0,
                                          1.0 / 5040.0,       1.0 / 720.0,       1.0 / 120.0,
                                          1.0 / 24.0,         1.0 / 6.0,         0.5};
  double p = kInverseFactorial[0];
  for (int i = 1; i < 12; ++i) p = p * r + kInverseFactorial[i];
  const double e = 1.0 + (r + r * r * p);

  const std::uint64_t bits = static_cast<std::uint64_t>(k + 1023) << 52;
  double scale;
  std::memcpy(&scale, &bits, sizeof scale);
  return e * scale;
}

// 10^(db / 20): the product db * 0.05 in single precision, the rest in double, narrowed at the end.
inline float amplitude_from_db(float db) {
  constexpr double kLn10 = 2.302585092994046;
  return static_cast<float>(deterministic_exp(static_cast<double>(db * 0.05f) * kLn10));
}

}  // namespace se

// The library's own single-precision hyperbolic tangent: one fixed sequence of additions,
// multiplications and selects, without fused operations, divisions or tables, so that scalar and
// vector code of every machine give the same bits.
//
// Method. Near zero an odd polynomial: tanh x = x + x s P(s), s = x^2. Further out, with
// t = exp(-2x) <= 0.287: tanh x = 1 - 2t / (1 + t), where 1 / (1 + t) = 1 + t R(t) and t comes from
// the usual reduction by multiples of ln 2. All three polynomials are minimax fits (Remez; the fit
// is weighted by what its error does to the result), with coefficients rounded to single precision.
//
// Accuracy: at most 1.14 units in the last place from the true value over all floats (measured over
// every float by bench/tanh_exhaustive.cpp). Odd to the bit, +-1 from |x| = 9.02 on, NaN for NaN. A
// subnormal argument gives itself, or a zero of its sign where the unit flushes subnormals; every
// other argument gives the same bits in both modes.
#pragma once

#include <cstdint>
#include <cstring>

namespace se {

struct TanhConstants {
  static constexpr float kSplit = 0.625f;  // the odd polynomial serves below
  static constexpr float kOdd[5] = {-0.3333330452442169f, 0.13331924378871918f,
                                    -0.05377230420708656f, 0.020729532465338707f,
                                    -0.005793614778667688f};

  static constexpr float kLimit = 10.0f;  // arguments beyond give what the limit gives: 1
  static constexpr float kMinus2OverLn2 = -2.8853900817779268f;
  static constexpr float kRound = 12582912.0f;     // 1.5 * 2^23: adding it rounds to integers
  static constexpr float kLn2High = 0.693359375f;  // 9 bits: exact times any exponent here
  static constexpr float kLn2Low = -2.12194440e-4f;
  static constexpr float kExp[5] = {0.4999999403953552f, 0.1666652113199234f, 0.04166839271783829f,
                                    0.00836874544620514f, 0.00138145312666893f};
  static constexpr float kInverse[6] = {-0.999998927116394f,  0.9999030828475952f,
                                        -0.9974409937858582f, 0.9699628949165344f,
                                        -0.8189113736152649f, 0.41620391607284546f};
};

inline std::uint32_t float_bits(float x) {
  std::uint32_t u;
  std::memcpy(&u, &x, sizeof u);
  return u;
}

inline float float_from_bits(std::uint32_t u) {
  float x;
  std::memcpy(&x, &u, sizeof x);
  return x;
}

inline float tanh_scalar(float x) {
  using C = TanhConstants;
  const std::uint32_t sign = float_bits(x) & 0x80000000u;
  const float a = float_from_bits(float_bits(x) ^ sign);

  const float s = a * a;
  float p = C::kOdd[4];
  p = p * s + C::kOdd[3];
  p = p * s + C::kOdd[2];
  p = p * s + C::kOdd[1];
  p = p * s + C::kOdd[0];
  const float near = a + a * (s * p);

  // t = exp(-2b) = exp(r) * 2^n with |r| <= ln(2) / 2.
  const float b = a > C::kLimit ? C::kLimit : a;  // NaN stays
  const float shifted = b * C::kMinus2OverLn2 + C::kRound;
  const float n = shifted - C::kRound;
  const float r = (b * -2.0f - n * C::kLn2High) - n * C::kLn2Low;
  float e = C::kExp[4];
  e = e * r + C::kExp[3];
  e = e * r + C::kExp[2];
  e = e * r + C::kExp[1];
  e = e * r + C::kExp[0];
  const float power = float_from_bits((float_bits(shifted) << 23) + 0x3f800000u);  // 2^n
  const float t = (1.0f + (r + (r * r) * e)) * power;

  float q = C::kInverse[5];
  q = q * t + C::kInverse[4];
  q = q * t + C::kInverse[3];
  q = q * t + C::kInverse[2];
  q = q * t + C::kInverse[1];
  q = q * t + C::kInverse[0];
  const float t2 = t + t;
  const float far = 1.0f - (t2 + t2 * (t * q));

  const float magnitude = a < C::kSplit ? near : far;
  return float_from_bits(float_bits(magnitude) | sign);
}

}  // namespace se

// The library's own single-precision hyperbolic tangent: one fixed sequence of additions,
// multiplications and selects, without fused operations, divisions or tables, so that scalar and
// vector code of every machine give the same bits. Every variant runs the one template below.
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

// The constants in the order in which tanh_of takes them. Polynomials begin with the coefficient of
// the highest power.
constexpr float kTanhConstants[] = {
    // The odd polynomial, below the split at the end.
    -0.005793614778667688f, 0.020729532465338707f, -0.05377230420708656f, 0.13331924378871918f,
    -0.3333330452442169f,
    // Arguments beyond the first one give what it gives: 1. Adding the second, 1.5 * 2^23, rounds
    // to
    // integers. The third is -2 / ln 2.
    10.0f, 12582912.0f, -2.8853900817779268f,
    // -2, and ln 2 in two parts, the first of 9 bits: exact times any exponent here.
    -2.0f, 0.693359375f, -2.12194440e-4f,
    // The exponential.
    0.00138145312666893f, 0.00836874544620514f, 0.04166839271783829f, 0.1666652113199234f,
    0.4999999403953552f,
    // The inverse.
    0.41620391607284546f, -0.8189113736152649f, 0.9699628949165344f, -0.9974409937858582f,
    0.9999030828475952f, -0.999998927116394f,
    // The split.
    0.625f};

// The constants one after another, each in all lanes of a V.
template <class V>
class TanhConstants {
 public:
  V operator()() { return V::fill(*at_++); }

 private:
  const float* at_ = kTanhConstants;
};

// The polynomial whose first coefficients came to `p` with kMore others, by Horner's scheme.
template <int kMore, class V, class Next>
__attribute__((always_inline)) inline V horner(V p, V x, Next& next) {
  if constexpr (kMore == 0) {
    return p;
  } else {
    return horner<kMore - 1>(plus_product(next(), p, x), x, next);
  }
}

// tanh in every lane of a V, a class of float vectors with
//   V::fill(f), a + b, a - b, a * b
//   plus_product(c, a, b), minus_product(c, a, b)   c + a * b and c - a * b, the product rounded
//   magnitude(a), with_sign_of(a, x)                a without its sign; a >= 0 with that of x
//   at_most(a, limit)                               NaN stays
//   shifted_power(s)                                2^n of s = n + 1.5 * 2^23
//   below(a, limit, yes, no)                        a >= 0 below the limit? not for NaN
// The constants come from `next`, in order.
template <class V, class Next>
__attribute__((always_inline)) inline V tanh_of(V x, Next next) {
  const V a = magnitude(x);
  const V s = a * a;
  const V near = plus_product(a, a, s * horner<4>(next(), s, next));

  // t = exp(-2b) = exp(r) * 2^n with |r| <= ln(2) / 2.
  const V b = at_most(a, next());
  const V round = next();
  const V shifted = plus_product(round, b, next());
  const V n = shifted - round;
  V r = b * next();
  r = minus_product(r, n, next());
  r = minus_product(r, n, next());
  const V e = horner<4>(next(), r, next);
  const V one = V::fill(1.0f);
  const V t = (one + plus_product(r, r * r, e)) * shifted_power(shifted);

  const V q = horner<5>(next(), t, next);
  const V t2 = t + t;
  const V far = one - plus_product(t2, t2, t * q);
  return with_sign_of(below(a, next(), near, far), x);
}

template <class V>
__attribute__((always_inline)) inline V tanh_of(V x) {
  return tanh_of(x, TanhConstants<V>());
}

// 1 / (1 + exp(-x)).
template <class V, class... Next>
__attribute__((always_inline)) inline V sigmoid_of(V x, Next... next) {
  const V half = V::fill(0.5f);
  return half * (tanh_of(half * x, next...) + V::fill(1.0f));
}

// Two vectors side by side, which share the loads of the constants.
template <class V>
struct Both {
  V a, b;

  static Both fill(float x) { return {V::fill(x), V::fill(x)}; }
};

template <class V>
inline Both<V> operator+(const Both<V>& x, const Both<V>& y) {
  return {x.a + y.a, x.b + y.b};
}

template <class V>
inline Both<V> operator-(const Both<V>& x, const Both<V>& y) {
  return {x.a - y.a, x.b - y.b};
}

template <class V>
inline Both<V> operator*(const Both<V>& x, const Both<V>& y) {
  return {x.a * y.a, x.b * y.b};
}

template <class V>
inline Both<V> plus_product(const Both<V>& c, const Both<V>& x, const Both<V>& y) {
  return {plus_product(c.a, x.a, y.a), plus_product(c.b, x.b, y.b)};
}

template <class V>
inline Both<V> minus_product(const Both<V>& c, const Both<V>& x, const Both<V>& y) {
  return {minus_product(c.a, x.a, y.a), minus_product(c.b, x.b, y.b)};
}

template <class V>
inline Both<V> magnitude(const Both<V>& x) {
  return {magnitude(x.a), magnitude(x.b)};
}

template <class V>
inline Both<V> with_sign_of(const Both<V>& m, const Both<V>& x) {
  return {with_sign_of(m.a, x.a), with_sign_of(m.b, x.b)};
}

template <class V>
inline Both<V> at_most(const Both<V>& x, const Both<V>& limit) {
  return {at_most(x.a, limit.a), at_most(x.b, limit.b)};
}

template <class V>
inline Both<V> shifted_power(const Both<V>& s) {
  return {shifted_power(s.a), shifted_power(s.b)};
}

template <class V>
inline Both<V> below(const Both<V>& x, const Both<V>& limit, const Both<V>& yes,
                     const Both<V>& no) {
  return {below(x.a, limit.a, yes.a, no.a), below(x.b, limit.b, yes.b, no.b)};
}

// One float as the template wants it.
struct Float1 {
  float v;

  static Float1 fill(float x) { return {x}; }
};

inline Float1 operator+(Float1 a, Float1 b) {
  return {a.v + b.v};
}

inline Float1 operator-(Float1 a, Float1 b) {
  return {a.v - b.v};
}

inline Float1 operator*(Float1 a, Float1 b) {
  return {a.v * b.v};
}

inline Float1 plus_product(Float1 c, Float1 a, Float1 b) {
  return {c.v + a.v * b.v};
}

inline Float1 minus_product(Float1 c, Float1 a, Float1 b) {
  return {c.v - a.v * b.v};
}

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

inline Float1 magnitude(Float1 a) {
  return {float_from_bits(float_bits(a.v) & 0x7fffffffu)};
}

inline Float1 with_sign_of(Float1 a, Float1 x) {
  return {float_from_bits(float_bits(a.v) | (float_bits(x.v) & 0x80000000u))};
}

inline Float1 at_most(Float1 a, Float1 limit) {
  return a.v > limit.v ? limit : a;
}

inline Float1 shifted_power(Float1 s) {
  return {float_from_bits((float_bits(s.v) << 23) + 0x3f800000u)};
}

inline Float1 below(Float1 a, Float1 limit, Float1 yes, Float1 no) {
  return a.v < limit.v ? yes : no;
}

inline float tanh_scalar(float x) {
  return tanh_of(Float1{x}).v;
}

}  // namespace se

// Complex arithmetic and the butterflies of the mixed-radix transforms.
//
// The order of operations written here is the definition of the transforms' results: plain
// multiplications and additions, no contraction, the same sequence for every butterfly. A vector
// variant that runs the same sequence per lane gives the same bits.
//
// A stage is in Stockham form (Cochran et al. 1967, decimation in time, self-sorting). Before it
// the data are `radix * stride` transforms of `span` values each, every one contiguous; it combines
// transforms g, g + stride, g + 2 stride, ... into one of `radix * span` values. Input and output
// are different arrays; both are walked contiguously in the inner loop.
#pragma once

#include "speechenhance/types.h"

namespace se {

inline zel_lcomplex operator+(zel_lcomplex a, zel_lcomplex b) {
  return {a.re + b.re, a.im + b.im};
}

inline zel_lcomplex operator-(zel_lcomplex a, zel_lcomplex b) {
  return {a.re - b.re, a.im - b.im};
}

inline zel_lcomplex operator*(zel_lcomplex a, float b) {
  return {a.re * b, a.im * b};
}

inline zel_lcomplex operator*(zel_lcomplex a, zel_lcomplex b) {
  return {a.re * b.re - a.im * b.im, a.re * b.im + a.im * b.re};
}

inline zel_lcomplex conjugate(zel_lcomplex a) {
  return {a.re, -a.im};
}

// a * w, or a * conjugate(w) in an inverse transform.
template <bool kInverse>
zel_lcomplex rotate(zel_lcomplex a, zel_lcomplex w) {
  if constexpr (kInverse) return {a.re * w.re + a.im * w.im, a.im * w.re - a.re * w.im};
  return a * w;
}

// A quarter turn in the direction of the transform: times -i forward, times i inverse.
template <bool kInverse>
zel_lcomplex quarter_turn(zel_lcomplex a) {
  if constexpr (kInverse) return {-a.im, a.re};
  return {a.im, -a.re};
}

// The transform of kRadix values in place.
template <int kRadix, bool kInverse>
struct Butterfly;

template <bool kInverse>
struct Butterfly<2, kInverse> {
  static void run(zel_lcomplex* a) {
    const zel_lcomplex sum = a[0] + a[1];
    a[1] = a[0] - a[1];
    a[0] = sum;
  }
};

template <bool kInverse>
struct Butterfly<3, kInverse> {
  static void run(zel_lcomplex* a) {
    constexpr float kSin60 = 0.8660254f;
    const zel_lcomplex sum = a[1] + a[2];
    const zel_lcomplex centre = a[0] - sum * 0.5f;
    const zel_lcomplex side = quarter_turn<kInverse>((a[1] - a[2]) * kSin60);
    a[0] = a[0] + sum;
    a[1] = centre + side;
    a[2] = centre - side;
  }
};

template <bool kInverse>
struct Butterfly<4, kInverse> {
  static void run(zel_lcomplex* a) {
    const zel_lcomplex sum02 = a[0] + a[2];
    const zel_lcomplex sum13 = a[1] + a[3];
    const zel_lcomplex difference02 = a[0] - a[2];
    const zel_lcomplex turned13 = quarter_turn<kInverse>(a[1] - a[3]);
    a[0] = sum02 + sum13;
    a[1] = difference02 + turned13;
    a[2] = sum02 - sum13;
    a[3] = difference02 - turned13;
  }
};

template <bool kInverse>
struct Butterfly<5, kInverse> {
  static void run(zel_lcomplex* a) {
    constexpr float kCos72 = 0.309017f;
    constexpr float kCos36 = 0.809017f;
    constexpr float kSin72 = 0.95105654f;
    constexpr float kSin36 = 0.58778524f;
    const zel_lcomplex sum14 = a[1] + a[4];
    const zel_lcomplex sum23 = a[2] + a[3];
    const zel_lcomplex difference14 = a[1] - a[4];
    const zel_lcomplex difference23 = a[2] - a[3];
    const zel_lcomplex centre1 = (a[0] + sum14 * kCos72) - sum23 * kCos36;
    const zel_lcomplex centre2 = (a[0] - sum14 * kCos36) + sum23 * kCos72;
    const zel_lcomplex side1 =
        quarter_turn<kInverse>(difference14 * kSin72 + difference23 * kSin36);
    const zel_lcomplex side2 =
        quarter_turn<kInverse>(difference14 * kSin36 - difference23 * kSin72);
    a[0] = (a[0] + sum14) + sum23;
    a[1] = centre1 + side1;
    a[2] = centre2 + side2;
    a[3] = centre2 - side2;
    a[4] = centre1 - side1;
  }
};

template <bool kInverse>
struct Butterfly<8, kInverse> {
  static void run(zel_lcomplex* a) {
    constexpr float kHalfSqrt2 = 0.70710677f;
    zel_lcomplex even[4] = {a[0], a[2], a[4], a[6]};
    zel_lcomplex odd[4] = {a[1], a[3], a[5], a[7]};
    Butterfly<4, kInverse>::run(even);
    Butterfly<4, kInverse>::run(odd);
    // Eighth turns: (a + turned a) / sqrt 2 is one, (turned a - a) / sqrt 2 is three.
    odd[1] = (odd[1] + quarter_turn<kInverse>(odd[1])) * kHalfSqrt2;
    odd[2] = quarter_turn<kInverse>(odd[2]);
    odd[3] = (quarter_turn<kInverse>(odd[3]) - odd[3]) * kHalfSqrt2;
    for (int q = 0; q < 4; ++q) {
      a[q] = even[q] + odd[q];
      a[q + 4] = even[q] - odd[q];
    }
  }
};

// The first stage executed: span 1, no twiddles.
template <int kRadix, bool kInverse, bool kScaled>
void first_stage(const zel_lcomplex* __restrict in, zel_lcomplex* __restrict out, int stride,
                 float scale) {
  for (int g = 0; g < stride; ++g) {
    zel_lcomplex leg[kRadix];
    for (int k = 0; k < kRadix; ++k) leg[k] = in[k * stride + g];
    Butterfly<kRadix, kInverse>::run(leg);
    for (int k = 0; k < kRadix; ++k) out[g * kRadix + k] = kScaled ? leg[k] * scale : leg[k];
  }
}

// A later stage: leg k of the butterfly at position j is multiplied by twiddle [(k - 1) span + j].
template <int kRadix, bool kInverse, bool kScaled>
void twiddle_stage(const zel_lcomplex* __restrict in, const zel_lcomplex* __restrict twiddles,
                   zel_lcomplex* __restrict out, int stride, int span, float scale) {
  for (int g = 0; g < stride; ++g) {
    for (int j = 0; j < span; ++j) {
      zel_lcomplex leg[kRadix];
      leg[0] = in[g * span + j];
      for (int k = 1; k < kRadix; ++k) {
        leg[k] = rotate<kInverse>(in[(k * stride + g) * span + j], twiddles[(k - 1) * span + j]);
      }
      Butterfly<kRadix, kInverse>::run(leg);
      for (int k = 0; k < kRadix; ++k) {
        out[(g * kRadix + k) * span + j] = kScaled ? leg[k] * scale : leg[k];
      }
    }
  }
}

}  // namespace se

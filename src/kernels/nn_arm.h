// What the integer layers of both ARM variants share: everything but the products themselves.
//
// A variant brings a class for a vector of activations with two members: `length()`, and
// `eight_rows(const std::int8_t* w)`, the products of eight rows of that many weights with the
// vector. Everything here has internal linkage (see neon.h).
#pragma once

#include "kernels/neon.h"
#include "kernels/nn_kernels.h"

namespace se::neon {
namespace {

constexpr int kRows = 8;  // of one block of products
constexpr int kGruFractionBits = 19;

struct Int32x8 {
  int32x4_t low;
  int32x4_t high;
};

struct Float32x8 {
  float32x4_t low;
  float32x4_t high;
};

#define SE_INLINE __attribute__((always_inline))

// body(0), body(1), ... body(kCount - 1), written out so that arrays indexed by them become
// registers. (GCC unrolls nested loops too late for that.)
template <int kCount, class Body>
SE_INLINE inline void unrolled(Body body) {
  if constexpr (kCount > 0) {
    unrolled<kCount - 1>(body);
    body(kCount - 1);
  }
}

// Where the block behind the first `done` of `count` things starts. The last block overlaps the one
// before it rather than being short; it then computes the same values again.
inline int block_start(int done, int count, int block) {
  return done + block <= count ? done : count - block;
}

// Integers with 19 fraction bits. Exact but for the one rounding to single precision.
inline Float32x8 from_gru_fixed(Int32x8 x) {
  return {vcvtq_n_f32_s32(x.low, kGruFractionBits), vcvtq_n_f32_s32(x.high, kGruFractionBits)};
}

inline Float32x8 operator+(Float32x8 a, Float32x8 b) {
  return {vaddq_f32(a.low, b.low), vaddq_f32(a.high, b.high)};
}

inline Float32x8 operator*(Float32x8 a, Float32x8 b) {
  return {vmulq_f32(a.low, b.low), vmulq_f32(a.high, b.high)};
}

inline Float32x8 load8(const float* x) {
  return {vld1q_f32(x), vld1q_f32(x + 4)};
}

inline void store8(float* x, Float32x8 v) {
  vst1q_f32(x, v.low);
  vst1q_f32(x + 4, v.high);
}

// All rows of an affine layer. There are eight at least.
template <class Vector>
void affine_rows(const IntegerLayer& layer, const Vector& q, float* y) {
  for (int done = 0; done < layer.rows; done += kRows) {
    const int r = block_start(done, layer.rows, kRows);
    const Int32x8 sums = q.eight_rows(layer.weights + r * layer.row_len);
    const Float32x8 products = {vcvtq_f32_s32(sums.low), vcvtq_f32_s32(sums.high)};
    const Float32x8 units = {vdupq_n_f32(layer.unit), vdupq_n_f32(layer.unit)};
    store8(y + r, products * (load8(layer.scale + r) * units) + load8(layer.bias + r));
  }
}

// body(r, in, state) with both products of eight rows of a gate, times 2^-19, for all rows. There
// are eight at least, as many as the state is long.
template <class Vector, class Body>
void by_gate_rows(const GruGate& gate, const Vector& input, const Vector& state, Body body) {
  for (int done = 0; done < state.length(); done += kRows) {
    const int r = block_start(done, state.length(), kRows);
    const Float32x8 in = from_gru_fixed(input.eight_rows(gate.weight_in + r * input.length()));
    body(r, in, from_gru_fixed(state.eight_rows(gate.weight_state + r * state.length())));
  }
}

template <class Vector>
void gate_rows(const GruGate& gate, const Vector& input, const Vector& state, float* y) {
  by_gate_rows(gate, input, state, [&](int r, Float32x8 in, Float32x8 st) {
    store8(y + r, ((in + load8(gate.bias_in + r)) + st) + load8(gate.bias_state + r));
  });
}

template <class Vector>
void candidate_rows(const GruGate& gate, const Vector& input, const Vector& state,
                    const float* reset, float* y) {
  by_gate_rows(gate, input, state, [&](int r, Float32x8 in, Float32x8 st) {
    const Float32x8 recurrent = (st + load8(gate.bias_state + r)) * load8(reset + r);
    store8(y + r, (recurrent + in) + load8(gate.bias_in + r));
  });
}

}  // namespace
}  // namespace se::neon

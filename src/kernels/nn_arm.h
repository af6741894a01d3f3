// What the integer layers of both ARM variants share: everything but the products themselves.
//
// A variant brings a class for a vector of activations with two members: `length()`, and
// `eight_rows(const std::int8_t* w)`, the products of eight rows of that many weights with the
// vector. Everything here has internal linkage (see neon.h).
#pragma once

#include "kernels/neon.h"
#include "kernels/nn_kernels.h"
#include "kernels/unrolled.h"

namespace se::neon {
namespace {

constexpr int kRows = 8;  // of one block of products

struct Int32x8 {
  int32x4_t low;
  int32x4_t high;
};

// Where the block behind the first `done` of `count` things starts. The last block overlaps the one
// before it rather than being short; it then computes the same values again.
inline int block_start(int done, int count, int block) {
  return done + block <= count ? done : count - block;
}

// The sums of all rows of a matrix, of which there are eight at least.
template <class Vector>
void product_rows(const Matrix& m, const Vector& q, std::int32_t* sums) {
  for (int done = 0; done < m.rows; done += kRows) {
    const int r = block_start(done, m.rows, kRows);
    const Int32x8 s = q.eight_rows(m.weights + r * m.cols);
    vst1q_s32(sums + r, s.low);
    vst1q_s32(sums + r + 4, s.high);
  }
}

// The outputs of four rows from `row` on, of which a position has `rows`: total(p) are their sums
// at the p-th position.
template <int kPositions, class Total>
SE_INLINE inline void store_outputs(const OutputScale& out, int row, int rows, float* y,
                                    Total total) {
  const float32x4_t scale = vmulq_n_f32(vld1q_f32(out.scale + row), out.unit);
  const float32x4_t bias = vld1q_f32(out.bias + row);
  unrolled<kPositions>([&](int p) SE_INLINE {
    vst1q_f32(y + p * rows + row, vmlaq_f32(bias, vcvtq_f32_s32(total(p)), scale));
  });
}

#if defined(__aarch64__)

// For products of bytes an activation is split in two, x = 128 * high + low with low from 0 to 127;
// the products of both parts are summed apart and put together at the end. What is outside
// -16384..16383 has no such parts, which the denoiser's activations (at most 6 in Q11) never are.
constexpr int kLowBits = 7;

// The parts of `n` values, a multiple of 8, eight by eight with `stride` bytes from one eight to
// the next. False where a value has none.
inline bool split_parts(const std::int16_t* q, int n, std::int8_t* high, std::int8_t* low,
                        int stride) {
  int16x8_t outside = vdupq_n_s16(0);
  for (; n > 0; n -= 8, q += 8, high += stride, low += stride) {
    const int16x8_t x = vld1q_s16(q);
    outside = vorrq_s16(outside, veorq_s16(x, vshlq_n_s16(x, 1)));  // do the top two bits differ?
    vst1_s8(high, vshrn_n_s16(x, kLowBits));
    vst1_s8(low, vmovn_s16(vandq_s16(x, vdupq_n_s16((1 << kLowBits) - 1))));
  }
  return vminvq_s16(outside) >= 0;
}

#endif

}  // namespace
}  // namespace se::neon

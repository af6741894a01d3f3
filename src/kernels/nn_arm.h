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

}  // namespace
}  // namespace se::neon

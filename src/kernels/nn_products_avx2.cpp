// Products of plain rows for AVX2.
//
// Sixteen int8 weights widen to int16 and meet sixteen activations in one multiply-add of pairs.
// Eight rows grow side by side, which share the activations, so that their last additions, across
// lanes, come to nine instructions for all eight.
#include "kernels/integers_256.h"
#include "kernels/nn_kernels.h"
#include "kernels/variants.h"

namespace se {
namespace {

// The product of one row. For rows and columns that are left over: apart, so that it is not
// unrolled into every place that could use it.
__attribute__((noinline)) std::int32_t one_product(const std::int8_t* w, const std::int16_t* q,
                                                   std::ptrdiff_t length) {
  std::uint32_t sum = 0;  // wraps, as the lanes of vectors do
  for (std::ptrdiff_t i = 0; i < length; ++i) sum += static_cast<std::uint32_t>(w[i] * q[i]);
  return static_cast<std::int32_t>(sum);
}

// The first `count` of sixteen activations, the others as 0.
__m256i load_first(const std::int16_t* q, int count) {
  alignas(32) static constexpr std::int16_t kMask[32] = {-1, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1,
                                                         -1, -1, -1, -1, -1, 0,  0,  0,  0,  0,  0,
                                                         0,  0,  0,  0,  0,  0,  0,  0,  0,  0};
  return _mm256_and_si256(load16(q), load16(kMask + 16 - count));
}

// Products of eight rows of weights with one vector. The sums start with what the length has beyond
// a multiple of sixteen (or sixteen), the rest follows sixteen by sixteen.
__m256i eight_rows(const std::int8_t* w, const std::int16_t* q, std::ptrdiff_t cols) {
  if (cols < 16) {
    alignas(32) std::int32_t sum[8];
    for (int r = 0; r < 8; ++r) sum[r] = one_product(w + r * cols, q, cols);
    return _mm256_load_si256(reinterpret_cast<const __m256i*>(sum));
  }
  const std::ptrdiff_t head = (cols - 1) % 16 + 1;
  Sums s0 = {}, s1 = s0, s2 = s0, s3 = s0, s4 = s0, s5 = s0, s6 = s0, s7 = s0;
  const auto add_products = [&](const std::int8_t* first, __m256i x) {
    add_product(s0, widen16(first), x);
    add_product(s1, widen16(first + cols), x);
    add_product(s2, widen16(first + 2 * cols), x);
    add_product(s3, widen16(first + 3 * cols), x);
    add_product(s4, widen16(first + 4 * cols), x);
    add_product(s5, widen16(first + 5 * cols), x);
    add_product(s6, widen16(first + 6 * cols), x);
    add_product(s7, widen16(first + 7 * cols), x);
  };
  add_products(w, load_first(q, static_cast<int>(head)));
  for (std::ptrdiff_t i = head; i < cols; i += 16) add_products(w + i, load16(q + i));
  return lane_sums(s0, s1, s2, s3, s4, s5, s6, s7);
}

void product(const Matrix& m, const std::int16_t* q, std::int32_t* sums) {
  const std::ptrdiff_t cols = m.cols;
  int r = 0;
  for (; r + 8 <= m.rows; r += 8) {
    _mm256_storeu_si256(reinterpret_cast<__m256i*>(sums + r),
                        eight_rows(m.weights + r * cols, q, cols));
  }
  for (; r < m.rows; ++r) sums[r] = one_product(m.weights + r * cols, q, cols);
}

}  // namespace

void use_avx2_products(NnKernels& k) {
  k.product = product;
}

}  // namespace se

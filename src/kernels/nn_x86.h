// What the integer layers of both x86 variants share: everything but the products themselves.
//
// A variant brings a class `Products` with a static function template
//   __m256i eight_rows(Known<kLength>, const std::int8_t* w, const std::int16_t* q, int length)
// for the products of eight rows of `length` weights with one vector. Everything here has internal
// linkage (see avx2.h).
#pragma once

#include <cstddef>

#include "kernels/avx2.h"
#include "kernels/nn_kernels.h"

namespace se {
namespace {

inline __m256 fill(float x) {
  return _mm256_set1_ps(x);
}

// The length of a row as a constant: loads then come from one address and loops unroll. Known<0>
// stands for any length.
template <int kLength>
struct Known {
  static constexpr int or_else(int length) { return kLength > 0 ? kLength : length; }
};

// The product of one row. For rows and columns that are left over: apart, so that it is not
// unrolled into every place that could use it.
__attribute__((noinline, unused)) std::int32_t one_product(const std::int8_t* w,
                                                           const std::int16_t* q,
                                                           std::ptrdiff_t length) {
  std::uint32_t sum = 0;  // wraps, as the lanes of vectors do
  for (std::ptrdiff_t i = 0; i < length; ++i) sum += static_cast<std::uint32_t>(w[i] * q[i]);
  return static_cast<std::int32_t>(sum);
}

// The products of all eight rows, or of the first one in the first lane.
template <class Products, int kLength>
__m256i products(Whole, Known<kLength> known, const std::int8_t* w, const std::int16_t* q,
                 int length) {
  return Products::eight_rows(known, w, q, length);
}

template <class Products, int kLength>
__m256i products(First, Known<kLength>, const std::int8_t* w, const std::int16_t* q, int length) {
  return _mm256_zextsi128_si256(_mm_cvtsi32_si128(one_product(w, q, length)));
}

// body(r, lanes) for eight rows at a time and then, one by one, for the rows left over.
template <class Body>
void by_eight_rows(int rows, Body body) {
  int r = 0;
  for (; r + 8 <= rows; r += 8) body(r, Whole());
  for (; r < rows; ++r) body(r, First(1));
}

template <class Products, int kCols>
void affine_rows(Known<kCols> known, const IntegerLayer& layer, const std::int16_t* q, float* y) {
  const std::ptrdiff_t cols = layer.row_len;
  const __m256 unit = fill(layer.unit);
  by_eight_rows(layer.rows, [&](int r, auto lanes) {
    const __m256i sum =
        products<Products>(lanes, known, layer.weights + r * cols, q, layer.row_len);
    const __m256 scale = _mm256_mul_ps(lanes.load(layer.scale + r), unit);
    lanes.store(y + r, _mm256_add_ps(_mm256_mul_ps(_mm256_cvtepi32_ps(sum), scale),
                                     lanes.load(layer.bias + r)));
  });
}

template <class Products>
void affine(const IntegerLayer& layer, const std::int16_t* q, float* y) {
  constexpr int kHeadInput = 400;  // of the denoiser
  if (layer.row_len == kHeadInput) return affine_rows<Products>(Known<kHeadInput>(), layer, q, y);
  affine_rows<Products>(Known<0>(), layer, q, y);
}

// body(r, lanes, in, state) with both products of the rows of a gate, scaled.
template <class Products, int kInput, int kHidden, class Body>
void by_gate_rows(Known<kInput> input_size, Known<kHidden> hidden_size, const GruGate& gate,
                  const GruStep& step, Body body) {
  const __m256 unit = fill(0x1p-19f);  // weight / 2^8 times activation / 2^11
  const std::ptrdiff_t in_cols = step.input_size, state_cols = step.hidden_size;
  by_eight_rows(step.hidden_size, [&](int r, auto lanes) {
    const __m256i in = products<Products>(lanes, input_size, gate.weight_in + r * in_cols,
                                          step.input, step.input_size);
    const __m256i state = products<Products>(lanes, hidden_size, gate.weight_state + r * state_cols,
                                             step.state, step.hidden_size);
    body(r, lanes, _mm256_mul_ps(_mm256_cvtepi32_ps(in), unit),
         _mm256_mul_ps(_mm256_cvtepi32_ps(state), unit));
  });
}

// The sizes of the denoiser's layers, and then any other.
template <class Products, class Body>
void by_gate_rows(const GruGate& gate, const GruStep& step, Body body) {
  if (step.input_size == 128 && step.hidden_size == 200) {
    by_gate_rows<Products>(Known<128>(), Known<200>(), gate, step, body);
  } else if (step.input_size == 200 && step.hidden_size == 200) {
    by_gate_rows<Products>(Known<200>(), Known<200>(), gate, step, body);
  } else {
    by_gate_rows<Products>(Known<0>(), Known<0>(), gate, step, body);
  }
}

template <class Products>
void gru_gate(const GruGate& gate, const GruStep& step, float* y) {
  by_gate_rows<Products>(gate, step, [&](int r, auto lanes, __m256 in, __m256 state) {
    __m256 v = _mm256_add_ps(in, lanes.load(gate.bias_in + r));
    v = _mm256_add_ps(v, state);
    lanes.store(y + r, _mm256_add_ps(v, lanes.load(gate.bias_state + r)));
  });
}

template <class Products>
void gru_candidate(const GruGate& gate, const GruStep& step, const float* reset, float* y) {
  by_gate_rows<Products>(gate, step, [&](int r, auto lanes, __m256 in, __m256 state) {
    __m256 v = _mm256_add_ps(state, lanes.load(gate.bias_state + r));
    v = _mm256_mul_ps(v, lanes.load(reset + r));
    v = _mm256_add_ps(v, in);
    lanes.store(y + r, _mm256_add_ps(v, lanes.load(gate.bias_in + r)));
  });
}

// ---- Convolutions -------------------------------------------------------------------------------

// Turns eight vectors of positions, one per row, into eight vectors of rows, one per position.
inline void transpose(__m256i* v) {
  __m256i a[8], b[8];
  for (int i = 0; i < 4; ++i) {
    a[2 * i] = _mm256_unpacklo_epi32(v[2 * i], v[2 * i + 1]);
    a[2 * i + 1] = _mm256_unpackhi_epi32(v[2 * i], v[2 * i + 1]);
  }
  for (int half = 0; half < 8; half += 4) {
    for (int i = 0; i < 2; ++i) {
      b[half + 2 * i] = _mm256_unpacklo_epi64(a[half + i], a[half + 2 + i]);
      b[half + 2 * i + 1] = _mm256_unpackhi_epi64(a[half + i], a[half + 2 + i]);
    }
  }
  for (int i = 0; i < 4; ++i) {
    v[i] = _mm256_permute2x128_si256(b[i], b[i + 4], 0x20);
    v[i + 4] = _mm256_permute2x128_si256(b[i], b[i + 4], 0x31);
  }
}

// Calls row(r, position), which gives the products of row r with eight positions from there on, for
// eight rows from `first` on and all positions, and stores the results. `layer.rows` and
// `in.positions` are multiples of eight.
template <class Row>
void convolve_eight_rows(const IntegerLayer& layer, const ConvInput& in, int first, float* y,
                         Row row) {
  const __m256 scale = _mm256_mul_ps(_mm256_loadu_ps(layer.scale + first), fill(layer.unit));
  const __m256 bias = _mm256_loadu_ps(layer.bias + first);
  for (int position = 0; position < in.positions; position += 8) {
    __m256i sums[8];
    for (int r = 0; r < 8; ++r) sums[r] = row(r, position);
    transpose(sums);
    for (int p = 0; p < 8; ++p) {
      const __m256 v = _mm256_add_ps(_mm256_mul_ps(_mm256_cvtepi32_ps(sums[p]), scale), bias);
      _mm256_storeu_ps(y + (position + p) * layer.rows + first, v);
    }
  }
}

}  // namespace
}  // namespace se

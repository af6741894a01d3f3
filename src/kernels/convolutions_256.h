// Convolutions of the denoiser with vectors of 256 bits, for AVX2 and for AVX-VNNI
// (integers_256.h).
//
// Sixteen int8 weights widen to int16 and meet sixteen activations in one multiply-add of pairs
// (exact, unlike the byte product vpmaddubsw, which saturates). Rows as they lie, and pairs of
// positions: eight sums grow side by side, neighbouring positions of one row, which share the
// weights, so that their last additions, across lanes, come to nine instructions for all eight.
// Packed weights: every lane is a row.
//
// Everything here has internal linkage: see kernels/avx2.h.
#pragma once

#include "kernels/avx2.h"
#include "kernels/integers_256.h"
#include "kernels/nn_kernels.h"
#include "kernels/packing.h"
#include "kernels/unrolled.h"

namespace se {
namespace {

// The length of a row as a constant: loads then come from one address and loops unroll. Known<0>
// stands for any length.
template <int kLength>
struct Known {
  static constexpr int or_else(int length) { return kLength > 0 ? kLength : length; }
};

// ---- Rows as they lie ---------------------------------------------------------------------------

// Windows whose length is no multiple of 16 meet a copy of the weights, widened and filled up with
// zeros; they read as many activations past their end, as long as the frame has them.
constexpr int kMaxPadded = 128;

int round_up_16(int n) {
  return round_up(n, 16);
}

// Eight rows of weights as they lie in the model.
struct PlainRows {
  PlainRows(const Matrix& m, const ConvInput& in, int first)
      : weights_(m.weights + first * m.cols), stride_(m.cols), window_(in.window) {}
  __m256i load(int row, int frame, int i) const {
    return widen16(weights_ + row * stride_ + frame * window_ + i);
  }

 private:
  const std::int8_t* weights_;
  int stride_, window_;
};

// Eight rows with every window padded.
struct PaddedRows {
  PaddedRows(const Matrix& m, const ConvInput& in, int first) : window_(round_up_16(in.window)) {
    for (int row = 0; row < 8; ++row) {
      const std::int8_t* w = m.weights + (first + row) * m.cols;
      std::int16_t* wide = wide_[row];
      for (int t = 0; t < in.frame_count; ++t, w += in.window, wide += window_) {
        for (int i = 0; i < in.window; ++i) wide[i] = w[i];
        for (int i = in.window; i < window_; ++i) wide[i] = 0;
      }
    }
  }
  __m256i load(int row, int frame, int i) const {
    return _mm256_load_si256(reinterpret_cast<const __m256i*>(wide_[row] + frame * window_ + i));
  }

 private:
  alignas(32) std::int16_t wide_[8][kMaxPadded];
  int window_;
};

// The shape of a convolution where it is known: window in sixteens and step, 0 for any.
template <int kSixteens, int kStep>
struct Shape {
  static constexpr Known<16 * kSixteens> window = {};
  static constexpr Known<kStep> step = {};
};

// Products of one row with eight positions from `offset` on.
template <class Shape, class Rows>
__m256i eight_positions(const Rows& rows, int row, const ConvInput& in, int offset) {
  Sums s0 = {}, s1 = s0, s2 = s0, s3 = s0, s4 = s0, s5 = s0, s6 = s0, s7 = s0;
  const std::ptrdiff_t step = Shape::step.or_else(in.step);
  const int window = Shape::window.or_else(round_up_16(in.window));
  for (int t = 0; t < in.frame_count; ++t) {
    const std::int16_t* const frame = in.frames[t] + offset;
#pragma GCC unroll 12
    for (int i = 0; i < window; i += 16) {
      const __m256i w = rows.load(row, t, i);
      const std::int16_t* const x = frame + i;
      add_product(s0, w, load16(x));
      add_product(s1, w, load16(x + step));
      add_product(s2, w, load16(x + 2 * step));
      add_product(s3, w, load16(x + 3 * step));
      add_product(s4, w, load16(x + 4 * step));
      add_product(s5, w, load16(x + 5 * step));
      add_product(s6, w, load16(x + 6 * step));
      add_product(s7, w, load16(x + 7 * step));
    }
  }
  return lane_sums(s0, s1, s2, s3, s4, s5, s6, s7);
}

template <class Shape, class Rows>
void convolve_rows(const Matrix& m, const ConvInput& in, const OutputScale& out, float* y) {
  for (int first = 0; first < m.rows; first += 8) {
    const Rows rows(m, in, first);
    convolve_eight_rows(m, in, out, first, y, [&](int row, int position) {
      return eight_positions<Shape>(rows, row, in, position * in.step);
    });
  }
}

// Turns eight vectors of positions, one per row, into eight vectors of rows, one per position.
void transpose(__m256i* v) {
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
// eight rows from `first` on and all positions, and stores the results. `m.rows` and
// `in.positions` are multiples of eight.
template <class Row>
void convolve_eight_rows(const Matrix& m, const ConvInput& in, const OutputScale& out, int first,
                         float* y, Row row) {
  const __m256 scale = _mm256_mul_ps(_mm256_loadu_ps(out.scale + first), fill(out.unit));
  const __m256 bias = _mm256_loadu_ps(out.bias + first);
  for (int position = 0; position < in.positions; position += 8) {
    __m256i sums[8];
    for (int r = 0; r < 8; ++r) sums[r] = row(r, position);
    transpose(sums);
    for (int p = 0; p < 8; ++p) {
      const __m256 v = _mm256_add_ps(_mm256_mul_ps(_mm256_cvtepi32_ps(sums[p]), scale), bias);
      _mm256_storeu_ps(y + (position + p) * m.rows + first, v);
    }
  }
}

void convolve(const Matrix& m, const ConvInput& in, const OutputScale& out, float* y) {
  const int window = round_up_16(in.window);
  const bool padded = window != in.window;
  const bool fits = m.rows % 8 == 0 && in.positions % 8 == 0 &&
                    (!padded || (in.frame_count * window <= kMaxPadded &&
                                 (in.positions - 1) * in.step + window <= in.frame_len));
  if (!fits) {
    kScalarNn.convolve(m, in, out, y);
    return;
  }
  // The shapes of the denoiser's layers, and then any other.
  const auto is = [&](int sixteens, int step) {
    return window == 16 * sixteens && in.step == step;
  };
  if (padded) {
    if (is(1, 6)) return convolve_rows<Shape<1, 6>, PaddedRows>(m, in, out, y);
    if (is(2, 16)) return convolve_rows<Shape<2, 16>, PaddedRows>(m, in, out, y);
    return convolve_rows<Shape<0, 0>, PaddedRows>(m, in, out, y);
  }
  if (is(3, 32)) return convolve_rows<Shape<3, 32>, PlainRows>(m, in, out, y);
  if (is(6, 32)) return convolve_rows<Shape<6, 32>, PlainRows>(m, in, out, y);
  if (is(12, 64)) return convolve_rows<Shape<12, 64>, PlainRows>(m, in, out, y);
  convolve_rows<Shape<0, 0>, PlainRows>(m, in, out, y);
}

// ---- Two positions at a time --------------------------------------------------------------------

constexpr int kPairs = 8;          // at once
constexpr int kMostPairRow = 192;  // activations per pair
constexpr int kMostPairRows = 64;
constexpr int kLargestPaired = 8192;  // activations from here on could leave 16 or 32 bits

bool fit_pairs(const ConvInput& in, int len) {
  __m256i largest = _mm256_setzero_si256();
  for (int t = 0; t < in.frame_count; ++t) {
#pragma GCC unroll 4
    for (int i = 0; i < len; i += 16) {
      const __m256i above =
          _mm256_add_epi16(load16(in.frames[t] + i), _mm256_set1_epi16(kLargestPaired));
      largest = _mm256_max_epu16(largest, above);
    }
  }
  const __m256i limit = _mm256_set1_epi16(2 * kLargestPaired - 1);
  return _mm256_movemask_epi8(_mm256_cmpeq_epi16(_mm256_max_epu16(largest, limit), limit)) == -1;
}

// What a product takes of the activations, `left` and `sign` times `right`, and how often it counts
// in the two outputs.
struct PairProduct {
  int left, right, sign;
  int in_first, in_second;
};
constexpr PairProduct kPairTable[kPairProducts] = {
    {0, 2, -1, 1, 0}, {1, 2, 1, 1, 1}, {2, 1, -1, 1, -1}, {1, 3, -1, 0, -1}};

// The activations of a product, pair after pair, frame after frame.
template <int kStep>
void combine_activations(const ConvInput& in, const PairProduct& product, std::int16_t* to) {
  const std::ptrdiff_t step = Known<kStep>::or_else(in.step);
  const __m256i sign = _mm256_set1_epi16(static_cast<std::int16_t>(product.sign));
  for (int p = 0; p < kPairs; ++p) {
    for (int t = 0; t < in.frame_count; ++t) {
      const std::int16_t* const d = in.frames[t] + 2 * p * step;
      const std::int16_t* const left = d + product.left * step;
      const std::int16_t* const right = d + product.right * step;
#pragma GCC unroll 4
      for (int c = 0; c < step; c += 16, to += 16) {
        const __m256i v =
            _mm256_add_epi16(load16(left + c), _mm256_sign_epi16(load16(right + c), sign));
        _mm256_store_si256(reinterpret_cast<__m256i*>(to), v);
      }
    }
  }
}

// One product of a row of weights with eight pairs.
template <int kLength>
__attribute__((always_inline)) inline __m256i eight_pairs(const std::int16_t* w,
                                                          const std::int16_t* x, int any_length) {
  const int length = Known<kLength>::or_else(any_length);
  Sums s0 = {}, s1 = s0, s2 = s0, s3 = s0, s4 = s0, s5 = s0, s6 = s0, s7 = s0;
#pragma GCC unroll 12
  for (int i = 0; i < length; i += 16) {
    const __m256i v = load16(w + i);
    add_product(s0, v, load16(x + i));
    add_product(s1, v, load16(x + i + length));
    add_product(s2, v, load16(x + i + 2 * length));
    add_product(s3, v, load16(x + i + 3 * length));
    add_product(s4, v, load16(x + i + 4 * length));
    add_product(s5, v, load16(x + i + 5 * length));
    add_product(s6, v, load16(x + i + 6 * length));
    add_product(s7, v, load16(x + i + 7 * length));
  }
  return lane_sums(s0, s1, s2, s3, s4, s5, s6, s7);
}

// Twice the sums of a row at the first and at the second position of every pair.
struct PairSums {
  __m256i first, second;
};

template <int kFrames, int kStep>
void convolve_pairs(const std::int16_t* pairs, const Matrix& m, const ConvInput& in,
                    const OutputScale& out, float* y) {
  const int length = in.frame_count * in.step;
  alignas(32) std::int16_t x[kPairs * kMostPairRow];
  PairSums twice[kMostPairRows];
  for (int r = 0; r < m.rows; ++r) twice[r].first = twice[r].second = _mm256_setzero_si256();
  for (int product = 0; product < kPairProducts; ++product) {
    combine_activations<kStep>(in, kPairTable[product], x);
    const __m256i in_first = _mm256_set1_epi32(kPairTable[product].in_first);
    const __m256i in_second = _mm256_set1_epi32(kPairTable[product].in_second);
    for (int r = 0; r < m.rows; ++r) {
      const __m256i sums =
          eight_pairs<kFrames * kStep>(pairs + (r * kPairProducts + product) * length, x, length);
      PairSums& row = twice[r];
      row.first = _mm256_add_epi32(row.first, _mm256_sign_epi32(sums, in_first));
      row.second = _mm256_add_epi32(row.second, _mm256_sign_epi32(sums, in_second));
    }
  }
  for (int first = 0; first < m.rows; first += 8) {
    convolve_eight_rows(m, in, out, first, y, [&](int row, int position) {
      const PairSums& sums = twice[first + row];
      const __m256i a = _mm256_srai_epi32(sums.first, 1), b = _mm256_srai_epi32(sums.second, 1);
      const __m256i low = _mm256_unpacklo_epi32(a, b), high = _mm256_unpackhi_epi32(a, b);
      return position == 0 ? _mm256_permute2x128_si256(low, high, 0x20)
                           : _mm256_permute2x128_si256(low, high, 0x31);
    });
  }
}

void paired_convolve(const std::int16_t* pairs, const Matrix& m, const ConvInput& in,
                     const OutputScale& out, float* y) {
  const int length = in.frame_count * in.step, span = (in.positions - 1) * in.step + in.window;
  const bool fits = m.rows % 8 == 0 && m.rows <= kMostPairRows && in.positions == 2 * kPairs &&
                    in.window == 3 * in.step && in.step % 16 == 0 && length <= kMostPairRow &&
                    span % 16 == 0 && fit_pairs(in, span);
  if (!fits) return convolve(m, in, out, y);
  const auto is = [&](int frames, int step) { return in.frame_count == frames && in.step == step; };
  if (is(3, 32)) return convolve_pairs<3, 32>(pairs, m, in, out, y);
  if (is(3, 64)) return convolve_pairs<3, 64>(pairs, m, in, out, y);
  convolve_pairs<0, 0>(pairs, m, in, out, y);
}

// ---- Packed weights -----------------------------------------------------------------------------

constexpr PackOrder kConvolveOrder = {kLanes, kLanes, 2};

// The outputs of kBlocks * 8 rows from `first` on at kPositions positions from `position` on. kStep
// is the step between positions where it is known, so that loads reach them from one address; 0
// otherwise.
template <int kBlocks, int kPositions, int kStep>
void convolve_tile(const PackedMatrix& m, const ConvInput& in, const OutputScale& out, int first,
                   int position, float* y) {
  const int window = round_up(in.window, 2);
  const std::ptrdiff_t step = kStep > 0 ? kStep : in.step,
                       block_bytes = std::ptrdiff_t{kLanes} * in.frame_count * window;
  const std::int8_t* w = m.weights + first / kLanes * block_bytes;
  Sums sum[kBlocks][kPositions];
  unrolled<kBlocks>(
      [&](int b) SE_INLINE { unrolled<kPositions>([&](int p) SE_INLINE { sum[b][p] = Sums{}; }); });
  for (int t = 0; t < in.frame_count; ++t) {
    const std::int16_t* x = in.frames[t] + position * step;
#pragma GCC unroll 4
    for (int i = 0; i < window; i += 2, x += 2, w += 2 * kLanes) {
      forget(x);
      __m256i weights[kBlocks];
      unrolled<kBlocks>([&](int b) SE_INLINE { weights[b] = widen16(w + b * block_bytes); });
      unrolled<kPositions>([&](int p) SE_INLINE {
        const __m256i two = broadcast32(x + p * step);
        unrolled<kBlocks>([&](int b) SE_INLINE { add_product(sum[b][p], weights[b], two); });
      });
    }
  }
  unrolled<kBlocks>([&](int b) SE_INLINE {
    const int row = first + b * kLanes;
    const __m256 scale = _mm256_mul_ps(_mm256_loadu_ps(out.scale + row), fill(out.unit));
    const __m256 bias = _mm256_loadu_ps(out.bias + row);
    unrolled<kPositions>([&](int p) SE_INLINE {
      const __m256 v =
          _mm256_add_ps(_mm256_mul_ps(_mm256_cvtepi32_ps(as_integers(sum[b][p])), scale), bias);
      _mm256_storeu_ps(y + (position + p) * m.rows + row, v);
    });
  });
}

template <int kStep>
void convolve_tiles(const PackedMatrix& m, const ConvInput& in, const OutputScale& out, float* y) {
  int row = 0;
  for (; row + 2 * kLanes <= m.rows; row += 2 * kLanes) {
    for (int p = 0; p < in.positions; p += 4) convolve_tile<2, 4, kStep>(m, in, out, row, p, y);
  }
  if (row < m.rows) {
    for (int p = 0; p < in.positions; p += 8) convolve_tile<1, 8, kStep>(m, in, out, row, p, y);
  }
}

void packed_convolve(const PackedMatrix& packed, const Matrix& m, const ConvInput& in,
                     const OutputScale& out, float* y) {
  constexpr int kLongWindow = 96;  // from here on sums across lanes cost less than broadcasts
  const bool readable = (in.positions - 1) * in.step + round_up(in.window, 2) <= in.frame_len;
  if (m.rows % kLanes != 0 || in.positions % 8 != 0 || in.window >= kLongWindow || !readable) {
    return convolve(m, in, out, y);
  }
  // The steps of the denoiser's layers, and then any other.
  if (in.step == 6) return convolve_tiles<6>(packed, in, out, y);
  if (in.step == 16) return convolve_tiles<16>(packed, in, out, y);
  if (in.step == 32) return convolve_tiles<32>(packed, in, out, y);
  convolve_tiles<0>(packed, in, out, y);
}

void use_convolutions_256(NnKernels& k) {
  k.convolve = convolve;
  k.convolve_order = kConvolveOrder;
  k.packed_convolve = packed_convolve;
  k.paired_convolve = paired_convolve;
}

}  // namespace
}  // namespace se

// Denoiser kernels for AVX2.
//
// Integer products: sixteen int8 weights widen to int16 and meet sixteen activations in one
// multiply-add of pairs (vpmaddwd; exact, unlike the byte product vpmaddubsw, which saturates).
// Eight sums grow side by side, so that their last additions, across lanes, come to nine
// instructions for all eight: in a matrix product the eight are rows, which share the activations;
// in a convolution they are neighbouring positions of one row, which share the widened weights.
//
// Activations: eight values per vector, the operations of the scalar code in their order.
#include "kernels/nn_avx2.h"

#include "kernels/nn_x86.h"
#include "kernels/tanh.h"
#include "kernels/variants.h"

namespace se {
namespace {

__m256i widen16(const std::int8_t* w) {
  return _mm256_cvtepi8_epi16(_mm_loadu_si128(reinterpret_cast<const __m128i*>(w)));
}

__m256i load16(const std::int16_t* q) {
  return _mm256_loadu_si256(reinterpret_cast<const __m256i*>(q));
}

// Eight 32-bit sums. As a type of its own, since GCC copies sums that pass from one view of a
// vector to another.
using Sums = unsigned __attribute__((vector_size(32)));

void add_product(Sums& sum, __m256i w, __m256i x) {
  sum += reinterpret_cast<Sums>(_mm256_madd_epi16(w, x));
}

// Keeps the compiler from computing the products of a whole loop before it adds any of them, for
// which there are not enough registers.
void keep_order(Sums& a, Sums& b, Sums& c, Sums& d, Sums& e, Sums& f, Sums& g, Sums& h) {
  __asm__("" : "+x"(a), "+x"(b), "+x"(c), "+x"(d), "+x"(e), "+x"(f), "+x"(g), "+x"(h));
}

// The sums over the lanes of eight vectors.
__m256i lane_sums(Sums a, Sums b, Sums c, Sums d, Sums e, Sums f, Sums g, Sums h) {
  const auto pairs = [](Sums v, Sums w) {
    return _mm256_hadd_epi32(reinterpret_cast<__m256i>(v), reinterpret_cast<__m256i>(w));
  };
  const __m256i low = _mm256_hadd_epi32(pairs(a, b), pairs(c, d));
  const __m256i high = _mm256_hadd_epi32(pairs(e, f), pairs(g, h));
  return _mm256_add_epi32(_mm256_permute2x128_si256(low, high, 0x20),
                          _mm256_permute2x128_si256(low, high, 0x31));
}

// ---- Matrix products ----------------------------------------------------------------------------

// The first `count` of sixteen activations, the others as 0.
__m256i load_first(const std::int16_t* q, int count) {
  alignas(32) static constexpr std::int16_t kMask[32] = {-1, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1,
                                                         -1, -1, -1, -1, -1, 0,  0,  0,  0,  0,  0,
                                                         0,  0,  0,  0,  0,  0,  0,  0,  0,  0};
  return _mm256_and_si256(load16(q), load16(kMask + 16 - count));
}

// Products of eight rows of weights with one vector. The sums start with what the length has beyond
// a multiple of sixteen (or sixteen), the rest follows sixteen by sixteen.
struct Products {
  template <int kLength>
  static __m256i eight_rows(Known<kLength> known, const std::int8_t* w, const std::int16_t* q,
                            int length) {
    const std::ptrdiff_t cols = known.or_else(length);
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
      keep_order(s0, s1, s2, s3, s4, s5, s6, s7);
    };
    add_products(w, load_first(q, static_cast<int>(head)));
#pragma GCC unroll 24
    for (std::ptrdiff_t i = head; i < cols; i += 16) add_products(w + i, load16(q + i));
    return lane_sums(s0, s1, s2, s3, s4, s5, s6, s7);
  }
};

// ---- Convolution --------------------------------------------------------------------------------

// Windows whose length is no multiple of 16 meet a copy of the weights, widened and filled up with
// zeros; they read as many activations past their end, as long as the frame has them.
constexpr int kMaxPadded = 128;

int round_up_16(int n) {
  return (n + 15) & ~15;
}

// Eight rows of weights as they lie in the model.
struct PlainRows {
  PlainRows(const IntegerLayer& layer, const ConvInput& in, int first)
      : weights_(layer.weights + first * layer.row_len),
        stride_(layer.row_len),
        window_(in.window) {}
  __m256i load(int row, int frame, int i) const {
    return widen16(weights_ + row * stride_ + frame * window_ + i);
  }

 private:
  const std::int8_t* weights_;
  int stride_, window_;
};

// Eight rows with every window padded.
struct PaddedRows {
  PaddedRows(const IntegerLayer& layer, const ConvInput& in, int first)
      : window_(round_up_16(in.window)) {
    for (int row = 0; row < 8; ++row) {
      const std::int8_t* w = layer.weights + (first + row) * layer.row_len;
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
      keep_order(s0, s1, s2, s3, s4, s5, s6, s7);
    }
  }
  return lane_sums(s0, s1, s2, s3, s4, s5, s6, s7);
}

template <class Shape, class Rows>
void convolve_rows(const IntegerLayer& layer, const ConvInput& in, float* y) {
  for (int first = 0; first < layer.rows; first += 8) {
    const Rows rows(layer, in, first);
    convolve_eight_rows(layer, in, first, y, [&](int row, int position) {
      return eight_positions<Shape>(rows, row, in, position * in.step);
    });
  }
}

// ---- Activations --------------------------------------------------------------------------------

// c[0] + c[1] x + c[2] x^2 + ... by Horner's scheme, nothing fused.
template <int N>
__m256 polynomial(const float (&c)[N], __m256 x) {
  __m256 p = fill(c[N - 1]);
  for (int i = N - 2; i >= 0; --i) p = _mm256_add_ps(_mm256_mul_ps(p, x), fill(c[i]));
  return p;
}

// The sequence of kernels/tanh.h. Always inlined: its constants are loaded once per loop then.
__attribute__((always_inline)) inline __m256 tanh8(__m256 x) {
  using C = TanhConstants;
  const __m256 sign = _mm256_and_ps(x, fill(-0.0f));
  const __m256 a = _mm256_xor_ps(x, sign);

  const __m256 s = _mm256_mul_ps(a, a);
  const __m256 p = polynomial(C::kOdd, s);
  const __m256 near = _mm256_add_ps(a, _mm256_mul_ps(a, _mm256_mul_ps(s, p)));

  const __m256 b = _mm256_min_ps(fill(C::kLimit), a);  // NaN stays: the second operand wins
  const __m256 shifted = _mm256_add_ps(_mm256_mul_ps(b, fill(C::kMinus2OverLn2)), fill(C::kRound));
  const __m256 n = _mm256_sub_ps(shifted, fill(C::kRound));
  const __m256 high =
      _mm256_sub_ps(_mm256_mul_ps(b, fill(-2.0f)), _mm256_mul_ps(n, fill(C::kLn2High)));
  const __m256 r = _mm256_sub_ps(high, _mm256_mul_ps(n, fill(C::kLn2Low)));
  const __m256 e = polynomial(C::kExp, r);
  const __m256 power = _mm256_castsi256_ps(_mm256_add_epi32(
      _mm256_slli_epi32(_mm256_castps_si256(shifted), 23), _mm256_set1_epi32(0x3f800000)));
  const __m256 exponential =
      _mm256_add_ps(fill(1.0f), _mm256_add_ps(r, _mm256_mul_ps(_mm256_mul_ps(r, r), e)));
  const __m256 t = _mm256_mul_ps(exponential, power);

  const __m256 q = polynomial(C::kInverse, t);
  const __m256 t2 = _mm256_add_ps(t, t);
  const __m256 far =
      _mm256_sub_ps(fill(1.0f), _mm256_add_ps(t2, _mm256_mul_ps(t2, _mm256_mul_ps(t, q))));

  const __m256 is_near = _mm256_cmp_ps(a, fill(C::kSplit), _CMP_LT_OQ);
  return _mm256_or_ps(_mm256_blendv_ps(far, near, is_near), sign);
}

void tanh(float* x, int n) {
  by_eights(n, [&](int i, auto lanes) { lanes.store(x + i, tanh8(lanes.load(x + i))); });
}

void sigmoid(float* x, int n) {
  const __m256 half = fill(0.5f);
  by_eights(n, [&](int i, auto lanes) {
    const __m256 t = tanh8(_mm256_mul_ps(half, lanes.load(x + i)));
    lanes.store(x + i, _mm256_mul_ps(half, _mm256_add_ps(t, fill(1.0f))));
  });
}

}  // namespace

namespace avx2 {

void convolve(const IntegerLayer& layer, const ConvInput& in, float* y) {
  const int window = round_up_16(in.window);
  const bool padded = window != in.window;
  const bool fits = layer.rows % 8 == 0 && in.positions % 8 == 0 &&
                    (!padded || (in.frame_count * window <= kMaxPadded &&
                                 (in.positions - 1) * in.step + window <= in.frame_len));
  if (!fits) {
    kScalarNn.convolve(layer, in, y);
    return;
  }
  // The shapes of the denoiser's layers, and then any other.
  const auto is = [&](int sixteens, int step) {
    return window == 16 * sixteens && in.step == step;
  };
  if (padded) {
    if (is(1, 6)) return convolve_rows<Shape<1, 6>, PaddedRows>(layer, in, y);
    if (is(2, 16)) return convolve_rows<Shape<2, 16>, PaddedRows>(layer, in, y);
    return convolve_rows<Shape<0, 0>, PaddedRows>(layer, in, y);
  }
  if (is(3, 32)) return convolve_rows<Shape<3, 32>, PlainRows>(layer, in, y);
  if (is(6, 32)) return convolve_rows<Shape<6, 32>, PlainRows>(layer, in, y);
  if (is(12, 64)) return convolve_rows<Shape<12, 64>, PlainRows>(layer, in, y);
  convolve_rows<Shape<0, 0>, PlainRows>(layer, in, y);
}

// The three rows run side by side in the lanes of one vector, bin by bin.
void pool(const BinShares& shares, const float* x, int x_stride, float* y, int y_stride) {
  const float* const x1 = x + x_stride;
  const float* const x2 = x1 + x_stride;
  const auto store = [&](int band, __m128 v) {
    _mm_store_ss(y + band, v);
    _mm_store_ss(y + y_stride + band, _mm_movehdup_ps(v));
    _mm_store_ss(y + 2 * y_stride + band, _mm_movehl_ps(v, v));
  };
  int band = 0;
  __m128 own = _mm_setzero_ps(), next = own;
  const auto add_bin = [&](int k, __m128 v) {
    if (shares.band[k] != band) {
      store(band, own);
      ++band;
      own = next;
      next = _mm_setzero_ps();
    }
    const __m128 f = _mm_set1_ps(shares.fraction[k]);
    const __m128 r = _mm_set1_ps(shares.inverse_width[k]);
    next = _mm_fmadd_ps(_mm_mul_ps(f, v), r, next);
    own = _mm_fmadd_ps(_mm_sub_ps(_mm_set1_ps(1.0f), f), _mm_mul_ps(v, r), own);
  };
  int k = 0;
  for (; k + 4 <= shares.bins; k += 4) {
    const __m128 a = _mm_loadu_ps(x + k), b = _mm_loadu_ps(x1 + k), c = _mm_loadu_ps(x2 + k);
    const __m128 ab_low = _mm_unpacklo_ps(a, b), ab_high = _mm_unpackhi_ps(a, b);
    add_bin(k, _mm_movelh_ps(ab_low, c));  // the fourth lane counts nowhere
    add_bin(k + 1, _mm_shuffle_ps(ab_low, c, 0x5e));
    add_bin(k + 2, _mm_shuffle_ps(ab_high, c, 0xe4));
    add_bin(k + 3, _mm_shuffle_ps(ab_high, c, 0xfe));
  }
  for (; k < shares.bins; ++k) add_bin(k, _mm_setr_ps(x[k], x1[k], x2[k], 0.0f));
  store(band, own);
  store(band + 1, next);
}

void expand(const BinShares& shares, const float* x, float* y) {
  int k = 0;
  for (; k + 8 <= shares.bins; k += 8) {
    const __m256i band =
        _mm256_cvtepu8_epi32(_mm_loadl_epi64(reinterpret_cast<const __m128i*>(shares.band + k)));
    const __m256 f = _mm256_loadu_ps(shares.fraction + k);
    const __m256 upper = _mm256_mul_ps(_mm256_i32gather_ps(x + 1, band, 4), f);
    const __m256 lower = _mm256_i32gather_ps(x, band, 4);
    const __m256 v = _mm256_fmadd_ps(lower, _mm256_sub_ps(fill(1.0f), f), upper);
    _mm256_storeu_ps(y + k, _mm256_mul_ps(v, _mm256_loadu_ps(shares.inverse_width + k)));
  }
  const BinShares rest = {shares.bins - k, shares.band + k, shares.fraction + k,
                          shares.inverse_width + k};
  kScalarNn.expand(rest, x, y + k);
}

void compress(const float* x, int n, float* y) {
  const __m256 floor = fill(1e-8f);
  by_eights(n, [&](int i, auto lanes) {
    lanes.store(y + i, _mm256_sqrt_ps(_mm256_add_ps(lanes.load(x + i), floor)));
  });
}

// Values far below the range need no clamp: they convert to the smallest int32, which packing
// saturates; values above it would do the same, and are clamped.
void quantise(const float* x, int n, float scale, std::int16_t* q) {
  const auto integers = [&](__m256 in) {
    __m256 v = _mm256_mul_ps(in, fill(scale));
    v = _mm256_and_ps(v, _mm256_cmp_ps(v, v, _CMP_ORD_Q));
    v = _mm256_min_ps(v, fill(32767.0f));
    const __m256 half = _mm256_or_ps(_mm256_and_ps(v, fill(-0.0f)), fill(0.5f));
    return _mm256_cvttps_epi32(_mm256_add_ps(v, half));
  };
  int i = 0;
  for (; i + 16 <= n; i += 16) {
    const __m256i packed =
        _mm256_packs_epi32(integers(_mm256_loadu_ps(x + i)), integers(_mm256_loadu_ps(x + i + 8)));
    _mm256_storeu_si256(reinterpret_cast<__m256i*>(q + i), _mm256_permute4x64_epi64(packed, 0xd8));
  }
  for (; i < n; i += 8) {
    const bool whole = i + 8 <= n;
    const __m256i v = integers(whole ? Whole().load(x + i) : First(n - i).load(x + i));
    const __m128i packed =
        _mm_packs_epi32(_mm256_castsi256_si128(v), _mm256_extracti128_si256(v, 1));
    if (whole) {
      _mm_storeu_si128(reinterpret_cast<__m128i*>(q + i), packed);
    } else {
      alignas(16) std::int16_t rest[8];
      _mm_store_si128(reinterpret_cast<__m128i*>(rest), packed);
      for (int k = i; k < n; ++k) q[k] = rest[k - i];
    }
  }
}

void normalise(const float* x, const float* mul, const float* add, int n, float* y) {
  by_eights(n, [&](int i, auto lanes) {
    const __m256 v = _mm256_fmadd_ps(lanes.load(x + i), lanes.load(mul + i), lanes.load(add + i));
    const __m256 zero = _mm256_setzero_ps();  // also for NaN
    lanes.store(y + i, _mm256_min_ps(_mm256_max_ps(v, zero), fill(6.0f)));
  });
}

void gru_blend(const float* update, const float* candidate, const std::int16_t* state, int n,
               float* y) {
  constexpr float kStateUnit = 0x1p-11f;
  by_eights(n, [&](int i, auto lanes) {
    alignas(16) std::int16_t last[8] = {};
    const std::int16_t* h = state + i;
    if (n - i < 8) {
      for (int k = i; k < n; ++k) last[k - i] = state[k];
      h = last;
    }
    const __m256 old = _mm256_cvtepi32_ps(
        _mm256_cvtepi16_epi32(_mm_loadu_si128(reinterpret_cast<const __m128i*>(h))));
    const __m256 z = lanes.load(update + i);
    const __m256 fresh = _mm256_mul_ps(_mm256_sub_ps(fill(1.0f), z), lanes.load(candidate + i));
    lanes.store(y + i, _mm256_fmadd_ps(old, _mm256_mul_ps(z, fill(kStateUnit)), fresh));
  });
}

}  // namespace avx2

const NnKernels kAvx2Nn = {
    avx2::pool,     avx2::expand,    avx2::compress,     avx2::quantise,          affine<Products>,
    avx2::convolve, avx2::normalise, gru_gate<Products>, gru_candidate<Products>, avx2::gru_blend,
    tanh,           sigmoid};

}  // namespace se

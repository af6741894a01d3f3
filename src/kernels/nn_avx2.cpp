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

#include "kernels/avx2.h"
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

// Products of eight rows of `cols` weights, `stride` apart, with one vector. The sums start with
// what `cols` has beyond a multiple of sixteen (or sixteen), the rest follows sixteen by sixteen.
__m256i eight_products(const std::int8_t* w, std::ptrdiff_t stride, const std::int16_t* q,
                       int cols) {
  if (cols < 16) {
    alignas(32) std::int32_t sum[8] = {};
    for (int r = 0; r < 8; ++r, w += stride) {
      for (int i = 0; i < cols; ++i) sum[r] += w[i] * q[i];
    }
    return _mm256_load_si256(reinterpret_cast<const __m256i*>(sum));
  }
  const int head = (cols - 1) % 16 + 1;
  const std::int8_t* w4 = w + 4 * stride;
  const __m256i x = load_first(q, head);
  Sums s0 = reinterpret_cast<Sums>(_mm256_madd_epi16(widen16(w), x));
  Sums s1 = reinterpret_cast<Sums>(_mm256_madd_epi16(widen16(w + stride), x));
  Sums s2 = reinterpret_cast<Sums>(_mm256_madd_epi16(widen16(w + 2 * stride), x));
  Sums s3 = reinterpret_cast<Sums>(_mm256_madd_epi16(widen16(w + 3 * stride), x));
  Sums s4 = reinterpret_cast<Sums>(_mm256_madd_epi16(widen16(w4), x));
  Sums s5 = reinterpret_cast<Sums>(_mm256_madd_epi16(widen16(w4 + stride), x));
  Sums s6 = reinterpret_cast<Sums>(_mm256_madd_epi16(widen16(w4 + 2 * stride), x));
  Sums s7 = reinterpret_cast<Sums>(_mm256_madd_epi16(widen16(w4 + 3 * stride), x));
  w += head;
  w4 += head;
  for (int i = head; i < cols; i += 16, w += 16, w4 += 16) {
    const __m256i next = load16(q + i);
    add_product(s0, widen16(w), next);
    add_product(s1, widen16(w + stride), next);
    add_product(s2, widen16(w + 2 * stride), next);
    add_product(s3, widen16(w + 3 * stride), next);
    add_product(s4, widen16(w4), next);
    add_product(s5, widen16(w4 + stride), next);
    add_product(s6, widen16(w4 + 2 * stride), next);
    add_product(s7, widen16(w4 + 3 * stride), next);
  }
  return lane_sums(s0, s1, s2, s3, s4, s5, s6, s7);
}

// body(r, lanes, stride) for eight rows at a time, then for the rows left over one by one: those
// run as eight times the same row, of which one lane counts.
template <class Body>
void by_eight_rows(int rows, int cols, Body body) {
  int r = 0;
  for (; r + 8 <= rows; r += 8) body(r, Whole(), cols);
  for (; r < rows; ++r) body(r, First(1), 0);
}

void affine(const IntegerLayer& layer, const std::int16_t* q, float* y) {
  const int cols = layer.row_len;
  const __m256 unit = _mm256_set1_ps(layer.unit);
  by_eight_rows(layer.rows, cols, [&](int r, auto lanes, int stride) {
    const __m256i sum = eight_products(layer.weights + r * cols, stride, q, cols);
    const __m256 scale = _mm256_mul_ps(lanes.load(layer.scale + r), unit);
    lanes.store(y + r, _mm256_add_ps(_mm256_mul_ps(_mm256_cvtepi32_ps(sum), scale),
                                     lanes.load(layer.bias + r)));
  });
}

// The two products of eight rows of a gate, scaled.
struct GateSums {
  __m256 in, state;
};

GateSums gate_sums(const GruGate& gate, const GruStep& step, int r, bool one_row) {
  constexpr float kGruUnit = 0x1p-19f;  // weight / 2^8 times activation / 2^11
  const __m256 unit = _mm256_set1_ps(kGruUnit);
  const __m256i in = eight_products(gate.weight_in + r * step.input_size,
                                    one_row ? 0 : step.input_size, step.input, step.input_size);
  const __m256i state =
      eight_products(gate.weight_state + r * step.hidden_size, one_row ? 0 : step.hidden_size,
                     step.state, step.hidden_size);
  return {_mm256_mul_ps(_mm256_cvtepi32_ps(in), unit),
          _mm256_mul_ps(_mm256_cvtepi32_ps(state), unit)};
}

void gru_gate(const GruGate& gate, const GruStep& step, float* y) {
  by_eight_rows(step.hidden_size, 1, [&](int r, auto lanes, int stride) {
    const GateSums sums = gate_sums(gate, step, r, stride == 0);
    __m256 v = _mm256_add_ps(sums.in, lanes.load(gate.bias_in + r));
    v = _mm256_add_ps(v, sums.state);
    lanes.store(y + r, _mm256_add_ps(v, lanes.load(gate.bias_state + r)));
  });
}

void gru_candidate(const GruGate& gate, const GruStep& step, const float* reset, float* y) {
  by_eight_rows(step.hidden_size, 1, [&](int r, auto lanes, int stride) {
    const GateSums sums = gate_sums(gate, step, r, stride == 0);
    __m256 v = _mm256_add_ps(sums.state, lanes.load(gate.bias_state + r));
    v = _mm256_mul_ps(v, lanes.load(reset + r));
    v = _mm256_add_ps(v, sums.in);
    lanes.store(y + r, _mm256_add_ps(v, lanes.load(gate.bias_in + r)));
  });
}

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

// Products of one row with eight positions from `offset` on.
template <class Rows>
__m256i eight_positions(const Rows& rows, int row, const ConvInput& in, int offset) {
  Sums s0 = {}, s1 = s0, s2 = s0, s3 = s0, s4 = s0, s5 = s0, s6 = s0, s7 = s0;
  const std::ptrdiff_t step = in.step;
  const int window = round_up_16(in.window);
  for (int t = 0; t < in.frame_count; ++t) {
    const std::int16_t* x0 = in.frames[t] + offset;
    const std::int16_t* x4 = x0 + 4 * step;
    for (int i = 0; i < window; i += 16, x0 += 16, x4 += 16) {
      const __m256i w = rows.load(row, t, i);
      add_product(s0, w, load16(x0));
      add_product(s1, w, load16(x0 + step));
      add_product(s2, w, load16(x0 + 2 * step));
      add_product(s3, w, load16(x0 + 3 * step));
      add_product(s4, w, load16(x4));
      add_product(s5, w, load16(x4 + step));
      add_product(s6, w, load16(x4 + 2 * step));
      add_product(s7, w, load16(x4 + 3 * step));
    }
  }
  return lane_sums(s0, s1, s2, s3, s4, s5, s6, s7);
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

template <class Rows>
void convolve_rows(const IntegerLayer& layer, const ConvInput& in, int first, float* y) {
  const Rows rows(layer, in, first);
  const __m256 scale =
      _mm256_mul_ps(_mm256_loadu_ps(layer.scale + first), _mm256_set1_ps(layer.unit));
  const __m256 bias = _mm256_loadu_ps(layer.bias + first);
  for (int position = 0; position < in.positions; position += 8) {
    __m256i sums[8];
    for (int row = 0; row < 8; ++row) {
      sums[row] = eight_positions(rows, row, in, position * in.step);
    }
    transpose(sums);
    for (int p = 0; p < 8; ++p) {
      const __m256 v = _mm256_add_ps(_mm256_mul_ps(_mm256_cvtepi32_ps(sums[p]), scale), bias);
      _mm256_storeu_ps(y + (position + p) * layer.rows + first, v);
    }
  }
}

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
  for (int first = 0; first < layer.rows; first += 8) {
    if (padded) {
      convolve_rows<PaddedRows>(layer, in, first, y);
    } else {
      convolve_rows<PlainRows>(layer, in, first, y);
    }
  }
}

// ---- Activations --------------------------------------------------------------------------------

__m256 fill(float x) {
  return _mm256_set1_ps(x);
}

// c[0] + c[1] x + c[2] x^2 + ... by Horner's scheme, nothing fused.
template <int N>
__m256 polynomial(const float (&c)[N], __m256 x) {
  __m256 p = fill(c[N - 1]);
  for (int i = N - 2; i >= 0; --i) p = _mm256_add_ps(_mm256_mul_ps(p, x), fill(c[i]));
  return p;
}

// The sequence of kernels/tanh.h.
__m256 tanh8(__m256 x) {
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

}  // namespace

namespace avx2 {

void magnitude(const zel_lcomplex* spectrum, int n, float* mag) {
  const __m256 floor = fill(1e-8f);
  by_eights(n, [&](int i, auto lanes) {
    const Parts x = lanes.load_parts(spectrum + i);
    const __m256 power = _mm256_fmadd_ps(x.re, x.re, _mm256_mul_ps(x.im, x.im));
    lanes.store(mag + i, in_order(_mm256_sqrt_ps(_mm256_add_ps(power, floor))));
  });
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

}  // namespace avx2

const NnKernels kAvx2Nn = {avx2::magnitude, avx2::compress,  avx2::quantise, affine,
                           convolve,        avx2::normalise, gru_gate,       gru_candidate,
                           avx2::gru_blend, avx2::tanh,      avx2::sigmoid};

}  // namespace se

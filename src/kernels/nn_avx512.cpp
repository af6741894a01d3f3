// Denoiser kernels for AVX-512 with VNNI: the integer products and tanh; everything else stays with
// AVX2.
//
// Products as in AVX2, with thirty-two weights per step and the multiply-add of pairs and the
// addition to the sum in one instruction (vpdpwssd, exact and without saturation). Masks take the
// place of padding: what a mask leaves out is not read.
#include <cstring>

#include "kernels/nn_avx2.h"
#include "kernels/nn_x86.h"
#include "kernels/tanh.h"
#include "kernels/variants.h"

namespace se {
namespace {

constexpr int kStep = 32;

__m512i widen32(const std::int8_t* w) {
  return _mm512_cvtepi8_epi16(_mm256_loadu_si256(reinterpret_cast<const __m256i*>(w)));
}

__m512i widen(__mmask32 mask, const std::int8_t* w) {
  return _mm512_cvtepi8_epi16(_mm256_maskz_loadu_epi8(mask, w));
}

__mmask32 first_lanes(int count) {
  return _cvtu32_mask32(0xffffffffu >> (kStep - count));
}

// Sixteen 32-bit sums, as a type of its own for the same reason as in AVX2.
using Lanes = int __attribute__((vector_size(64)));

void add_product(Lanes& sum, __m512i w, __m512i x) {
  sum = reinterpret_cast<Lanes>(_mm512_dpwssd_epi32(reinterpret_cast<__m512i>(sum), w, x));
}

// Eight sums of sixteen lanes each.
struct Sums {
  Lanes a = {}, b = {}, c = {}, d = {}, e = {}, f = {}, g = {}, h = {};

  // Adds the products w(i) * x(i) to the i-th sum.
  template <class W, class X>
  void add(W w, X x) {
    add_product(a, w(0), x(0));
    add_product(b, w(1), x(1));
    add_product(c, w(2), x(2));
    add_product(d, w(3), x(3));
    add_product(e, w(4), x(4));
    add_product(f, w(5), x(5));
    add_product(g, w(6), x(6));
    add_product(h, w(7), x(7));
  }

  // The sums over all lanes.
  __m256i total() const {
    const __m512i low = quarters(a, b, c, d);
    const __m512i high = quarters(e, f, g, h);
    const __m512i halves = _mm512_add_epi32(_mm512_shuffle_i64x2(low, high, 0x88),
                                            _mm512_shuffle_i64x2(low, high, 0xdd));
    return _mm256_add_epi32(_mm512_castsi512_si256(_mm512_shuffle_i64x2(halves, halves, 0x08)),
                            _mm512_castsi512_si256(_mm512_shuffle_i64x2(halves, halves, 0x0d)));
  }

 private:
  // In every quarter, the sums over that quarter of all four.
  static __m512i quarters(Lanes p, Lanes q, Lanes r, Lanes s) {
    const auto pairs = [](Lanes x, Lanes y) {
      const auto v = reinterpret_cast<__m512i>(x), w = reinterpret_cast<__m512i>(y);
      return _mm512_add_epi32(_mm512_unpacklo_epi32(v, w), _mm512_unpackhi_epi32(v, w));
    };
    const __m512i pq = pairs(p, q), rs = pairs(r, s);
    return _mm512_add_epi32(_mm512_unpacklo_epi64(pq, rs), _mm512_unpackhi_epi64(pq, rs));
  }
};

struct Products {
  // The sums start with what the length has beyond a multiple of 32 (or 32).
  template <int kLength>
  static __m256i eight_rows(Known<kLength> known, const std::int8_t* w, const std::int16_t* q,
                            int length) {
    const std::ptrdiff_t cols = known.or_else(length);
    if (cols <= 0) return _mm256_setzero_si256();
    const std::ptrdiff_t head = (cols - 1) % kStep + 1;
    const __mmask32 mask = first_lanes(static_cast<int>(head));
    Sums sums;
    const __m512i first = _mm512_maskz_loadu_epi16(mask, q);
    sums.add([&](int row) { return widen(mask, w + row * cols); }, [&](int) { return first; });
    for (std::ptrdiff_t i = head; i < cols; i += kStep) {
      const __m512i x = _mm512_loadu_si512(q + i);
      sums.add([&](int row) { return widen32(w + row * cols + i); }, [&](int) { return x; });
    }
    return sums.total();
  }
};

// Copies of frames that start on a cache line. A step of the larger layers is a whole number of
// lines, so that with these no load crosses from one line to the next, which would cost another.
class AlignedFrames {
 public:
  explicit AlignedFrames(const ConvInput& in) : frames_(in.frames) {
    if (in.frame_count > kMaxFrames || in.frame_len > kMaxLength) return;
    for (int t = 0; t < in.frame_count; ++t) {
      std::memcpy(values_[t], in.frames[t], static_cast<std::size_t>(in.frame_len) * 2);
      copies_[t] = values_[t];
    }
    frames_ = copies_;
  }
  const std::int16_t* operator[](int t) const { return frames_[t]; }

 private:
  static constexpr int kMaxFrames = 3, kMaxLength = 1152;

  const std::int16_t* const* frames_;
  const std::int16_t* copies_[kMaxFrames];
  alignas(64) std::int16_t values_[kMaxFrames][kMaxLength];
};

void convolve(const IntegerLayer& layer, const ConvInput& in, float* y) {
  // Short windows leave too much of a vector empty.
  if (in.window < 2 * kStep) return avx2::convolve(layer, in, y);
  if (layer.rows % 8 != 0 || in.positions % 8 != 0) return kScalarNn.convolve(layer, in, y);
  const AlignedFrames frames(in);
  const std::ptrdiff_t step = in.step;
  const int whole = in.window / kStep * kStep;
  const __mmask32 mask = in.window > whole ? first_lanes(in.window - whole) : __mmask32{0};
  for (int first = 0; first < layer.rows; first += 8) {
    convolve_eight_rows(layer, in, first, y, [&](int row, int position) {
      const std::int8_t* w = layer.weights + (first + row) * layer.row_len;
      Sums sums;
      for (int t = 0; t < in.frame_count; ++t, w += in.window) {
        const std::int16_t* const x = frames[t] + position * step;
        for (int i = 0; i < whole; i += kStep) {
          const __m512i weights = widen32(w + i);
          sums.add([&](int) { return weights; },
                   [&](int p) { return _mm512_loadu_si512(x + i + p * step); });
        }
        if (whole < in.window) {
          const __m512i weights = widen(mask, w + whole);
          sums.add([&](int) { return weights; },
                   [&](int p) { return _mm512_maskz_loadu_epi16(mask, x + whole + p * step); });
        }
      }
      return sums.total();
    });
  }
}

// ---- Activations: sixteen values per vector -----------------------------------------------------

__m512 fill16(float x) {
  return _mm512_set1_ps(x);
}

template <int N>
__m512 polynomial(const float (&c)[N], __m512 x) {
  __m512 p = fill16(c[N - 1]);
  for (int i = N - 2; i >= 0; --i) p = _mm512_add_ps(_mm512_mul_ps(p, x), fill16(c[i]));
  return p;
}

// The sequence of kernels/tanh.h. Always inlined: its constants are loaded once per loop then.
__attribute__((always_inline)) inline __m512 tanh16(__m512 x) {
  using C = TanhConstants;
  const __m512 sign = _mm512_and_ps(x, fill16(-0.0f));
  const __m512 a = _mm512_xor_ps(x, sign);

  const __m512 s = _mm512_mul_ps(a, a);
  const __m512 p = polynomial(C::kOdd, s);
  const __m512 near = _mm512_add_ps(a, _mm512_mul_ps(a, _mm512_mul_ps(s, p)));

  const __m512 b = _mm512_min_ps(fill16(C::kLimit), a);  // NaN stays: the second operand wins
  const __m512 shifted =
      _mm512_add_ps(_mm512_mul_ps(b, fill16(C::kMinus2OverLn2)), fill16(C::kRound));
  const __m512 n = _mm512_sub_ps(shifted, fill16(C::kRound));
  const __m512 high =
      _mm512_sub_ps(_mm512_mul_ps(b, fill16(-2.0f)), _mm512_mul_ps(n, fill16(C::kLn2High)));
  const __m512 r = _mm512_sub_ps(high, _mm512_mul_ps(n, fill16(C::kLn2Low)));
  const __m512 e = polynomial(C::kExp, r);
  const __m512 power = _mm512_castsi512_ps(_mm512_add_epi32(
      _mm512_slli_epi32(_mm512_castps_si512(shifted), 23), _mm512_set1_epi32(0x3f800000)));
  const __m512 exponential =
      _mm512_add_ps(fill16(1.0f), _mm512_add_ps(r, _mm512_mul_ps(_mm512_mul_ps(r, r), e)));
  const __m512 t = _mm512_mul_ps(exponential, power);

  const __m512 q = polynomial(C::kInverse, t);
  const __m512 t2 = _mm512_add_ps(t, t);
  const __m512 far =
      _mm512_sub_ps(fill16(1.0f), _mm512_add_ps(t2, _mm512_mul_ps(t2, _mm512_mul_ps(t, q))));

  const __mmask16 is_near = _mm512_cmp_ps_mask(a, fill16(C::kSplit), _CMP_LT_OQ);
  return _mm512_or_ps(_mm512_mask_blend_ps(is_near, far, near), sign);
}

// x[i] = f(x[i]) for sixteen values at a time, the last time for those that are left.
template <class Function>
void transform(float* x, int n, Function f) {
  for (int i = 0; i < n; i += 16) {
    const __mmask16 mask = _cvtu32_mask16(n - i >= 16 ? 0xffffu : 0xffffu >> (16 - (n - i)));
    _mm512_mask_storeu_ps(x + i, mask, f(_mm512_maskz_loadu_ps(mask, x + i)));
  }
}

void tanh(float* x, int n) {
  transform(x, n, [](__m512 v) { return tanh16(v); });
}

void sigmoid(float* x, int n) {
  const __m512 half = fill16(0.5f);
  transform(x, n, [half](__m512 v) {
    return _mm512_mul_ps(half, _mm512_add_ps(tanh16(_mm512_mul_ps(half, v)), fill16(1.0f)));
  });
}

}  // namespace

const NnKernels kAvx512Nn = {
    avx2::pool, avx2::expand,    avx2::compress,     avx2::quantise,          affine<Products>,
    convolve,   avx2::normalise, gru_gate<Products>, gru_candidate<Products>, avx2::gru_blend,
    tanh,       sigmoid};

}  // namespace se

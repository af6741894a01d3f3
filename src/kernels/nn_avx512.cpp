// Denoiser kernels for AVX-512 with VNNI: the products of packed weights and tanh; everything else
// stays with AVX2.
//
// Matrix products split activations into bytes (split_products.h). Convolutions use a weight at
// many positions: theirs widen once and meet pairs of whole activations (vpdpwssd), sixteen
// positions side by side.
#include <cstring>

#include "kernels/avx2.h"
#include "kernels/packing.h"
#include "kernels/split_products.h"
#include "kernels/tanh.h"
#include "kernels/unrolled.h"
#include "kernels/variants.h"

namespace se {
namespace {

NnKernels g_base;  // takes what this variant leaves

constexpr int kLanes = 16;

// Sixteen 32-bit sums. As a type of its own, since GCC copies sums that pass from one view of a
// vector to another.
using Sums = unsigned __attribute__((vector_size(64)));

__m512i as_integers(Sums s) {
  return reinterpret_cast<__m512i>(s);
}

// ---- Matrix products ----------------------------------------------------------------------------

__mmask32 first_lanes(int count) {
  return _cvtu32_mask32(count >= 32 ? 0xffffffffu : 0xffffffffu >> (32 - count));
}

__m512i broadcast32(const void* from) {
  std::int32_t bits;
  std::memcpy(&bits, from, sizeof bits);
  return _mm512_set1_epi32(bits);
}

struct Vector512 {
  using Sums = se::Sums;
  static constexpr int kLanes = se::kLanes;
  static constexpr int kPanelBlocks = 13;

  static Sums load(const std::int32_t* from) {
    return reinterpret_cast<Sums>(_mm512_loadu_si512(from));
  }
  static void store(std::int32_t* to, Sums v) { _mm512_storeu_si512(to, as_integers(v)); }
  static __m512i broadcast32(const std::uint8_t* from) { return se::broadcast32(from); }
  static __m512i load_weights(const std::int8_t* w) { return _mm512_load_si512(w); }
  static void add_products(Sums& sums, __m512i x, __m512i weights) {
    sums = reinterpret_cast<Sums>(_mm512_dpbusd_epi32(as_integers(sums), x, weights));
  }

  // Returns whether any of the activations is negative.
  static bool split(const std::int16_t* q, int n, SplitVector& to) {
    __mmask32 negative = 0;
    for (int i = 0; i < n; i += 32) {
      const __m512i x = _mm512_maskz_loadu_epi16(first_lanes(n - i), q + i);
      negative = _kor_mask32(negative, _mm512_movepi16_mask(x));
      _mm256_store_si256(reinterpret_cast<__m256i*>(to.low + i), _mm512_cvtepi16_epi8(x));
      _mm256_store_si256(reinterpret_cast<__m256i*>(to.high + i),
                         _mm512_cvtepi16_epi8(_mm512_srli_epi16(x, 8)));
    }
    return negative != 0;
  }
};

using Products = SplitProducts<Vector512>;

// ---- Convolutions -------------------------------------------------------------------------------

constexpr PackOrder kConvolveOrder = {kLanes, kLanes, 2};
constexpr int kPositions = 16;  // at once: their sums stay in registers

// The outputs of sixteen rows from `first` on at sixteen positions from `position` on. kStep is the
// step between positions where it is known, so that loads reach them from one address; 0 otherwise.
template <int kStep>
void convolve_tile(const PackedMatrix& m, const ConvInput& in, const OutputScale& out, int first,
                   int position, float* y) {
  const std::ptrdiff_t step = kStep > 0 ? kStep : in.step;
  const int window = round_up(in.window, 2);
  const std::int8_t* w = m.weights + first * std::ptrdiff_t{in.frame_count} * window;
  Sums sum[kPositions];
  unrolled<kPositions>([&](int p) SE_INLINE { sum[p] = Sums{}; });
  for (int t = 0; t < in.frame_count; ++t) {
    const std::int16_t* x = in.frames[t] + position * step;
    for (int i = 0; i < window; i += 2, x += 2, w += 2 * kLanes) {
      forget(x);
      const __m512i weights =
          _mm512_cvtepi8_epi16(_mm256_load_si256(reinterpret_cast<const __m256i*>(w)));
      unrolled<kPositions>([&](int p) SE_INLINE {
        sum[p] = reinterpret_cast<Sums>(
            _mm512_dpwssd_epi32(as_integers(sum[p]), weights, broadcast32(x + p * step)));
      });
    }
  }
  const int rows = m.rows - first;
  const __mmask16 mask = _cvtu32_mask16(rows >= kLanes ? 0xffffu : 0xffffu >> (kLanes - rows));
  const __m512 scale =
      _mm512_mul_ps(_mm512_maskz_loadu_ps(mask, out.scale + first), _mm512_set1_ps(out.unit));
  const __m512 bias = _mm512_maskz_loadu_ps(mask, out.bias + first);
  unrolled<kPositions>([&](int p) SE_INLINE {
    const __m512 v =
        _mm512_add_ps(_mm512_mul_ps(_mm512_cvtepi32_ps(as_integers(sum[p])), scale), bias);
    _mm512_mask_storeu_ps(y + (position + p) * m.rows + first, mask, v);
  });
}

template <int kStep>
void convolve_tiles(const PackedMatrix& m, const ConvInput& in, const OutputScale& out, float* y) {
  for (int first = 0; first < m.rows; first += kLanes) {
    for (int p = 0; p < in.positions; p += kPositions) {
      convolve_tile<kStep>(m, in, out, first, p, y);
    }
  }
}

void packed_convolve(const PackedMatrix& packed, const Matrix& m, const ConvInput& in,
                     const OutputScale& out, float* y) {
  const bool readable = (in.positions - 1) * in.step + round_up(in.window, 2) <= in.frame_len;
  if (in.positions % kPositions != 0 || !readable) return g_base.convolve(m, in, out, y);
  // The steps of the denoiser's layers, and then any other.
  if (in.step == 6) return convolve_tiles<6>(packed, in, out, y);
  if (in.step == 16) return convolve_tiles<16>(packed, in, out, y);
  if (in.step == 32) return convolve_tiles<32>(packed, in, out, y);
  if (in.step == 64) return convolve_tiles<64>(packed, in, out, y);
  convolve_tiles<0>(packed, in, out, y);
}

// ---- Activations: sixteen values per vector -----------------------------------------------------

struct Float16 {
  __m512 v;

  static Float16 fill(float x) { return {_mm512_set1_ps(x)}; }
};

Float16 operator+(Float16 a, Float16 b) {
  return {_mm512_add_ps(a.v, b.v)};
}

Float16 operator-(Float16 a, Float16 b) {
  return {_mm512_sub_ps(a.v, b.v)};
}

Float16 operator*(Float16 a, Float16 b) {
  return {_mm512_mul_ps(a.v, b.v)};
}

Float16 plus_product(Float16 c, Float16 a, Float16 b) {
  return c + a * b;
}

Float16 minus_product(Float16 c, Float16 a, Float16 b) {
  return c - a * b;
}

Float16 magnitude(Float16 a) {
  return {_mm512_andnot_ps(_mm512_set1_ps(-0.0f), a.v)};
}

Float16 with_sign_of(Float16 a, Float16 x) {
  return {_mm512_or_ps(a.v, _mm512_and_ps(_mm512_set1_ps(-0.0f), x.v))};
}

Float16 at_most(Float16 a, Float16 limit) {
  return {_mm512_min_ps(limit.v, a.v)};  // the second operand wins where one is NaN
}

Float16 shifted_power(Float16 s) {
  const __m512i exponent = _mm512_slli_epi32(_mm512_castps_si512(s.v), 23);
  return {_mm512_castsi512_ps(_mm512_add_epi32(exponent, _mm512_set1_epi32(0x3f800000)))};
}

Float16 below(Float16 a, Float16 limit, Float16 yes, Float16 no) {
  return {_mm512_mask_blend_ps(_mm512_cmp_ps_mask(a.v, limit.v, _CMP_LT_OQ), no.v, yes.v)};
}

// x[i] = f(x[i]) for sixteen values at a time, the last time for those that are left.
template <class Function>
void transform(float* x, int n, Function f) {
  for (int i = 0; i < n; i += 16) {
    const __mmask16 mask = _cvtu32_mask16(n - i >= 16 ? 0xffffu : 0xffffu >> (16 - (n - i)));
    _mm512_mask_storeu_ps(x + i, mask, f(Float16{_mm512_maskz_loadu_ps(mask, x + i)}).v);
  }
}

void tanh(float* x, int n) {
  transform(x, n, [](Float16 v) { return tanh_of(v); });
}

void sigmoid(float* x, int n) {
  transform(x, n, [](Float16 v) { return sigmoid_of(v); });
}

}  // namespace

void use_avx512(NnKernels& k) {
  g_base = k;
  k.product_order = Products::kOrder;
  k.short_sums = {};
  k.packed_product = Products::packed_product;
  k.convolve_order = kConvolveOrder;
  k.packed_convolve = packed_convolve;
  k.paired_convolve = nullptr;
  k.tanh = tanh;
  k.sigmoid = sigmoid;
}

}  // namespace se

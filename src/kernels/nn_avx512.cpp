// Denoiser kernels for AVX-512 with VNNI: the integer products; everything else stays with AVX2.
//
// As in AVX2, with thirty-two weights per step and the multiply-add of pairs and the addition to
// the sum in one instruction (vpdpwssd, exact and without saturation). Masks take the place of
// padding: what a mask leaves out is not read.
#include "kernels/nn_avx2.h"
#include "kernels/nn_x86.h"
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

void convolve(const IntegerLayer& layer, const ConvInput& in, float* y) {
  if (layer.rows % 8 != 0 || in.positions % 8 != 0) return kScalarNn.convolve(layer, in, y);
  const std::ptrdiff_t step = in.step;
  const int whole = in.window / kStep * kStep;
  const __mmask32 mask = in.window > whole ? first_lanes(in.window - whole) : __mmask32{0};
  for (int first = 0; first < layer.rows; first += 8) {
    convolve_eight_rows(layer, in, first, y, [&](int row, int position) {
      const std::int8_t* w = layer.weights + (first + row) * layer.row_len;
      Sums sums;
      for (int t = 0; t < in.frame_count; ++t, w += in.window) {
        const std::int16_t* const x = in.frames[t] + position * step;
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

}  // namespace

const NnKernels kAvx512Nn = {avx2::pool,      avx2::expand,       avx2::compress,
                             avx2::quantise,  affine<Products>,   convolve,
                             avx2::normalise, gru_gate<Products>, gru_candidate<Products>,
                             avx2::gru_blend, avx2::tanh,         avx2::sigmoid};

}  // namespace se

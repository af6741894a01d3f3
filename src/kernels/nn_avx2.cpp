// Denoiser kernels for AVX2 but for the integer products (nn_products_avx2.cpp): eight values per
// vector, the operations of the scalar code in their order.
#include "kernels/avx2.h"
#include "kernels/nn_kernels.h"
#include "kernels/tanh.h"
#include "kernels/variants.h"

namespace se {
namespace {

void tanh(float* x, int n) {
  by_eights(n,
            [&](int i, auto lanes) { lanes.store(x + i, tanh_of(Float8{lanes.load(x + i)}).v); });
}

void sigmoid(float* x, int n) {
  by_eights(
      n, [&](int i, auto lanes) { lanes.store(x + i, sigmoid_of(Float8{lanes.load(x + i)}).v); });
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
  const __m256 floor = fill(kFeatureFloor);
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
    lanes.store(y + i, _mm256_min_ps(_mm256_max_ps(v, zero), fill(kActivationLimit)));
  });
}

__m256 load_sums(const std::int32_t* sums, int count) {
  alignas(32) std::int32_t last[8] = {};
  if (count < 8) {
    for (int k = 0; k < count; ++k) last[k] = sums[k];
    sums = last;
  }
  return _mm256_cvtepi32_ps(_mm256_loadu_si256(reinterpret_cast<const __m256i*>(sums)));
}

void scale_sums(const std::int32_t* sums, const OutputScale& out, int n, float* y) {
  by_eights(n, [&](int i, auto lanes) {
    const __m256 scale = _mm256_mul_ps(lanes.load(out.scale + i), fill(out.unit));
    const __m256 product = _mm256_mul_ps(load_sums(sums + i, n - i), scale);
    lanes.store(y + i, _mm256_add_ps(product, lanes.load(out.bias + i)));
  });
}

void gru_gate(const GruGate& gate, int n, float* y) {
  by_eights(n, [&](int i, auto lanes) {
    const __m256 in = _mm256_mul_ps(load_sums(gate.sum_in + i, n - i), fill(kGruUnit));
    const __m256 state = _mm256_mul_ps(load_sums(gate.sum_state + i, n - i), fill(kGruUnit));
    const __m256 v = _mm256_add_ps(_mm256_add_ps(in, lanes.load(gate.bias_in + i)), state);
    lanes.store(y + i, _mm256_add_ps(v, lanes.load(gate.bias_state + i)));
  });
}

void gru_candidate(const GruGate& gate, const float* reset, int n, float* y) {
  by_eights(n, [&](int i, auto lanes) {
    const __m256 in = _mm256_mul_ps(load_sums(gate.sum_in + i, n - i), fill(kGruUnit));
    const __m256 state = _mm256_mul_ps(load_sums(gate.sum_state + i, n - i), fill(kGruUnit));
    const __m256 v =
        _mm256_mul_ps(_mm256_add_ps(state, lanes.load(gate.bias_state + i)), lanes.load(reset + i));
    lanes.store(y + i, _mm256_add_ps(_mm256_add_ps(v, in), lanes.load(gate.bias_in + i)));
  });
}

void gru_blend(const float* update, const float* candidate, const std::int16_t* state, int n,
               float* y) {
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

}  // namespace

void use_avx2(NnKernels& k) {
  use_avx2_products(k);
  use_avx2_packed(k);
  use_avx2_convolutions(k);
  k.pool = pool;
  k.expand = expand;
  k.compress = compress;
  k.quantise = quantise;
  k.scale_sums = scale_sums;
  k.normalise = normalise;
  k.gru_gate = gru_gate;
  k.gru_candidate = gru_candidate;
  k.gru_blend = gru_blend;
  k.tanh = tanh;
  k.sigmoid = sigmoid;
}

}  // namespace se

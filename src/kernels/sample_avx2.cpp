// Sample kernels for AVX2: eight samples at a time.
#include "kernels/avx2.h"
#include "kernels/sample_kernels.h"
#include "kernels/variants.h"

namespace se {
namespace {

void s16_to_float(const std::int16_t* in, float* out, int n) {
  int i = 0;
  for (; i + 8 <= n; i += 8) {
    const __m128i x = _mm_loadu_si128(reinterpret_cast<const __m128i*>(in + i));
    const __m256 wide = _mm256_cvtepi32_ps(_mm256_cvtepi16_epi32(x));
    _mm256_storeu_ps(out + i, _mm256_mul_ps(wide, _mm256_set1_ps(1.0f / kS16Scale)));
  }
  kScalarSample.s16_to_float(in + i, out + i, n - i);
}

// Only values above the range need a clamp: what lies far below it converts to the smallest int32,
// which packing saturates.
void float_to_s16(const float* in, std::int16_t* out, int n) {
  int i = 0;
  for (; i + 8 <= n; i += 8) {
    const __m256 scaled = _mm256_mul_ps(_mm256_loadu_ps(in + i), _mm256_set1_ps(kS16Scale));
    const __m256 numbers = _mm256_and_ps(scaled, _mm256_cmp_ps(scaled, scaled, _CMP_ORD_Q));
    const __m256i v = _mm256_cvttps_epi32(_mm256_min_ps(numbers, _mm256_set1_ps(32767.0f)));
    _mm_storeu_si128(reinterpret_cast<__m128i*>(out + i),
                     _mm_packs_epi32(_mm256_castsi256_si128(v), _mm256_extracti128_si256(v, 1)));
  }
  kScalarSample.float_to_s16(in + i, out + i, n - i);
}

void limit(const float* in, float limit, float* out, int n) {
  by_eights(n, [&](int i, auto lanes) {
    const __m256 x = lanes.load(in + i);
    const __m256 numbers = _mm256_and_ps(x, _mm256_cmp_ps(x, x, _CMP_ORD_Q));
    const __m256 not_above = _mm256_min_ps(numbers, _mm256_set1_ps(limit));
    lanes.store(out + i, _mm256_max_ps(not_above, _mm256_set1_ps(-limit)));
  });
}

float peak(const float* x, int n) {
  __m256 largest = _mm256_setzero_ps();
  by_eights(n, [&](int i, auto lanes) {
    const __m256 magnitude = _mm256_andnot_ps(_mm256_set1_ps(-0.0f), lanes.load(x + i));
    largest = _mm256_max_ps(magnitude, largest);  // keeps `largest` where the other is NaN
  });
  __m128 v = _mm_max_ps(_mm256_castps256_ps128(largest), _mm256_extractf128_ps(largest, 1));
  v = _mm_max_ps(v, _mm_movehl_ps(v, v));
  return _mm_cvtss_f32(_mm_max_ss(v, _mm_movehdup_ps(v)));
}

void apply_ramp(const float* in, float start, float step, float* out, int n) {
  __m256 index = _mm256_setr_ps(0, 1, 2, 3, 4, 5, 6, 7);
  by_eights(n, [&](int i, auto lanes) {
    const __m256 gain =
        _mm256_add_ps(_mm256_set1_ps(start), _mm256_mul_ps(index, _mm256_set1_ps(step)));
    lanes.store(out + i, _mm256_mul_ps(lanes.load(in + i), gain));
    index = _mm256_add_ps(index, _mm256_set1_ps(8.0f));
  });
}

}  // namespace

void use_avx2(SampleKernels& k) {
  k.s16_to_float = s16_to_float;
  k.float_to_s16 = float_to_s16;
  k.limit = limit;
  k.peak = peak;
  k.apply_ramp = apply_ramp;
}

}  // namespace se

#include "streaming_limit.h"

#include "lane_total.h"
#include "speechenhance/denoiser.h"

#if defined(__x86_64__)
#include <immintrin.h>
#elif defined(__ARM_NEON)
#include <arm_neon.h>
#endif

namespace se_bench {
namespace {

// Every pass keeps several sums, enough to hide the latency of the additions, and leaves out what a
// table has beyond whole steps (less than 0.1 % of the weights).

#if defined(__x86_64__)

#define SE_AVX512 __attribute__((target("avx512f,avx512bw,avx512vl,avx512vnni")))
#define SE_AVX2 __attribute__((target("avx2")))

SE_AVX512 std::int32_t bytes_avx512(const WeightTable& table) {
  const __m512i pattern = _mm512_set1_epi32(0x03010201);
  __m512i s0 = {}, s1 = {}, s2 = {}, s3 = {};
  for (int i = 0; i + 256 <= table.bytes; i += 256) {
    const auto* p = table.data + i;
    s0 = _mm512_dpbusd_epi32(s0, pattern, _mm512_loadu_si512(p));
    s1 = _mm512_dpbusd_epi32(s1, pattern, _mm512_loadu_si512(p + 64));
    s2 = _mm512_dpbusd_epi32(s2, pattern, _mm512_loadu_si512(p + 128));
    s3 = _mm512_dpbusd_epi32(s3, pattern, _mm512_loadu_si512(p + 192));
  }
  return lane_total(_mm512_add_epi32(_mm512_add_epi32(s0, s1), _mm512_add_epi32(s2, s3)));
}

SE_AVX512 inline __m512i widened_512(const std::int8_t* p) {
  return _mm512_cvtepi8_epi16(_mm256_loadu_si256(reinterpret_cast<const __m256i*>(p)));
}

SE_AVX512 std::int32_t int16_avx512(const WeightTable& table) {
  const __m512i pattern = _mm512_set1_epi32(0x00030201);
  __m512i s0 = {}, s1 = {}, s2 = {}, s3 = {};
  for (int i = 0; i + 128 <= table.bytes; i += 128) {
    const auto* p = table.data + i;
    s0 = _mm512_dpwssd_epi32(s0, pattern, widened_512(p));
    s1 = _mm512_dpwssd_epi32(s1, pattern, widened_512(p + 32));
    s2 = _mm512_dpwssd_epi32(s2, pattern, widened_512(p + 64));
    s3 = _mm512_dpwssd_epi32(s3, pattern, widened_512(p + 96));
  }
  return lane_total(_mm512_add_epi32(_mm512_add_epi32(s0, s1), _mm512_add_epi32(s2, s3)));
}

SE_AVX2 inline __m256i byte_products(__m256i pattern, const std::int8_t* p) {
  const __m256i weights = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(p));
  return _mm256_madd_epi16(_mm256_maddubs_epi16(pattern, weights), _mm256_set1_epi16(1));
}

SE_AVX2 inline __m256i int16_products(__m256i pattern, const std::int8_t* p) {
  const __m128i weights = _mm_loadu_si128(reinterpret_cast<const __m128i*>(p));
  return _mm256_madd_epi16(pattern, _mm256_cvtepi8_epi16(weights));
}

SE_AVX2 std::int32_t bytes_avx2(const WeightTable& table) {
  const __m256i pattern = _mm256_set1_epi32(0x03010201);
  __m256i s0 = {}, s1 = {};
  for (int i = 0; i + 64 <= table.bytes; i += 64) {
    s0 = _mm256_add_epi32(s0, byte_products(pattern, table.data + i));
    s1 = _mm256_add_epi32(s1, byte_products(pattern, table.data + i + 32));
  }
  return lane_total(_mm256_add_epi32(s0, s1));
}

SE_AVX2 std::int32_t int16_avx2(const WeightTable& table) {
  const __m256i pattern = _mm256_set1_epi32(0x00030201);
  __m256i s0 = {}, s1 = {};
  for (int i = 0; i + 32 <= table.bytes; i += 32) {
    s0 = _mm256_add_epi32(s0, int16_products(pattern, table.data + i));
    s1 = _mm256_add_epi32(s1, int16_products(pattern, table.data + i + 16));
  }
  return lane_total(_mm256_add_epi32(s0, s1));
}
#elif defined(__ARM_NEON)

std::int32_t int16_neon(const WeightTable& table) {
  const int16x4_t pattern = vdup_n_s16(3);
  int32x4_t s0 = {}, s1 = {}, s2 = {}, s3 = {};
  for (int i = 0; i + 16 <= table.bytes; i += 16) {
    const int8x16_t w = vld1q_s8(table.data + i);
    const int16x8_t low = vmovl_s8(vget_low_s8(w)), high = vmovl_s8(vget_high_s8(w));
    s0 = vmlal_s16(s0, vget_low_s16(low), pattern);
    s1 = vmlal_s16(s1, vget_high_s16(low), pattern);
    s2 = vmlal_s16(s2, vget_low_s16(high), pattern);
    s3 = vmlal_s16(s3, vget_high_s16(high), pattern);
  }
  return lane_total(vaddq_s32(vaddq_s32(s0, s1), vaddq_s32(s2, s3)));
}

#endif

int row_bytes(int length) {
  return (length + 7) / 8 * 8;
}

}  // namespace

std::vector<WeightTable> weight_tables() {
  const DenoiseModel& m = nn_denoise_model;
  std::vector<WeightTable> tables;
  for (const Conv2DLayer* conv : {m.conv1, m.conv2, m.conv3, m.conv4, m.conv5}) {
    const int row = row_bytes(conv->kernel_time * conv->kernel_freq * conv->in_channels);
    tables.push_back({conv->kernel, conv->out_channels * row});
  }
  for (const GRULayer* gru : {m.gru1_1, m.gru1_2, m.gru2_1, m.gru2_2}) {
    tables.push_back({gru->weight_ih, 3 * gru->hidden_size * gru->input_size});
    tables.push_back({gru->weight_hh, 3 * gru->hidden_size * gru->hidden_size});
  }
  tables.push_back({m.fc2->weight, m.fc2->in_size * m.fc2->out_size});  // fc1 is not computed
  return tables;
}

std::vector<StreamingPass> streaming_passes() {
  std::vector<StreamingPass> passes;
#if defined(__x86_64__)
  if (__builtin_cpu_supports("avx512vnni") && __builtin_cpu_supports("avx512bw")) {
    passes = {{"bytes_avx512", bytes_avx512}, {"int16_avx512", int16_avx512}};
  }
  if (__builtin_cpu_supports("avx2")) {
    passes.push_back({"bytes_avx2", bytes_avx2});
    passes.push_back({"int16_avx2", int16_avx2});
  }
#elif defined(__ARM_NEON)
  passes = {{"int16_neon", int16_neon}};
#endif
  return passes;
}

}  // namespace se_bench

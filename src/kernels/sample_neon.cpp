// NEON kernels of time-domain samples.
#include "kernels/neon.h"
#include "kernels/variants.h"

namespace se {
namespace {

using namespace neon;

constexpr int kS16FractionBits = 15;

void s16_to_float(const std::int16_t* in, float* out, int n) {
  for (int steps = n / 4; steps > 0; --steps, in += 4, out += 4) {
    vst1q_f32(out, vcvtq_n_f32_s32(vmovl_s16(vld1_s16(in)), kS16FractionBits));
  }
  kScalarSample.s16_to_float(in, out, n % 4);
}

// The conversion scales, truncates and saturates, NaN gives 0; narrowing saturates again.
void float_to_s16(const float* in, std::int16_t* out, int n) {
  for (int steps = n / 4; steps > 0; --steps, in += 4, out += 4) {
    vst1_s16(out, vqmovn_s32(vcvtq_n_s32_f32(vld1q_f32(in), kS16FractionBits)));
  }
  kScalarSample.float_to_s16(in, out, n % 4);
}

void limit(const float* in, float limit, float* out, int n) {
  for (int steps = n / 4; steps > 0; --steps, in += 4, out += 4) {
    const float32x4_t x = vld1q_f32(in);
    const float32x4_t numbers =
        vreinterpretq_f32_u32(vandq_u32(vreinterpretq_u32_f32(x), vceqq_f32(x, x)));
    const float32x4_t not_above = vminq_f32(numbers, vdupq_n_f32(limit));
    vst1q_f32(out, vmaxq_f32(not_above, vdupq_n_f32(-limit)));
  }
  kScalarSample.limit(in, limit, out, n % 4);
}

float peak(const float* x, int n) {
  float32x4_t largest = vdupq_n_f32(0.0f);
  for (int left = n; left > 0; left -= 4, x += 4) {
    const float32x4_t magnitude = vabsq_f32(left >= 4 ? vld1q_f32(x) : load_partial(x, left));
    const uint32x4_t a_number = at_or_above(magnitude, magnitude);
    largest = vmaxq_f32(
        largest, vreinterpretq_f32_u32(vandq_u32(vreinterpretq_u32_f32(magnitude), a_number)));
  }
  float32x2_t pair = vmax_f32(vget_low_f32(largest), vget_high_f32(largest));
  pair = vpmax_f32(pair, pair);
  return vget_lane_f32(pair, 0);
}

// Indices are exact in single precision, so that stepping them by 4 is the same as converting them.
void apply_ramp(const float* in, float start, float step, float* out, int n) {
  const float first[4] = {0.0f, 1.0f, 2.0f, 3.0f};
  float32x4_t index = vld1q_f32(first);
  for (int steps = n / 4; steps > 0; --steps, in += 4, out += 4) {
    const float32x4_t gain = vmlaq_f32(vdupq_n_f32(start), index, vdupq_n_f32(step));
    vst1q_f32(out, vmulq_f32(vld1q_f32(in), gain));
    index = vaddq_f32(index, vdupq_n_f32(4.0f));
  }
  for (int i = n & ~3; i < n; ++i) *out++ = *in++ * (start + static_cast<float>(i) * step);
}

}  // namespace

void use_neon(SampleKernels& k) {
  k.s16_to_float = s16_to_float;
  k.float_to_s16 = float_to_s16;
  k.limit = limit;
  k.peak = peak;
  k.apply_ramp = apply_ramp;
}

}  // namespace se

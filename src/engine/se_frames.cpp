// The entry for 16-bit samples with interleaved microphones.
#include <cstdint>

#include "engine/se_instance.h"
#include "kernels/kernels.h"

void deinterleave(const int16_t* src, int16_t* dst, int32_t n, int32_t channels) {
  if (channels <= 0 || n <= 0) return;
  const auto stride = static_cast<std::size_t>(channels);
  for (std::size_t c = 0; c < stride; ++c) {
    for (std::size_t i = 0; i < static_cast<std::size_t>(n); ++i) *dst++ = src[i * stride + c];
  }
}

void se_process_frames(SEInstance* instance, const int16_t* mic, const int16_t* ref, int32_t n,
                       int16_t* out, bool nn_only, bool use_ns) {
  const se::SampleKernels& kernel = *se::kernels().sample;
  for (int32_t frames = n / SE_BLOCK_LEN; frames > 0; --frames) {
    int16_t planar[2 * SE_BLOCK_LEN];
    float mic_block[2 * SE_BLOCK_LEN], ref_block[SE_BLOCK_LEN], out_block[SE_BLOCK_LEN];
    deinterleave(mic, planar, SE_BLOCK_LEN, 2);
    kernel.s16_to_float(planar, mic_block, 2 * SE_BLOCK_LEN);
    kernel.s16_to_float(ref, ref_block, SE_BLOCK_LEN);
    se_process(instance, mic_block, ref_block, out_block, nn_only, use_ns);
    kernel.float_to_s16(out_block, out, SE_BLOCK_LEN);
    mic += 2 * SE_BLOCK_LEN;
    ref += SE_BLOCK_LEN;
    out += SE_BLOCK_LEN;
  }
}

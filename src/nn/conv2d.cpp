// One quantized 2-D convolution layer, run once per frame.
//
// The layer keeps the last kernel_time input frames, quantized to Q10, in a ring of slots whose
// zero margins serve as the padding along frequency. The window of an output position is one run of
// values in every slot, so the products read the ring in place. A layer of the model costs in_width
// * in_channels conversions and out_width * out_channels * kernel_len products per frame.
#include "nn/conv2d.h"

#include "kernels/kernels.h"
#include "nn/network.h"
#include "nn/packed_model.h"

namespace se::nn {
namespace {

constexpr int kSpareBytes = 2048;  // of the third scratch area, per input channel

int kernel_row(int in_channels, int kernel_time, int kernel_freq, int groups) {
  const int split = groups < 2 ? 1 : groups;
  const int taps = kernel_time * kernel_freq * (in_channels / split);
  return (taps + 7) / 8 * 8 * split;
}

struct StaticLayout {
  Conv2D* state;
  std::int16_t* ring[5];
};

StaticLayout lay_out_static(MemoryWalk& mem, int slots, int slot_len) {
  StaticLayout layout = {};
  layout.state = mem.record<Conv2D>(kConv2DSlot);
  for (int i = 0; i < slots; ++i) {
    std::int16_t* slot = mem.buffer<std::int16_t>(static_cast<std::size_t>(slot_len));
    if (i < 5) layout.ring[i] = slot;
  }
  return layout;
}

struct ScratchLayout {
  std::int16_t* patch;
  std::int16_t* qinput;
  void* spare;
};

ScratchLayout lay_out_scratch(MemoryWalk& scratch, int kernel_len, int in_channels, int in_width) {
  return {scratch.buffer<std::int16_t>(static_cast<std::size_t>(kernel_len)),
          scratch.buffer<std::int16_t>(static_cast<std::size_t>(in_channels * in_width)),
          scratch.buffer<char>(static_cast<std::size_t>(in_channels * kSpareBytes))};
}

}  // namespace
}  // namespace se::nn

using namespace se;
using namespace se::nn;

int conv2d_query_mem(int past_frames, int in_channels, int in_width, int freq_pad) {
  return static_cast<int>(
      measured(lay_out_static, past_frames + 1, in_channels * (in_width + 2 * freq_pad)));
}

int conv2d_query_scratch(int in_channels, int kernel_time, int kernel_freq, int in_width,
                         int groups) {
  return static_cast<int>(measured(lay_out_scratch,
                                   kernel_row(in_channels, kernel_time, kernel_freq, groups),
                                   in_channels, in_width));
}

Conv2D* conv2d_init(void* mem, void* scratch, const Conv2DLayer* layer, int past_frames,
                    int in_channels, int in_width, int out_channels, int out_width, int kernel_time,
                    int kernel_freq, int time_stride, int freq_stride, int time_pad, int freq_pad,
                    int groups) {
  if (kernel_time < 1 || kernel_time > 3 || past_frames < kernel_time - 1 || time_stride != 1 ||
      groups > 1 || time_pad < 0) {
    return nullptr;
  }
  if (in_channels < 1 || in_width < 1 || out_channels < 1 || out_width < 1 || kernel_freq < 1 ||
      freq_stride < 1 || freq_pad < 0 ||
      (out_width - 1) * freq_stride + kernel_freq > in_width + 2 * freq_pad) {
    return nullptr;
  }
  const int slot_len = in_channels * (in_width + 2 * freq_pad);
  const int kernel_len = kernel_row(in_channels, kernel_time, kernel_freq, groups);
  MemoryWalk mem_walk(mem);
  const StaticLayout placed = lay_out_static(mem_walk, kernel_time, slot_len);
  MemoryWalk scratch_walk(scratch);
  const ScratchLayout areas = lay_out_scratch(scratch_walk, kernel_len, in_channels, in_width);

  Conv2D* const state = placed.state;
  *state = {};
  state->layer = layer;
  state->past_frames = past_frames;
  state->warmup_left = kernel_time - 1 - time_pad;
  state->time_stride = time_stride;
  state->freq_stride = freq_stride;
  state->kernel_time = kernel_time;
  state->kernel_freq = kernel_freq;
  state->time_pad = time_pad;
  state->freq_pad = freq_pad;
  state->groups = groups;
  state->in_channels = in_channels;
  state->in_width = in_width;
  state->out_channels = out_channels;
  state->out_width = out_width;
  for (int i = 0; i < kernel_time; ++i) state->ring[i] = placed.ring[i];
  state->slot_len = slot_len;
  state->ring_size = kernel_time;
  state->kernel_len = kernel_len;
  state->patch = areas.patch;
  state->qinput = areas.qinput;
  state->spare = areas.spare;
  return state;
}

int conv2d_process(Conv2D* state, float* out, const float* in) {
  const NnKernels& k = *kernels().nn;
  const int in_size = state->in_channels * state->in_width;
  k.quantise(in, in_size, kQ10,
             state->ring[state->ring_pos] + state->freq_pad * state->in_channels);
  state->ring_pos = (state->ring_pos + 1) % state->ring_size;
  if (state->warmup_left > 0) {
    --state->warmup_left;
    return 0;
  }

  for (int j = 0; j < state->kernel_time; ++j) {
    state->ordered[j] = state->ring[(state->ring_pos + j) % state->ring_size];
  }
  const Conv2DLayer& layer = *state->layer;
  const Matrix weights = {layer.kernel, state->out_channels, state->kernel_len};
  const ConvInput input = {state->ordered,
                           state->kernel_time,
                           state->slot_len,
                           state->kernel_freq * state->in_channels,
                           state->freq_stride * state->in_channels,
                           state->out_width};
  const OutputScale scale = {layer.kernel_scale, 1.0f / kQ10, layer.bias};
  const PackedConv* const packed =
      packed_conv(&layer, weights.rows, input.frame_count, input.window);
  if (packed && packed->pairs && input.window == 3 * input.step) {
    k.paired_convolve(packed->pairs, weights, input, scale, out);
  } else if (packed && !packed->pairs) {
    k.packed_convolve(packed->matrix, weights, input, scale, out);
  } else {
    k.convolve(weights, input, scale, out);
  }
  return 1;
}

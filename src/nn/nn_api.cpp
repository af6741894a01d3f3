// The network driver: runs the denoiser's network once per frame.
//
// Features of 3 x 128 bands pass five convolution layers, each followed by batch normalisation and
// a clamp to 0..6. The last output is split into its lower and upper half of the frequency axis,
// one GRU each; a second pair of GRUs sees every other unit of both, so that the halves meet; a
// fully connected layer with a sigmoid gives 128 band values, which are expanded to 257 gains.
// About 1.5 million products per frame, most of them in the GRUs, whose 0.87 MB of weights are read
// once.
//
// Each convolution layer produces nothing on its first call and ends the frame there, so the layers
// fill one after another: the first gains come with the sixth frame and lag five frames.
#include <algorithm>

#include "kernels/kernels.h"
#include "nn/denoiser.h"
#include "nn/features.h"
#include "nn/network.h"
#include "nn/packed_model.h"
#include "nn/quiet_history.h"

namespace se::nn {
namespace {

// Quiet frames, judged by the mean gain of bins 0..127 (taken over half of all).
constexpr int kQuietBins = 128;
constexpr float kQuietMeanFactor = 2.0f / kBins;
constexpr double kQuietMean = 0.02;  // below: the frame is quiet
constexpr double kLowMean = 0.05;    // below: the frame may be attenuated
constexpr int kQuietFrames = 900;    // of the last 1000; more: a long noise-only stretch
constexpr double kQuietAttenuation = 0.6;

int conv_bytes(const ConvShape& shape) {
  return conv2d_query_mem(kPastFrames, shape.in_channels, shape.in_width, shape.freq_pad);
}

// What the driver itself keeps, and the regions of its layers.
struct StaticLayout {
  NNDenoiser* denoiser;
  void* conv[kConvLayers];
  void* gru[kGruLayers];
  NNDenoiser fields;  // the buffers' places
};

StaticLayout lay_out_static(MemoryWalk& mem) {
  StaticLayout at = {};
  at.denoiser = mem.record<NNDenoiser>(kDenoiserSlot);
  for (int i = 0; i < kConvLayers; ++i) {
    at.conv[i] = mem.nested(static_cast<std::size_t>(conv_bytes(kConv[i])));
  }
  for (void*& gru : at.gru) gru = mem.nested(static_cast<std::size_t>(gru_query_mem(kGruHidden)));
  for (int i = 0; i < kConvLayers; ++i) {
    at.fields.conv_out[i] = mem.buffer<float>(static_cast<std::size_t>(kConv[i].out_size()));
  }
  for (float*& out : at.fields.gru_out) out = mem.buffer<float>(2 * kGruHidden);
  for (float*& out : at.fields.fc_out) out = mem.buffer<float>(kBands);
  return at;
}

FeatureBuffers lay_out_scratch(MemoryWalk& scratch) {
  return {scratch.buffer<float>(kMagnitudes), scratch.buffer<float>(kFeatures),
          scratch.buffer<float>(kFeatures)};
}

Conv2D* init_conv(void* mem, void* scratch, const Conv2DLayer* layer, const ConvShape& shape) {
  return conv2d_init(mem, scratch, layer, kPastFrames, shape.in_channels, shape.in_width,
                     shape.out_channels, shape.out_width, kKernelTime, shape.kernel_freq,
                     kTimeStride, shape.freq_stride, kTimePad, shape.freq_pad, kGroups);
}

// Positions of a half of the last convolution's output, channel-major.
void split_half(const float* x, int first, float* half) {
  constexpr int kPositions = kConv[kConvLayers - 1].out_width / 2;
  constexpr int kDepth = kConv[kConvLayers - 1].out_channels;
  for (int c = 0; c < kDepth; ++c) {
    for (int p = 0; p < kPositions; ++p) half[c * kPositions + p] = x[(first + p) * kDepth + c];
  }
}

// The convolution stack: from features to the last layer's normalised output in `x`, which holds
// kMaxConvOut values. False while a layer fills its history.
bool run_convolutions(const NNDenoiser& d, float* x) {
  for (int i = 0; i < kConvLayers; ++i) {
    const BNLayer& bn = *d.stage[i].bn;
    if (conv2d_process(d.stage[i].conv, d.conv_out[i], x) == 0) return false;
    kernels().nn->normalise(d.conv_out[i], bn.gamma_var, bn.gmb, kConv[i].out_size(), x);
  }
  return true;
}

// Both pairs of GRU layers: from the convolutions' output in `x` to `gru_out[1]`.
void run_grus(const NNDenoiser& d, float* x) {
  float low[kGruInput[0]];
  float high[kGruInput[1]];
  split_half(x, 0, low);
  split_half(x, kConv[kConvLayers - 1].out_width / 2, high);
  gru_process(d.gru[0], low, d.gru_out[0]);
  gru_process(d.gru[1], high, d.gru_out[0] + kGruHidden);

  float* const even = x;
  float* const odd = x + kGruHidden;
  for (int i = 0; i < kGruHidden; ++i) {
    even[i] = d.gru_out[0][2 * i];
    odd[i] = d.gru_out[0][2 * i + 1];
  }
  gru_process(d.gru[2], even, d.gru_out[1]);
  gru_process(d.gru[3], odd, d.gru_out[1] + kGruHidden);
}

// The head: from `gru_out[1]` to one value in 0..1 per band.
void run_head(const NNDenoiser& d) {
  const NnKernels& k = *kernels().nn;
  std::int16_t q[kHeadInput];
  k.quantise(d.gru_out[1], kHeadInput, kQ11, q);
  const FCLayer& fc = *d.fc[kUsedHead];
  float* const out = d.fc_out[kUsedHead];
  alignas(64) std::int32_t sums[kBands + kSpareSums];
  const Matrix weights = {fc.weight, kBands, kHeadInput};
  if (const PackedMatrix* packed = packed_head(&fc)) {
    k.packed_product(*packed, weights, q, sums);
  } else {
    k.product(weights, q, sums);
  }
  k.scale_sums(sums, {fc.weight_scale, 1.0f / kQ11, fc.bias}, kBands, out);
  k.sigmoid(out, kBands);
}

void attenuate_long_noise(float* gain) {
  float sum[4] = {};
  for (int k = 0; k < kQuietBins; k += 4) {
    for (int lane = 0; lane < 4; ++lane) sum[lane] += gain[k + lane];
  }
  const double mean = ((sum[0] + sum[2]) + (sum[1] + sum[3])) * kQuietMeanFactor;
  const int quiet_frames = quiet_history_add(mean < kQuietMean ? 1 : 0);
  if (quiet_frames > kQuietFrames && mean < kLowMean) {
    for (int k = 0; k < kBins; ++k) gain[k] = static_cast<float>(gain[k] * kQuietAttenuation);
  }
}

}  // namespace

NNDenoiser* init_denoiser(void* mem, void* scratch, const DenoiseModel* model) {
  if (model == &nn_denoise_model) pack_model();
  const Conv2DLayer* const conv[] = {model->conv1, model->conv2, model->conv3, model->conv4,
                                     model->conv5};
  const BNLayer* const bn[] = {model->bn1, model->bn2, model->bn3, model->bn4, model->bn5};
  const GRULayer* const gru[] = {model->gru1_1, model->gru1_2, model->gru2_1, model->gru2_2};
  MemoryWalk mem_walk(mem);
  const StaticLayout at = lay_out_static(mem_walk);
  MemoryWalk scratch_walk(scratch);

  NNDenoiser* const d = at.denoiser;
  *d = at.fields;
  d->model = model;
  for (int i = 0; i < kConvLayers; ++i) {
    d->stage[i] = {init_conv(at.conv[i], scratch, conv[i], kConv[i]), bn[i]};
  }
  for (int i = 0; i < kGruLayers; ++i) {
    d->gru[i] = gru_init(at.gru[i], scratch, gru[i], kGruHidden, kGruInput[i]);
  }
  d->fc[0] = model->fc1;
  d->fc[1] = model->fc2;
  d->features = lay_out_scratch(scratch_walk);
  return d;
}

const float* make_features(const NNDenoiser& d, const zel_lcomplex* mic0, const zel_lcomplex* mic1,
                           const zel_lcomplex* ref) {
  features({mic0, mic1, ref}, d.features);
  return d.features.feat;
}

const float* run_network(const NNDenoiser& d, const float* features) {
  float x[kMaxConvOut];  // what runs between the layers
  for (int i = 0; i < kBands; ++i) {
    for (int c = 0; c < kChannels; ++c) x[kChannels * i + c] = features[c * kBands + i];
  }
  if (!run_convolutions(d, x)) return nullptr;
  run_grus(d, x);
  run_head(d);
  return d.fc_out[kUsedHead];
}

void gains_from_bands(const float* bands, float* gain) {
  expand_bands(bands, gain);
  attenuate_long_noise(gain);
}

}  // namespace se::nn

using namespace se;
using namespace se::nn;

int nn_query_mem_api() {
  return static_cast<int>(measured(lay_out_static));
}

// Layers and driver use the scratch block one after another.
int nn_query_scratch_api() {
  int bytes = static_cast<int>(measured(lay_out_scratch));
  for (const ConvShape& shape : kConv) {
    bytes = std::max(bytes, conv2d_query_scratch(shape.in_channels, kKernelTime, shape.kernel_freq,
                                                 shape.in_width, kGroups));
  }
  for (const int input : kGruInput) {
    bytes = std::max(bytes, gru_query_scratch(kGruHidden, input));
  }
  return bytes;
}

void* nn_init_api(void* mem, void* scratch) {
  return init_denoiser(mem, scratch, &nn_denoise_model);
}

int nn_process_api(void* state, const zel_lcomplex* spec_mics, const zel_lcomplex* spec_ref,
                   float* gain, bool /*nn_only*/, bool /*use_ns*/) {
  const NNDenoiser& d = *static_cast<const NNDenoiser*>(state);
  const float* bands = run_network(d, make_features(d, spec_mics, spec_mics + kBins, spec_ref));
  if (bands == nullptr) return 0;
  gains_from_bands(bands, gain);
  return 1;
}

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
#include "kernels/kernels.h"
#include "nn/denoiser.h"
#include "nn/features.h"
#include "nn/network.h"
#include "nn/quiet_history.h"

namespace se::nn {
namespace {

// Quiet frames, judged by the mean gain of bins 0..127 (taken over half of 257).
constexpr int kQuietBins = 128;
constexpr float kQuietMeanFactor = 2.0f / 257.0f;
constexpr double kQuietMean = 0.02;  // below: the frame is quiet
constexpr double kLowMean = 0.05;    // below: the frame may be attenuated
constexpr int kQuietFrames = 900;    // of the last 1000; more: a long noise-only stretch
constexpr double kQuietAttenuation = 0.6;

struct StaticLayout {
  NNDenoiser* denoiser;
  void* conv[kConvLayers];
  void* gru[kGruLayers];
  float* conv_out[kConvLayers];
  float* gru_out[2];
  float* fc_out[kHeads];
};

int conv_bytes(const ConvShape& shape) {
  return conv2d_query_mem(kPastFrames, shape.in_channels, shape.in_width, shape.freq_pad);
}

StaticLayout lay_out_static(MemoryWalk& mem) {
  StaticLayout layout;
  layout.denoiser = mem.record<NNDenoiser>(kDenoiserSlot);
  for (int i = 0; i < kConvLayers; ++i) {
    layout.conv[i] = mem.nested(static_cast<std::size_t>(conv_bytes(kConv[i])));
  }
  for (void*& gru : layout.gru) {
    gru = mem.nested(static_cast<std::size_t>(gru_query_mem(kGruHidden)));
  }
  for (int i = 0; i < kConvLayers; ++i) {
    layout.conv_out[i] = mem.buffer<float>(static_cast<std::size_t>(kConv[i].out_size()));
  }
  for (float*& out : layout.gru_out) out = mem.buffer<float>(2 * kGruHidden);
  for (float*& out : layout.fc_out) out = mem.buffer<float>(kBands);
  return layout;
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
  struct Stage {
    Conv2D* conv;
    float* out;
    const BNLayer* bn;
  };
  const Stage stages[kConvLayers] = {{d.conv1_state, d.conv1_out, d.bn1},
                                     {d.conv2_state, d.conv2_out, d.bn2},
                                     {d.conv3_state, d.conv3_out, d.bn3},
                                     {d.conv4_state, d.conv4_out, d.bn4},
                                     {d.conv5_state, d.conv5_out, d.bn5}};
  for (int i = 0; i < kConvLayers; ++i) {
    const Stage& stage = stages[i];
    if (conv2d_process(stage.conv, stage.out, x) == 0) return false;
    kernels().nn->normalise(stage.out, stage.bn->gamma_var, stage.bn->gmb, kConv[i].out_size(), x);
  }
  return true;
}

// Both pairs of GRU layers: from the convolutions' output in `x` to `gru2_out`.
void run_grus(const NNDenoiser& d, float* x) {
  float low[kGruInput[0]];
  float high[kGruInput[1]];
  split_half(x, 0, low);
  split_half(x, kConv[kConvLayers - 1].out_width / 2, high);
  gru_process(d.gru1_1_state, low, d.gru1_out);
  gru_process(d.gru1_2_state, high, d.gru1_out + kGruHidden);

  float* const even = x;
  float* const odd = x + kGruHidden;
  for (int i = 0; i < kGruHidden; ++i) {
    even[i] = d.gru1_out[2 * i];
    odd[i] = d.gru1_out[2 * i + 1];
  }
  gru_process(d.gru2_1_state, even, d.gru2_out);
  gru_process(d.gru2_2_state, odd, d.gru2_out + kGruHidden);
}

// The head: from `gru2_out` to one value in 0..1 per band.
void run_head(const NNDenoiser& d) {
  const NnKernels& k = *kernels().nn;
  std::int16_t q[kHeadInput];
  k.quantise(d.gru2_out, kHeadInput, kQ11, q);
  k.affine({d.fc2->weight, kBands, kHeadInput, d.fc2->weight_scale, 1.0f / kQ11, d.fc2->bias}, q,
           d.fc2_out);
  k.sigmoid(d.fc2_out, kBands);
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
  MemoryWalk mem_walk(mem);
  const StaticLayout at = lay_out_static(mem_walk);
  MemoryWalk scratch_walk(scratch);
  const FeatureBuffers areas = lay_out_scratch(scratch_walk);

  NNDenoiser* const d = at.denoiser;
  d->model = model;
  d->conv1_state = init_conv(at.conv[0], scratch, model->conv1, kConv[0]);
  d->bn1 = model->bn1;
  d->conv2_state = init_conv(at.conv[1], scratch, model->conv2, kConv[1]);
  d->bn2 = model->bn2;
  d->conv3_state = init_conv(at.conv[2], scratch, model->conv3, kConv[2]);
  d->bn3 = model->bn3;
  d->conv4_state = init_conv(at.conv[3], scratch, model->conv4, kConv[3]);
  d->bn4 = model->bn4;
  d->conv5_state = init_conv(at.conv[4], scratch, model->conv5, kConv[4]);
  d->bn5 = model->bn5;
  d->gru1_1_state = gru_init(at.gru[0], scratch, model->gru1_1, kGruHidden, kGruInput[0]);
  d->gru1_2_state = gru_init(at.gru[1], scratch, model->gru1_2, kGruHidden, kGruInput[1]);
  d->gru2_1_state = gru_init(at.gru[2], scratch, model->gru2_1, kGruHidden, kGruInput[2]);
  d->gru2_2_state = gru_init(at.gru[3], scratch, model->gru2_2, kGruHidden, kGruInput[3]);
  d->fc1 = model->fc1;
  d->fc2 = model->fc2;
  d->conv1_out = at.conv_out[0];
  d->conv2_out = at.conv_out[1];
  d->conv3_out = at.conv_out[2];
  d->conv4_out = at.conv_out[3];
  d->conv5_out = at.conv_out[4];
  d->gru1_out = at.gru_out[0];
  d->gru2_out = at.gru_out[1];
  d->fc1_out = at.fc_out[0];
  d->fc2_out = at.fc_out[1];
  d->mag = areas.mag;
  d->band = areas.band;
  d->feat = areas.feat;
  return d;
}

}  // namespace se::nn

using namespace se;
using namespace se::nn;

int nn_query_mem_api() {
  MemoryWalk mem;
  lay_out_static(mem);
  return static_cast<int>(mem.size());
}

// Layers and driver use the scratch block one after another.
int nn_query_scratch_api() {
  MemoryWalk own;
  lay_out_scratch(own);
  int bytes = static_cast<int>(own.size());
  const auto at_least = [&bytes](int need) { bytes = need > bytes ? need : bytes; };
  for (const ConvShape& shape : kConv) {
    at_least(conv2d_query_scratch(shape.in_channels, kKernelTime, shape.kernel_freq, shape.in_width,
                                  kGroups));
  }
  for (const int input : kGruInput) at_least(gru_query_scratch(kGruHidden, input));
  return bytes;
}

void* nn_init_api(void* mem, void* scratch) {
  return init_denoiser(mem, scratch, &nn_denoise_model);
}

int nn_process_api(void* state, const zel_lcomplex* spec_mics, const zel_lcomplex* spec_ref,
                   float* gain, bool /*nn_only*/, bool /*use_ns*/) {
  const NNDenoiser& d = *static_cast<const NNDenoiser*>(state);
  features(spec_mics, spec_ref, {d.mag, d.band, d.feat});

  float x[kMaxConvOut];  // what runs between the layers
  for (int i = 0; i < kBands; ++i) {
    for (int c = 0; c < kChannels; ++c) x[kChannels * i + c] = d.feat[c * kBands + i];
  }
  if (!run_convolutions(d, x)) return 0;
  run_grus(d, x);
  run_head(d);
  expand_bands(d.fc2_out, gain);
  attenuate_long_noise(gain);
  return 1;
}

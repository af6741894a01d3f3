// State of the network driver and its initialisation with a model of the caller's.
#pragma once

#include "common/module_memory.h"
#include "nn/conv2d.h"
#include "nn/features.h"
#include "nn/gru.h"
#include "nn/network.h"
#include "speechenhance/denoiser.h"

namespace se::nn {

// A convolution layer and the normalisation behind it.
struct ConvStage {
  Conv2D* conv;
  const BNLayer* bn;
};

// The record and the buffers lie in memory by the byte figures in the headers, which count pointers
// for what nothing uses, too: the first head and its output.
struct NNDenoiser {
  const DenoiseModel* model;
  ConvStage stage[kConvLayers];
  Gru* gru[kGruLayers];  // two pairs
  const FCLayer* fc[kHeads];
  float* conv_out[kConvLayers];    // raw convolution outputs, before normalisation
  float* gru_out[kGruLayers / 2];  // outputs of a pair, one after the other
  float* fc_out[kHeads];           // of the used head the network's output, one value per band
  FeatureBuffers features;         // scratch, live until the features are made
};

constexpr RecordSlot kDenoiserSlot = {119, 116};

// nn_init_api with another model than the compiled-in one. The model stays the caller's.
NNDenoiser* init_denoiser(void* mem, void* scratch, const DenoiseModel* model);

// The three steps of nn_process_api.

// The features of a frame from its three spectra: kChannels x kBands floats in the scratch block.
const float* make_features(const NNDenoiser& d, const zel_lcomplex* mic0, const zel_lcomplex* mic1,
                           const zel_lcomplex* ref);

// Runs the network on them: kBands values in 0..1 that belong to the frame before the last five.
// Null on the first five calls, on which the convolution layers fill.
const float* run_network(const NNDenoiser& d, const float* features);

// Expands band values to kBins gains and takes these down in long stretches of noise, of which it
// keeps count for the whole process.
void gains_from_bands(const float* bands, float* gain);

}  // namespace se::nn

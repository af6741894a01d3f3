// State of the network driver and its initialisation with a model of the caller's.
#pragma once

#include "common/module_memory.h"
#include "nn/conv2d.h"
#include "nn/gru.h"
#include "speechenhance/denoiser.h"

namespace se::nn {

struct NNDenoiser {
  const DenoiseModel* model;
  Conv2D* conv1_state;
  const BNLayer* bn1;
  Conv2D* conv2_state;
  const BNLayer* bn2;
  Conv2D* conv3_state;
  const BNLayer* bn3;
  Conv2D* conv4_state;
  const BNLayer* bn4;
  Conv2D* conv5_state;
  const BNLayer* bn5;
  Gru* gru1_1_state;
  Gru* gru1_2_state;
  Gru* gru2_1_state;
  Gru* gru2_2_state;
  const FCLayer* fc1;
  const FCLayer* fc2;
  float* conv1_out;  // raw convolution outputs, before normalisation
  float* conv2_out;
  float* conv3_out;
  float* conv4_out;
  float* conv5_out;
  float* gru1_out;  // outputs of a pair, one after the other
  float* gru2_out;
  float* fc1_out;  // kept for the second head, which is not computed
  float* fc2_out;  // the network's output, one value per band
  float* mag;      // scratch, live until the features are made: magnitudes
  float* band;     // scratch: band means
  float* feat;     // scratch: features
};

constexpr RecordSlot kDenoiserSlot = {119, 116};

// nn_init_api with another model than the compiled-in one. The model stays the caller's.
NNDenoiser* init_denoiser(void* mem, void* scratch, const DenoiseModel* model);

}  // namespace se::nn

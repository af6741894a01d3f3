// The compiled-in model's weights once more, in the order of the kernels in use.
//
// They are packed when the first denoiser over that model is made, once per process, into memory of
// the library's own (about 1 MB that no one touches before, nor ever where a variant reads weights
// as they lie). A thread that comes while another one packs goes on with the plain weights: the
// results have the same bits.
#pragma once

#include "kernels/nn_kernels.h"
#include "nn/network.h"
#include "speechenhance/denoiser.h"

namespace se::nn {

constexpr int kGates = 3;  // of a GRU: reset, update, candidate

// Both sides of all gates, one gate's rows behind the other's.
struct PackedGru {
  PackedMatrix in, state;
};

// A convolution: the weights of pairs of positions, or null, and then those of single ones.
struct PackedConv {
  const std::int16_t* pairs;
  PackedMatrix matrix;
};

// Packs the compiled-in model for the kernels in use, where that has not been done.
void pack_model();

// The packed weights behind a record; null where there are none for the kernels in use, or where
// the layer was given other sizes than the model's.
const PackedConv* packed_conv(const Conv2DLayer* layer, int rows, int frames, int window);
const PackedGru* packed_gru(const GRULayer* layer, int hidden, int input);
const PackedMatrix* packed_head(const FCLayer* layer);

}  // namespace se::nn

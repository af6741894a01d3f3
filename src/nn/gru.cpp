// One gated recurrent unit layer with int8 weights and Q11 activations, stepped once per frame.
//
//   r = sigmoid(W_ir x + b_ir + W_hr h + b_hr)
//   z = sigmoid(W_iz x + b_iz + W_hz h + b_hz)
//   n = tanh(W_in x + b_in + r * (W_hn h + b_hn))
//   h' = (1 - z) * n + z * h
//
// the standard unit (Cho et al., 2014) with separate biases for both sides, the reset gate scaling
// the whole recurrent term. Both weight tables are read once, in order: 3 * hidden * (input +
// hidden) products per step.
#include "nn/gru.h"

#include <cstddef>

#include "kernels/kernels.h"
#include "nn/network.h"

namespace se::nn {
namespace {

struct StaticLayout {
  Gru* gru;
  std::int16_t* state;
};

StaticLayout lay_out_static(MemoryWalk& mem, int hidden) {
  return {mem.record<Gru>(kGruSlot), mem.buffer<std::int16_t>(static_cast<std::size_t>(hidden))};
}

struct ScratchLayout {
  float* update;
  float* reset;
  float* candidate;
  std::int16_t* qinput;
};

ScratchLayout lay_out_scratch(MemoryWalk& scratch, int hidden, int input) {
  const auto units = static_cast<std::size_t>(hidden);
  return {scratch.buffer<float>(units), scratch.buffer<float>(units), scratch.buffer<float>(units),
          scratch.buffer<std::int16_t>(static_cast<std::size_t>(input))};
}

GruGate gate_of(const GRULayer& layer, int gate, int hidden, int input) {
  const std::ptrdiff_t row = static_cast<std::ptrdiff_t>(gate) * hidden;
  return {layer.weight_ih + row * input, layer.weight_hh + row * hidden, layer.bias_ih + row,
          layer.bias_hh + row};
}

}  // namespace
}  // namespace se::nn

using namespace se;
using namespace se::nn;

int gru_query_mem(int hidden) {
  MemoryWalk mem;
  lay_out_static(mem, hidden);
  return static_cast<int>(mem.size());
}

int gru_query_scratch(int hidden, int input) {
  MemoryWalk scratch;
  lay_out_scratch(scratch, hidden, input);
  return static_cast<int>(scratch.size());
}

Gru* gru_init(void* mem, void* scratch, const GRULayer* layer, int hidden, int input) {
  if (hidden < 1 || input < 1) return nullptr;
  MemoryWalk mem_walk(mem);
  const StaticLayout placed = lay_out_static(mem_walk, hidden);
  MemoryWalk scratch_walk(scratch);
  const ScratchLayout areas = lay_out_scratch(scratch_walk, hidden, input);
  *placed.gru = {layer,        placed.state, hidden,          input,
                 areas.update, areas.reset,  areas.candidate, areas.qinput};
  for (int j = 0; j < hidden; ++j) placed.state[j] = 0;
  return placed.gru;
}

int gru_process(Gru* gru, const float* in, float* out) {
  const NnKernels& k = *kernels().nn;
  const int hidden = gru->hidden_size;
  const int input = gru->input_size;
  const GRULayer& layer = *gru->layer;
  const GruStep step = {gru->qinput, gru->state, input, hidden};

  k.quantise(in, input, kQ11, gru->qinput);
  k.gru_gate(gate_of(layer, 0, hidden, input), step, gru->reset);
  k.sigmoid(gru->reset, hidden);
  k.gru_gate(gate_of(layer, 1, hidden, input), step, gru->update);
  k.sigmoid(gru->update, hidden);
  k.gru_candidate(gate_of(layer, 2, hidden, input), step, gru->reset, gru->candidate);
  k.tanh(gru->candidate, hidden);
  k.gru_blend(gru->update, gru->candidate, gru->state, hidden, out);
  k.quantise(out, hidden, kQ11, gru->state);
  return 0;
}

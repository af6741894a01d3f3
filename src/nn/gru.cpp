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
#include "nn/packed_model.h"

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

// The sums of a step's products, in chunks of units. Those of packed weights are all there at once.
class Sums {
 public:
  explicit Sums(const Gru& gru)
      : gru_(gru),
        packed_(packed_gru(gru.layer, gru.hidden_size, gru.input_size)),
        kernels_(*kernels().nn) {
    if (!packed_) return;
    const GRULayer& layer = *gru.layer;
    const int rows = kGates * gru.hidden_size;
    kernels_.packed_product(packed_->in, {layer.weight_ih, rows, gru.input_size}, gru.qinput, in_);
    kernels_.packed_product(packed_->state, {layer.weight_hh, rows, gru.hidden_size}, gru.state,
                            state_);
  }

  // Calls finish(sums and biases, first unit, units) for all units of a gate.
  template <class Finish>
  void by_gate(int gate, Finish finish) {
    const GRULayer& layer = *gru_.layer;
    for (int first = 0; first < gru_.hidden_size; first += kGruHidden) {
      const int left = gru_.hidden_size - first;
      const int units = left < kGruHidden ? left : kGruHidden;
      const std::ptrdiff_t row = static_cast<std::ptrdiff_t>(gate) * gru_.hidden_size + first;
      const std::ptrdiff_t at = packed_ ? row : 0;
      if (!packed_) {
        kernels_.product({layer.weight_ih + row * gru_.input_size, units, gru_.input_size},
                         gru_.qinput, in_);
        kernels_.product({layer.weight_hh + row * gru_.hidden_size, units, gru_.hidden_size},
                         gru_.state, state_);
      }
      finish(GruGate{in_ + at, state_ + at, layer.bias_ih + row, layer.bias_hh + row}, first,
             units);
    }
  }

 private:
  const Gru& gru_;
  const PackedGru* packed_;
  const NnKernels& kernels_;
  std::int32_t in_[kGates * kGruHidden + kSpareSums], state_[kGates * kGruHidden + kSpareSums];
};

}  // namespace
}  // namespace se::nn

using namespace se;
using namespace se::nn;

int gru_query_mem(int hidden) {
  return static_cast<int>(measured(lay_out_static, hidden));
}

int gru_query_scratch(int hidden, int input) {
  return static_cast<int>(measured(lay_out_scratch, hidden, input));
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
  k.quantise(in, gru->input_size, kQ11, gru->qinput);
  Sums sums(*gru);
  sums.by_gate(0, [&](const GruGate& gate, int first, int units) {
    k.gru_gate(gate, units, gru->reset + first);
  });
  k.sigmoid(gru->reset, hidden);
  sums.by_gate(1, [&](const GruGate& gate, int first, int units) {
    k.gru_gate(gate, units, gru->update + first);
  });
  k.sigmoid(gru->update, hidden);
  sums.by_gate(2, [&](const GruGate& gate, int first, int units) {
    k.gru_candidate(gate, gru->reset + first, units, gru->candidate + first);
  });
  k.tanh(gru->candidate, hidden);
  k.gru_blend(gru->update, gru->candidate, gru->state, hidden, out);
  k.quantise(out, hidden, kQ11, gru->state);
  return 0;
}

// The time loop of a pair of GRUs for the quick training step. Forward, one tile holds the reset,
// update and candidate sums of the same units, so that gates follow from registers. Backward, the
// gradient goes through the recurrent weights step by step; what the weights get is summed up over
// a few steps at a time, while their operands are in the cache.
#include "nn/network.h"
#include "products.h"
#include "quick_step.h"

#ifdef __AVX512BF16__
#define SE_GRU_FORWARD se_training_gru_forward_avx512
#define SE_GRU_BACKWARD se_training_gru_backward_avx512
#else
#define SE_GRU_FORWARD se_training_gru_forward_avx2
#define SE_GRU_BACKWARD se_training_gru_backward_avx2
#endif

namespace {

constexpr int kHidden = se::nn::kGruHidden;
constexpr int kGates = 3 * kHidden;
constexpr int kPart = round_up(kHidden, kLanes);  // one gate's share of a row, zeros at its end
constexpr int kPair = Gradients::kValues;
constexpr float kWeightScale = 256.0f;
constexpr int kChunkWords = 128;  // rows of words between two sums of weight gradients
static_assert(kHidden % kTileRows == 0);

inline Floats sigmoid(Floats x) {
  const Floats bounded = min(max(x, splat(-80.0f)), splat(80.0f));
  return splat(1.0f) / (splat(1.0f) + exp2(bounded * splat(-1.44269504f)));
}
inline Floats tangent(Floats x) {
  return fma(splat(2.0f), sigmoid(x + x), splat(-1.0f));
}

// Gate rows of a weight matrix (G, depth) as columns: vectors of reset, update, candidate by turns.
Packed packed_gates(const float* w, int depth) {
  return packed_integers(depth, 3 * kPart, 3, [&](int d, int column) {
    const int gate = column / kLanes % 3, unit = column / (3 * kLanes) * kLanes + column % kLanes;
    return unit < kHidden ? w[(gate * kHidden + unit) * depth + d] * kWeightScale : 0.0f;
  });
}

// The same matrix the other way round: depth is (gate, unit) in parts, columns are inputs.
Packed packed_turned(const float* w, int columns) {
  return packed_gradients(3 * kPart, columns, 2, [&](int d, int column) {
    const int gate = d / kPart, unit = d % kPart;
    return unit < kHidden ? w[(gate * kHidden + unit) * columns + column] : 0.0f;
  });
}

void to_q11(const float* x, Index size, std::int16_t* out) {
  for (Index i = 0; i < size; i += kLanes)
    store_int16(out + i, load_some(x + i, size - i) * splat(se::nn::kQ11), size - i);
}

// What one stream's units j ... need and leave, beyond their sums.
struct Units {
  const float *b_ih, *b_hh, *h;
  float *next, *gates, *recurrent;
  std::int16_t* next_q11;
};

// `sums`: of reset, update, the candidate's input side and its recurrent side.
inline void step_units(const Units& u, Index j, const float* sums) {
  const Index left = kHidden - j;
  const auto bias = [&](const float* b, int gate) {
    return load_some(b + gate * kHidden + j, left);
  };
  const Floats r = sigmoid(load(sums) + (bias(u.b_ih, 0) + bias(u.b_hh, 0)));
  const Floats z = sigmoid(load(sums + kLanes) + (bias(u.b_ih, 1) + bias(u.b_hh, 1)));
  const Floats hn = load(sums + 3 * kLanes) + bias(u.b_hh, 2);
  const Floats n = tangent(fma(r, hn, load(sums + 2 * kLanes) + bias(u.b_ih, 2)));
  const Floats old = load_some(u.h + j, left);
  const Floats state = nearest(fma(z, old - n, n) * splat(se::nn::kQ11));
  store_some(u.next + j, state * splat(1.0f / se::nn::kQ11), left);
  store_int16(u.next_q11 + j, state, left);
  store_some(u.gates + j, r, left);
  store_some(u.gates + kHidden + j, z, left);
  store_some(u.gates + 2 * kHidden + j, n, left);
  store_some(u.recurrent + j, hn, left);
}

// Gradients of one time step's gate sums: (row of words, part) for the weights, (stream, part) for
// the products. Parts: reset, update, the candidate's input side, its recurrent side.
constexpr int kParts = 4;
constexpr Index kRowWords = kParts * kPart;
constexpr Index kDepthWords = kParts * kPart / kPair;

// From the gradient of the new states (B, dh_width), which becomes its direct share to the old
// ones.
void step_backward(int batch, const float* grad_states, float* dh, Index dh_width, const float* h,
                   const float* gates, const float* recurrent, Word* rows, Word* depth,
                   float* bias) {
  const Floats one = splat(1.0f);
  for (Index j = 0; j < kHidden; j += kLanes) {
    const Index left = kHidden - j;
    Floats bias_sum[kParts];
    for (int p = 0; p < kParts; ++p) bias_sum[p] = load(bias + p * kPart + j);
    for (Index b = 0; b < batch; b += kPair) {
      Floats grad[kParts][kPair];
      for (Index i = 0; i < kPair; ++i) {
        const Index stream = b + i;
        const float* gate = gates + stream * kGates + j;
        const Floats r = load_some(gate, left), z = load_some(gate + kHidden, left);
        const Floats n = load_some(gate + 2 * kHidden, left);
        const Floats d = load_some(dh + stream * dh_width + j, left) +
                         load_some(grad_states + stream * kHidden + j, left);
        const Floats dn = d * (one - z) * (one - n * n);
        const Floats dz = d * (load_some(h + stream * kHidden + j, left) - n) * (z * (one - z));
        const Floats dr = dn * load_some(recurrent + stream * kHidden + j, left) * (r * (one - r));
        const Floats parts[kParts] = {dr, dz, dn, dn * r};
        for (int p = 0; p < kParts; ++p) {
          grad[p][i] = parts[p];
          bias_sum[p] = bias_sum[p] + parts[p];
          Gradients::store_depth(depth + stream * kDepthWords + (p * kPart + j) / kPair, parts[p]);
        }
        store_some(dh + stream * dh_width + j, d * z, left);
      }
      for (int p = 0; p < kParts; ++p)
        Gradients::store_rows(rows + b / kPair * kRowWords + p * kPart + j, grad[p]);
    }
    for (int p = 0; p < kParts; ++p) store(bias + p * kPart + j, bias_sum[p]);
  }
}

void store_rows(int batch, const float* x, Index width, Word* rows, Index row_words) {
  for (Index b = 0; b < batch; b += kPair)
    for (Index j = 0; j < width; j += kLanes) {
      Floats values[kPair];
      for (Index i = 0; i < kPair; ++i) values[i] = load_some(x + (b + i) * width + j, width - j);
      Gradients::store_rows(rows + b / kPair * row_words + j, values);
    }
}

// The gradient of one weight matrix (G, columns), and its right operand in words.
class WeightGradient {
 public:
  WeightGradient(int columns, int candidate_part, Index rows)
      : columns_(columns),
        width_(round_up(columns, 2 * kLanes)),
        parts_{0, 1, candidate_part},
        words_(rows * width_),
        sums_(kGates * width_) {}
  void set(Index row, int batch, const float* values) {
    store_rows(batch, values, columns_, words_ + row * width_, width_);
  }
  void add(const Word* gradients, Index rows) {
    for (Index column = 0; column < width_; column += 2 * kLanes)
      for (Index gate = 0; gate < 3; ++gate)
        for (Index unit = 0; unit < kHidden; unit += kTileRows) {
          float* sums = sums_ + (gate * kHidden + unit) * width_ + column;
          Floats tile[kTileRows][2];
          load_tile(tile, sums, width_);
          accumulate<Gradients>(tile, gradients + parts_[gate] * kPart + unit, 1, kRowWords,
                                words_ + column, width_, rows);
          store_tile(tile, sums, width_);
        }
  }
  void write(float* weights, const float* bias_sums, float* bias) const {
    for (Index gate = 0; gate < 3; ++gate)
      for (Index unit = 0; unit < kHidden; ++unit) {
        const Index row = gate * kHidden + unit;
        std::memcpy(weights + row * columns_, sums_ + row * width_,
                    static_cast<std::size_t>(columns_) * sizeof(float));
        bias[row] = bias_sums[parts_[gate] * kPart + unit];
      }
  }

 private:
  Index columns_, width_;
  Index parts_[3];
  Buffer<Word> words_;
  Buffer<float> sums_;
};

}  // namespace

SE_TRAINING_GRU_FORWARD(SE_GRU_FORWARD) {
  const Floats unit = splat(1.0f / (se::nn::kQ11 * kWeightScale));
  Buffer<std::int16_t> x_q11(static_cast<Index>(batch) * inputs);
  Buffer<std::int16_t> h_q11[2] = {Buffer<std::int16_t>(batch * kHidden),
                                   Buffer<std::int16_t>(batch * kHidden)};
  for (Index g = 0; g < 2; ++g) {
    const Packed in_matrix = packed_gates(w_ih + g * kGates * inputs, inputs);
    const Packed rec_matrix = packed_gates(w_hh + g * kGates * kHidden, kHidden);
    to_q11(states + g * (steps + 1) * batch * kHidden, batch * kHidden, h_q11[0]);
    for (Index t = 0; t < steps; ++t) {
      to_q11(x + (g * steps + t) * batch * inputs, static_cast<Index>(batch) * inputs, x_q11);
      for (int group = 0; group < in_matrix.groups(); ++group)
        for (Index b = 0; b < batch; b += kTileRows) {
          Ints tile[kTileRows][3];
          clear(tile);
          accumulate<IntegerPairs>(tile, reinterpret_cast<const Word*>(x_q11 + b * inputs),
                                   inputs / 2, 1, in_matrix.group(group), 3 * kLanes, inputs / 2);
          float sums[kTileRows][4 * kLanes];  // reset, update, the candidate's two sides
#pragma GCC unroll 16
          for (int m = 0; m < kTileRows; ++m) {
            store(sums[m] + 2 * kLanes, to_floats(tile[m][2]) * unit);
            tile[m][2] = Ints{};
          }
          accumulate<IntegerPairs>(tile, reinterpret_cast<const Word*>(h_q11[t % 2] + b * kHidden),
                                   kHidden / 2, 1, rec_matrix.group(group), 3 * kLanes,
                                   kHidden / 2);
#pragma GCC unroll 16
          for (int m = 0; m < kTileRows; ++m) {
            store(sums[m], to_floats(tile[m][0]) * unit);
            store(sums[m] + kLanes, to_floats(tile[m][1]) * unit);
            store(sums[m] + 3 * kLanes, to_floats(tile[m][2]) * unit);
          }
          for (int m = 0; m < kTileRows; ++m) {
            const Index at = (g * steps + t) * batch + b + m;
            const Index from = (g * (steps + 1) + t) * batch + b + m;
            step_units({b_ih + g * kGates, b_hh + g * kGates, states + from * kHidden,
                        states + (from + batch) * kHidden, gates + at * kGates,
                        recurrent + at * kHidden, h_q11[(t + 1) % 2] + (b + m) * kHidden},
                       group * kLanes, sums[m]);
          }
        }
    }
  }
}

SE_TRAINING_GRU_BACKWARD(SE_GRU_BACKWARD) {
  const int step_rows = batch / kPair;
  const int chunk = kChunkWords / step_rows > 1 ? kChunkWords / step_rows : 1;  // time steps
  Buffer<Word> rows(chunk * step_rows * kRowWords), depth(batch * kDepthWords);
  for (Index g = 0; g < 2; ++g) {
    const Packed in_matrix = packed_turned(w_ih + g * kGates * inputs, inputs);
    const Packed rec_matrix = packed_turned(w_hh + g * kGates * kHidden, kHidden);
    WeightGradient in_gradient(inputs, 2, chunk * step_rows);
    WeightGradient rec_gradient(kHidden, 3, chunk * step_rows);
    Buffer<float> bias(kParts * kPart);
    const Index dh_width = round_up(kHidden, rec_matrix.width());
    Buffer<float> dh(batch * dh_width);
    Index filled = 0;
    for (Index t = steps - 1; t >= 0; --t) {
      const Index at = (g * steps + t) * batch;
      const float* h = states + (g * (steps + 1) + t) * batch * kHidden;
      step_backward(batch, grad_states + at * kHidden, dh, dh_width, h, gates + at * kGates,
                    recurrent + at * kHidden, rows + filled * kRowWords, depth, bias);
      in_gradient.set(filled, batch, x + at * inputs);
      rec_gradient.set(filled, batch, h);
      filled += step_rows;
      if (filled == chunk * step_rows || t == 0) {
        in_gradient.add(rows, filled);
        rec_gradient.add(rows, filled);
        filled = 0;
      }
      constexpr Index kPartWords = kPart / kPair;
      for (int group = 0; group < rec_matrix.groups(); ++group)
        for (Index b = 0; b < batch; b += kTileRows) {
          const Word* from = depth + b * kDepthWords;
          const Word* matrix = rec_matrix.group(group);
          float* to = dh + b * dh_width + group * rec_matrix.width();
          Floats tile[kTileRows][2];
          load_tile(tile, to, dh_width);
          accumulate<Gradients>(tile, from, kDepthWords, 1, matrix, 2 * kLanes, 2 * kPartWords);
          accumulate<Gradients>(tile, from + 3 * kPartWords, kDepthWords, 1,
                                matrix + 2 * kPartWords * rec_matrix.width(), 2 * kLanes,
                                kPartWords);
          store_tile(tile, to, dh_width);
        }
      for (int group = 0; group < in_matrix.groups(); ++group)
        for (Index b = 0; b < batch; b += kTileRows) {
          const Index column = static_cast<Index>(group) * in_matrix.width();
          Floats tile[kTileRows][2];
          clear(tile);
          accumulate<Gradients>(tile, depth + b * kDepthWords, kDepthWords, 1,
                                in_matrix.group(group), 2 * kLanes, 3 * kPartWords);
          store_tile(tile, grad_x + (at + b) * inputs + column, inputs, inputs - column);
        }
    }
    in_gradient.write(grad_w_ih + g * kGates * inputs, bias, grad_b_ih + g * kGates);
    rec_gradient.write(grad_w_hh + g * kGates * kHidden, bias, grad_b_hh + g * kGates);
  }
}

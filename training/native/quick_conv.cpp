// Convolutions of the quick training step: direct, over channels that lie innermost. The values
// under one row of the kernel (kernel_freq positions of all channels) are then one run of memory,
// forward over the input and, with the kernel turned round, backward over the output's gradient.
// With a stride, input positions fall into as many phases, each of which sees its own part of the
// kernel.
#include "products.h"
#include "quick_step.h"

#ifdef __AVX512BF16__
#define SE_CONV_FORWARD se_training_conv_forward_avx512
#define SE_CONV_BACKWARD se_training_conv_backward_avx512
#else
#define SE_CONV_FORWARD se_training_conv_forward_avx2
#define SE_CONV_BACKWARD se_training_conv_backward_avx2
#endif

namespace {

constexpr int kTime = 3;                    // frames of a kernel
constexpr int kPair = Gradients::kValues;   // streams, or channels, that share a word
constexpr int kChunk = 16;                  // frames whose words stay in the cache
constexpr int kNarrowRows = 2 * kTileRows;  // of a tile of one vector

int vectors_of(int channels) {
  return channels > kLanes ? 2 : 1;
}

// One frame's product at `positions` positions: run(tile rows, tile vectors) for every tile.
template <class Kind, int kRows, int kVectors, class Finish>
void frame_product(const Word* a, Index a_row, Index a_frame, Index run, const Packed& b,
                   int positions, Finish finish) {
  for (int group = 0; group < b.groups(); ++group)
    for (int at = 0; at < positions; at += kRows) {
      typename Kind::Sum tile[kRows][kVectors];
      clear(tile);
      for (Index k = 0; k < kTime; ++k)
        accumulate<Kind>(tile, a + at * a_row + k * a_frame, a_row, 1,
                         b.group(group) + k * run * b.width(), b.width(), run);
      finish(tile, at, group * b.width());
    }
}

struct Frames {  // sizes in values
  explicit Frames(const se_training_conv& c)
      : in_width((c.in_width + 2 * c.freq_pad) * c.in_channels),
        in(static_cast<Index>(c.steps + kTime - 1) * in_width),
        out(c.out_width * c.out_channels),
        padded_out((c.out_width + 2 * c.out_pad) * c.out_channels) {}
  Index in_width, in, out, padded_out;
};

void normalise(const se_training_conv& c, Index size, const float* sums, const float* multiplier,
               const float* offset, std::int16_t* out) {
  const Floats zero = splat(0.0f), limit = splat(c.limit), scale = splat(c.out_scale);
  for (Index i = 0; i < size; i += kLanes) {
    const Floats x = fma(load(sums + i), load(multiplier + i), load(offset + i));
    store_int16(out + i, min(max(x, zero), limit) * scale);
  }
}

// The gradient of a pair of streams' sums, in the words of both backward products.
class SumGradients {
 public:
  explicit SumGradients(const se_training_conv& c)
      : c_(c),
        left_((c.kernel_freq + c.freq_stride - 1) / c.freq_stride - 1),
        position_(c.out_channels / kPair),
        frame_((left_ + c.out_width + kTime) * position_),
        stream_((c.steps + 2 * (kTime - 1)) * frame_),
        by_depth_(kPair * stream_),
        by_rows_(static_cast<Index>(c.steps) * c.out_width * c.out_channels) {}

  // Frame `t` of the input sees the run of `positions` outputs that ends at position `last`.
  const Word* seen_from(int stream, int t, int kt, int last, int positions) const {
    return by_depth_ + stream * stream_ + (t + kTime - 1 - kt) * frame_ +
           (last - positions + 1 + left_) * position_;
  }
  Index position() const { return position_; }
  Index frame() const { return frame_; }
  const Word* rows(int t) const {
    return by_rows_ + static_cast<Index>(t) * c_.out_width * c_.out_channels;
  }

  // From the gradient of the output of streams b ... b + kPair - 1.
  void set(int b, const Frames& frames, const float* multiplier, const float* offset,
           const std::uint8_t* fresh, const float* sums, const float* grad_out,
           float* grad_multiplier, float* grad_offset) {
    const Floats limit = splat(c_.limit);
    for (int t = 0; t < c_.steps; ++t)
      for (Index i = 0; i < frames.out; i += kLanes) {
        const Floats m = load(multiplier + i), o = load(offset + i);
        Floats to_multiplier = load(grad_multiplier + i), to_offset = load(grad_offset + i);
        Floats to_sum[kPair];
        for (int r = 0; r < kPair; ++r) {
          const Index at = (static_cast<Index>(b + r) * c_.steps + t) * frames.out + i;
          const Floats sum = load(sums + at);
          const bool resting = fresh[b + r] && t < c_.rest;
          const Floats grad =
              resting ? splat(0.0f) : where_within(fma(sum, m, o), limit, load(grad_out + at));
          to_multiplier = fma(grad, sum, to_multiplier);
          to_offset = to_offset + grad;
          to_sum[r] = grad * m;
          Gradients::store_depth(
              by_depth_ + r * stream_ + (t + kTime - 1) * frame_ + left_ * position_ + i / kPair,
              to_sum[r]);
        }
        Gradients::store_rows(by_rows_ + t * frames.out + i, to_sum);
        store(grad_multiplier + i, to_multiplier);
        store(grad_offset + i, to_offset);
      }
  }

 private:
  const se_training_conv& c_;
  Index left_, position_, frame_, stream_;
  Buffer<Word> by_depth_;  // (stream, frame, position, channel), zeros around
  Buffer<Word> by_rows_;   // (frame, position, channel) of kPair streams
};

// Of the weights, as (kt, kernel position and channel, output channel).
class WeightGradient {
 public:
  explicit WeightGradient(const se_training_conv& c)
      : c_(c),
        vectors_(vectors_of(c.out_channels)),
        rows_(vectors_ == 1 ? kNarrowRows : kTileRows),
        depth_(round_up(c.kernel_freq * c.in_channels, rows_)),
        width_(round_up(c.out_channels, kLanes)),
        sums_(static_cast<Index>(kTime) * depth_ * width_) {}

  // `x`: words of frames t ... of the input, as many as the chunk of outputs needs.
  void add(const Word* x, Index x_frame, const SumGradients& gradients, int t, int frames) {
    if (vectors_ == 1)
      add_tiles<kNarrowRows, 1>(x, x_frame, gradients, t, frames);
    else
      add_tiles<kTileRows, 2>(x, x_frame, gradients, t, frames);
  }

  void write(float* grad_weights) const {
    for (int o = 0; o < c_.out_channels; ++o)
      for (int i = 0; i < c_.in_channels; ++i)
        for (int kt = 0; kt < kTime; ++kt)
          for (int kf = 0; kf < c_.kernel_freq; ++kf)
            *grad_weights++ = sums_[(kt * depth_ + kf * c_.in_channels + i) * width_ + o];
  }

 private:
  template <int kRows, int kVectors>
  void add_tiles(const Word* x, Index x_frame, const SumGradients& gradients, int t, int frames) {
    for (int kt = 0; kt < kTime; ++kt)
      for (Index column = 0; column < width_; column += kVectors * kLanes)
        for (Index row = 0; row < depth_; row += kRows) {
          float* sums = sums_ + (kt * depth_ + row) * width_ + column;
          Floats tile[kRows][kVectors];
          load_tile(tile, sums, width_);
          for (int i = 0; i < frames; ++i)
            accumulate<Gradients>(tile, x + (i + kt) * x_frame + row, 1,
                                  c_.freq_stride * c_.in_channels, gradients.rows(t + i) + column,
                                  c_.out_channels, c_.out_width);
          store_tile(tile, sums, width_);
        }
  }

  const se_training_conv& c_;
  int vectors_, rows_;
  Index depth_, width_;
  Buffer<float> sums_;
};

}  // namespace

SE_TRAINING_CONV_FORWARD(SE_CONV_FORWARD) {
  const se_training_conv& c = *conv;
  const Frames frames(c);
  const int run = c.kernel_freq * c.in_channels;
  const int vectors = vectors_of(c.out_channels);
  const Packed matrix = packed_integers(kTime * run, c.out_channels, vectors, [&](int d, int o) {
    const int kt = d / run, kf = d % run / c.in_channels, i = d % c.in_channels;
    return weights[((o * c.in_channels + i) * kTime + kt) * c.kernel_freq + kf];
  });
  const Floats unit = splat(1.0f / c.in_scale);
  for (int b = 0; b < c.batch; ++b)
    for (int t = 0; t < c.steps; ++t) {
      const Index at = static_cast<Index>(b) * c.steps + t;
      std::int16_t* frame = out + at * frames.padded_out;
      float* frame_sums = sums + at * frames.out;
      std::memset(frame, 0, static_cast<std::size_t>(frames.padded_out) * sizeof *frame);
      if (fresh[b] && t < c.rest) {
        std::memset(frame_sums, 0, static_cast<std::size_t>(frames.out) * sizeof *frame_sums);
        continue;
      }
      const auto finish = [&](auto& tile, int position, int channel) {
        constexpr int kRows = sizeof tile / sizeof tile[0];
        constexpr int kVectors = sizeof tile[0] / sizeof tile[0][0];
        Floats values[kRows][kVectors];
#pragma GCC unroll 16
        for (int m = 0; m < kRows; ++m)
#pragma GCC unroll 4
          for (int n = 0; n < kVectors; ++n) values[m][n] = to_floats(tile[m][n]) * unit;
        store_tile(values, frame_sums + position * c.out_channels + channel, c.out_channels,
                   c.out_channels - channel);
      };
      const auto product = vectors == 1
                               ? frame_product<IntegerPairs, kNarrowRows, 1, decltype(finish)>
                               : frame_product<IntegerPairs, kTileRows, 2, decltype(finish)>;
      product(reinterpret_cast<const Word*>(x + b * frames.in + t * frames.in_width),
              c.freq_stride * c.in_channels / 2, frames.in_width / 2, run / 2, matrix, c.out_width,
              finish);
      normalise(c, frames.out, frame_sums, multiplier, offset, frame + c.out_pad * c.out_channels);
    }
}

SE_TRAINING_CONV_BACKWARD(SE_CONV_BACKWARD) {
  const se_training_conv& c = *conv;
  const Frames frames(c);
  std::memset(grad_multiplier, 0, static_cast<std::size_t>(frames.out) * sizeof(float));
  std::memset(grad_offset, 0, static_cast<std::size_t>(frames.out) * sizeof(float));
  SumGradients gradients(c);
  WeightGradient weight_gradient(c);
  Buffer<Word> x_words((kChunk + kTime - 1) * frames.in_width + c.kernel_freq * c.in_channels + 64);
  const int vectors = vectors_of(c.in_channels);
  const Floats unit = splat(1.0f / c.in_scale);

  // The part of the kernel that input positions of one phase see, turned round.
  const auto phase_positions = [&](int phase) {
    return (c.kernel_freq - phase + c.freq_stride - 1) / c.freq_stride;
  };
  const auto turned = [&](int phase) {
    const int positions = phase_positions(phase), run = positions * c.out_channels;
    return packed_gradients(
        kTime * run, c.in_channels, vectors, [&, positions, run, phase](int d, int i) {
          const int kt = d / run, o = d % c.out_channels;
          const int kf = phase + c.freq_stride * (positions - 1 - d % run / c.out_channels);
          return weights[((o * c.in_channels + i) * kTime + kt) * c.kernel_freq + kf];
        });
  };
  const Packed turned_kernels[2] = {turned(0), turned(c.freq_stride - 1)};

  for (int b = 0; b < c.batch; b += kPair) {
    gradients.set(b, frames, multiplier, offset, fresh, sums, grad_out, grad_multiplier,
                  grad_offset);
    for (int t = 0; t < c.steps; t += kChunk) {
      const int count = c.steps - t < kChunk ? c.steps - t : kChunk;
      for (Index i = 0; i < (count + kTime - 1) * frames.in_width; i += kLanes) {
        Floats pair[kPair];
        for (int r = 0; r < kPair; ++r)
          pair[r] = load_int16(x + (b + r) * frames.in + t * frames.in_width + i) * unit;
        Gradients::store_rows(x_words + i, pair);
      }
      weight_gradient.add(x_words, frames.in_width, gradients, t, count);
    }
    if (!grad_x) continue;
    for (int r = 0; r < kPair; ++r)
      for (int t = 0; t < c.steps + kTime - 1; ++t)
        for (int phase = 0; phase < c.freq_stride; ++phase) {
          const int positions = phase_positions(phase);
          // Padded input position phase + stride * u; the first one inside is:
          const int u = (c.freq_pad - phase + c.freq_stride - 1) / c.freq_stride;
          const int from = phase + c.freq_stride * u - c.freq_pad;
          float* frame = grad_x + (static_cast<Index>(b + r) * (c.steps + kTime - 1) + t) *
                                      c.in_width * c.in_channels;
          const auto finish = [&](auto& tile, int position, int channel) {
            store_tile(tile, frame + (from + position * c.freq_stride) * c.in_channels + channel,
                       c.freq_stride * c.in_channels, c.in_channels - channel);
          };
          const auto product = vectors == 1
                                   ? frame_product<Gradients, kNarrowRows, 1, decltype(finish)>
                                   : frame_product<Gradients, kTileRows, 2, decltype(finish)>;
          product(gradients.seen_from(r, t, 0, u, positions), gradients.position(),
                  -gradients.frame(), positions * gradients.position(), turned_kernels[phase],
                  c.in_width / c.freq_stride, finish);
        }
  }
  weight_gradient.write(grad_weights);
}

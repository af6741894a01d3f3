// The denoiser's features and layers once more, written for reading and not for speed: indices
// spelled out, all past frames kept, 64-bit integers and double precision. What is quantized is
// quantized here too.
#pragma once

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <vector>

#include "nn/network.h"
#include "speechenhance/denoiser.h"

namespace reference {

using Values = std::vector<double>;
using Integers = std::vector<std::int64_t>;

// The nearest multiple of 1 / scale, halves away from zero, as a saturated 16-bit integer.
inline std::int64_t quantized(double x, double scale) {
  const double rounded = std::floor(std::fabs(x * scale) + 0.5);
  const double limited = x < 0 ? std::max(-rounded, -32768.0) : std::min(rounded, 32767.0);
  return static_cast<std::int64_t>(limited);
}

inline double sigmoid(double x) {
  return 1.0 / (1.0 + std::exp(-x));
}

struct ConvShape {
  int in_channels, in_width, out_channels, out_width;
  int kernel_time, kernel_freq, freq_stride, time_pad, freq_pad;

  int row() const { return (kernel_time * kernel_freq * in_channels + 7) / 8 * 8; }
};

class Conv {
 public:
  explicit Conv(const ConvShape& shape) : s_(shape) {}

  // The integer sums of the output frame that this input frame completes; empty during warm-up.
  Integers sums(const Values& in, const std::int8_t* kernel) {
    Integers frame;
    for (const double x : in) frame.push_back(quantized(x, 1024));
    frames_.push_back(frame);
    const int newest = static_cast<int>(frames_.size()) - 1;
    if (newest < s_.kernel_time - 1 - s_.time_pad) return {};
    Integers out;
    for (int x = 0; x < s_.out_width; ++x) {
      for (int o = 0; o < s_.out_channels; ++o) {
        std::int64_t sum = 0;
        for (int t = 0; t < s_.kernel_time; ++t) {
          for (int f = 0; f < s_.kernel_freq; ++f) {
            for (int c = 0; c < s_.in_channels; ++c) {
              const int when = newest - (s_.kernel_time - 1) + t;
              const int where = x * s_.freq_stride - s_.freq_pad + f;
              if (when < 0 || where < 0 || where >= s_.in_width) continue;
              const std::int64_t weight =
                  kernel[o * s_.row() + (t * s_.kernel_freq + f) * s_.in_channels + c];
              sum += weight * frames_[static_cast<std::size_t>(when)]
                                     [static_cast<std::size_t>(where * s_.in_channels + c)];
            }
          }
        }
        out.push_back(sum);
      }
    }
    return out;
  }

 private:
  ConvShape s_;
  std::vector<Integers> frames_;
};

class Gru {
 public:
  Gru(const GRULayer* layer, int hidden, int input)
      : state(static_cast<std::size_t>(hidden)), layer_(layer), hidden_(hidden), input_(input) {}

  Values step(const Values& in) {
    Integers q;
    for (const double x : in) q.push_back(quantized(x, 2048));
    Values out;
    for (int j = 0; j < hidden_; ++j) {
      const double r = sigmoid(from_input(j, q) + from_state(j));
      const double z = sigmoid(from_input(hidden_ + j, q) + from_state(hidden_ + j));
      const double n = std::tanh(from_input(2 * hidden_ + j, q) + r * from_state(2 * hidden_ + j));
      const double h = static_cast<double>(state[static_cast<std::size_t>(j)]) / 2048;
      out.push_back((1 - z) * n + z * h);
    }
    for (std::size_t j = 0; j < out.size(); ++j) state[j] = quantized(out[j], 2048);
    return out;
  }

  Integers state;  // in Q11

 private:
  static double product(const std::int8_t* row, const Integers& q) {
    std::int64_t sum = 0;
    for (std::size_t i = 0; i < q.size(); ++i) sum += row[i] * q[i];
    return static_cast<double>(sum) / 256 / 2048;
  }
  double from_input(int row, const Integers& q) const {
    return product(layer_->weight_ih + row * input_, q) + layer_->bias_ih[row];
  }
  double from_state(int row) const {
    return product(layer_->weight_hh + row * hidden_, state) + layer_->bias_hh[row];
  }

  const GRULayer* layer_;
  int hidden_, input_;
};

inline Values features(const std::vector<zel_lcomplex>& spectra) {
  using namespace se::nn;
  Values bands(kFeatures);
  for (int c = 0; c < kChannels; ++c) {
    for (int bin = 0; bin < kBins - 1; ++bin) {
      const zel_lcomplex z = spectra[static_cast<std::size_t>(c * kBins + bin)];
      const double mag = std::sqrt(double{z.re} * z.re + double{z.im} * z.im + 1e-8);
      const auto band = std::upper_bound(kBandStart, kBandStart + kBands, bin) - kBandStart - 1;
      const double width = kBandStart[band + 1] - kBandStart[band];
      const double f = (bin - kBandStart[band]) / width;
      const auto at = static_cast<std::size_t>(c * kBands + band);
      bands[at] += (1 - f) * mag / width;
      bands[at + 1] += f * mag / width;
    }
  }
  for (double& b : bands) b = std::sqrt(b + 1e-8);
  return bands;
}

}  // namespace reference

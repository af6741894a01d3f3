// The denoiser once more, written for reading and not for speed: indices spelled out, all past
// frames kept, 64-bit integers and double precision. What is quantized is quantized here too.
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

class Network {
 public:
  explicit Network(const DenoiseModel* m)
      : m_(m),
        gru_{{m->gru1_1, se::nn::kGruHidden, 128},
             {m->gru1_2, se::nn::kGruHidden, 128},
             {m->gru2_1, se::nn::kGruHidden, se::nn::kGruHidden},
             {m->gru2_2, se::nn::kGruHidden, se::nn::kGruHidden}} {
    for (const se::nn::ConvShape& s : se::nn::kConv) {
      conv_.emplace_back(ConvShape{s.in_channels, s.in_width, s.out_channels, s.out_width, 3,
                                   s.kernel_freq, s.freq_stride, 1, s.freq_pad});
    }
  }

  // The gains before the quiet-frame rule from the spectra of both microphones and the reference,
  // one after the other; empty during warm-up.
  Values process(const std::vector<zel_lcomplex>& spectra) {
    const Values feat = features(spectra);
    Values x;
    for (std::size_t i = 0; i < 128; ++i) {
      for (std::size_t c = 0; c < 3; ++c) x.push_back(feat[c * 128 + i]);
    }
    const Conv2DLayer* layers[] = {m_->conv1, m_->conv2, m_->conv3, m_->conv4, m_->conv5};
    const BNLayer* norms[] = {m_->bn1, m_->bn2, m_->bn3, m_->bn4, m_->bn5};
    for (std::size_t i = 0; i < 5; ++i) {
      const Integers sums = conv_[i].sums(x, layers[i]->kernel);
      if (sums.empty()) return {};
      const auto channels = static_cast<std::size_t>(se::nn::kConv[i].out_channels);
      x.clear();
      for (std::size_t n = 0; n < sums.size(); ++n) {
        const double raw =
            static_cast<double>(sums[n]) / 1024 * layers[i]->kernel_scale[n % channels] +
            layers[i]->bias[n % channels];
        x.push_back(std::clamp(raw * norms[i]->gamma_var[n] + norms[i]->gmb[n], 0.0, 6.0));
      }
    }
    Values half[2];
    for (std::size_t h = 0; h < 2; ++h) {
      for (std::size_t c = 0; c < 16; ++c) {
        for (std::size_t p = 0; p < 8; ++p) half[h].push_back(x[(8 * h + p) * 16 + c]);
      }
    }
    const Values first = joined(gru_[0].step(half[0]), gru_[1].step(half[1]));
    Values shuffled[2];
    for (std::size_t i = 0; i < first.size(); ++i) shuffled[i % 2].push_back(first[i]);
    const Values second = joined(gru_[2].step(shuffled[0]), gru_[3].step(shuffled[1]));

    Values bands;
    for (std::size_t o = 0; o < 128; ++o) {
      std::int64_t sum = 0;
      for (std::size_t i = 0; i < second.size(); ++i) {
        sum += m_->fc2->weight[second.size() * o + i] * quantized(second[i], 2048);
      }
      bands.push_back(
          sigmoid(static_cast<double>(sum) / 2048 * m_->fc2->weight_scale[o] + m_->fc2->bias[o]));
    }
    Values gain(se::nn::kBins);
    for (std::size_t i = 0; i + 1 < 128; ++i) {
      const int start = se::nn::kBandStart[i], width = se::nn::kBandStart[i + 1] - start;
      for (int j = 0; j < width; ++j) {
        const double f = static_cast<double>(j) / width;
        gain[static_cast<std::size_t>(start + j)] = (bands[i] * (1 - f) + bands[i + 1] * f) / width;
      }
    }
    return gain;
  }

 private:
  static Values joined(Values a, const Values& b) {
    a.insert(a.end(), b.begin(), b.end());
    return a;
  }

  const DenoiseModel* m_;
  std::vector<Conv> conv_;
  Gru gru_[4];
};

}  // namespace reference

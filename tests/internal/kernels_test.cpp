// Every kernel variant of this build and CPU against the scalar one, bit for bit: odd lengths,
// misaligned starts, values from the whole range of their types, and memory right before and behind
// every array that cannot be touched.
#include "kernels/kernels.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <functional>
#include <limits>
#include <memory>
#include <string>

#include "guarded_arrays.h"
#include "kernels/packing.h"
#include "random_signal.h"

namespace {

using se::Kernels;

// What floats look like.
enum class Range {
  kAudio,    // within +-1
  kWide,     // any exponent, subnormal to huge, and zeros of both signs
  kAnything  // infinities and NaNs, too
};
constexpr Range kRanges[] = {Range::kAudio, Range::kWide, Range::kAnything};

class Values {
 public:
  explicit Values(std::uint64_t seed) : random_(seed) {}

  float real(Range range) {
    constexpr float kSpecial[] = {0.0f, -0.0f, 1e-45f, -1e-40f, 3.4028235e38f, -3.4028235e38f};
    constexpr float kInfinity = std::numeric_limits<float>::infinity();
    const float x = random_.uniform();
    if (range == Range::kAudio || pick(2) == 0) return x;
    const int kind = pick(16);
    if (kind < 6) return kSpecial[kind];
    if (range == Range::kAnything && kind == 6) return x < 0.0f ? -kInfinity : kInfinity;
    if (range == Range::kAnything && kind == 7) return std::nanf("");
    return std::ldexp(x, pick(270) - 140);
  }
  std::vector<float> reals(int n, Range range) {
    std::vector<float> v(static_cast<std::size_t>(n));
    for (float& x : v) x = real(range);
    return v;
  }
  // The same with zeros for subnormals. (Asking for the class of a subnormal gives that of a zero
  // in the mode that the library sets.)
  std::vector<float> normal_reals(int n, Range range) {
    std::vector<float> v = reals(n, range);
    for (float& x : v) {
      std::uint32_t bits;
      std::memcpy(&bits, &x, sizeof bits);
      if ((bits & 0x7f800000u) == 0) x = 0.0f;
    }
    return v;
  }
  std::vector<zel_lcomplex> complexes(int n, Range range) {
    std::vector<zel_lcomplex> v(static_cast<std::size_t>(n));
    for (zel_lcomplex& x : v) x = {real(range), real(range)};
    return v;
  }
  // A fifth of the values lies at the ends of the type, divided by `divisor`.
  template <class T>
  std::vector<T> integers(int n, int divisor = 1) {
    std::vector<T> v(static_cast<std::size_t>(n));
    for (T& x : v) {
      x = static_cast<T>(random_.bits());
      if (pick(5) == 0) x = pick(2) ? std::numeric_limits<T>::min() : std::numeric_limits<T>::max();
      x = static_cast<T>(x / divisor);
    }
    return v;
  }
  int pick(int n) { return static_cast<int>(random_.bits() % static_cast<std::uint32_t>(n)); }

 private:
  RandomSignal random_;
};

using Call = std::function<void(const Kernels&, Arrays&)>;

void expect_same_bits(const std::string& what, const Call& call) {
  for (const bool flush_with_end : {true, false}) {
    Arrays expected(flush_with_end);
    call(se::kScalarKernels, expected);
    for (int i = 0; const Kernels* variant = se::available_kernels(i); ++i) {
      Arrays arrays(flush_with_end);
      call(*variant, arrays);
      EXPECT_TRUE(arrays == expected) << variant->name << ": " << what;
    }
  }
}

std::vector<int> lengths() {
  std::vector<int> v;
  for (int n = 0; n <= 34; ++n) v.push_back(n);
  v.insert(v.end(), {63, 127, 160, 256, 257, 771});
  return v;
}

// Runs `call(values, n, range)`, which states one case, for all lengths and ranges.
void for_lengths(const char* what,
                 const std::function<Call(Values& values, int n, Range range)>& state_case) {
  Values values(1);
  for (const int n : lengths()) {
    for (const Range range : kRanges) {
      expect_same_bits(std::string(what) + ", n " + std::to_string(n) + ", range " +
                           std::to_string(static_cast<int>(range)),
                       state_case(values, n, range));
    }
  }
}

TEST(Kernels, ListTheVariantsAndChooseByName) {
  const std::string at_load = se::kernels().name;
  std::vector<std::string> names;
  for (int i = 0; const Kernels* variant = se::available_kernels(i); ++i) {
    names.push_back(variant->name);
  }
  ASSERT_FALSE(names.empty());
  EXPECT_EQ("scalar", names.back());
  EXPECT_FALSE(se::use_kernels("no such"));
  EXPECT_FALSE(se::use_kernels(""));
  EXPECT_EQ(at_load, se::kernels().name);
  for (const std::string& name : names) {
    EXPECT_TRUE(se::use_kernels(name.c_str()));
    EXPECT_EQ(name, se::kernels().name);
  }
  EXPECT_TRUE(se::use_kernels(at_load.c_str()));
}

// Runs several times from the build file, with different values of the variable.
TEST(Kernels, FollowTheEnvironmentAtLoad) {
  std::string expected = se::available_kernels(0)->name;
  if (const char* wanted = std::getenv("SPEECHENHANCE_KERNELS")) {
    for (int i = 0; const Kernels* variant = se::available_kernels(i); ++i) {
      if (variant->name == std::string(wanted)) expected = wanted;
    }
  }
  EXPECT_EQ(expected, se::kernels().name);
}

TEST(Kernels, ElementWise) {
  for_lengths("multiply, overlap_add, divide", [](Values& v, int n, Range range) -> Call {
    const auto a = v.reals(n, range), b = v.reals(n, range), c = v.reals(n, range),
               d = v.reals(n, range);
    return [=](const Kernels& k, Arrays& arrays) {
      float *x = arrays.place(a), *y = arrays.place(b);
      k.spectral->multiply(x, y, arrays.place(c), n);
      k.spectral->multiply(x, y, x, n);
      k.spectral->overlap_add(y, x, arrays.place(c), n);
      k.spectral->overlap_add_envelope(y, x, arrays.place(c), arrays.place(d), n);
      k.spectral->divide_or_zero(x, y, arrays.place(c), n);
    };
  });
  for_lengths("spectra", [](Values& v, int n, Range range) -> Call {
    const auto a = v.complexes(n, range), b = v.complexes(n, range);
    const auto g = v.reals(n, range), out = v.reals(n, range);
    const float level = v.real(range);
    return [=](const Kernels& k, Arrays& arrays) {
      zel_lcomplex *x = arrays.place(a), *y = arrays.place(b);
      float* gain = arrays.place(g);
      k.spectral->power_spectrum(x, arrays.place(out), n);
      k.spectral->magnitude(x, 1e-8f, arrays.place(out), n);
      k.spectral->apply_gain(x, gain, arrays.place(b), n);
      k.spectral->mix(x, y, 3.0f, level, arrays.place(b), n);
      k.spectral->apply_gain(x, gain, x, n);
      k.spectral->mix(y, x, 3.0f, level, y, n);
    };
  });
  for_lengths("slopes", [](Values& v, int n, Range range) -> Call {
    const auto a = v.complexes(n, range);
    const float first = static_cast<float>(v.pick(600) - 300), step = v.real(Range::kAudio);
    const float direction = static_cast<float>(v.pick(3) - 1), level = v.real(Range::kAudio);
    return [=](const Kernels& k, Arrays& arrays) {
      k.spectral->apply_slope(arrays.place(a), first, direction, step, level, n);
    };
  });
  for_lengths("sums and peaks", [](Values& v, int n, Range range) -> Call {
    const auto a = v.reals(n, range);
    return [=](const Kernels& k, Arrays& arrays) {
      const float* x = arrays.place(a);
      arrays.place(std::vector<float>{k.spectral->sum(x, n), k.spectral->sum_of_squares(x, n),
                                      k.sample->peak(x, n)});
    };
  });
  for_lengths("samples", [](Values& v, int n, Range range) -> Call {
    const auto a = v.reals(n, range), out = v.reals(n, range), normal = v.normal_reals(n, range);
    const auto s = v.integers<std::int16_t>(n);
    const float start = v.real(range), step = v.real(range);
    return [=](const Kernels& k, Arrays& arrays) {
      float* x = arrays.place(a);
      k.sample->s16_to_float(arrays.place(s), arrays.place(out), n);
      k.sample->float_to_s16(x, arrays.place(s), n);
      k.sample->apply_ramp(x, start, step, arrays.place(out), n);
      k.sample->apply_ramp(x, start, step, x, n);
      k.sample->limit(arrays.place(normal), 0.75f, arrays.place(out), n);
    };
  });
  for_lengths("activations", [](Values& v, int n, Range range) -> Call {
    const auto a = v.reals(n, range), b = v.reals(n, range), c = v.reals(n, range);
    const auto s = v.integers<std::int16_t>(n);
    const float loud = v.pick(2) ? 20.0f : 1.0f;
    return [=](const Kernels& k, Arrays& arrays) {
      std::vector<float> wide = a;
      for (float& x : wide) x *= loud;
      float *x = arrays.place(wide), *y = arrays.place(b);
      k.nn->compress(x, n, arrays.place(c));
      k.nn->quantise(x, n, 1024.0f, arrays.place(s));
      k.nn->quantise(x, n, 2048.0f, arrays.place(s));
      k.nn->normalise(x, y, arrays.place(c), n, arrays.place(b));
      k.nn->gru_blend(x, y, arrays.place(s), n, arrays.place(c));
      k.nn->tanh(x, n);
      k.nn->sigmoid(y, n);
    };
  });
}

// Powers come from arithmetic, which leaves no subnormals; what choosing between a subnormal and
// another value gives depends on the instruction.
TEST(Kernels, Noise) {
  for_lengths("noise", [](Values& v, int n, Range range) -> Call {
    std::vector<std::vector<float>> frames;
    for (int i = 0; i < 6; ++i) frames.push_back(v.normal_reals(n, range));
    const auto a = v.normal_reals(n, range), b = v.normal_reals(n, range),
               c = v.normal_reals(n, range);
    std::vector<float> ages = a;
    for (float& age : ages) age = static_cast<float>(v.pick(12));
    const int count = 1 + v.pick(6);
    return [=](const Kernels& k, Arrays& arrays) {
      const float* placed[6];
      for (std::size_t i = 0; i < 6; ++i) placed[i] = arrays.place(frames[i]);
      float *x = arrays.place(a), *y = arrays.place(b), *ratio = arrays.place(c);
      k.noise->mean_of_frames(placed, count, arrays.place(a), n);
      k.noise->track_minima(x, {y, arrays.place(c), arrays.place(ages)}, 6.0f, 11.0f, 1e10f, n);
      k.noise->follow(x, 0.25f, arrays.place(b), n);
      k.noise->scale_above(x, 4.0f, 0.1f, arrays.place(c), n);
      k.noise->excess_ratio(x, y, ratio, n);
      k.noise->wiener_gain(x, y, ratio, 0.98f, arrays.place(c), n);
      if (n >= 2) k.noise->smooth_gain(x, 0.2f, arrays.place(c), n);
      k.noise->kept_power(x, y, arrays.place(c), n);
    };
  });
}

TEST(Kernels, TransformStages) {
  Values values(2);
  for (const Range range : kRanges) {
    for (const float scale : {1.0f, 1.0f / 256}) {
      for (const int stride : {1, 2, 3, 4, 5, 8, 12, 64}) {
        const auto in = values.complexes(8 * stride, range);
        expect_same_bits("first stages, stride " + std::to_string(stride),
                         [&](const Kernels& k, Arrays& arrays) {
                           const zel_lcomplex* x = arrays.place(in);
                           k.spectral->first_stage4(x, arrays.place(in), stride);
                           k.spectral->first_stage8(x, arrays.place(in), stride);
                           k.spectral->inverse_first_stage4(x, arrays.place(in), stride, scale);
                           k.spectral->inverse_first_stage8(x, arrays.place(in), stride, scale);
                         });
        for (const int span : {1, 2, 3, 4, 8, 16, 20, 64}) {
          const auto x = values.complexes(4 * stride * span, range);
          const auto w = values.complexes(3 * span, range);
          expect_same_bits(
              "stage, stride " + std::to_string(stride) + ", span " + std::to_string(span),
              [&](const Kernels& k, Arrays& arrays) {
                const zel_lcomplex *from = arrays.place(x), *twiddles = arrays.place(w);
                k.spectral->stage4(from, twiddles, arrays.place(x), stride, span);
                k.spectral->inverse_stage4(from, twiddles, arrays.place(x), stride, span, scale);
              });
        }
      }
    }
    for (int n = 1; n <= 1024; n *= 2) {
      const auto x = values.complexes(n + 1, range), w = values.complexes(n / 2, range);
      const std::vector<zel_lcomplex> pairs(x.begin(), x.end() - 1);
      expect_same_bits("real, n " + std::to_string(n), [&](const Kernels& k, Arrays& arrays) {
        const zel_lcomplex* twiddles = arrays.place(w);
        k.spectral->real_from_pairs(arrays.place(pairs), twiddles, arrays.place(x), n);
        k.spectral->pairs_from_real(arrays.place(x), twiddles, arrays.place(pairs), n);
      });
    }
  }
}

// Smoothed powers over a wide range, so that every verdict on the filters comes up.
TEST(Kernels, EchoSubtraction) {
  Values values(3);
  const auto powers = [&](int n) {
    std::vector<float> v(static_cast<std::size_t>(n));
    for (float& x : v) x = std::ldexp(1.0f, values.pick(10));
    return v;
  };
  for (int round = 0; round < 300; ++round) {
    const int taps = 2 << round % 3, bins = round < 200 ? values.pick(30) : 129;
    const Range range = round % 7 == 0 ? kRanges[values.pick(3)] : Range::kAudio;
    const auto ref = values.complexes(bins * taps, range);
    const auto adaptive = values.complexes(bins * taps, range);
    const auto stored = values.complexes(bins * taps, range);
    const auto mic = values.complexes(bins, range);
    const auto err_adaptive = powers(bins), err_stored = powers(bins), mic_smooth = powers(bins);
    const auto energy = powers(bins), mic_power = powers(bins);
    std::vector<std::int32_t> adapt(static_cast<std::size_t>(bins));
    const int all = values.pick(3);  // all bins adapt, none, or some
    for (auto& a : adapt) a = all == 2 ? values.pick(2) : all;
    expect_same_bits(std::to_string(taps) + " taps, " + std::to_string(bins) + " bins, round " +
                         std::to_string(round),
                     [&](const Kernels& k, Arrays& arrays) {
                       const se::EchoBand band = {bins,
                                                  0.05f,
                                                  arrays.place(ref),
                                                  arrays.place(energy),
                                                  arrays.place(adapt),
                                                  arrays.place(adaptive),
                                                  arrays.place(stored),
                                                  arrays.place(err_adaptive),
                                                  arrays.place(err_stored),
                                                  arrays.place(mic_smooth),
                                                  arrays.place(mic),
                                                  arrays.place(mic_power)};
                       if (taps == 2) k.echo->subtract_2(band);
                       if (taps == 4) k.echo->subtract_4(band);
                       if (taps == 8) k.echo->subtract_8(band);
                     });
  }
}

// A matrix in the order of a variant.
class Packed {
 public:
  Packed(const std::vector<std::int8_t>& w, int row_len, const se::PackShape& shape,
         const se::PackOrder& order, const se::ShortSums& short_sums = {0, 0})
      : bytes_(shape.bytes(order) + 63),
        row_sums_(static_cast<std::size_t>(shape.packed_rows(order))),
        fits_(static_cast<std::size_t>(shape.panels(order))) {
    void* start = bytes_.data();
    std::size_t space = bytes_.size();
    std::align(64, shape.bytes(order), start, space);
    matrix_ = se::pack({w.data(), shape.rows, row_len}, shape, order, short_sums,
                       {static_cast<std::int8_t*>(start), row_sums_.data(),
                        short_sums.columns > 0 ? fits_.data() : nullptr});
  }
  const se::PackedMatrix& matrix() const { return matrix_; }

 private:
  std::vector<std::int8_t> bytes_;
  std::vector<std::int32_t> row_sums_;
  std::vector<std::uint32_t> fits_;
  se::PackedMatrix matrix_;
};

// Activations from the whole range, from the smaller ones that some variants have a way for, and
// (divisor 0) such as leave a clamp at zero.
TEST(Kernels, MatrixProducts) {
  Values values(4);
  for (const int rows : {1, 2, 7, 8, 9, 16, 21, 200, 600}) {
    for (const int cols : {1, 3, 8, 15, 16, 17, 24, 31, 32, 33, 48, 100, 128, 200, 400, 511}) {
      if (rows >= 200 && cols != 128 && cols != 200) continue;  // large ones as in the denoiser
      for (const auto& divisors : {std::pair(0, 1), {1, 1}, {2, 1}, {16, 1}, {16, 2}}) {
        const int divisor = divisors.first;
        const auto w = values.integers<std::int8_t>(rows * cols, divisors.second);
        auto q = values.integers<std::int16_t>(cols, divisor == 0 ? 1 : divisor);
        for (std::size_t i = 0; divisor == 0 && i < q.size(); ++i) {
          if (q[i] < 0 || i % 16 < 7) q[i] = 0;
        }
        expect_same_bits(
            "rows " + std::to_string(rows) + ", cols " + std::to_string(cols),
            [&](const Kernels& k, Arrays& arrays) {
              std::int32_t* sums =
                  arrays.place(std::vector<std::int32_t>(static_cast<std::size_t>(rows)));
              const std::int16_t* activations = arrays.place(q);
              const se::Matrix weights = {arrays.place(w), rows, cols};
              k.nn->product(weights, activations, sums);
              const se::PackOrder& order = k.nn->product_order;
              if (order.panel == 0) return;
              const Packed packed(w, cols, {rows, 1, cols}, order, k.nn->short_sums);
              std::vector<std::int32_t> same(static_cast<std::size_t>(rows + se::kSpareSums + 1));
              same.back() = 12345;
              k.nn->packed_product(packed.matrix(), weights, activations, same.data());
              EXPECT_EQ(12345, same.back());
              EXPECT_EQ(0, std::memcmp(sums, same.data(), sizeof *sums * w.size() / q.size()))
                  << k.name << ": packed, rows " << rows << ", cols " << cols << " / " << divisor;
            });
      }
    }
  }
}

// Weights and activations of one value each: sums in fewer bits would overflow first, and must not
// be formed just above where they fit.
TEST(Kernels, PackedProductsAtTheLimitsOfShortSums) {
  constexpr int kRows = 72, kCols = 200;
  for (const int weight : {-128, -52, -51, 51, 52, 127}) {
    for (const int activation : {-2048, -2047, 2047, 2048}) {
      const std::vector<std::int8_t> w(kRows * kCols, static_cast<std::int8_t>(weight));
      const std::vector<std::int16_t> q(kCols, static_cast<std::int16_t>(activation));
      for (int i = 0; const Kernels* k = se::available_kernels(i); ++i) {
        if (k->nn->product_order.panel == 0) continue;
        const Packed packed(w, kCols, {kRows, 1, kCols}, k->nn->product_order, k->nn->short_sums);
        std::vector<std::int32_t> sums(kRows + se::kSpareSums);
        k->nn->packed_product(packed.matrix(), {w.data(), kRows, kCols}, q.data(), sums.data());
        sums.resize(kRows);
        EXPECT_EQ(std::vector<std::int32_t>(kRows, kCols * weight * activation), sums) << k->name;
      }
    }
  }
}

TEST(Kernels, WhatBecomesOfSums) {
  for_lengths("sums", [](Values& v, int n, Range range) -> Call {
    const auto a = v.integers<std::int32_t>(n), b = v.integers<std::int32_t>(n);
    const auto x = v.reals(n, range), y = v.reals(n, range), z = v.reals(n, range);
    return [=](const Kernels& k, Arrays& arrays) {
      const se::GruGate gate = {arrays.place(a), arrays.place(b), arrays.place(x), arrays.place(y)};
      k.nn->gru_gate(gate, n, arrays.place(z));
      k.nn->gru_candidate(gate, arrays.place(z), n, arrays.place(z));
      k.nn->scale_sums(gate.sum_in, {gate.bias_in, 1.0f / 2048, gate.bias_state}, n,
                       arrays.place(z));
    };
  });
}

TEST(Kernels, Convolutions) {
  struct Shape {
    int frames, window, step, positions, rows, padding, margin;
  };
  // The denoiser's layers first; then sizes that fit no vector, and frames that end with the last
  // window.
  const Shape shapes[] = {
      {3, 15, 6, 64, 8, 3, 3},   {3, 24, 16, 32, 16, 0, 8},  {3, 48, 32, 16, 32, 0, 16},
      {3, 96, 32, 16, 64, 0, 0}, {3, 192, 64, 16, 16, 0, 0}, {1, 1, 1, 1, 1, 0, 0},
      {2, 7, 3, 5, 3, 2, 1},     {3, 15, 6, 64, 8, 3, 0},    {3, 16, 5, 8, 8, 0, 0},
      {3, 17, 5, 16, 8, 1, 20},  {3, 32, 16, 7, 8, 0, 40},   {2, 48, 16, 8, 12, 0, 0},
      {3, 64, 7, 24, 24, 3, 1},  {3, 47, 1, 8, 16, 0, 5}};
  Values values(5);
  for (int i = 0; i < 3 * static_cast<int>(std::size(shapes)); ++i) {
    const Shape& s = shapes[i / 3];
    const int divisor = 1 << i % 3;
    const int row_len = s.frames * s.window + s.padding;
    const int frame_len = (s.positions - 1) * s.step + s.window + s.margin;
    const auto w = values.integers<std::int8_t>(s.rows * row_len);
    const auto scale = values.reals(s.rows, Range::kAudio),
               bias = values.reals(s.rows, Range::kAudio);
    std::vector<std::vector<std::int16_t>> frames;
    for (int t = 0; t < s.frames; ++t)
      frames.push_back(values.integers<std::int16_t>(frame_len, divisor));
    const std::vector<float> y(static_cast<std::size_t>(s.positions * s.rows));
    expect_same_bits(
        "window " + std::to_string(s.window) + ", positions " + std::to_string(s.positions) +
            ", rows " + std::to_string(s.rows),
        [&](const Kernels& k, Arrays& arrays) {
          const std::int16_t* placed[3] = {};
          for (int t = 0; t < s.frames; ++t) {
            placed[t] = arrays.place(frames[static_cast<std::size_t>(t)]);
          }
          const se::Matrix weights = {arrays.place(w), s.rows, row_len};
          const se::ConvInput in = {placed, s.frames, frame_len, s.window, s.step, s.positions};
          const se::OutputScale out = {arrays.place(scale), 1.0f / 1024, arrays.place(bias)};
          k.nn->convolve(weights, in, out, arrays.place(y));
          const se::PackOrder& order = k.nn->convolve_order;
          if (order.panel == 0) {
            k.nn->convolve(weights, in, out, arrays.place(y));
          } else {
            const Packed packed(w, row_len, {s.rows, s.frames, s.window}, order);
            k.nn->packed_convolve(packed.matrix(), weights, in, out, arrays.place(y));
          }
          if (k.nn->paired_convolve && s.window == 3 * s.step) {
            std::vector<std::int16_t> pairs(
                static_cast<std::size_t>(se::pair_weights(s.rows, s.frames, s.step)));
            se::pack_pairs(weights, s.frames, s.step, pairs.data());
            k.nn->paired_convolve(pairs.data(), weights, in, out, arrays.place(y));
          } else {
            k.nn->convolve(weights, in, out, arrays.place(y));
          }
        });
  }
}

TEST(Kernels, PoolingAndExpansion) {
  Values values(6);
  for (const int bins : {1, 2, 3, 4, 5, 7, 8, 9, 31, 64, 255, 256}) {
    std::vector<std::uint8_t> band;
    std::vector<float> fraction, inverse_width;
    for (int b = 0; static_cast<int>(band.size()) < bins; ++b) {
      const int width = 1 + values.pick(b < 20 ? 2 : 7);
      for (int j = 0; j < width && static_cast<int>(band.size()) < bins; ++j) {
        band.push_back(static_cast<std::uint8_t>(b));
        inverse_width.push_back(1.0f / static_cast<float>(width));
        fraction.push_back(static_cast<float>(j) * inverse_width.back());
      }
    }
    const int bands = band.back() + 2;
    for (const Range range : kRanges) {
      const auto x = values.reals(3 * bins + 2, range), y = values.reals(3 * bands + 2, range);
      expect_same_bits("bins " + std::to_string(bins), [&](const Kernels& k, Arrays& arrays) {
        const se::BinShares shares = {bins, arrays.place(band), arrays.place(fraction),
                                      arrays.place(inverse_width)};
        float* means = arrays.place(y);
        k.nn->pool(shares, arrays.place(x), bins + 1, means, bands + 1);
        k.nn->expand(shares, means, arrays.place(std::vector<float>(x.begin(), x.begin() + bins)));
      });
    }
  }
}

}  // namespace

// Every kernel at the sizes of the engine, in every variant that this CPU runs: time and the ratio
// of the scalar variant's time to it. A variant of a kernel has to earn its place in this table.
//
// Arrays stay in the first-level cache except for the weights of the GRU layers, of which one layer
// after another is read, as in a frame.
#include <benchmark/benchmark.h>

#include <cstdio>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <tuple>
#include <vector>

#include "kernels/kernels.h"
#include "kernels/packing.h"

namespace {

using se::Kernels;

constexpr int kBins = 257, kFrame = 512;

// Values without meaning, the same in every run.
struct Data {
  std::vector<float> a, b, c, d, ones;
  std::vector<zel_lcomplex> x, y, z;
  std::vector<std::int16_t> q, small_q;  // the second within +-2048, as a GRU's state
  std::vector<std::int8_t> w;
  std::vector<std::int32_t> flags, sums;
  std::vector<std::uint8_t> band;

  Data()
      : a(4096),
        b(4096),
        c(4096),
        d(4096),
        ones(4096, 1.0f),
        x(2048),
        y(2048),
        z(2048),
        q(4096),
        small_q(512),
        w(std::size_t{4} * 600 * 400),
        flags(512, 1),
        sums(1024, 100000),
        band(256) {
    std::uint32_t state = 1;
    const auto next = [&] { return state = state * 1664525u + 1013904223u; };
    const auto real = [&] { return static_cast<float>(next() >> 8) * 0x1p-24f + 0.01f; };
    for (auto* v : {&a, &b, &c, &d}) {
      for (float& f : *v) f = real();
    }
    for (auto* v : {&x, &y, &z}) {
      for (zel_lcomplex& f : *v) f = {real() - 0.5f, real() - 0.5f};
    }
    for (auto& v : q) v = static_cast<std::int16_t>(next() >> 19);
    for (auto& v : small_q) v = static_cast<std::int16_t>(static_cast<std::int32_t>(next()) >> 20);
    for (auto& v : w) v = static_cast<std::int8_t>(next() >> 24);
    for (std::size_t k = 0; k < band.size(); ++k) band[k] = static_cast<std::uint8_t>(k / 2);
  }

  // The matrix in an order, packed once.
  const se::PackedMatrix& packed(const se::Matrix& matrix, const se::PackShape& shape,
                                 const se::PackOrder& order,
                                 const se::ShortSums& short_sums = {0, 0}) {
    struct Packed {
      std::vector<std::int8_t> weights;
      std::vector<std::int32_t> row_sums;
      std::vector<std::uint32_t> fits;
      se::PackedMatrix matrix;
    };
    static std::map<std::tuple<const void*, int, int, int>, Packed> all;
    Packed& p = all[{matrix.weights, matrix.rows, matrix.cols, order.panel}];
    if (p.weights.empty()) {
      p.weights.resize(shape.bytes(order) + 63);
      p.row_sums.resize(static_cast<std::size_t>(shape.packed_rows(order)));
      p.fits.resize(static_cast<std::size_t>(shape.panels(order)));
      void* start = p.weights.data();
      std::size_t space = p.weights.size();
      std::align(64, shape.bytes(order), start, space);
      p.matrix = se::pack(matrix, shape, order, short_sums,
                          {static_cast<std::int8_t*>(start), p.row_sums.data(),
                           short_sums.columns > 0 ? p.fits.data() : nullptr});
    }
    return p.matrix;
  }

  // The weights for pairs of positions, packed once.
  const std::int16_t* pairs(const se::Matrix& matrix, int channels) {
    static std::map<std::pair<int, int>, std::vector<std::int16_t>> all;
    std::vector<std::int16_t>& packed = all[{matrix.rows, channels}];
    if (packed.empty()) {
      packed.resize(static_cast<std::size_t>(se::pair_weights(matrix.rows, 3, channels)));
      se::pack_pairs(matrix, 3, channels, packed.data());
    }
    return packed.data();
  }
};

Data& data() {
  static Data instance;
  return instance;
}

using Call = std::function<void(const Kernels&)>;

// The kernels with the sizes of one frame's calls.
std::vector<std::pair<std::string, Call>> calls() {
  Data& m = data();
  // Packed where the variant has an order of its own.
  const auto conv = [&m](int frame_len, int window, int step, int positions, int rows,
                         int row_len) {
    return [=, &m](const Kernels& k) {
      const std::int16_t* frames[] = {m.q.data(), m.q.data() + 64, m.q.data() + 128};
      const se::Matrix weights = {m.w.data(), rows, row_len};
      const se::ConvInput in = {frames, 3, frame_len, window, step, positions};
      const se::OutputScale out = {m.a.data(), 1.0f / 1024, m.b.data()};
      const se::PackOrder& order = k.nn->convolve_order;
      if (order.panel == 0) return k.nn->convolve(weights, in, out, m.c.data());
      if (k.nn->paired_convolve && window == 3 * step) {
        return k.nn->paired_convolve(m.pairs(weights, step), weights, in, out, m.c.data());
      }
      const se::PackedMatrix& packed = m.packed(weights, {rows, 3, window}, order);
      k.nn->packed_convolve(packed, weights, in, out, m.c.data());
    };
  };
  const auto product = [&m](int rows, int cols) {
    return [=, &m](const Kernels& k) {
      static std::size_t layer = 0;
      layer = (layer + 1) % 4;
      const std::int16_t* q = m.small_q.data();
      const se::Matrix weights = {m.w.data() + layer * 600 * 400, rows, cols};
      const se::PackOrder& order = k.nn->product_order;
      if (order.panel == 0) return k.nn->product(weights, q, m.sums.data());
      k.nn->packed_product(m.packed(weights, {rows, 1, cols}, order, k.nn->short_sums), weights, q,
                           m.sums.data());
    };
  };
  const se::GruGate gate = {m.sums.data(), m.sums.data() + 200, m.a.data(), m.b.data()};
  const auto echo = [&m](int bins, int taps) {
    return [=, &m](const Kernels& k) {
      const se::EchoBand band = {bins,           0.05f,      m.x.data(),        m.ones.data(),
                                 m.flags.data(), m.y.data(), m.z.data(),        m.a.data(),
                                 m.b.data(),     m.c.data(), m.x.data() + 1100, m.d.data()};
      if (taps == 8) k.echo->subtract_8(band);
      if (taps == 4) k.echo->subtract_4(band);
      if (taps == 2) k.echo->subtract_2(band);
    };
  };
  const se::BinShares shares = {256, m.band.data(), m.a.data(), m.b.data()};
  float *a = m.a.data(), *b = m.b.data(), *c = m.c.data(), *d = m.d.data();
  zel_lcomplex *x = m.x.data(), *y = m.y.data(), *z = m.z.data();
  return {
      {"first_stage4 256", [=](const Kernels& k) { k.spectral->first_stage4(x, y, 64); }},
      {"stage4 256, span 4", [=](const Kernels& k) { k.spectral->stage4(x, z, y, 16, 4); }},
      {"stage4 256, span 64", [=](const Kernels& k) { k.spectral->stage4(x, z, y, 1, 64); }},
      {"inverse_stage4 256",
       [=](const Kernels& k) { k.spectral->inverse_stage4(x, z, y, 4, 16, 1); }},
      {"real_from_pairs 256", [=](const Kernels& k) { k.spectral->real_from_pairs(x, z, y, 256); }},
      {"pairs_from_real 256", [=](const Kernels& k) { k.spectral->pairs_from_real(x, z, y, 256); }},
      {"multiply 512", [=](const Kernels& k) { k.spectral->multiply(a, b, c, kFrame); }},
      {"overlap_add_envelope 512",
       [=](const Kernels& k) { k.spectral->overlap_add_envelope(a, b, c, d, kFrame); }},
      {"divide_or_zero 160", [=](const Kernels& k) { k.spectral->divide_or_zero(a, b, c, 160); }},
      {"power_spectrum 257", [=](const Kernels& k) { k.spectral->power_spectrum(x, a, kBins); }},
      {"magnitude 514", [=](const Kernels& k) { k.spectral->magnitude(x, 1e-8f, a, 2 * kBins); }},
      {"apply_gain 257", [=](const Kernels& k) { k.spectral->apply_gain(x, a, y, kBins); }},
      {"apply_slope 32",
       [=](const Kernels& k) { k.spectral->apply_slope(z, 1.0f, 1.0f, 1e-9f, 1.0f, 32); }},
      {"mix 257", [=](const Kernels& k) { k.spectral->mix(x, z, 3.0f, 0.3f, y, kBins); }},
      {"sum 256", [=](const Kernels& k) { benchmark::DoNotOptimize(k.spectral->sum(a, 256)); }},
      {"subtract_8, 29 bins", echo(29, 8)},
      {"subtract_4, 96 bins", echo(96, 4)},
      {"subtract_2, 129 bins", echo(129, 2)},
      {"convolve 1", conv(396, 15, 6, 64, 8, 48)},
      {"convolve 2", conv(528, 24, 16, 32, 16, 72)},
      {"convolve 3", conv(544, 48, 32, 16, 32, 144)},
      {"convolve 4", conv(576, 96, 32, 16, 64, 288)},
      {"convolve 5", conv(1152, 192, 64, 16, 16, 576)},
      {"product 600 x 128", product(600, 128)},
      {"product 600 x 200", product(600, 200)},
      {"product 128 x 400", product(128, 400)},
      {"scale_sums 128",
       [=, &m](const Kernels& k) {
         k.nn->scale_sums(m.sums.data(), {a, 1.0f / 2048, b}, 128, c);
       }},
      {"gru_gate 200", [=](const Kernels& k) { k.nn->gru_gate(gate, 200, c); }},
      {"gru_candidate 200", [=](const Kernels& k) { k.nn->gru_candidate(gate, a, 200, c); }},
      {"quantise 512", [=, &m](const Kernels& k) { k.nn->quantise(a, 512, 1024.0f, m.q.data()); }},
      {"normalise 512", [=](const Kernels& k) { k.nn->normalise(a, b, d, 512, c); }},
      {"gru_blend 200", [=, &m](const Kernels& k) { k.nn->gru_blend(a, b, m.q.data(), 200, c); }},
      {"tanh 200", [=](const Kernels& k) { k.nn->tanh(c, 200); }},
      {"sigmoid 200", [=](const Kernels& k) { k.nn->sigmoid(c, 200); }},
      {"compress 384", [=](const Kernels& k) { k.nn->compress(a, 384, c); }},
      {"pool 3 x 256", [=](const Kernels& k) { k.nn->pool(shares, c, kBins, d, 130); }},
      {"expand 256", [=](const Kernels& k) { k.nn->expand(shares, c, d); }},
      {"track_minima 257",
       [=](const Kernels& k) {
         k.noise->track_minima(a, {b, c, d}, 200, 400, 1e10f, kBins);
       }},
      {"excess_ratio 257", [=](const Kernels& k) { k.noise->excess_ratio(a, b, c, kBins); }},
      {"wiener_gain 257",
       [=](const Kernels& k) { k.noise->wiener_gain(a, b, c, 0.98f, d, kBins); }},
      {"smooth_gain 257", [=](const Kernels& k) { k.noise->smooth_gain(a, 0.1f, c, kBins); }},
      {"s16_to_float 320",
       [=, &m](const Kernels& k) { k.sample->s16_to_float(m.q.data(), c, 320); }},
      {"float_to_s16 160",
       [=, &m](const Kernels& k) { k.sample->float_to_s16(a, m.q.data(), 160); }},
      {"limit 160", [=](const Kernels& k) { k.sample->limit(a, 0.9f, c, 160); }},
      {"peak 16", [=](const Kernels& k) { benchmark::DoNotOptimize(k.sample->peak(a, 16)); }},
      {"apply_ramp 16", [=](const Kernels& k) { k.sample->apply_ramp(a, 0.5f, 0.01f, c, 16); }},
  };
}

// Keeps the fastest repetition of each kernel and variant, and prints them side by side.
class Table : public benchmark::BenchmarkReporter {
 public:
  bool ReportContext(const Context&) override { return true; }
  void ReportRuns(const std::vector<Run>& runs) override {
    for (const Run& run : runs) {
      if (run.run_type != Run::RT_Iteration) continue;
      const std::string name = run.run_name.function_name;
      const std::size_t slash = name.rfind('/');
      double& best = times_[name.substr(0, slash)][name.substr(slash + 1)];
      const double time = run.GetAdjustedCPUTime();
      if (best == 0 || time < best) best = time;
    }
  }
  void Finalize() override {
    for (const auto& [kernel, call] : calls()) {
      if (times_.find(kernel) == times_.end()) continue;
      auto& row = times_[kernel];
      std::printf("%-26s scalar %8.1f ns", kernel.c_str(), row["scalar"]);
      for (int i = 0; const Kernels* variant = se::available_kernels(i); ++i) {
        if (variant == &se::kScalarKernels) continue;
        const double time = row[variant->name];
        std::printf("   %s %8.1f ns (%5.2f x)", variant->name, time, row["scalar"] / time);
      }
      std::printf("\n");
    }
  }

 private:
  std::map<std::string, std::map<std::string, double>> times_;
};

}  // namespace

int main(int argc, char** argv) {
  for (const auto& [name, call] : calls()) {
    for (int i = 0; const Kernels* variant = se::available_kernels(i); ++i) {
      benchmark::RegisterBenchmark((name + "/" + variant->name).c_str(),
                                   [variant, call = call](benchmark::State& state) {
                                     for (auto _ : state) {
                                       call(*variant);
                                       benchmark::ClobberMemory();
                                     }
                                   });
    }
  }
  benchmark::Initialize(&argc, argv);
  Table table;
  benchmark::RunSpecifiedBenchmarks(&table);
  return 0;
}

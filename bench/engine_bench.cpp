// Times, on one core: the engine and its transform in every kernel variant, the peers on the same
// sound, the limit that streaming the weights sets, and the denoiser's products alone. Google
// Benchmark runs the repetitions of all of them in random order, so that a busy machine slows every
// contender alike; times are of the thread's CPU. Every iteration hears the next frame of the
// scene.
#include <benchmark/benchmark.h>

#include "bare_products.h"
#include "contenders.h"
#include "kernels/kernels.h"
#include "nn/packed_model.h"
#include "streaming_limit.h"

namespace {

using namespace se_bench;

constexpr int kSceneFrames = 1500;
constexpr int kWarmUpFrames = 20;

const Scene& scene() {
  static const Scene scene(kSceneFrames);
  return scene;
}

void run_frames(benchmark::State& state, Contender& contender, std::size_t& frame) {
  for (auto _ : state) benchmark::DoNotOptimize(contender.process(scene().frame(frame++)));
}

void add(const ContenderKind& kind, const char* variant) {
  // Made at the first use and kept for all repetitions: echo paths and noise floors are learnt.
  std::shared_ptr<Contender> contender;
  std::size_t frame = 0;
  const std::string name = std::string(kind.name) + "/" + variant;
  const auto run = [=](benchmark::State& state) mutable {
    if (kind.ours) {
      se::use_kernels(variant);
      se::nn::pack_model();  // in the order of this variant, as at the creation of an engine
    }
    if (!contender) {
      contender = kind.make();
      while (frame < kWarmUpFrames) contender->process(scene().frame(frame++));
    }
    run_frames(state, *contender, frame);
  };
  benchmark::RegisterBenchmark(name.c_str(), run);
}

void add_streaming_limit(const StreamingPass& pass) {
  const std::string name = std::string("stream/") + pass.name;
  benchmark::RegisterBenchmark(name.c_str(), [pass](benchmark::State& state) {
    const auto tables = weight_tables();
    std::int64_t bytes = 0;
    for (const WeightTable& table : tables) bytes += table.bytes;
    for (auto _ : state) {
      for (const WeightTable& table : tables) benchmark::DoNotOptimize(pass.run(table));
    }
    state.SetBytesProcessed(bytes * state.iterations());
    state.counters["bytes"] = static_cast<double>(bytes);
  });
}

void add_bare_products(const BareProducts& products) {
  const auto rounded = [](const ProductLayer& layer) {
    return (layer.bytes + kProductStep - 1) / kProductStep * kProductStep;
  };
  const auto add_layers = [&](const char* kind, const std::vector<ProductLayer>& layers,
                              auto* pass) {
    const std::string name = std::string("products/") + kind + "_" + products.passes.variant;
    benchmark::RegisterBenchmark(name.c_str(), [=](benchmark::State& state) {
      struct alignas(64) Line {
        std::int8_t weights[64];
      };
      std::int64_t bytes = 0;
      for (const ProductLayer& layer : layers) bytes += rounded(layer);
      const std::vector<Line> lines(static_cast<std::size_t>(bytes) / sizeof(Line), Line{{1, 2}});
      for (auto _ : state) {
        const std::int8_t* weights = lines.front().weights;
        for (const ProductLayer& layer : layers) {
          benchmark::DoNotOptimize(pass(weights, layer));
          weights += rounded(layer);
        }
      }
    });
  };
  add_layers("dense", products.dense, products.passes.dense);
  add_layers("convolutions", products.convolutions, products.passes.convolution);
}

}  // namespace

int main(int argc, char** argv) {
  for (int i = 0; const se::Kernels* variant = se::available_kernels(i); ++i) {
    for (const ContenderKind& kind : kOurContenders) add(kind, variant->name);
  }
  for (const ContenderKind& kind : kPeers) add(kind, "debian");
  for (const StreamingPass& pass : streaming_passes()) add_streaming_limit(pass);
  for (const BareProducts& products : bare_products()) add_bare_products(products);
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 2;
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  return 0;
}

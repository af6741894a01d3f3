#include "contenders.h"

#include "quiet_stdout.h"
#include "speechenhance/speechenhance.h"
#include "speechenhance/zel_fft.h"

namespace se_bench {
namespace {

NnProcessConfig everything_on() {
  NnProcessConfig config = {};
  config.residual_db = 20;
  config.ns_residual_db = 20;
  config.limiter_enable = 1;
  config.limiter_max_gain = 0.9f;
  config.limiter_level_db = 3.0f;
  config.low_shelf = {1, 310.0f, 6.0f};
  config.high_shelf = {1, 7000.0f, 3.0f};
  for (int i = 0; i < 10; ++i) config.peak[i] = {500 + 600 * i, i % 2 == 0 ? 2.0f : -2.0f, 2};
  return config;
}

class Engine : public Contender {
 public:
  explicit Engine(bool everything) : denoised_only_(!everything) {
    const QuietStdout quiet;
    engine_ = se_create();
    if (everything) set_nn_process_config(engine_, everything_on());
  }
  ~Engine() override { se_destroy(engine_); }

  const void* process(const Frame& frame) override {
    se_process(engine_, frame.mics, frame.ref, out_, denoised_only_, !denoised_only_);
    return out_;
  }
  std::size_t output_bytes() const override { return sizeof out_; }

 private:
  bool denoised_only_;
  SEInstance* engine_;
  float out_[kBlock];
};

class RealTransform : public Contender {
 public:
  RealTransform()
      : mem_(zel_fft_r2c_query_mem_api(kTransformLen)),
        scratch_(zel_fft_r2c_query_scratch_mem_api(kTransformLen)),
        fft_(zel_fft_init_r2c(kTransformLen, mem_.data(), scratch_.data())) {}

  const void* process(const Frame& frame) override {
    zel_CLfftL(fft_, spectrum_, frame.transform_samples);
    zel_LifftCL(fft_, out_, spectrum_);
    return out_;
  }
  std::size_t output_bytes() const override { return sizeof out_; }

 private:
  std::vector<char> mem_, scratch_;
  r2c_handle* fft_;
  alignas(64) zel_lcomplex spectrum_[kTransformLen / 2 + 1];
  alignas(64) float out_[kTransformLen];
};

}  // namespace

const std::vector<ContenderKind> kOurContenders = {
    {"denoise", true, [] { return std::unique_ptr<Contender>(new Engine(false)); }},
    {"full", true, [] { return std::unique_ptr<Contender>(new Engine(true)); }},
    {"rfft512", true, [] { return std::unique_ptr<Contender>(new RealTransform); }},
};

const ContenderKind* find_contender(const std::string& name) {
  for (const auto* list : {&kOurContenders, &kPeers}) {
    for (const ContenderKind& kind : *list) {
      if (kind.name == name) return &kind;
    }
  }
  return nullptr;
}

}  // namespace se_bench

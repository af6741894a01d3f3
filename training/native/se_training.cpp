#include "se_training.h"

#include <algorithm>
#include <cstring>
#include <initializer_list>
#include <limits>
#include <new>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include "engine/front_end.h"
#include "engine/gain_rule.h"
#include "engine/owned_engine.h"
#include "engine/se_instance.h"
#include "kernels/kernels.h"
#include "nn/denoiser.h"
#include "nn/model_file.h"
#include "nn/network.h"
#include "nn/quiet_history.h"
#include "speechenhance/denoiser.h"
#include "speechenhance/speechenhance.h"
#include "speechenhance/zel_stft.h"

namespace {

namespace nn = se::nn;

constexpr int kSampleRate = 16000;
constexpr int kHop = kSampleRate / 1000 * se::kFrameMs;
constexpr int kMics = 2;

using Memory = std::vector<unsigned char>;

// One engine over whole scenes: two microphones and the reference, a frame at a time.
class Engine {
 public:
  explicit Engine(const DenoiseModel* model) : engine_(se::create_instance(model)) {
    if (!engine_) throw std::bad_alloc();
  }
  SEInstance& operator*() const { return *engine_; }
  SEInstance* operator->() const { return engine_.get(); }
  SEInstance* get() const { return engine_.get(); }
  const nn::NNDenoiser& denoiser() const {
    return *static_cast<const nn::NNDenoiser*>(engine_->nn);
  }

 private:
  se::OwnedEngine engine_;
};

// Samples of frame `t` of both microphones, one block after the other.
struct MicBlocks {
  MicBlocks(const float* mic0, const float* mic1, int t) {
    std::copy_n(mic0 + t * kHop, kHop, samples);
    std::copy_n(mic1 + t * kHop, kHop, samples + kHop);
  }
  float samples[kMics * kHop];
};

// A model file in aligned memory with its records; the compiled-in model where there is no file.
class Model {
 public:
  Model(const unsigned char* file, long size)
      : bytes_(static_cast<std::size_t>(file ? size : 0) + nn::kModelAlignment) {
    if (!file) return;
    const auto address = reinterpret_cast<std::uintptr_t>(bytes_.data());
    unsigned char* aligned = bytes_.data() + (nn::kModelAlignment - address % nn::kModelAlignment);
    std::memcpy(aligned, file, static_cast<std::size_t>(size));
    error_ = nn::open_model(aligned, static_cast<std::size_t>(size), &records_);
    model_ = &records_.model;
  }
  const char* error() const { return error_; }
  const DenoiseModel* get() const { return model_; }

 private:
  Memory bytes_;
  nn::ModelRecords records_{};
  const DenoiseModel* model_ = &nn_denoise_model;
  const char* error_ = nullptr;
};

using Fields = std::initializer_list<std::pair<const char*, double>>;

std::string json(const Fields& fields) {
  std::ostringstream text;
  text.precision(std::numeric_limits<double>::max_digits10);
  for (const auto& [name, value] : fields) text << ",\"" << name << "\":" << value;
  return "{" + text.str().substr(1) + "}";
}

std::string describe_shape() {
  std::string text = json({{"sample_rate", kSampleRate},
                           {"hop", kHop},
                           {"frame", se::kFrameLen},
                           {"bins", nn::kBins},
                           {"bands", nn::kBands},
                           {"channels", nn::kChannels},
                           {"lookahead", se::kLookAhead},
                           {"hidden", nn::kGruHidden},
                           {"gru1_inputs", nn::kGruInput[0]},
                           {"gru2_inputs", nn::kGruInput[2]}});
  text.back() = ',';
  text += "\"rule\":" + json({{"far_end_energy", se::kFarEndEnergy},
                              {"far_end_gate", se::kFarEndGate},
                              {"first_kept_bin", se::kFirstKeptBin},
                              {"first_full_bin", se::kFirstFullBin},
                              {"low_make_up", se::kLowMakeUp},
                              {"make_up", se::kMakeUp}});
  text += ",\"convs\":[";
  for (const nn::ConvShape& c : nn::kConv) {
    text += json({{"in_channels", c.in_channels},
                  {"in_width", c.in_width},
                  {"out_channels", c.out_channels},
                  {"out_width", c.out_width},
                  {"kernel_time", nn::kKernelTime},
                  {"kernel_freq", c.kernel_freq},
                  {"freq_stride", c.freq_stride},
                  {"freq_pad", c.freq_pad}}) +
            ',';
  }
  text.back() = ']';
  return text + "}";
}

}  // namespace

const char* se_training_shape(void) {
  static const std::string text = describe_shape();
  return text.c_str();
}

void se_training_analyse(const float* samples, int frames, zel_lcomplex* spectra) {
  Memory memory(zel_stft_query_mem(se::kFrameLen, 0));
  Memory scratch(zel_stft_query_scratch(se::kFrameLen));
  stft_state* stft =
      zel_stft_init(memory.data(), scratch.data(), p_win_tmp, se::kFrameLen, kHop, 0);
  for (int t = 0; t < frames; ++t)
    zel_stft_analysis(stft, samples + t * kHop, spectra + t * nn::kBins);
}

void se_training_synthesise(const zel_lcomplex* spectra, int frames, float* samples) {
  Memory memory(zel_stft_query_mem(se::kFrameLen, 1));
  Memory scratch(zel_stft_query_scratch(se::kFrameLen));
  stft_state* stft =
      zel_stft_init(memory.data(), scratch.data(), p_win_tmp, se::kFrameLen, kHop, 1);
  for (int t = 0; t < frames; ++t)
    zel_stft_synthesis_envelop(stft, spectra + t * nn::kBins, samples + t * kHop);
}

void se_training_tanh(float* x, int n) {
  se::kernels().nn->tanh(x, n);
}

void se_training_front_end(const float* mic0, const float* mic1, const float* ref, int frames,
                           zel_lcomplex* mic_spectra, zel_lcomplex* ref_spectra, float* ref_energy,
                           float* features) {
  const Engine engine(&nn_denoise_model);
  for (int t = 0; t < frames; ++t) {
    const MicBlocks mics(mic0, mic1, t);
    const se::FrontEndResult front = se::run_front_end(*engine, mics.samples, ref + t * kHop);
    for (const zel_lcomplex* spectrum : engine->mic_spec)
      mic_spectra = std::copy_n(spectrum, nn::kBins, mic_spectra);
    ref_spectra = std::copy_n(engine->ref_spec, nn::kBins, ref_spectra);
    ref_energy[t] = front.ref_energy;
    features = std::copy_n(front.features, nn::kFeatures, features);
  }
}

const char* se_training_network(const unsigned char* model_file, long size, const float* features,
                                int frames, float* gains) {
  const Model model(model_file, size);
  if (model.error()) return model.error();
  nn::forget_quiet_frames();
  const Engine engine(model.get());
  for (int t = 0; t < frames; ++t) {
    const float* bands = nn::run_network(engine.denoiser(), features + t * nn::kFeatures);
    if (bands) nn::gains_from_bands(bands, gains + t * nn::kBins);
  }
  return nullptr;
}

void se_training_gain_rule(float* gains, const float* ref_energy, int frames) {
  for (int t = 0; t < frames; ++t) se::reshape_gains(gains + t * nn::kBins, ref_energy[t]);
}

const char* se_training_engine(const unsigned char* model_file, long size, const float* mic0,
                               const float* mic1, const float* ref, int frames, int nn_only,
                               int use_ns, const NnProcessConfig* config, float* out) {
  const Model model(model_file, size);
  if (model.error()) return model.error();
  nn::forget_quiet_frames();
  const Engine engine(model.get());
  if (config) set_nn_process_config(engine.get(), *config);
  for (int t = 0; t < frames; ++t) {
    const MicBlocks mics(mic0, mic1, t);
    se_process(engine.get(), mics.samples, ref + t * kHop, out + t * kHop, nn_only != 0,
               use_ns != 0);
  }
  return nullptr;
}

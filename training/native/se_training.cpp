#include "se_training.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <iterator>
#include <string>
#include <vector>

#include "engine/se_instance.h"
#include "kernels/kernels.h"
#include "nn/denoiser.h"
#include "nn/features.h"
#include "nn/model_file.h"
#include "nn/network.h"
#include "speechenhance/aec.h"
#include "speechenhance/denoiser.h"
#include "speechenhance/speechenhance.h"
#include "speechenhance/zel_stft.h"

namespace {

namespace nn = se::nn;

constexpr int kSampleRate = 16000;
constexpr int kHop = kSampleRate / 1000 * se::kFrameMs;
constexpr int kMics = 2;

using Memory = std::vector<unsigned char>;

class Analysis {
 public:
  Analysis()
      : memory_(zel_stft_query_mem(se::kFrameLen, 0)),
        scratch_(zel_stft_query_scratch(se::kFrameLen)),
        state_(zel_stft_init(memory_.data(), scratch_.data(), p_win_tmp, se::kFrameLen, kHop, 0)) {}
  void run(const float* samples, zel_lcomplex* spectrum) {
    zel_stft_analysis(state_, samples, spectrum);
  }

 private:
  Memory memory_, scratch_;
  stft_state* state_;
};

void powers(const zel_lcomplex* spectrum, float* power) {
  for (int k = 0; k < nn::kBins; ++k)
    power[k] = std::fma(spectrum[k].re, spectrum[k].re, spectrum[k].im * spectrum[k].im);
}

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

// Every scene starts with an empty quiet-frame history, as a process of its own would.
void forget_quiet_frames() {
  std::fill(std::begin(noise_buf), std::end(noise_buf), 0);
  noise_flag = noise_flag_sum = noise_flag_index = 0;
}

std::string describe_shape() {
  const auto field = [](const char* name, int value) {
    return "\"" + std::string(name) + "\":" + std::to_string(value) + ",";
  };
  std::string text = "{" + field("sample_rate", kSampleRate) + field("hop", kHop) +
                     field("frame", se::kFrameLen) + field("bins", nn::kBins) +
                     field("bands", nn::kBands) + field("channels", nn::kChannels) +
                     field("lookahead", se::kLookAhead) + field("hidden", nn::kGruHidden) +
                     field("gru1_inputs", nn::kGruInput[0]) +
                     field("gru2_inputs", nn::kGruInput[2]) + "\"convs\":[";
  for (const nn::ConvShape& c : nn::kConv) {
    text += (&c == nn::kConv ? "{" : ",{") + field("in_channels", c.in_channels) +
            field("in_width", c.in_width) + field("out_channels", c.out_channels) +
            field("out_width", c.out_width) + field("kernel_time", nn::kKernelTime) +
            field("kernel_freq", c.kernel_freq) + field("freq_stride", c.freq_stride) +
            field("freq_pad", c.freq_pad);
    text.back() = '}';
  }
  return text + "]}";
}

}  // namespace

const char* se_training_shape(void) {
  static const std::string text = describe_shape();
  return text.c_str();
}

void se_training_analyse(const float* samples, int frames, zel_lcomplex* spectra) {
  Analysis stft;
  for (int t = 0; t < frames; ++t) stft.run(samples + t * kHop, spectra + t * nn::kBins);
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
  Analysis stft[kMics + 1];
  Memory memory(aec_query_mem()), scratch(aec_query_scratch());
  aec_state* aec = aec_init(memory.data(), scratch.data());
  std::vector<float> power(kMics * nn::kBins), ref_power(nn::kBins);
  std::vector<float> mag(nn::kMagnitudes), band(nn::kFeatures);
  float* mic_powers[kMics] = {power.data(), power.data() + nn::kBins};
  for (int t = 0; t < frames; ++t) {
    zel_lcomplex* mics = mic_spectra + t * kMics * nn::kBins;
    zel_lcomplex* spectra[kMics] = {mics, mics + nn::kBins};
    zel_lcomplex* reference = ref_spectra + t * nn::kBins;
    stft[0].run(mic0 + t * kHop, spectra[0]);
    stft[1].run(mic1 + t * kHop, spectra[1]);
    stft[2].run(ref + t * kHop, reference);
    powers(spectra[0], mic_powers[0]);
    powers(spectra[1], mic_powers[1]);
    aec_process(aec, spectra, mic_powers, reference);
    powers(reference, ref_power.data());
    ref_energy[t] = 0.0f;
    for (float p : ref_power) ref_energy[t] += p;
    nn::features(mics, reference, {mag.data(), band.data(), features + t * nn::kFeatures});
  }
}

const char* se_training_network(const unsigned char* model_file, long size,
                                const zel_lcomplex* mic_spectra, const zel_lcomplex* ref_spectra,
                                int frames, float* gains) {
  const Model model(model_file, size);
  if (model.error()) return model.error();
  forget_quiet_frames();
  Memory memory(static_cast<std::size_t>(nn_query_mem_api()));
  Memory scratch(static_cast<std::size_t>(nn_query_scratch_api()));
  void* denoiser = nn::init_denoiser(memory.data(), scratch.data(), model.get());
  for (int t = 0; t < frames; ++t)
    nn_process_api(denoiser, mic_spectra + t * kMics * nn::kBins, ref_spectra + t * nn::kBins,
                   gains + t * nn::kBins, true, false);
  return nullptr;
}

const char* se_training_engine(const unsigned char* model_file, long size, const float* mic0,
                               const float* mic1, const float* ref, int frames, int nn_only,
                               int use_ns, const NnProcessConfig* config, float* out) {
  const Model model(model_file, size);
  if (model.error()) return model.error();
  forget_quiet_frames();
  SEInstance* engine = se::create_instance(model.get());
  if (!engine) return "out of memory";
  if (config) set_nn_process_config(engine, *config);
  float mics[kMics * kHop];
  for (int t = 0; t < frames; ++t) {
    std::memcpy(mics, mic0 + t * kHop, kHop * sizeof(float));
    std::memcpy(mics + kHop, mic1 + t * kHop, kHop * sizeof(float));
    se_process(engine, mics, ref + t * kHop, out + t * kHop, nn_only != 0, use_ns != 0);
  }
  se_destroy(engine);
  return nullptr;
}

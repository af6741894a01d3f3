#include "se_training.h"

#include <cmath>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "nn/network.h"
#include "speechenhance/aec.h"
#include "speechenhance/zel_stft.h"

namespace {

namespace nn = se::nn;

constexpr int kSampleRate = 16000;
constexpr int kFrame = 512;
constexpr int kHop = 160;
constexpr int kMics = 2;

using Memory = std::vector<unsigned char>;

class Analysis {
 public:
  Analysis()
      : memory_(zel_stft_query_mem(kFrame, 0)),
        scratch_(zel_stft_query_scratch(kFrame)),
        state_(zel_stft_init(memory_.data(), scratch_.data(), p_win_tmp, kFrame, kHop, 0)) {}
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

// Interim: replaced by the library's own.
void se_features(const zel_lcomplex* mics, const zel_lcomplex* ref, float* feat) {
  for (int c = 0; c < 3; ++c) {
    const zel_lcomplex* x = c < 2 ? mics + c * nn::kBins : ref;
    float mag[nn::kBins], band[nn::kBands] = {};
    for (int k = 0; k < nn::kBins; ++k)
      mag[k] = std::sqrt(std::fma(x[k].re, x[k].re, x[k].im * x[k].im) + 1e-8f);
    for (int i = 0; i + 1 < nn::kBands; ++i) {
      const int start = nn::kBandStart[i], w = nn::kBandStart[i + 1] - start;
      const float r = 1.0f / static_cast<float>(w);
      for (int j = 0; j < w; ++j) {
        const float f = static_cast<float>(j) * r, v = mag[start + j];
        band[i + 1] = std::fma(f * v, r, band[i + 1]);
        band[i] = std::fma(1.0f - f, v * r, band[i]);
      }
    }
    for (int i = 0; i < nn::kBands; ++i)
      feat[c * nn::kBands + i] = std::sqrt(band[i] + 1e-8f);
  }
}

std::string join(const std::int16_t* values, int count) {
  std::string text;
  for (int i = 0; i < count; ++i) text += (i ? "," : "") + std::to_string(values[i]);
  return text;
}

}  // namespace

const char* se_training_shape(void) {
  static const std::string text = [] {
    std::string s = "{\"sample_rate\":" + std::to_string(kSampleRate) +
                    ",\"hop\":" + std::to_string(kHop) + ",\"frame\":" + std::to_string(kFrame) +
                    ",\"bins\":" + std::to_string(nn::kBins) +
                    ",\"bands\":" + std::to_string(nn::kBands) +
                    ",\"channels\":" + std::to_string(nn::kChannels) +
                    ",\"lookahead\":" + std::to_string(nn::kConvLayers) +
                    ",\"hidden\":" + std::to_string(nn::kGruHidden) +
                    ",\"gru1_inputs\":" + std::to_string(nn::kGruInput[0]) +
                    ",\"gru2_inputs\":" + std::to_string(nn::kGruInput[2]) + ",\"band_edges\":[" +
                    join(nn::kBandStart, nn::kBands) + "],\"convs\":[";
    for (const nn::ConvShape& c : nn::kConv) {
      s += (&c == nn::kConv ? "{" : ",{");
      s += "\"in_channels\":" + std::to_string(c.in_channels) +
           ",\"out_channels\":" + std::to_string(c.out_channels) +
           ",\"out_width\":" + std::to_string(c.out_width) +
           ",\"kernel_time\":" + std::to_string(nn::kKernelTime) +
           ",\"kernel_freq\":" + std::to_string(c.kernel_freq) +
           ",\"freq_stride\":" + std::to_string(c.freq_stride) +
           ",\"freq_pad\":" + std::to_string(c.freq_pad) + "}";
    }
    return s + "]}";
  }();
  return text.c_str();
}

void se_training_analyse(const float* samples, int frames, zel_lcomplex* spectra) {
  Analysis stft;
  for (int t = 0; t < frames; ++t) stft.run(samples + t * kHop, spectra + t * nn::kBins);
}

void se_training_synthesise(const zel_lcomplex* spectra, int frames, float* samples) {
  Memory memory(zel_stft_query_mem(kFrame, 1)), scratch(zel_stft_query_scratch(kFrame));
  stft_state* stft = zel_stft_init(memory.data(), scratch.data(), p_win_tmp, kFrame, kHop, 1);
  for (int t = 0; t < frames; ++t)
    zel_stft_synthesis_envelop(stft, spectra + t * nn::kBins, samples + t * kHop);
}

void se_training_front_end(const float* mic0, const float* mic1, const float* ref, int frames,
                           zel_lcomplex* mic1_spectra, float* ref_energy, float* features) {
  Analysis stft[kMics + 1];
  Memory memory(aec_query_mem()), scratch(aec_query_scratch());
  aec_state* aec = aec_init(memory.data(), scratch.data());
  std::vector<zel_lcomplex> mics(kMics * nn::kBins), reference(nn::kBins);
  std::vector<float> power(kMics * nn::kBins), ref_power(nn::kBins);
  zel_lcomplex* spectra[kMics] = {mics.data(), mics.data() + nn::kBins};
  float* mic_powers[kMics] = {power.data(), power.data() + nn::kBins};
  for (int t = 0; t < frames; ++t) {
    stft[0].run(mic0 + t * kHop, spectra[0]);
    stft[1].run(mic1 + t * kHop, spectra[1]);
    stft[2].run(ref + t * kHop, reference.data());
    powers(spectra[0], mic_powers[0]);
    powers(spectra[1], mic_powers[1]);
    aec_process(aec, spectra, mic_powers, reference.data());
    powers(reference.data(), ref_power.data());
    float energy = 0.0f;
    for (float p : ref_power) energy += p;
    ref_energy[t] = energy;
    std::memcpy(mic1_spectra + t * nn::kBins, spectra[1], nn::kBins * sizeof(zel_lcomplex));
    se_features(mics.data(), reference.data(), features + t * nn::kFeatures);
  }
}

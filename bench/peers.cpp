// What a user would otherwise pick, as Debian packages it: SpeexDSP and WebRTC's audio processing
// on the same sound, and FFTW3 for the transform.
#include "contenders.h"

#ifdef SE_BENCH_PEERS

#include <fftw3.h>
#include <speex/speex_echo.h>
#include <speex/speex_preprocess.h>
#include <webrtc/modules/audio_processing/include/audio_processing.h>
#include <webrtc/modules/interface/module_common_types.h>

#include <cstring>

namespace se_bench {
namespace {

constexpr int kRate = 16000;

// Echo canceller with a tail of 128 ms, then denoising and residual echo suppression.
class SpeexDsp : public Contender {
 public:
  SpeexDsp()
      : echo_(speex_echo_state_init(kBlock, kRate * 128 / 1000)),
        preprocess_(speex_preprocess_state_init(kBlock, kRate)) {
    int rate = kRate, on = 1;
    speex_echo_ctl(echo_, SPEEX_ECHO_SET_SAMPLING_RATE, &rate);
    speex_preprocess_ctl(preprocess_, SPEEX_PREPROCESS_SET_DENOISE, &on);
    speex_preprocess_ctl(preprocess_, SPEEX_PREPROCESS_SET_ECHO_STATE, echo_);
  }
  ~SpeexDsp() override {
    speex_preprocess_state_destroy(preprocess_);
    speex_echo_state_destroy(echo_);
  }

  const void* process(const Frame& frame) override {
    speex_echo_cancellation(echo_, frame.mic_pcm, frame.ref_pcm, out_);
    speex_preprocess_run(preprocess_, out_);
    return out_;
  }
  std::size_t output_bytes() const override { return sizeof out_; }

 private:
  SpeexEchoState* echo_;
  SpeexPreprocessState* preprocess_;
  std::int16_t out_[kBlock];
};

// Echo cancellation and noise suppression at the level "high", one microphone.
class WebRtc : public Contender {
 public:
  WebRtc() : apm_(webrtc::AudioProcessing::Create()) {
    apm_->echo_cancellation()->Enable(true);
    apm_->noise_suppression()->set_level(webrtc::NoiseSuppression::kHigh);
    apm_->noise_suppression()->Enable(true);
    for (webrtc::AudioFrame* frame : {&capture_, &render_}) {
      frame->sample_rate_hz_ = kRate;
      frame->num_channels_ = 1;
      frame->samples_per_channel_ = kBlock;
    }
  }

  const void* process(const Frame& frame) override {
    std::memcpy(render_.data_, frame.ref_pcm, kBlock * sizeof *frame.ref_pcm);
    std::memcpy(capture_.data_, frame.mic_pcm, kBlock * sizeof *frame.mic_pcm);
    apm_->ProcessReverseStream(&render_);
    apm_->set_stream_delay_ms(0);
    apm_->ProcessStream(&capture_);
    return capture_.data_;
  }
  std::size_t output_bytes() const override { return kBlock * sizeof capture_.data_[0]; }

 private:
  std::unique_ptr<webrtc::AudioProcessing> apm_;
  webrtc::AudioFrame capture_, render_;
};

// Measured plans of FFTW3 in single precision, out of place, both directions.
class Fftw : public Contender {
 public:
  Fftw()
      : in_(fftwf_alloc_real(kTransformLen)),
        spectrum_(fftwf_alloc_complex(kTransformLen / 2 + 1)),
        out_(fftwf_alloc_real(kTransformLen)),
        forward_(fftwf_plan_dft_r2c_1d(kTransformLen, in_, spectrum_, kPlanning)),
        inverse_(fftwf_plan_dft_c2r_1d(kTransformLen, spectrum_, out_, kPlanning)) {}
  ~Fftw() override {
    fftwf_destroy_plan(forward_);
    fftwf_destroy_plan(inverse_);
    fftwf_free(in_);
    fftwf_free(spectrum_);
    fftwf_free(out_);
  }

  // The forward transform preserves its input; the inverse may overwrite the spectrum and is
  // unscaled, which ours is not.
  const void* process(const Frame& frame) override {
    fftwf_execute_dft_r2c(forward_, const_cast<float*>(frame.transform_samples), spectrum_);
    fftwf_execute(inverse_);
    return out_;
  }
  std::size_t output_bytes() const override { return kTransformLen * sizeof *out_; }

 private:
  static constexpr unsigned kPlanning = FFTW_MEASURE;

  float* in_;
  fftwf_complex* spectrum_;
  float* out_;
  fftwf_plan forward_, inverse_;
};

template <class T>
std::unique_ptr<Contender> make() {
  return std::unique_ptr<Contender>(new T);
}

}  // namespace

const std::vector<ContenderKind> kPeers = {
    {"speexdsp", false, make<SpeexDsp>},
    {"webrtc", false, make<WebRtc>},
    {"fftw3f", false, make<Fftw>},
};

}  // namespace se_bench

#else

namespace se_bench {

const std::vector<ContenderKind> kPeers = {};

}  // namespace se_bench

#endif

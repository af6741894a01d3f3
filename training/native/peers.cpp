#include "peers.h"

#include <speex/speex_echo.h>
#include <speex/speex_preprocess.h>
#include <webrtc/modules/audio_processing/include/audio_processing.h>
#include <webrtc/modules/interface/module_common_types.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <memory>

namespace {

constexpr int kRate = 16000;
constexpr int kHop = 160;
constexpr int kEchoTail = 2048;  // samples, 128 ms

void to_int16(const float* in, std::int16_t* out) {
  for (int i = 0; i < kHop; ++i)
    out[i] = static_cast<std::int16_t>(std::clamp(std::lround(in[i] * 32768.0f), -32768L, 32767L));
}

void to_float(const std::int16_t* in, float* out) {
  for (int i = 0; i < kHop; ++i) out[i] = static_cast<float>(in[i]) / 32768.0f;
}

}  // namespace

int se_peer_speexdsp(const float* mic, const float* ref, int frames, int echo, float* out) {
  SpeexPreprocessState* denoise = speex_preprocess_state_init(kHop, kRate);
  SpeexEchoState* canceller = echo ? speex_echo_state_init(kHop, kEchoTail) : nullptr;
  if (!denoise || (echo && !canceller)) return -1;
  int on = 1, rate = kRate;
  speex_preprocess_ctl(denoise, SPEEX_PREPROCESS_SET_DENOISE, &on);
  if (canceller) {
    speex_echo_ctl(canceller, SPEEX_ECHO_SET_SAMPLING_RATE, &rate);
    speex_preprocess_ctl(denoise, SPEEX_PREPROCESS_SET_ECHO_STATE, canceller);
  }
  for (int t = 0; t < frames; ++t) {
    std::int16_t near[kHop], far[kHop], clean[kHop];
    to_int16(mic + t * kHop, near);
    if (canceller) {
      to_int16(ref + t * kHop, far);
      speex_echo_cancellation(canceller, near, far, clean);
    } else {
      std::memcpy(clean, near, sizeof clean);
    }
    speex_preprocess_run(denoise, clean);
    to_float(clean, out + t * kHop);
  }
  if (canceller) speex_echo_state_destroy(canceller);
  speex_preprocess_state_destroy(denoise);
  return 0;
}

int se_peer_webrtc(const float* mic, const float* ref, int frames, int echo, float* out) {
  std::unique_ptr<webrtc::AudioProcessing> apm(webrtc::AudioProcessing::Create());
  if (!apm) return -1;
  apm->high_pass_filter()->Enable(true);
  apm->noise_suppression()->set_level(webrtc::NoiseSuppression::kHigh);
  apm->noise_suppression()->Enable(true);
  apm->echo_cancellation()->Enable(echo != 0);
  webrtc::AudioFrame near, far;
  for (webrtc::AudioFrame* frame : {&near, &far}) {
    frame->sample_rate_hz_ = kRate;
    frame->samples_per_channel_ = kHop;
    frame->num_channels_ = 1;
  }
  for (int t = 0; t < frames; ++t) {
    if (echo) {
      to_int16(ref + t * kHop, far.data_);
      if (apm->AnalyzeReverseStream(&far) != 0) return -1;
      apm->set_stream_delay_ms(0);
    }
    to_int16(mic + t * kHop, near.data_);
    if (apm->ProcessStream(&near) != 0) return -1;
    to_float(near.data_, out + t * kHop);
  }
  return 0;
}

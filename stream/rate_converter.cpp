#include "stream/rate_converter.h"

#include <speex/speex_resampler.h>

#include <cstring>

namespace se::stream {
namespace {

// Of 0 to 10: what the engine makes of the sound differs by less than -65 dB from what it makes of
// better ones.
constexpr int kQuality = 7;

std::int64_t divide_up(std::int64_t a, std::int64_t b) {
  return (a + b - 1) / b;
}

}  // namespace

void RateConverter::Destroy::operator()(SpeexResamplerState_* state) const {
  speex_resampler_destroy(state);
}

bool RateConverter::create(int in_rate, int out_rate) {
  in_rate_ = in_rate;
  out_rate_ = out_rate;
  if (in_rate == out_rate) return true;
  int error = RESAMPLER_ERR_SUCCESS;
  state_.reset(speex_resampler_init(1, static_cast<spx_uint32_t>(in_rate),
                                    static_cast<spx_uint32_t>(out_rate), kQuality, &error));
  if (state_ == nullptr || error != RESAMPLER_ERR_SUCCESS) return false;
  look_ahead_ = speex_resampler_get_input_latency(state_.get());
  reset();
  return true;
}

void RateConverter::reset() {
  if (state_ == nullptr) return;
  speex_resampler_reset_mem(state_.get());
  speex_resampler_skip_zeros(state_.get());
}

std::size_t RateConverter::process(const float* in, std::size_t count, float* out,
                                   std::size_t room) {
  if (state_ == nullptr) {
    std::memcpy(out, in, count * sizeof *in);
    return count;
  }
  auto taken = static_cast<spx_uint32_t>(count);
  auto given = static_cast<spx_uint32_t>(room);
  speex_resampler_process_float(state_.get(), 0, in, &taken, out, &given);
  return given;
}

std::int64_t RateConverter::outputs_after(std::int64_t inputs) const {
  if (inputs <= look_ahead_) return 0;
  return divide_up((inputs - look_ahead_) * out_rate_, in_rate_);
}

std::int64_t RateConverter::inputs_for(std::int64_t outputs) const {
  if (outputs <= 0) return 0;
  return look_ahead_ + (outputs - 1) * in_rate_ / out_rate_ + 1;
}

}  // namespace se::stream

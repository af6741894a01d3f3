// The C interface: arguments are checked here, the work is done in stream_instance.cpp.
#include <new>

#include "stream/stream_instance.h"

namespace {

bool is_delay(int32_t delay_ms) {
  return delay_ms == SE_STREAM_DELAY_AUTO ||
         (delay_ms >= -SE_STREAM_MAX_DELAY_MS && delay_ms <= SE_STREAM_MAX_DELAY_MS);
}

}  // namespace

const char* se_stream_error_text(int32_t result) {
  switch (result) {
    case SE_STREAM_OK:
      return "no error";
    case SE_STREAM_NO_MEMORY:
      return "not enough memory for a stream";
    case SE_STREAM_BAD_RATE:
      return "the sample rate must be 8000 to 192000 Hz";
    case SE_STREAM_BAD_CHANNELS:
      return "a stream has 1 or 2 microphones and 0, 1 or 2 channels of reference";
    case SE_STREAM_BAD_DELAY:
      return "the delay must be -500 to 500 ms, or automatic; a running stream cannot hold its "
             "microphones back more than it was created to";
    case SE_STREAM_NO_PRESET:
      return "no preset has this name: take one of se_stream_preset_name()";
    case SE_STREAM_BAD_MODE:
      return "the mode must be 0 (denoise), 1 (mix) or 2 (suppress)";
    case SE_STREAM_BAD_AMOUNT:
      return "the amount must be 0 to 1";
    case SE_STREAM_BAD_RESIDUAL:
      return "the residual must be 0 to 120 dB, that ahead of the suppressor 10 to 130 dB";
    case SE_STREAM_BAD_LIMITER:
      return "the limiter's ceiling must be 0.01 to 1 and its gain 0 to 60 dB";
    case SE_STREAM_BAD_SHELF:
      return "a shelf must be at 279 to 8000 Hz (low) or 0 to 7718 Hz (high) and attenuate by 0 to "
             "120 dB";
    case SE_STREAM_BAD_PEAK:
      return "a peak must be at 31 to 7966 Hz with a gain of -60 to 40 dB and a q of at most a "
             "31st of its frequency";
    default:
      return "unknown error";
  }
}

const char* se_stream_version(void) {
  return SE_STREAM_VERSION;
}

int32_t se_stream_create(int32_t rate, int32_t mic_channels, int32_t ref_channels, int32_t delay_ms,
                         SEStream** stream) {
  *stream = nullptr;
  if (rate < SE_STREAM_MIN_RATE || rate > SE_STREAM_MAX_RATE) return SE_STREAM_BAD_RATE;
  if (mic_channels < 1 || mic_channels > 2 || ref_channels < 0 || ref_channels > 2) {
    return SE_STREAM_BAD_CHANNELS;
  }
  if (!is_delay(delay_ms)) return SE_STREAM_BAD_DELAY;
  const se::FloatModeScope mode;
  auto* created = new (std::nothrow) SEStream;
  if (created == nullptr) return SE_STREAM_NO_MEMORY;
  if (!created->create(rate, mic_channels, ref_channels, delay_ms)) {
    delete created;
    return SE_STREAM_NO_MEMORY;
  }
  *stream = created;
  return SE_STREAM_OK;
}

void se_stream_destroy(SEStream* stream) {
  delete stream;
}

int32_t se_stream_latency(const SEStream* stream) {
  return static_cast<int32_t>(stream->latency());
}

void se_stream_process(SEStream* stream, const float* const* mics, const float* const* refs,
                       float* out, int32_t frames) {
  if (frames > 0) stream->process(mics, refs, out, static_cast<std::size_t>(frames));
}

void se_stream_reset(SEStream* stream) {
  stream->reset();
}

int32_t se_stream_set_settings(SEStream* stream, const SEStreamSettings* settings) {
  const int32_t result = se_stream_check_settings(settings);
  if (result == SE_STREAM_OK) stream->settings.write(*settings);
  return result;
}

void se_stream_get_settings(const SEStream* stream, SEStreamSettings* settings) {
  *settings = stream->settings.read();
}

int32_t se_stream_set_delay(SEStream* stream, int32_t delay_ms) {
  if (!is_delay(delay_ms) || delay_ms < -stream->mic_delay_ms()) return SE_STREAM_BAD_DELAY;
  stream->delay_ms.set(delay_ms);
  return SE_STREAM_OK;
}

void se_stream_get_status(const SEStream* stream, SEStreamStatus* status) {
  stream->get_status(status);
}

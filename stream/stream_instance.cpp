#include "stream/stream_instance.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <new>

using namespace se::stream;

namespace {

// As the engine takes samples, before they pass the rate converter, which would spread them.
float usable(float sample) {
  return std::isnan(sample) ? 0.0f : std::clamp(sample, -SE_MAX_SAMPLE, SE_MAX_SAMPLE);
}

// Samples of one channel; null is silence.
void read_channel(const float* const* channels, int channel, std::size_t start, std::size_t count,
                  float* to) {
  const float* from = channels != nullptr ? channels[channel] : nullptr;
  if (from == nullptr) {
    std::fill_n(to, count, 0.0f);
  } else {
    std::transform(from + start, from + start + count, to, usable);
  }
}

}  // namespace

bool SEStream::create(int rate, int mic_channels, int ref_channels, std::int32_t delay) {
  mic_channels_ = mic_channels;
  ref_channels_ = ref_channels;
  mic_delay_ms_ = std::max(0, -delay);
  delay_ms.set(delay);
  amount_step_ = 100.0f / static_cast<float>(rate);

  const std::size_t mic_delay = this->mic_delay();
  for (Input& input : inputs_) {
    if (!input.converter.create(rate, SE_SAMPLE_RATE) ||
        !input.blocks.create(mic_delay + kBlock + kEnginePiece)) {
      return false;
    }
  }
  if (!to_host_.create(SE_SAMPLE_RATE, rate) || !alignment_.create(mic_delay_ms_) ||
      !engine_.create()) {
    return false;
  }
  plan_ = plan_latency(rate, BlockEngine::kDelay + static_cast<int>(mic_delay),
                       inputs_[0].converter, to_host_);
  block_room_ = static_cast<std::size_t>(rate) * kBlock / SE_SAMPLE_RATE + 2;
  block_at_rate_.reset(new (std::nothrow) float[block_room_]);
  const auto silence = static_cast<std::size_t>(plan_.silence);
  const auto latency = static_cast<std::size_t>(plan_.latency);
  // Beside the silence, what a piece at the lowest rate makes of itself: up to three blocks.
  if (block_at_rate_ == nullptr || !out_.create(silence + 4 * block_room_) ||
      !untouched_.create(latency + kPiece)) {
    return false;
  }
  fill_queues();
  return true;
}

void SEStream::reset() {
  quiet_history_ = QuietHistory();
  const EngineScope scope(quiet_history_);
  for (Input& input : inputs_) input.converter.reset();
  to_host_.reset();
  alignment_.reset();
  engine_.reset();
  mic_level_.reset();
  ref_level_.reset();
  out_level_.reset();
  echo_.reset();
  fill_queues();
}

// With the silence that they begin with; the converter to the stream's rate takes its share.
void SEStream::fill_queues() {
  inputs_[0].blocks.reset(mic_delay());
  inputs_[1].blocks.reset(mic_delay());
  inputs_[2].blocks.reset(0);
  out_.reset(static_cast<std::size_t>(plan_.silence));
  untouched_.reset(static_cast<std::size_t>(plan_.latency));
  const float zeros[kBlock] = {};
  for (std::int64_t left = plan_.lead_in; left > 0; left -= kBlock) {
    const auto count = static_cast<std::size_t>(std::min<std::int64_t>(left, kBlock));
    to_host_.process(zeros, count, block_at_rate_.get(), block_room_);
  }
}

void SEStream::process(const float* const* mics, const float* const* refs, float* out,
                       std::size_t frames) {
  const EngineScope scope(quiet_history_);
  for (std::size_t start = 0; start < frames; start += kPiece) {
    const std::size_t count = std::min(kPiece, frames - start);
    read_piece(mics, refs, start, count);
    while (inputs_[0].blocks.size() >= mic_delay() + kBlock) process_block();
    write_piece(out + start, count);
  }
}

// All of it is taken before anything is written, so that `out` may be an input.
void SEStream::read_piece(const float* const* mics, const float* const* refs, std::size_t start,
                          std::size_t count) {
  for (int c = 0; c < mic_channels_; ++c) read_channel(mics, c, start, count, piece_[c]);
  untouched_.push(piece_[mic_channels_ - 1], count);

  float* const ref = piece_[2];
  if (ref_channels_ > 0) read_channel(refs, 0, start, count, ref);
  if (ref_channels_ == 2) {
    float other[kPiece];
    read_channel(refs, 1, start, count, other);
    for (std::size_t i = 0; i < count; ++i) ref[i] = 0.5f * (ref[i] + other[i]);
  }

  for (int i = 0; i < kMostInputs; ++i) {
    if ((i == 1 && mic_channels_ == 1) || (i == 2 && ref_channels_ == 0)) continue;
    float at_16k[kEnginePiece];
    const std::size_t given = inputs_[i].converter.process(piece_[i], count, at_16k, kEnginePiece);
    inputs_[i].blocks.push(at_16k, given);
  }
}

void SEStream::take_settings() {
  SEStreamSettings changed;
  if (settings.read_change(settings_seen_, changed)) {
    engine_.configure(changed);
    wanted_amount_ = changed.amount;
  }
  const std::int32_t delay = delay_ms.get();
  if (delay != delay_seen_) alignment_.set_delay(delay);
  delay_seen_ = delay;
}

void SEStream::process_block() {
  take_settings();
  float mics[2 * kBlock];
  float ref[kBlock] = {};
  float out[kBlock];
  inputs_[0].blocks.pop(mics, kBlock);
  if (mic_channels_ == 2) {
    inputs_[1].blocks.pop(mics + kBlock, kBlock);
  } else {
    std::copy_n(mics, kBlock, mics + kBlock);
  }
  if (ref_channels_ > 0) {
    inputs_[2].blocks.pop(ref, kBlock);
    alignment_.process(mics + kBlock, ref);
  }
  engine_.process(mics, ref, out);

  const float mic_power = mean_square(mics + kBlock, kBlock);
  const float ref_power = mean_square(ref, kBlock);
  const float out_power = mean_square(out, kBlock);
  mic_level_.add(mic_power);
  ref_level_.add(ref_power);
  out_level_.add(out_power);
  echo_.add(mic_power, ref_power, out_power);
  const DelayEstimate estimate = alignment_.estimate();
  found_.set(estimate.found);
  found_delay_ms_.set(estimate.delay_ms);
  confidence_.set(estimate.confidence);

  const std::size_t given = to_host_.process(out, kBlock, block_at_rate_.get(), block_room_);
  out_.push(block_at_rate_.get(), given);
}

void SEStream::write_piece(float* out, std::size_t count) {
  float untouched[kPiece];
  untouched_.pop(untouched, count);
  out_.pop(out, count);
  if (amount_ == 1.0f && wanted_amount_ == 1.0f) return;
  for (std::size_t i = 0; i < count; ++i) {
    amount_ += std::clamp(wanted_amount_ - amount_, -amount_step_, amount_step_);
    out[i] = amount_ * out[i] + (1.0f - amount_) * untouched[i];
  }
}

void SEStream::get_status(SEStreamStatus* status) const {
  *status = {};
  status->mic_db = mic_level_.level_db();
  status->ref_db = ref_level_.level_db();
  status->out_db = out_level_.level_db();
  status->echo_reduction_db = echo_.reduction_db();
  status->delay_ms = found_delay_ms_.get();
  status->delay_confidence = confidence_.get();
  status->delay_found = found_.get();
}

// A stream: sound of any rate and block length through the engine's blocks of 10 ms at 16 kHz.
//
//   microphones, reference -> checked, mixed down -> 16 kHz -> blocks -> aligned -> engine
//   engine -> stream's rate -> queue -> mixed with the delayed microphone -> out
//
// Host samples pass in pieces of at most kPiece. The queues at both ends start with as much silence
// as it takes for every sample to be there when it is due (latency.h).
#pragma once

#include <cstdint>
#include <memory>

#include "stream/block_engine.h"
#include "stream/latency.h"
#include "stream/meters.h"
#include "stream/published.h"
#include "stream/rate_converter.h"
#include "stream/sample_queue.h"

struct SEStream {
 public:
  SEStream() = default;
  SEStream(const SEStream&) = delete;
  SEStream& operator=(const SEStream&) = delete;

  // False where memory is short. The arguments are within their ranges.
  bool create(int rate, int mic_channels, int ref_channels, std::int32_t delay_ms);
  void reset();
  void process(const float* const* mics, const float* const* refs, float* out, std::size_t frames);

  std::int64_t latency() const { return plan_.latency; }
  int mic_delay_ms() const { return mic_delay_ms_; }
  void get_status(SEStreamStatus* status) const;

  // What other threads set.
  se::stream::Published<SEStreamSettings> settings{se::stream::kDefaultPreset.settings};
  se::stream::Latest<std::int32_t> delay_ms{0};

 private:
  static constexpr int kBlock = SE_BLOCK_LEN;
  static constexpr std::size_t kPiece = 128;
  // The most that a piece becomes at the engine's rate.
  static constexpr std::size_t kEnginePiece = kPiece * SE_SAMPLE_RATE / SE_STREAM_MIN_RATE + 1;
  static constexpr int kMostInputs = 3;  // microphone 0, microphone 1, reference

  // One input on its way to the engine.
  struct Input {
    se::stream::RateConverter converter;
    se::stream::SampleQueue blocks;
  };

  // At the engine's rate.
  std::size_t mic_delay() const {
    return static_cast<std::size_t>(mic_delay_ms_ * se::stream::kSamplesPerMs);
  }
  void fill_queues();
  void read_piece(const float* const* mics, const float* const* refs, std::size_t start,
                  std::size_t count);
  void take_settings();
  void process_block();
  void write_piece(float* out, std::size_t count);

  int mic_channels_ = 1;
  int ref_channels_ = 0;
  int mic_delay_ms_ = 0;
  se::stream::LatencyPlan plan_ = {};
  std::uint32_t settings_seen_ = 0;
  std::int32_t delay_seen_ = 0;

  float piece_[kMostInputs][kPiece] = {};  // at the stream's rate
  Input inputs_[kMostInputs];              // of one microphone, the second one stays empty
  se::stream::ReferenceAlignment alignment_;
  se::stream::BlockEngine engine_;
  se::stream::QuietHistory quiet_history_;
  se::stream::RateConverter to_host_;
  se::stream::SampleQueue out_;
  std::unique_ptr<float[]> block_at_rate_;  // one block at the stream's rate
  std::size_t block_room_ = 0;

  se::stream::SampleQueue untouched_;  // the enhanced microphone, `latency()` samples
  float amount_ = 1.0f;                // of the enhanced sound in the last sample
  float wanted_amount_ = 1.0f;
  float amount_step_ = 1.0f;  // per sample

  se::stream::LevelMeter mic_level_, ref_level_, out_level_;
  se::stream::EchoMeter echo_;
  se::stream::Latest<std::int32_t> found_{0};
  se::stream::Latest<float> found_delay_ms_{0.0f}, confidence_{0.0f};
};

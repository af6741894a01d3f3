// The signals of one engine with the reference where the echo canceller wants it: 10 to 40 ms ahead
// of its echo, however the recordings were started.
#pragma once

#include <cstdint>
#include <optional>

#include "growing_queue.h"
#include "inputs.h"
#include "stream/reference_alignment.h"

namespace se_tool {

class AlignedInputs {
 public:
  // Looks through up to a minute for the delay, if it has to be found. Throws as Inputs does, or if
  // the tool is asked to stop meanwhile.
  explicit AlignedInputs(const Task& task);

  std::uint64_t length() const { return inputs_.length(); }
  std::uint64_t missing_bytes() const { return inputs_.missing_bytes(); }
  std::uint64_t excessive_mic_samples() const { return inputs_.excessive_mic_samples(); }
  std::uint64_t excessive_ref_samples() const { return inputs_.excessive_ref_samples(); }

  // Both microphones' blocks one after the other, and the loudspeaker's.
  void read_block(float mics[2 * SE_BLOCK_LEN], float ref[SE_BLOCK_LEN]);

  // By how much the echo lags the reference, in ms: set or found; nothing if neither.
  std::optional<double> delay_ms() const;

 private:
  void read_ahead();
  std::optional<double> look_for_delay();
  void begin_with(double delay_ms);

  Inputs inputs_;
  bool has_ref_;
  bool follows_;                // the delay, which was not given
  GrowingQueue mics_[2], ref_;  // read, but not given yet
  se::stream::ReferenceAlignment alignment_;
  double skipped_ms_ = 0;  // of the reference, which came late
  std::optional<double> first_delay_ms_;
};

}  // namespace se_tool

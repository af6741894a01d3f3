// The signals of one engine: microphones and loudspeaker.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>

#include "audio_input.h"
#include "speechenhance/speechenhance.h"
#include "task.h"

namespace se_tool {

// Reads recordings block by block, silence behind their end. A mono recording feeds both
// microphones, of a stereo one each channel feeds one. All functions throw an Error (input).
class Inputs {
 public:
  // The recordings of a task. The reference, where there is one, has to be as long as the
  // microphones' recording, of the same rate and mono.
  explicit Inputs(const Task& task);

  std::uint64_t length() const { return mic_.length(); }  // samples at 16 kHz
  std::uint64_t missing_bytes() const { return mic_.missing_bytes(); }
  std::uint64_t excessive_mic_samples() const { return mic_.excessive_samples(); }
  std::uint64_t excessive_ref_samples() const { return ref_ ? ref_->excessive_samples() : 0; }

  // Both microphones' blocks one after the other, and the loudspeaker's.
  void read_block(float mics[2 * SE_BLOCK_LEN], float ref[SE_BLOCK_LEN]);

 private:
  void check_reference() const;

  AudioInput mic_;
  std::optional<AudioInput> ref_;
  std::uint64_t position_ = 0;
};

}  // namespace se_tool

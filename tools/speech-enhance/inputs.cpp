#include "inputs.h"

#include <algorithm>

#include "errors.h"

namespace se_tool {
namespace {

constexpr std::size_t kBlock = SE_BLOCK_LEN;

}  // namespace

Inputs::Inputs(const Task& task) : mic_(task.mic, task.max_input, task.segment) {
  if (mic_.channels() > 2) {
    throw Error(ExitCode::kInput, mic_.name() + ": has " + std::to_string(mic_.channels()) +
                                      " channels, a recording of the microphones has 1 or 2");
  }
  if (task.ref.empty()) return;
  ref_.emplace(task.ref, task.max_input, task.segment);
  check_reference();
}

void Inputs::read_block(float mics[2 * kBlock], float ref[kBlock]) {
  std::fill_n(mics, 2 * kBlock, 0.0f);
  std::fill_n(ref, kBlock, 0.0f);
  const std::size_t count =
      static_cast<std::size_t>(std::min<std::uint64_t>(kBlock, length() - position_));
  position_ += count;
  if (count == 0) return;
  float frames[2 * kBlock];
  mic_.read(frames, count);
  const auto channels = static_cast<std::size_t>(mic_.channels());
  for (std::size_t i = 0; i < count; ++i) {
    mics[i] = frames[i * channels];
    mics[kBlock + i] = frames[i * channels + channels - 1];
  }
  if (ref_) ref_->read(ref, count);
}

// Both come from one device and one clock: anything else could not be cancelled anyway.
void Inputs::check_reference() const {
  const FrameSource::Format& mic = mic_.original();
  const FrameSource::Format& ref = ref_->original();
  const auto refuse = [this](const std::string& what) {
    throw Error(ExitCode::kInput, ref_->name() + ": " + what);
  };
  if (ref.channels != 1) {
    refuse("has " + std::to_string(ref.channels) + " channels, the reference must be mono");
  }
  if (ref.rate != mic.rate) {
    refuse("is at " + std::to_string(ref.rate) + " Hz but " + mic_.name() + " at " +
           std::to_string(mic.rate) + " Hz, the reference must be at the same rate");
  }
  if (ref.length != mic.length) {
    refuse("has " + std::to_string(ref.length) + " samples but " + mic_.name() + " has " +
           std::to_string(mic.length) + ", the reference must be as long");
  }
}

}  // namespace se_tool

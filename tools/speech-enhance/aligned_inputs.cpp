#include "aligned_inputs.h"

#include <algorithm>
#include <vector>

#include "errors.h"
#include "signals.h"
#include "speechenhance/delay_estimator.h"
#include "speechenhance/stream.h"

namespace se_tool {
namespace {

constexpr std::size_t kBlock = SE_BLOCK_LEN;
constexpr double kSamplesPerMs = SE_SAMPLE_RATE / 1000.0;
constexpr std::size_t kLongestLook = 60 * SE_SAMPLE_RATE;
constexpr std::size_t kMostLate = SE_STREAM_MAX_DELAY_MS * SE_SAMPLE_RATE / 1000;
// A reference that came late is put this far ahead.
constexpr double kAheadMs = 25;

class Estimator {
 public:
  Estimator() : memory_(delay_estimator_query_mem()) {
    estimator_ = delay_estimator_init(memory_.data());
  }
  std::optional<double> hear(const float* mic, const float* ref) {
    delay_estimator_process(estimator_, mic, ref);
    const DelayEstimate estimate = delay_estimator_get(estimator_);
    if (estimate.found == 0) return std::nullopt;
    return estimate.delay_ms;
  }

 private:
  std::vector<unsigned char> memory_;
  DelayEstimator* estimator_;
};

}  // namespace

AlignedInputs::AlignedInputs(const Task& task)
    : inputs_(task), has_ref_(!task.ref.empty()), follows_(has_ref_ && !task.delay_ms) {
  if (!has_ref_) return;
  if (!alignment_.create(0)) throw Error(ExitCode::kInternal, "not enough memory for the delay");
  alignment_.set_delay(task.delay_ms.value_or(SE_STREAM_DELAY_AUTO));
  if (follows_) {
    first_delay_ms_ = look_for_delay();
  } else {
    first_delay_ms_ = *task.delay_ms;
  }
  if (first_delay_ms_) begin_with(*first_delay_ms_);
}

void AlignedInputs::read_block(float mics[2 * kBlock], float ref[kBlock]) {
  while (ref_.size() < kBlock || mics_[0].size() < kBlock) read_ahead();
  for (std::size_t c = 0; c < 2; ++c) {
    std::copy_n(mics_[c].data(), kBlock, mics + c * kBlock);
    mics_[c].pop(kBlock);
  }
  std::copy_n(ref_.data(), kBlock, ref);
  ref_.pop(kBlock);
  if (has_ref_) alignment_.process(mics + kBlock, ref);
}

std::optional<double> AlignedInputs::delay_ms() const {
  if (!follows_) return first_delay_ms_;
  const DelayEstimate now = alignment_.estimate();
  return now.found != 0 ? now.delay_ms - skipped_ms_ : first_delay_ms_;
}

void AlignedInputs::read_ahead() {
  float mics[2 * kBlock];
  float ref[kBlock];
  inputs_.read_block(mics, ref);
  for (std::size_t c = 0; c < 2; ++c) mics_[c].push(mics + c * kBlock, kBlock);
  ref_.push(ref, kBlock);
}

// Of the second microphone, once as it is and once held back, where late references show.
std::optional<double> AlignedInputs::look_for_delay() {
  Estimator as_it_is, held_back;
  const std::vector<float> silence(kMostLate);
  GrowingQueue late_mic;
  late_mic.push(silence.data(), silence.size());
  const auto most = static_cast<std::size_t>(std::min<std::uint64_t>(kLongestLook, length()));
  for (std::size_t at = 0; at < most; at += kBlock) {
    throw_if_interrupted();
    read_ahead();
    const float* const mic = mics_[1].data() + at;
    const float* const ref = ref_.data() + at;
    late_mic.push(mic, kBlock);
    const std::optional<double> delay = as_it_is.hear(mic, ref);
    const std::optional<double> late = held_back.hear(late_mic.data(), ref);
    late_mic.pop(kBlock);
    if (delay) return delay;
    if (late) return *late - SE_STREAM_MAX_DELAY_MS;
  }
  return std::nullopt;
}

void AlignedInputs::begin_with(double delay_ms) {
  if (delay_ms >= 0) {
    alignment_.begin_with(static_cast<float>(delay_ms));
    return;
  }
  skipped_ms_ = kAheadMs - delay_ms;
  auto left = static_cast<std::size_t>(skipped_ms_ * kSamplesPerMs);
  while (left > 0) {
    if (ref_.size() == 0) read_ahead();
    const std::size_t step = std::min(left, ref_.size());
    ref_.pop(step);
    left -= step;
  }
}

}  // namespace se_tool

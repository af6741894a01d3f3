// Linear-phase resampling between the stream's rate and the engine's, by SpeexDSP's windowed sinc.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>

struct SpeexResamplerState_;

namespace se::stream {

class RateConverter {
 public:
  // From `in_rate` to `out_rate`, both in Hz; one that has the same rates copies. False where
  // memory is short.
  bool create(int in_rate, int out_rate);

  // Forgets all sound. The next output belongs to the next input, whatever came before.
  void reset();

  // Takes `count` samples and returns how many it gives: outputs_after() of all that it took less
  // what it gave before.
  std::size_t process(const float* in, std::size_t count, float* out, std::size_t room);

  // Output n belongs to the time of input n * in_rate / out_rate, and is there as soon as
  // `look_ahead()` inputs beyond that time are.
  std::int64_t outputs_after(std::int64_t inputs) const;

  // How many inputs it takes to get `outputs`.
  std::int64_t inputs_for(std::int64_t outputs) const;

 private:
  struct Destroy {
    void operator()(SpeexResamplerState_* state) const;
  };

  std::unique_ptr<SpeexResamplerState_, Destroy> state_;  // null if the rates are the same
  std::int64_t in_rate_ = 1;
  std::int64_t out_rate_ = 1;
  std::int64_t look_ahead_ = 0;  // inputs
};

}  // namespace se::stream

// What the engine does process-wide in its own library and per stream here: loading sets no
// floating-point mode, and every stream has a history of quiet frames of its own.
#pragma once

#include <cstdint>

#include "common/float_mode.h"

namespace se::stream {

// Ones among the last 1000 flags, which are 1 for a quiet frame. Starts with no quiet frame.
class QuietHistory {
 public:
  int add(int flag) {
    sum_ += flag - flags_[next_];
    flags_[next_] = static_cast<std::uint8_t>(flag);
    next_ = next_ + 1 == kLength ? 0 : next_ + 1;
    return sum_;
  }

 private:
  static constexpr int kLength = 1000;
  std::uint8_t flags_[kLength] = {};
  int sum_ = 0;
  int next_ = 0;
};

// While it lives, engines on this thread run in their floating-point mode and count quiet frames in
// `history`.
class EngineScope {
 public:
  explicit EngineScope(QuietHistory& history);
  ~EngineScope();
  EngineScope(const EngineScope&) = delete;
  EngineScope& operator=(const EngineScope&) = delete;

 private:
  FloatModeScope mode_;
};

}  // namespace se::stream

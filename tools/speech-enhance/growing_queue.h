// First in, first out, of any length.
#pragma once

#include <cstddef>
#include <vector>

namespace se_tool {

class GrowingQueue {
 public:
  std::size_t size() const { return samples_.size() - head_; }
  const float* data() const { return samples_.data() + head_; }
  void push(const float* samples, std::size_t count) {
    if (head_ > samples_.size() / 2) {
      samples_.erase(samples_.begin(), samples_.begin() + static_cast<std::ptrdiff_t>(head_));
      head_ = 0;
    }
    samples_.insert(samples_.end(), samples, samples + count);
  }
  void pop(std::size_t count) { head_ += count; }

 private:
  std::vector<float> samples_;
  std::size_t head_ = 0;
};

}  // namespace se_tool

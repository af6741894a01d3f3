// First in, first out, in memory that is allocated once.
#pragma once

#include <algorithm>
#include <cstddef>
#include <memory>
#include <new>

namespace se::stream {

class SampleQueue {
 public:
  // For up to `capacity` samples, at first `silence` zeros. False where memory is short.
  bool create(std::size_t capacity, std::size_t silence = 0) {
    samples_.reset(new (std::nothrow) float[capacity]);
    capacity_ = capacity;
    if (samples_ != nullptr) reset(silence);
    return samples_ != nullptr;
  }

  void reset(std::size_t silence) {
    std::fill_n(samples_.get(), capacity_, 0.0f);
    head_ = 0;
    size_ = silence;
  }

  std::size_t size() const { return size_; }

  // No more than fit.
  void push(const float* samples, std::size_t count) {
    const std::size_t tail = wrap(head_ + size_);
    const std::size_t first = std::min(count, capacity_ - tail);
    std::copy_n(samples, first, samples_.get() + tail);
    std::copy_n(samples + first, count - first, samples_.get());
    size_ += count;
  }

  // No more than there are.
  void pop(float* samples, std::size_t count) {
    const std::size_t first = std::min(count, capacity_ - head_);
    std::copy_n(samples_.get() + head_, first, samples);
    std::copy_n(samples_.get(), count - first, samples + first);
    head_ = wrap(head_ + count);
    size_ -= count;
  }

 private:
  std::size_t wrap(std::size_t position) const {
    return position < capacity_ ? position : position - capacity_;
  }

  std::unique_ptr<float[]> samples_;
  std::size_t capacity_ = 0;
  std::size_t head_ = 0;
  std::size_t size_ = 0;
};

}  // namespace se::stream

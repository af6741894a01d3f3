// Zero-filled memory of an exact size and a chosen misalignment, with guard bytes on both sides.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <vector>

class GuardedRegion {
 public:
  explicit GuardedRegion(std::size_t size, std::size_t misalignment = 0)
      : bytes_(size + 2 * kGuard + 16, kFill), size_(size) {
    const auto start = reinterpret_cast<std::uintptr_t>(bytes_.data());
    offset_ = kGuard + (16 - (start + kGuard) % 16) % 16 + misalignment % 16;
    std::fill_n(data(), size_, std::uint8_t{0});
  }

  std::uint8_t* data() { return bytes_.data() + offset_; }
  std::size_t size() const { return size_; }

  // Nothing was written around the region.
  bool intact() const {
    const auto begin = bytes_.begin() + static_cast<std::ptrdiff_t>(offset_);
    const auto end = begin + static_cast<std::ptrdiff_t>(size_);
    const auto untouched = [](std::uint8_t byte) { return byte == kFill; };
    return std::all_of(bytes_.begin(), begin, untouched) &&
           std::all_of(end, bytes_.end(), untouched);
  }

  // `count` values at `p` lie inside the region and start on a multiple of `alignment`.
  template <class T>
  bool holds(const T* p, std::size_t count, std::size_t alignment) {
    const auto first = reinterpret_cast<std::uintptr_t>(p);
    const auto base = reinterpret_cast<std::uintptr_t>(data());
    return first % alignment == 0 && first >= base && first + count * sizeof(T) <= base + size_;
  }

 private:
  static constexpr std::size_t kGuard = 64;
  static constexpr std::uint8_t kFill = 0xA5;

  std::vector<std::uint8_t> bytes_;
  std::size_t size_;
  std::size_t offset_ = 0;
};

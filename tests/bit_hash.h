// FNV-1a over the bytes of arrays, for tests that hold the bits of whole outputs.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

class BitHash {
 public:
  template <class T>
  void add(const std::vector<T>& values) {
    const auto* bytes = reinterpret_cast<const unsigned char*>(values.data());
    for (std::size_t i = 0; i < values.size() * sizeof(T); ++i) {
      hash_ = (hash_ ^ bytes[i]) * 1099511628211u;
    }
  }
  std::uint64_t value() const { return hash_; }

 private:
  std::uint64_t hash_ = 14695981039346656037u;
};

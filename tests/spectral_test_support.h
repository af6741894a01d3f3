// Shared by the tests of the transforms: memory with guards, repeatable signals, and the transform
// by its definition in double precision.
#pragma once

#include <gtest/gtest.h>

#include <cmath>
#include <complex>
#include <cstddef>
#include <cstdint>
#include <vector>

#include "speechenhance/types.h"

namespace spectral_test {

// `size` zeroed bytes at `misalignment` bytes past a 16-byte boundary, between guard bytes.
class GuardedMemory {
 public:
  explicit GuardedMemory(std::size_t size, std::size_t misalignment = 0)
      : size_(size), bytes_(size + 2 * kGuard + 32, kPattern) {
    const auto address = reinterpret_cast<std::uintptr_t>(bytes_.data()) + kGuard;
    offset_ = kGuard + (16 - address % 16) % 16 + misalignment;
    for (std::size_t i = 0; i < size; ++i) bytes_[offset_ + i] = 0;
  }

  void* get() { return bytes_.data() + offset_; }

  bool holds(const void* p) const {
    const auto* byte = static_cast<const unsigned char*>(p);
    return byte >= bytes_.data() + offset_ && byte < bytes_.data() + offset_ + size_;
  }

  bool guards_intact() const {
    for (std::size_t i = 0; i < bytes_.size(); ++i) {
      if ((i < offset_ || i >= offset_ + size_) && bytes_[i] != kPattern) return false;
    }
    return true;
  }

 private:
  static constexpr std::size_t kGuard = 64;
  static constexpr unsigned char kPattern = 0xA5;
  std::size_t size_;
  std::size_t offset_;
  std::vector<unsigned char> bytes_;
};

// Numbers in [-1, 1) that are the same on every machine.
class Noise {
 public:
  explicit Noise(std::uint32_t seed) : state_(seed) {}

  float next() {
    state_ = state_ * 1664525u + 1013904223u;
    return static_cast<float>(static_cast<std::int32_t>(state_) >> 8) / 8388608.0f;
  }

  std::vector<float> reals(int n) {
    std::vector<float> values(static_cast<std::size_t>(n));
    for (float& v : values) v = next();
    return values;
  }

  std::vector<zel_lcomplex> complexes(int n) {
    std::vector<zel_lcomplex> values(static_cast<std::size_t>(n));
    for (zel_lcomplex& v : values) v = {next(), next()};
    return values;
  }

 private:
  std::uint32_t state_;
};

using Complexes = std::vector<std::complex<double>>;

inline Complexes widen(const std::vector<zel_lcomplex>& values) {
  Complexes wide;
  for (const zel_lcomplex& v : values) wide.emplace_back(v.re, v.im);
  return wide;
}

inline Complexes widen(const std::vector<float>& values) {
  return Complexes(values.begin(), values.end());
}

// X[k] = sum x[n] e^(sign 2 pi i n k / N), for k < bins.
inline Complexes dft(const Complexes& x, std::size_t bins, double sign = -1) {
  const std::size_t n = x.size();
  Complexes roots;
  for (std::size_t i = 0; i < n; ++i) {
    roots.push_back(std::polar(
        1.0, sign * 2 * 3.14159265358979323846 * static_cast<double>(i) / static_cast<double>(n)));
  }
  Complexes spectrum(bins);
  for (std::size_t k = 0; k < bins; ++k) {
    for (std::size_t i = 0; i < n; ++i) spectrum[k] += x[i] * roots[i * k % n];
  }
  return spectrum;
}

inline double norm(const Complexes& x) {
  double sum = 0;
  for (const auto& v : x) sum += std::norm(v);
  return std::sqrt(sum);
}

inline double largest_difference(const Complexes& a, const Complexes& b) {
  EXPECT_EQ(a.size(), b.size());
  double largest = 0;
  for (std::size_t i = 0; i < a.size(); ++i) largest = std::fmax(largest, std::abs(a[i] - b[i]));
  return largest;
}

// What a published byte figure becomes on this target: it counts 4 bytes for a pointer, and every
// record grows by what its fields take more.
constexpr std::size_t grown(std::size_t published, std::size_t growth_with_8_byte_pointers) {
  return sizeof(void*) == 4 ? published : published + growth_with_8_byte_pointers;
}

// FNV-1a over the bytes of floats.
class BitHash {
 public:
  void add(const void* data, std::size_t size) {
    for (std::size_t i = 0; i < size; ++i) {
      hash_ = (hash_ ^ static_cast<const unsigned char*>(data)[i]) * 1099511628211u;
    }
  }
  template <class T>
  void add(const std::vector<T>& values) {
    add(values.data(), values.size() * sizeof(T));
  }
  std::uint64_t value() const { return hash_; }

 private:
  std::uint64_t hash_ = 14695981039346656037u;
};

}  // namespace spectral_test

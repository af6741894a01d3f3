// Random values that are the same on every machine and with every standard library.
#pragma once

#include <cstdint>
#include <vector>

#include "speechenhance/types.h"

class RandomSignal {
 public:
  explicit RandomSignal(std::uint64_t seed) : state_(seed * 2654435761u + 88172645463325252u) {}

  std::uint32_t bits() {  // xorshift64*, upper half
    state_ ^= state_ >> 12;
    state_ ^= state_ << 25;
    state_ ^= state_ >> 27;
    return static_cast<std::uint32_t>((state_ * 2685821657736338717u) >> 32);
  }
  // Uniform in [-1, 1): 24 bits, so exact in single precision.
  float uniform() { return static_cast<float>(bits() >> 8) * (1.0f / 8388608.0f) - 1.0f; }

  template <class Count>
  std::vector<float> reals(Count n, float amplitude = 1.0f) {
    std::vector<float> values(static_cast<std::size_t>(n));
    for (float& x : values) x = amplitude * uniform();
    return values;
  }
  template <class Count>
  std::vector<zel_lcomplex> complexes(Count n, float amplitude = 1.0f) {
    std::vector<zel_lcomplex> values(static_cast<std::size_t>(n));
    for (zel_lcomplex& x : values) {
      x.re = amplitude * uniform();
      x.im = amplitude * uniform();
    }
    return values;
  }

 private:
  std::uint64_t state_;
};

// The factor table of a complex transform, read as what it means (see ne10_factor).
#pragma once

#include <cstdint>

namespace se {

enum FftAlgorithm { kPowerOfTwo = 0, kGeneric = 1 };

inline constexpr int kEightFirst = 1;  // flag of ne10_factor

inline int stage_count(const std::int32_t* factors) {
  return factors[0];
}

inline int first_stride(const std::int32_t* factors) {
  return factors[1];
}

// Pairs count from 1; the transform runs them from the last, the first stage, to pair 1.
inline int radix_of(const std::int32_t* factors, int pair) {
  return factors[2 * pair];
}

// What remains of the length behind a pair: the span of its stage.
inline int span_of(const std::int32_t* factors, int pair) {
  return factors[2 * pair + 1];
}

inline int algorithm_of(const std::int32_t* factors) {
  return factors[2 * stage_count(factors) + 2];
}

}  // namespace se

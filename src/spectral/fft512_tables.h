// Constant twiddles of the 512-point real transform, as real and imaginary parts.
#pragma once

namespace se {

inline constexpr int kFft512Twiddles = 256;
inline constexpr int kFft512SuperTwiddles = 128;

// Stage twiddles of the complex transform of 256 values (radices 4, 4, 4, 4): blocks of 12, 48 and
// 192 values and 4 zeros.
extern const float kFft512TwiddleRe[kFft512Twiddles];
extern const float kFft512TwiddleIm[kFft512Twiddles];

// e^(-i pi ((i + 1) / 256 + 1/2))
extern const float kFft512SuperTwiddleRe[kFft512SuperTwiddles];
extern const float kFft512SuperTwiddleIm[kFft512SuperTwiddles];

}  // namespace se

// The one product that all kernels of the quick training step are made of: a tile of sums that
// stays in registers, fed by repeated words of the left operand and vectors of words of the right
// one. A convolution needs no copy of its input: the values under a kernel's row lie side by side.
#ifndef SE_TRAINING_PRODUCTS_H
#define SE_TRAINING_PRODUCTS_H

#include "lanes.h"

namespace {

// tile[m][n] += sum over k < depth of a[m * a_row + k * a_depth] * b[k * b_depth + n * kLanes ...].
template <class Kind, class Vector, int kRows, int kVectors>
[[gnu::always_inline]] inline void accumulate(Vector (&tile)[kRows][kVectors], const Word* a,
                                              Index a_row, Index a_depth, const Word* b,
                                              Index b_depth, Index depth) {
  for (Index k = 0; k < depth; ++k, a += a_depth, b += b_depth) {
    Ints right[kVectors];
#pragma GCC unroll 4
    for (int n = 0; n < kVectors; ++n) right[n] = load_words(b + n * kLanes);
#pragma GCC unroll 16
    for (int m = 0; m < kRows; ++m) {
      const Ints left = repeat(a[m * a_row]);
#pragma GCC unroll 4
      for (int n = 0; n < kVectors; ++n) tile[m][n] = Kind::add(tile[m][n], left, right[n]);
    }
  }
}

template <class Vector, int kRows, int kVectors>
[[gnu::always_inline]] inline void clear(Vector (&tile)[kRows][kVectors]) {
#pragma GCC unroll 16
  for (int m = 0; m < kRows; ++m)
#pragma GCC unroll 4
    for (int n = 0; n < kVectors; ++n) tile[m][n] = Vector{};
}

// Sums in memory, rows of `stride`.
template <int kRows, int kVectors>
[[gnu::always_inline]] inline void load_tile(Floats (&tile)[kRows][kVectors], const float* p,
                                             Index stride) {
#pragma GCC unroll 16
  for (int m = 0; m < kRows; ++m)
#pragma GCC unroll 4
    for (int n = 0; n < kVectors; ++n) tile[m][n] = load(p + m * stride + n * kLanes);
}
// Of each row only the first `columns`.
template <int kRows, int kVectors>
[[gnu::always_inline]] inline void store_tile(const Floats (&tile)[kRows][kVectors], float* p,
                                              Index stride, Index columns = kVectors * kLanes) {
#pragma GCC unroll 16
  for (int m = 0; m < kRows; ++m)
#pragma GCC unroll 4
    for (int n = 0; n < kVectors; ++n)
      store_some(p + m * stride + n * kLanes, tile[m][n], columns - n * kLanes);
}

inline Word word_of(const float (&values)[1]) {
  Word word;
  std::memcpy(&word, values, sizeof word);
  return word;
}
inline std::uint32_t bf16_of(float value) {
  std::uint32_t bits;
  std::memcpy(&bits, &value, sizeof bits);
  return (bits + 0x7fff + ((bits >> 16) & 1)) >> 16;
}
inline Word word_of(const float (&values)[2]) {
  return static_cast<Word>(bf16_of(values[0]) | bf16_of(values[1]) << 16);
}

// The right operand of products: `depth` x `columns` values, columns in groups of `vectors` vectors
// (the last one filled up with zeros), word after word of a group's depth.
class Packed {
 public:
  template <class At>  // At(depth, column) -> Word, of the word at `depth` and the column
  Packed(int depth, int columns, int vectors, At at)
      : depth_(depth),
        width_(vectors * kLanes),
        groups_(round_up(columns, width_) / width_),
        words_(static_cast<Index>(groups_) * depth * width_) {
    for (int c = 0; c < columns; ++c)
      for (int d = 0; d < depth; ++d)
        words_[(static_cast<Index>(c / width_) * depth + d) * width_ + c % width_] = at(d, c);
  }
  int groups() const { return groups_; }
  int width() const { return width_; }
  const Word* group(int i) const { return words_ + static_cast<Index>(i) * depth_ * width_; }

 private:
  int depth_, width_, groups_;
  Buffer<Word> words_;
};

template <class At>  // At(depth, column) -> an integer as float, depth in single values
Packed packed_integers(int depth, int columns, int vectors, At at) {
  return Packed(depth / 2, columns, vectors, [&](int d, int c) {
    const auto half = [&](int i) {
      return static_cast<std::uint32_t>(static_cast<int>(at(2 * d + i, c))) & 0xffffu;
    };
    return static_cast<Word>(half(0) | half(1) << 16);
  });
}
template <class At>
Packed packed_gradients(int depth, int columns, int vectors, At at) {
  constexpr int kValues = Gradients::kValues;
  return Packed(depth / kValues, columns, vectors, [&](int d, int c) {
    float values[kValues];
    for (int i = 0; i < kValues; ++i) values[i] = at(kValues * d + i, c);
    return word_of(values);
  });
}

}  // namespace

#endif

// Brings weights into the order that a variant's products read (PackOrder in nn_kernels.h).
#pragma once

#include <cstddef>
#include <cstring>

#include "kernels/nn_kernels.h"

namespace se {

constexpr int round_up(int n, int multiple) {
  return (n + multiple - 1) / multiple * multiple;
}

// A matrix whose rows come in `parts` of `part` columns each, filled up to whole groups one by one.
struct PackShape {
  int rows;
  int parts;
  int part;

  constexpr int packed_rows(const PackOrder& order) const { return round_up(rows, order.lanes); }
  constexpr int packed_cols(const PackOrder& order) const {
    return parts * round_up(part, order.group);
  }
  constexpr std::size_t bytes(const PackOrder& order) const {
    return static_cast<std::size_t>(packed_rows(order)) *
           static_cast<std::size_t>(packed_cols(order));
  }
};

// Packs the first parts * part columns of `m` into `weights` (shape.bytes) and the sums of its rows
// into `row_sums` (shape.packed_rows). The result points to both.
inline PackedMatrix pack(const Matrix& m, const PackShape& shape, const PackOrder& order,
                         std::int8_t* weights, std::int32_t* row_sums) {
  const PackedMatrix packed = {weights, row_sums, shape.rows, shape.parts * shape.part};
  const int part_len = round_up(shape.part, order.group);
  const int rows = shape.packed_rows(order);
  for (int r = 0; r < rows; ++r) row_sums[r] = 0;
  for (int first = 0; first < rows; first += order.panel) {
    const int end = first + order.panel < rows ? first + order.panel : rows;
    for (int col = 0; col < shape.packed_cols(order); col += order.group) {
      const int part = col / part_len;
      const int within = col - part * part_len;
      for (int r = first; r < end; ++r) {
        for (int i = within; i < within + order.group; ++i) {
          const bool filled = r >= shape.rows || i >= shape.part;
          const std::int8_t w =
              filled ? std::int8_t{0}
                     : m.weights[static_cast<std::ptrdiff_t>(r) * m.cols + part * shape.part + i];
          *weights++ = w;
          row_sums[r] += w;
        }
      }
    }
  }
  return packed;
}

// Where groups of four activations are not all zero. What leaves a layer that clamps at zero, as
// the denoiser's convolutions do, has many that are, and their weights need not be read.
struct NonZeroFours {
  int count = 0;
  std::uint16_t at[kMostPackedCols / 4];  // groups, ascending

  // Of `n` activations. A last group that is not whole counts, and all do where zeros are not to be
  // looked for.
  NonZeroFours(const std::int16_t* q, int n, bool look = true) {
    const int whole = n / 4;
    for (int i = 0; i < whole; ++i, q += 4) {
      std::uint32_t two[2];
      std::memcpy(two, q, sizeof two);
      at[count] = static_cast<std::uint16_t>(i);
      count += (two[0] | two[1]) != 0 || !look ? 1 : 0;
    }
    if (4 * whole < n) at[count++] = static_cast<std::uint16_t>(whole);
  }
};

}  // namespace se

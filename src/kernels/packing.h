// Brings weights into the order that a variant's products read (PackOrder in nn_kernels.h).
#pragma once

#include <cstddef>
#include <cstdint>
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
  constexpr int panels(const PackOrder& order) const {
    return (rows + order.panel - 1) / order.panel;
  }
  constexpr std::size_t bytes(const PackOrder& order) const {
    return static_cast<std::size_t>(packed_rows(order)) *
           static_cast<std::size_t>(packed_cols(order));
  }
};

// Whether the short sums over these columns of a row fit, in whichever order they are added up.
inline bool fits_16_bits(const std::int8_t* w, const ShortSums& sums) {
  for (int pair = 0; pair < 4; pair += 2) {  // the first or the second of every four weights
    int above = 0, below = 0;
    for (int i = pair; i < sums.columns; i += i % 2 == 0 ? 1 : 3) {
      (w[i] > 0 ? above : below) += w[i] * sums.largest;
    }
    if (above > INT16_MAX || below < INT16_MIN) return false;
  }
  return true;
}

// The bits of a panel that begins with these rows.
inline std::uint32_t fitting_columns(const Matrix& rows, const ShortSums& sums) {
  std::uint32_t fits = 0;
  for (int c = 0; (c + 1) * sums.columns <= rows.cols; ++c) {
    bool all = true;
    for (int r = 0; r < rows.rows; ++r) {
      const std::int8_t* const row = rows.weights + static_cast<std::ptrdiff_t>(r) * rows.cols;
      all = all && fits_16_bits(row + c * sums.columns, sums);
    }
    fits |= std::uint32_t{all} << c;
  }
  return fits;
}

// Where the tables of a packed matrix go.
struct PackSpace {
  std::int8_t* weights;    // shape.bytes(order)
  std::int32_t* row_sums;  // shape.packed_rows(order)
  std::uint32_t* fits;     // shape.panels(order); null: not asked for
};

// Packs the first parts * part columns of `m`. The result points to `space`.
inline PackedMatrix pack(const Matrix& m, const PackShape& shape, const PackOrder& order,
                         const ShortSums& short_sums, const PackSpace& space) {
  const int part_len = round_up(shape.part, order.group);
  const int rows = shape.packed_rows(order);
  std::int8_t* weights = space.weights;
  for (int r = 0; r < rows; ++r) space.row_sums[r] = 0;
  for (int first = 0; first < rows; first += order.panel) {
    const int end = first + order.panel < rows ? first + order.panel : rows;
    if (space.fits) {
      const int count = end < shape.rows ? end - first : shape.rows - first;
      const std::int8_t* const start = m.weights + static_cast<std::ptrdiff_t>(first) * m.cols;
      space.fits[first / order.panel] = fitting_columns({start, count, m.cols}, short_sums);
    }
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
          space.row_sums[r] += w;
        }
      }
    }
  }
  return {space.weights, space.row_sums, space.fits, shape.rows, shape.parts * shape.part};
}

// ---- Two positions of a convolution at a time ---------------------------------------------------
//
// With three taps g0, g1, g2 along frequency and the activations d0 to d3, two outputs take four
// products instead of six (Winograd's F(2, 3); Lavin and Gray, "Fast algorithms for convolutional
// neural networks", 2016), here all of them doubled, which keeps them integers:
//
//   2 y0 = 2 g0 (d0 - d2) + (g0 + g1 + g2) (d1 + d2) + (g0 - g1 + g2) (d2 - d1)
//   2 y1 = (g0 + g1 + g2) (d1 + d2) - (g0 - g1 + g2) (d2 - d1) - 2 g2 (d1 - d3)

constexpr int kPairProducts = 4;

constexpr int pair_weights(int rows, int frames, int channels) {
  return rows * kPairProducts * frames * channels;
}

// The weights of these products: row after row, within it product after product, within that frame
// after frame with all its channels. A row of `m` holds, for every frame, three taps of `channels`.
inline void pack_pairs(const Matrix& m, int frames, int channels, std::int16_t* to) {
  for (int r = 0; r < m.rows; ++r) {
    for (int product = 0; product < kPairProducts; ++product) {
      const std::int8_t* g = m.weights + static_cast<std::ptrdiff_t>(r) * m.cols;
      for (int t = 0; t < frames; ++t, g += 3 * channels) {
        for (int c = 0; c < channels; ++c) {
          const int g0 = g[c], g1 = g[c + channels], g2 = g[c + 2 * channels];
          const int weights[kPairProducts] = {2 * g0, g0 + g1 + g2, g0 - g1 + g2, 2 * g2};
          *to++ = static_cast<std::int16_t>(weights[product]);
        }
      }
    }
  }
}

// Where groups of four activations are not all zero. What leaves a layer that clamps at zero, as
// the denoiser's convolutions do, has many that are, and their weights need not be read.
struct NonZeroFours {
  int count = 0;
  bool all;                               // of them, from 0 on: `at` is not filled in
  std::uint16_t at[kMostPackedCols / 4];  // groups, ascending

  // Of `n` activations. A last group that is not whole counts, and all do where zeros are not to be
  // looked for.
  NonZeroFours(const std::int16_t* q, int n, bool look = true) : all(!look) {
    if (all) {
      count = (n + 3) / 4;
      return;
    }
    const int whole = n / 4;
    for (int i = 0; i < whole; ++i, q += 4) {
      std::uint32_t two[2];
      std::memcpy(two, q, sizeof two);
      at[count] = static_cast<std::uint16_t>(i);
      count += (two[0] | two[1]) != 0 ? 1 : 0;
    }
    if (4 * whole < n) at[count++] = static_cast<std::uint16_t>(whole);
  }
};

}  // namespace se

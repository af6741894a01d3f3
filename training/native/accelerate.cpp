#include "accelerate.h"

#include <algorithm>
#include <cstring>
#include <vector>

#include "nn/network.h"

#if defined(__AMX_BF16__) && defined(__AVX512BF16__) && defined(__linux__)

#include <immintrin.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace {

constexpr int kHidden = se::nn::kGruHidden;
constexpr int kGates = 3 * kHidden;
constexpr int kTile = 16;       // rows of a tile; columns of floats
constexpr int kTileDepth = 32;  // bf16 values of a tile's row

constexpr int round_up(int n, int to) {
  return (n + to - 1) / to * to;
}

bool request_amx() {
  constexpr long kRequestPermission = 0x1023, kTileData = 18;
  return __builtin_cpu_supports("avx512bf16") &&
         syscall(SYS_arch_prctl, kRequestPermission, kTileData) == 0;
}

struct alignas(64) TileConfig {
  std::uint8_t palette = 1, start_row = 0, reserved[14] = {};
  std::uint16_t column_bytes[16] = {};
  std::uint8_t rows[16] = {};
  TileConfig() {
    for (int i = 0; i < 8; ++i) {
      column_bytes[i] = 64;
      rows[i] = kTile;
    }
  }
};

class TileScope {
 public:
  TileScope() {
    const TileConfig config;
    _tile_loadconfig(&config);
  }
  ~TileScope() { _tile_release(); }
};

inline __m512 load_bf16(const std::uint16_t* p) {
  return _mm512_castsi512_ps(_mm512_slli_epi32(
      _mm512_cvtepu16_epi32(_mm256_loadu_si256(reinterpret_cast<const __m256i*>(p))), 16));
}
inline void store_bf16(std::uint16_t* p, __m512 x) {
  const __m256bh b = _mm512_cvtneps_pbh(x);
  std::memcpy(p, &b, sizeof b);
}

// A matrix (depth x columns) in the order that tiles want: pairs of rows interleaved, tile by tile.
class PackedMatrix {
 public:
  template <class At>  // At(row, column) -> float
  PackedMatrix(int depth, int columns, At at)
      : depth_tiles_(round_up(depth, kTileDepth) / kTileDepth),
        column_tiles_(round_up(columns, kTile) / kTile),
        values_(static_cast<std::size_t>(depth_tiles_ * column_tiles_) * 512 + 32) {
    auto address = reinterpret_cast<std::uintptr_t>(values_.data());
    base_ = values_.data() + (64 - address % 64) % 64 / 2;
    for (int d = 0; d < depth; ++d)
      for (int c = 0; c < columns; ++c) {
        const float value = at(d, c);
        std::uint32_t bits;
        std::memcpy(&bits, &value, sizeof bits);
        bits += 0x7fff + ((bits >> 16) & 1);
        tile(d / kTileDepth, c / kTile)[d % kTileDepth / 2 * 32 + c % kTile * 2 + d % 2] =
            static_cast<std::uint16_t>(bits >> 16);
      }
  }
  int depth_tiles() const { return depth_tiles_; }
  int column_tiles() const { return column_tiles_; }
  std::uint16_t* tile(int d, int c) const { return base_ + (c * depth_tiles_ + d) * 512; }

 private:
  int depth_tiles_, column_tiles_;
  std::vector<std::uint16_t> values_;
  std::uint16_t* base_;
};

// 16 rows of bf16, padded with zeros to whole tiles; `low` is what `high` leaves of the floats.
struct Rows {
  explicit Rows(int columns)
      : stride(round_up(columns, kTileDepth)),
        high(static_cast<std::size_t>(kTile * stride)),
        low(high.size()) {}
  void set(const float* values, int columns) {
    for (int r = 0; r < kTile; ++r)
      for (int c = 0; c < columns; c += 16) {
        const __mmask16 mask =
            columns - c >= 16 ? 0xffff : static_cast<__mmask16>((1 << (columns - c)) - 1);
        const __m512 x = _mm512_maskz_loadu_ps(mask, values + r * columns + c);
        store_bf16(&high[static_cast<std::size_t>(r * stride + c)], x);
        store_bf16(&low[static_cast<std::size_t>(r * stride + c)],
                   _mm512_sub_ps(x, load_bf16(&high[static_cast<std::size_t>(r * stride + c)])));
      }
  }
  int stride;
  std::vector<std::uint16_t> high, low;
};

// out (16 x column_tiles * 16) = rows * matrix, both summands where `both`; added onto out if
// `onto`.
void multiply(const Rows& a, const PackedMatrix& b, bool both, bool onto, float* out) {
  const int width = b.column_tiles() * kTile;
  int c = 0;
  for (; c + 4 <= b.column_tiles(); c += 4) {
    if (onto) {
      _tile_loadd(0, out + c * kTile, width * 4);
      _tile_loadd(1, out + (c + 1) * kTile, width * 4);
      _tile_loadd(2, out + (c + 2) * kTile, width * 4);
      _tile_loadd(3, out + (c + 3) * kTile, width * 4);
    } else {
      _tile_zero(0);
      _tile_zero(1);
      _tile_zero(2);
      _tile_zero(3);
    }
    for (int d = 0; d < b.depth_tiles(); ++d) {
      _tile_loadd(4, a.high.data() + d * kTileDepth, a.stride * 2);
      if (both) _tile_loadd(5, a.low.data() + d * kTileDepth, a.stride * 2);
      _tile_loadd(6, b.tile(d, c), 64);
      _tile_dpbf16ps(0, 4, 6);
      if (both) _tile_dpbf16ps(0, 5, 6);
      _tile_loadd(7, b.tile(d, c + 1), 64);
      _tile_dpbf16ps(1, 4, 7);
      if (both) _tile_dpbf16ps(1, 5, 7);
      _tile_loadd(6, b.tile(d, c + 2), 64);
      _tile_dpbf16ps(2, 4, 6);
      if (both) _tile_dpbf16ps(2, 5, 6);
      _tile_loadd(7, b.tile(d, c + 3), 64);
      _tile_dpbf16ps(3, 4, 7);
      if (both) _tile_dpbf16ps(3, 5, 7);
    }
    _tile_stored(0, out + c * kTile, width * 4);
    _tile_stored(1, out + (c + 1) * kTile, width * 4);
    _tile_stored(2, out + (c + 2) * kTile, width * 4);
    _tile_stored(3, out + (c + 3) * kTile, width * 4);
  }
  for (; c < b.column_tiles(); ++c) {
    if (onto)
      _tile_loadd(0, out + c * kTile, width * 4);
    else
      _tile_zero(0);
    for (int d = 0; d < b.depth_tiles(); ++d) {
      _tile_loadd(4, a.high.data() + d * kTileDepth, a.stride * 2);
      _tile_loadd(6, b.tile(d, c), 64);
      _tile_dpbf16ps(0, 4, 6);
      if (both) {
        _tile_loadd(5, a.low.data() + d * kTileDepth, a.stride * 2);
        _tile_dpbf16ps(0, 5, 6);
      }
    }
    _tile_stored(0, out + c * kTile, width * 4);
  }
}

inline __m512 exponential(__m512 x) {
  x = _mm512_mul_ps(_mm512_min_ps(_mm512_max_ps(x, _mm512_set1_ps(-80.0f)), _mm512_set1_ps(80.0f)),
                    _mm512_set1_ps(1.44269504f));
  const __m512 whole = _mm512_roundscale_ps(x, 0);
  const __m512 f = _mm512_sub_ps(x, whole);
  __m512 p = _mm512_set1_ps(1.3333558e-3f);
  p = _mm512_fmadd_ps(p, f, _mm512_set1_ps(9.6181291e-3f));
  p = _mm512_fmadd_ps(p, f, _mm512_set1_ps(5.5504109e-2f));
  p = _mm512_fmadd_ps(p, f, _mm512_set1_ps(2.4022651e-1f));
  p = _mm512_fmadd_ps(p, f, _mm512_set1_ps(6.9314718e-1f));
  p = _mm512_fmadd_ps(p, f, _mm512_set1_ps(1.0f));
  return _mm512_scalef_ps(p, whole);
}
inline __m512 sigmoid(__m512 x) {
  const __m512 one = _mm512_set1_ps(1.0f);
  return _mm512_div_ps(one, _mm512_add_ps(one, exponential(_mm512_sub_ps(_mm512_setzero_ps(), x))));
}
inline __m512 tangent(__m512 x) {
  return _mm512_fmsub_ps(_mm512_set1_ps(2.0f), sigmoid(_mm512_add_ps(x, x)), _mm512_set1_ps(1.0f));
}

constexpr int kVectors = (kHidden + 15) / 16;
inline __mmask16 mask_of(int v) {
  const int left = kHidden - 16 * v;
  return left >= 16 ? static_cast<__mmask16>(0xffff) : static_cast<__mmask16>((1 << left) - 1);
}

// One step of 16 streams. `sum_in` and `sum_rec` are the gate sums without bias, rows of `width`.
void step_forward(const float* sum_in, const float* sum_rec, int width, const float* b_ih,
                  const float* b_hh, const float* h, float* next, float* gates, float* recurrent) {
  for (int row = 0; row < kTile; ++row) {
    const float* in = sum_in + row * width;
    const float* rec = sum_rec + row * width;
    float* gate = gates + row * kGates;
    for (int v = 0; v < kVectors; ++v) {
      const int j = 16 * v;
      const __mmask16 m = mask_of(v);
      const auto sum = [&](const float* s, const float* b, int part) {
        return _mm512_add_ps(_mm512_maskz_loadu_ps(m, s + part * kHidden + j),
                             _mm512_maskz_loadu_ps(m, b + part * kHidden + j));
      };
      const __m512 r = sigmoid(_mm512_add_ps(sum(in, b_ih, 0), sum(rec, b_hh, 0)));
      const __m512 z = sigmoid(_mm512_add_ps(sum(in, b_ih, 1), sum(rec, b_hh, 1)));
      const __m512 hn = sum(rec, b_hh, 2);
      const __m512 n = tangent(_mm512_fmadd_ps(r, hn, sum(in, b_ih, 2)));
      const __m512 old = _mm512_maskz_loadu_ps(m, h + row * kHidden + j);
      __m512 value = _mm512_fmadd_ps(z, _mm512_sub_ps(old, n), n);
      value =
          _mm512_mul_ps(_mm512_roundscale_ps(_mm512_mul_ps(value, _mm512_set1_ps(se::nn::kQ11)), 0),
                        _mm512_set1_ps(1.0f / se::nn::kQ11));
      _mm512_mask_storeu_ps(next + row * kHidden + j, m, value);
      _mm512_mask_storeu_ps(gate + j, m, r);
      _mm512_mask_storeu_ps(gate + kHidden + j, m, z);
      _mm512_mask_storeu_ps(gate + 2 * kHidden + j, m, n);
      _mm512_mask_storeu_ps(recurrent + row * kHidden + j, m, hn);
    }
  }
}

// From the gradient of the new state (rows of `dh_width`, replaced by its direct share to the old
// state) to the gradients of the gate sums.
void step_backward(float* dh, int dh_width, const float* h, const float* gates,
                   const float* recurrent, Rows& rows_in, Rows& rows_rec) {
  const __m512 one = _mm512_set1_ps(1.0f);
  for (int row = 0; row < kTile; ++row) {
    const float* gate = gates + row * kGates;
    for (int v = 0; v < kVectors; ++v) {
      const int j = 16 * v;
      const __mmask16 m = mask_of(v);
      const __m512 r = _mm512_maskz_loadu_ps(m, gate + j);
      const __m512 z = _mm512_maskz_loadu_ps(m, gate + kHidden + j);
      const __m512 n = _mm512_maskz_loadu_ps(m, gate + 2 * kHidden + j);
      const __m512 d = _mm512_maskz_loadu_ps(m, dh + row * dh_width + j);
      const __m512 old = _mm512_maskz_loadu_ps(m, h + row * kHidden + j);
      const __m512 dn =
          _mm512_mul_ps(_mm512_mul_ps(d, _mm512_sub_ps(one, z)), _mm512_fnmadd_ps(n, n, one));
      const __m512 dz = _mm512_mul_ps(_mm512_mul_ps(d, _mm512_sub_ps(old, n)),
                                      _mm512_mul_ps(z, _mm512_sub_ps(one, z)));
      const __m512 dr =
          _mm512_mul_ps(_mm512_mul_ps(dn, _mm512_maskz_loadu_ps(m, recurrent + row * kHidden + j)),
                        _mm512_mul_ps(r, _mm512_sub_ps(one, r)));
      const auto put = [&](Rows& rows, int part, __m512 x) {
        const __m256bh b = _mm512_cvtneps_pbh(x);
        __m256i bits;
        std::memcpy(&bits, &b, sizeof bits);
        _mm256_mask_storeu_epi16(
            &rows.high[static_cast<std::size_t>(row * rows.stride + part * kHidden + j)], m, bits);
      };
      put(rows_in, 0, dr);
      put(rows_in, 1, dz);
      put(rows_in, 2, dn);
      put(rows_rec, 0, dr);
      put(rows_rec, 1, dz);
      put(rows_rec, 2, _mm512_mul_ps(dn, r));
      _mm512_mask_storeu_ps(dh + row * dh_width + j, m, _mm512_mul_ps(d, z));
    }
  }
}

using Index = std::ptrdiff_t;

}  // namespace

int se_training_has_amx(void) {
  static const bool available = request_amx();
  return available;
}

void se_training_gru_forward(int steps, int batch, int inputs, const float* x, const float* w_ih,
                             const float* w_hh, const float* b_ih, const float* b_hh, float* states,
                             float* gates, float* recurrent) {
  const TileScope tiles;
  for (Index g = 0; g < 2; ++g) {
    const float* wi = w_ih + g * kGates * inputs;
    const float* wh = w_hh + g * kGates * kHidden;
    const PackedMatrix in_matrix(inputs, kGates, [&](int d, int c) { return wi[c * inputs + d]; });
    const PackedMatrix rec_matrix(kHidden, kGates,
                                  [&](int d, int c) { return wh[c * kHidden + d]; });
    const int width = in_matrix.column_tiles() * kTile;
    std::vector<float> sum_in(static_cast<std::size_t>(kTile * width)), sum_rec(sum_in.size());
    Rows rows_x(inputs), rows_h(kHidden);
    for (Index t = 0; t < steps; ++t)
      for (Index b = 0; b < batch; b += kTile) {
        const Index at = (g * steps + t) * batch + b;
        const float* h = states + ((g * (steps + 1) + t) * batch + b) * kHidden;
        rows_x.set(x + at * inputs, inputs);
        rows_h.set(h, kHidden);
        multiply(rows_x, in_matrix, true, false, sum_in.data());
        multiply(rows_h, rec_matrix, true, false, sum_rec.data());
        step_forward(sum_in.data(), sum_rec.data(), width, b_ih + g * kGates, b_hh + g * kGates, h,
                     states + ((g * (steps + 1) + t + 1) * batch + b) * kHidden,
                     gates + at * kGates, recurrent + at * kHidden);
      }
  }
}

void se_training_gru_backward(int steps, int batch, int inputs, const float* grad_states,
                              const float* w_ih, const float* w_hh, const float* states,
                              const float* gates, const float* recurrent, float* grad_x,
                              std::uint16_t* grad_in, std::uint16_t* grad_rec) {
  const TileScope tiles;
  for (Index g = 0; g < 2; ++g) {
    const float* wi = w_ih + g * kGates * inputs;
    const float* wh = w_hh + g * kGates * kHidden;
    const PackedMatrix in_matrix(kGates, inputs, [&](int d, int c) { return wi[d * inputs + c]; });
    const PackedMatrix rec_matrix(kGates, kHidden,
                                  [&](int d, int c) { return wh[d * kHidden + c]; });
    const int h_width = rec_matrix.column_tiles() * kTile;
    const int x_width = in_matrix.column_tiles() * kTile;
    std::vector<float> dh(static_cast<std::size_t>(batch * h_width));
    std::vector<float> dx(static_cast<std::size_t>(kTile * x_width));
    Rows rows_in(kGates), rows_rec(kGates);
    for (Index t = steps - 1; t >= 0; --t)
      for (Index b = 0; b < batch; b += kTile) {
        const Index at = (g * steps + t) * batch + b;
        float* d = dh.data() + b * h_width;
        for (Index row = 0; row < kTile; ++row)
          for (int j = 0; j < kHidden; ++j)
            d[row * h_width + j] += grad_states[(at + row) * kHidden + j];
        step_backward(d, h_width, states + ((g * (steps + 1) + t) * batch + b) * kHidden,
                      gates + at * kGates, recurrent + at * kHidden, rows_in, rows_rec);
        multiply(rows_rec, rec_matrix, false, true, d);
        multiply(rows_in, in_matrix, false, false, dx.data());
        for (Index row = 0; row < kTile; ++row) {
          std::memcpy(grad_x + (at + row) * inputs, &dx[static_cast<std::size_t>(row * x_width)],
                      static_cast<std::size_t>(inputs) * sizeof(float));
          const auto from = static_cast<std::size_t>(row * rows_in.stride);
          std::memcpy(grad_in + (at + row) * kGates, &rows_in.high[from], kGates * 2);
          std::memcpy(grad_rec + (at + row) * kGates, &rows_rec.high[from], kGates * 2);
        }
      }
  }
}

void se_training_norm_clamp(std::int64_t rows, int size, float limit, const std::uint16_t* y,
                            const float* multiplier, const float* offset, std::uint16_t* out) {
  const __m512 zero = _mm512_setzero_ps(), top = _mm512_set1_ps(limit);
  for (std::int64_t row = 0; row < rows; ++row)
    for (int i = 0; i < size; i += 16) {
      const Index at = row * size + i;
      const __m512 pre = _mm512_fmadd_ps(load_bf16(y + at), _mm512_loadu_ps(multiplier + i),
                                         _mm512_loadu_ps(offset + i));
      store_bf16(out + at, _mm512_min_ps(_mm512_max_ps(pre, zero), top));
    }
}

void se_training_norm_clamp_backward(std::int64_t rows, int size, float limit,
                                     const std::uint16_t* y, const float* multiplier,
                                     const float* offset, const std::uint16_t* grad_out,
                                     std::uint16_t* grad_y, float* grad_multiplier,
                                     float* grad_offset) {
  const __m512 zero = _mm512_setzero_ps(), top = _mm512_set1_ps(limit);
  std::fill_n(grad_multiplier, size, 0.0f);
  std::fill_n(grad_offset, size, 0.0f);
  for (std::int64_t row = 0; row < rows; ++row)
    for (int i = 0; i < size; i += 16) {
      const Index at = row * size + i;
      const __m512 m = _mm512_loadu_ps(multiplier + i), value = load_bf16(y + at);
      const __m512 pre = _mm512_fmadd_ps(value, m, _mm512_loadu_ps(offset + i));
      const __mmask16 open =
          _mm512_cmp_ps_mask(pre, zero, _CMP_GT_OQ) & _mm512_cmp_ps_mask(pre, top, _CMP_LT_OQ);
      const __m512 grad = _mm512_maskz_mov_ps(open, load_bf16(grad_out + at));
      store_bf16(grad_y + at, _mm512_mul_ps(grad, m));
      _mm512_storeu_ps(grad_multiplier + i,
                       _mm512_fmadd_ps(grad, value, _mm512_loadu_ps(grad_multiplier + i)));
      _mm512_storeu_ps(grad_offset + i, _mm512_add_ps(grad, _mm512_loadu_ps(grad_offset + i)));
    }
}

#else

int se_training_has_amx(void) {
  return 0;
}
void se_training_gru_forward(int, int, int, const float*, const float*, const float*, const float*,
                             const float*, float*, float*, float*) {}
void se_training_gru_backward(int, int, int, const float*, const float*, const float*, const float*,
                              const float*, const float*, float*, std::uint16_t*, std::uint16_t*) {}
void se_training_norm_clamp(std::int64_t, int, float, const std::uint16_t*, const float*,
                            const float*, std::uint16_t*) {}
void se_training_norm_clamp_backward(std::int64_t, int, float, const std::uint16_t*, const float*,
                                     const float*, const std::uint16_t*, std::uint16_t*, float*,
                                     float*) {}

#endif

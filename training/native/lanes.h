// Vectors of floats and of 32-bit words for the quick training step, whose sources are compiled
// once per instruction set: AVX-512 with VNNI and BF16, or AVX2 with FMA.
//
// A word is what one lane of a product takes at a time: two int16 in forward products, and in
// backward products two bf16 where the CPU multiplies them, otherwise one float. Everything has
// internal linkage, so that no function compiled for one instruction set is linked into another.
#ifndef SE_TRAINING_LANES_H
#define SE_TRAINING_LANES_H

#include <immintrin.h>

#include <cmath>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>

namespace {

using Index = std::ptrdiff_t;
using Word = std::int32_t;

#ifdef __AVX512BF16__
constexpr int kLanes = 16;
constexpr int kTileRows = 8;  // rows of a product's tile of two or three vectors
using Floats = __m512;
using Ints = __m512i;
#else
constexpr int kLanes = 8;
constexpr int kTileRows = 4;
using Floats = __m256;
using Ints = __m256i;
#endif
using Bits = std::int32_t __attribute__((vector_size(4 * kLanes)));  // of floats

// What the compiler's vectors do on both.
inline Floats splat(float x) {
  return x - Floats{};
}
inline Ints repeat(Word x) {
  return reinterpret_cast<Ints>(x - Bits{});
}
inline Floats load(const float* p) {
  Floats x;
  std::memcpy(&x, p, sizeof x);
  return x;
}
inline void store(float* p, Floats x) {
  std::memcpy(p, &x, sizeof x);
}
inline Ints load_words(const Word* p) {
  Ints x;
  std::memcpy(&x, p, sizeof x);
  return x;
}
inline Floats to_floats(Ints x) {
  return __builtin_convertvector(reinterpret_cast<Bits>(x), Floats);
}

#ifdef __AVX512BF16__

inline __mmask16 first(Index n) {
  return n >= 16 ? static_cast<__mmask16>(0xffff) : static_cast<__mmask16>((1 << n) - 1);
}
// The first n lanes, zeros in the others.
inline Floats load_some(const float* p, Index n) {
  return _mm512_maskz_loadu_ps(first(n), p);
}
inline void store_some(float* p, Floats x, Index n) {
  if (n > 0) _mm512_mask_storeu_ps(p, first(n), x);
}
inline Floats fma(Floats a, Floats b, Floats c) {
  return _mm512_fmadd_ps(a, b, c);
}
inline Floats max(Floats a, Floats b) {
  return _mm512_max_ps(a, b);
}
inline Floats min(Floats a, Floats b) {
  return _mm512_min_ps(a, b);
}
inline Floats nearest(Floats x) {
  return _mm512_roundscale_ps(x, 0);
}
inline Floats gather(const float* p, Ints at) {
  return _mm512_i32gather_ps(at, p, 4);
}
inline Floats load_int16(const std::int16_t* p) {
  return to_floats(_mm512_cvtepi16_epi32(_mm256_loadu_si256(reinterpret_cast<const __m256i*>(p))));
}
// Rounded, at most 16 bits.
inline void store_int16(std::int16_t* p, Floats x, Index n = kLanes) {
  if (n > 0) _mm512_mask_cvtsepi32_storeu_epi16(p, first(n), _mm512_cvtps_epi32(x));
}
// x where 0 <= at <= limit, elsewhere 0.
inline Floats where_within(Floats at, Floats limit, Floats x) {
  return _mm512_maskz_mov_ps(
      _mm512_cmp_ps_mask(at, splat(0.0f), _CMP_GE_OQ) & _mm512_cmp_ps_mask(at, limit, _CMP_LE_OQ),
      x);
}

struct IntegerPairs {
  using Sum = Ints;
  static Ints add(Ints sum, Ints a, Ints b) {
    sum = _mm512_dpwssd_epi32(sum, a, b);
    asm("" : "+v"(sum));  // keeps GCC 12 from moving sums to memory and back
    return sum;
  }
};

struct Gradients {
  using Sum = Floats;
  static constexpr int kValues = 2;  // per word
  static Floats add(Floats sum, Ints a, Ints b) {
    return _mm512_dpbf16_ps(sum, reinterpret_cast<__m512bh>(a), reinterpret_cast<__m512bh>(b));
  }
  // Neighbouring values join in words.
  static void store_depth(Word* p, Floats x) {
    _mm256_storeu_si256(reinterpret_cast<__m256i*>(p),
                        reinterpret_cast<__m256i>(_mm512_cvtneps_pbh(x)));
  }
  // Rows join in words.
  static void store_rows(Word* p, const Floats (&x)[kValues]) {
    const Ints even = _mm512_cvtepu16_epi32(reinterpret_cast<__m256i>(_mm512_cvtneps_pbh(x[0])));
    const Ints odd = _mm512_cvtepu16_epi32(reinterpret_cast<__m256i>(_mm512_cvtneps_pbh(x[1])));
    _mm512_storeu_si512(p, _mm512_or_si512(even, _mm512_slli_epi32(odd, 16)));
  }
};

#else

inline Ints first(Index n) {
  return _mm256_cmpgt_epi32(_mm256_set1_epi32(static_cast<int>(n)),
                            _mm256_setr_epi32(0, 1, 2, 3, 4, 5, 6, 7));
}
inline Floats load_some(const float* p, Index n) {
  return n >= kLanes ? load(p) : _mm256_maskload_ps(p, first(n));
}
inline void store_some(float* p, Floats x, Index n) {
  if (n >= kLanes)
    store(p, x);
  else if (n > 0)
    _mm256_maskstore_ps(p, first(n), x);
}
inline Floats fma(Floats a, Floats b, Floats c) {
  return _mm256_fmadd_ps(a, b, c);
}
inline Floats max(Floats a, Floats b) {
  return _mm256_max_ps(a, b);
}
inline Floats min(Floats a, Floats b) {
  return _mm256_min_ps(a, b);
}
inline Floats nearest(Floats x) {
  return _mm256_round_ps(x, _MM_FROUND_TO_NEAREST_INT | _MM_FROUND_NO_EXC);
}
inline Floats gather(const float* p, Ints at) {
  return _mm256_i32gather_ps(p, at, 4);
}
inline Floats load_int16(const std::int16_t* p) {
  return to_floats(_mm256_cvtepi16_epi32(_mm_loadu_si128(reinterpret_cast<const __m128i*>(p))));
}
inline void store_int16(std::int16_t* p, Floats x, Index n = kLanes) {
  const Ints whole = _mm256_cvtps_epi32(x);
  if (n > 0)  // whole: the sizes of such arrays are multiples of 8
    _mm_storeu_si128(
        reinterpret_cast<__m128i*>(p),
        _mm_packs_epi32(_mm256_castsi256_si128(whole), _mm256_extracti128_si256(whole, 1)));
}
inline Floats where_within(Floats at, Floats limit, Floats x) {
  return _mm256_and_ps(x, _mm256_and_ps(_mm256_cmp_ps(at, splat(0.0f), _CMP_GE_OQ),
                                        _mm256_cmp_ps(at, limit, _CMP_LE_OQ)));
}

struct IntegerPairs {
  using Sum = Ints;
  static Ints add(Ints sum, Ints a, Ints b) {
    sum = _mm256_add_epi32(sum, _mm256_madd_epi16(a, b));
    asm("" : "+x"(sum));  // keeps GCC 12 from moving sums to memory and back
    return sum;
  }
};

struct Gradients {
  using Sum = Floats;
  static constexpr int kValues = 1;
  static Floats add(Floats sum, Ints a, Ints b) {
    return fma(_mm256_castsi256_ps(a), _mm256_castsi256_ps(b), sum);
  }
  static void store_depth(Word* p, Floats x) {
    _mm256_storeu_si256(reinterpret_cast<__m256i*>(p), _mm256_castps_si256(x));
  }
  static void store_rows(Word* p, const Floats (&x)[kValues]) { store_depth(p, x[0]); }
};

#endif

inline float sum_of(Floats x) {
  float values[kLanes], sum = 0.0f;
  store(values, x);
  for (float value : values) sum += value;
  return sum;
}

// 2^x within 2e-7 of it, for -126 < x < 127.
inline Floats exp2(Floats x) {
  const Floats whole = nearest(x), f = x - whole;
  Floats p = splat(1.5403530e-4f);
  p = fma(p, f, splat(1.3333558e-3f));
  p = fma(p, f, splat(9.6181291e-3f));
  p = fma(p, f, splat(5.5504109e-2f));
  p = fma(p, f, splat(2.4022651e-1f));
  p = fma(p, f, splat(6.9314718e-1f));
  p = fma(p, f, splat(1.0f));
  return reinterpret_cast<Floats>(reinterpret_cast<Bits>(p) +
                                  (__builtin_convertvector(whole, Bits) << 23));
}

// Of normal positive numbers, within 3e-7 or so; from the series of artanh((m - 1) / (m + 1)).
inline Floats log2(Floats x) {
  const Bits bits = reinterpret_cast<Bits>(x);
  const Bits exponent = (bits - 0x3f3504f3) >> 23;  // mantissa from sqrt(1/2) to sqrt(2)
  const Floats m = reinterpret_cast<Floats>(bits - (exponent << 23));
  const Floats q = (m - splat(1.0f)) / (m + splat(1.0f)), q2 = q * q;
  Floats p = splat(2.88539008f / 9);
  p = fma(p, q2, splat(2.88539008f / 7));
  p = fma(p, q2, splat(2.88539008f / 5));
  p = fma(p, q2, splat(2.88539008f / 3));
  p = fma(p, q2, splat(2.88539008f));
  return fma(p, q, __builtin_convertvector(exponent, Floats));
}

// x^exponent for x >= 0; what is too small for a float is 0.
inline Floats power(Floats x, float exponent) {
  const Floats tiny = splat(1e-30f);
  const Floats y = exp2(max(log2(max(x, tiny)) * splat(exponent), splat(-125.0f)));
  return where_within(tiny, x, y);
}

constexpr int round_up(int n, int to) {
  return (n + to - 1) / to * to;
}

// Zeroed memory at a cache line.
template <class T>
class Buffer {
 public:
  explicit Buffer(Index size) {
    const auto bytes = (static_cast<std::size_t>(size) * sizeof(T) + 64 + 63) / 64 * 64;
    data_ = static_cast<T*>(std::aligned_alloc(64, bytes));
    if (!data_) std::abort();
    std::memset(data_, 0, bytes);
  }
  ~Buffer() { std::free(data_); }
  Buffer(const Buffer&) = delete;
  Buffer& operator=(const Buffer&) = delete;
  operator T*() { return data_; }
  operator const T*() const { return data_; }

 private:
  T* data_;
};

}  // namespace

#endif

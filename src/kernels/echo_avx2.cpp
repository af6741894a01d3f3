// Echo subtraction for AVX2, eight bins at a time.
//
// The filters work on taps: a vector holds four complex products, of one bin with four or eight
// taps or of two bins with two, and the partial sums of several bins are brought together by
// shuffles. What follows, powers, comparisons, choices, works on bins: a vector holds one value of
// each of the eight. That a filter is cleared or copied is rare and done bin by bin. The bins that
// are left at the end of a band run in scalar code.
#include <cstring>

#include "kernels/avx2.h"
#include "kernels/echo_kernels.h"
#include "kernels/variants.h"

namespace se {
namespace {

constexpr int kGroup = 8;

// Four products of complex numbers.
__m256 products(const zel_lcomplex* ref, const zel_lcomplex* filter) {
  const __m256 r = load4(ref);
  const __m256 f = load4(filter);
  return _mm256_addsub_ps(_mm256_mul_ps(_mm256_moveldup_ps(r), f),
                          _mm256_mul_ps(_mm256_movehdup_ps(r), swapped(f)));
}

// (v[0] + v[2], v[1] + v[3]) of `a` in the low half, of `b` in the high half.
__m256 add_halves(__m256 a, __m256 b) {
  return _mm256_add_ps(_mm256_permute2f128_ps(a, b, 0x20), _mm256_permute2f128_ps(a, b, 0x31));
}

// (a[0] + a[1], b[0] + b[1], a[2] + a[3], b[2] + b[3])
__m256 add_neighbours(__m256 a, __m256 b) {
  const __m256d x = _mm256_castps_pd(a), y = _mm256_castps_pd(b);
  return _mm256_add_ps(_mm256_castpd_ps(_mm256_unpacklo_pd(x, y)),
                       _mm256_castpd_ps(_mm256_unpackhi_pd(x, y)));
}

// What the filters of four bins make of the reference.
template <int Taps>
__attribute__((always_inline)) inline __m256 echo_of_four(const zel_lcomplex* ref,
                                                          const zel_lcomplex* filter) {
  if constexpr (Taps == 2) {
    const __m256 even_first =
        add_neighbours(products(ref, filter), products(ref + 4, filter + 4));  // bins 0 2 1 3
    return in_order(even_first);
  } else {
    const auto of_bin = [&](int bin) {
      const int row = bin * Taps;
      const __m256 p = products(ref + row, filter + row);
      if constexpr (Taps == 4) return p;
      if constexpr (Taps == 8) return _mm256_add_ps(p, products(ref + row + 4, filter + row + 4));
    };
    return add_neighbours(add_halves(of_bin(0), of_bin(2)), add_halves(of_bin(1), of_bin(3)));
  }
}

// One complex number of each of eight bins.
struct Bins {
  __m256 low, high;
};

template <int Taps>
__attribute__((always_inline)) inline Bins residuals(const Bins& mic, const zel_lcomplex* ref,
                                                     const zel_lcomplex* filter) {
  return {_mm256_sub_ps(mic.low, echo_of_four<Taps>(ref, filter)),
          _mm256_sub_ps(mic.high, echo_of_four<Taps>(ref + 4 * Taps, filter + 4 * Taps))};
}

__m256 powers(const Bins& x) {
  return in_order(_mm256_hadd_ps(_mm256_mul_ps(x.low, x.low), _mm256_mul_ps(x.high, x.high)));
}

// A value per bin for both parts of the bin's number.
Bins each_twice(__m256 v) {
  return {each_twice(_mm256_castps256_ps128(v)), each_twice(_mm256_extractf128_ps(v, 1))};
}

Bins choose(__m256 condition, const Bins& yes, const Bins& no) {
  const Bins mask = each_twice(condition);
  return {_mm256_blendv_ps(no.low, yes.low, mask.low),
          _mm256_blendv_ps(no.high, yes.high, mask.high)};
}

__m256 smooth(__m256 s, __m256 smoothing, __m256 power) {
  return _mm256_add_ps(s, _mm256_mul_ps(smoothing, _mm256_sub_ps(power, s)));
}

// Clears or copies the filters of the bins that the bits name, and the smoothed powers with them.
struct Verdicts {
  __m256 adaptive_diverged, adaptive_better, stored_diverged, stored_better;
};

template <int Taps>
void carry_out(const Verdicts& v, zel_lcomplex* adaptive, zel_lcomplex* stored) {
  constexpr std::size_t kRowBytes = Taps * sizeof(zel_lcomplex);
  const int clear_adaptive = _mm256_movemask_ps(v.adaptive_diverged);
  const int keep_adaptive = _mm256_movemask_ps(v.adaptive_better);
  const int clear_stored = _mm256_movemask_ps(v.stored_diverged);
  const int keep_stored = _mm256_movemask_ps(v.stored_better);
  for (int bin = 0; bin < kGroup; ++bin, adaptive += Taps, stored += Taps) {
    const int bit = 1 << bin;
    if (clear_adaptive & bit) std::memset(adaptive, 0, kRowBytes);
    if (keep_adaptive & bit) std::memcpy(stored, adaptive, kRowBytes);
    if (clear_stored & bit) std::memset(stored, 0, kRowBytes);
    if (keep_stored & bit) std::memcpy(adaptive, stored, kRowBytes);
  }
}

// Four taps of a filter one step further; `step` holds the step of the tap's bin at every tap.
void step_four_taps(__m256 step_re, __m256 step_im, const zel_lcomplex* ref, zel_lcomplex* filter) {
  const __m256 r = load4(ref);
  const __m256 with_re = _mm256_mul_ps(step_re, r);
  const __m256 with_im = _mm256_mul_ps(step_im, swapped(r));
  // The even lanes add, the odd ones subtract; the factor 1 changes nothing.
  const __m256 step = _mm256_fmsubadd_ps(with_im, fill(1.0f), with_re);
  store4(filter, _mm256_add_ps(load4(filter), step));
}

template <int Taps>
void adapt_bin(const zel_lcomplex& step, const zel_lcomplex* ref, zel_lcomplex* filter) {
  if constexpr (Taps == 2) {
    for (int t = 0; t < 2; ++t) {
      filter[t].re += step.re * ref[t].re + step.im * ref[t].im;
      filter[t].im += step.im * ref[t].re - step.re * ref[t].im;
    }
  } else {
    const __m256 step_re = fill(step.re), step_im = fill(step.im);
    for (int t = 0; t < Taps; t += 4) step_four_taps(step_re, step_im, ref + t, filter + t);
  }
}

// One step of the filters of the bins whose bit is set in `which`.
template <int Taps>
void adapt(int which, const Bins& err, const float* ref_energy, const zel_lcomplex* ref,
           zel_lcomplex* filter) {
  const __m256 energy = _mm256_loadu_ps(ref_energy);
  const Bins gain =
      each_twice(_mm256_div_ps(fill(kStepSize), _mm256_add_ps(energy, fill(kEnergyFloor))));
  alignas(32) zel_lcomplex step[kGroup];
  store4(step, _mm256_mul_ps(gain.low, err.low));
  store4(step + 4, _mm256_mul_ps(gain.high, err.high));
  if (which != (1 << kGroup) - 1) {
    for (int bin = 0; bin < kGroup; ++bin) {
      if (which & (1 << bin)) adapt_bin<Taps>(step[bin], ref + bin * Taps, filter + bin * Taps);
    }
  } else if constexpr (Taps == 2) {
    for (int bin = 0; bin < kGroup; bin += 2) {
      const __m256d both =
          _mm256_castpd128_pd256(_mm_load_pd(reinterpret_cast<double*>(step + bin)));
      const __m256 steps = _mm256_castpd_ps(_mm256_permute4x64_pd(both, 0x50));
      step_four_taps(_mm256_moveldup_ps(steps), _mm256_movehdup_ps(steps), ref + bin * 2,
                     filter + bin * 2);
    }
  } else {
    for (int bin = 0; bin < kGroup; ++bin) {
      adapt_bin<Taps>(step[bin], ref + bin * Taps, filter + bin * Taps);
    }
  }
}

template <int Taps>
__attribute__((always_inline)) inline void subtract_group(const EchoBand& band) {
  const Bins mic = {load4(band.mic), load4(band.mic + 4)};
  const __m256 mic_power = _mm256_loadu_ps(band.mic_power);
  const __m256 smoothing = fill(band.smoothing);

  const Bins err_adaptive = residuals<Taps>(mic, band.ref, band.adaptive);
  const Bins err_stored = residuals<Taps>(mic, band.ref, band.stored);
  const __m256 adaptive_power = powers(err_adaptive);
  const __m256 stored_power = powers(err_stored);

  __m256 s_mic = smooth(_mm256_loadu_ps(band.mic_smooth), smoothing, mic_power);
  __m256 s_adaptive = smooth(_mm256_loadu_ps(band.err_adaptive), smoothing, adaptive_power);
  __m256 s_stored = smooth(_mm256_loadu_ps(band.err_stored), smoothing, stored_power);

  // The better residual, where it is below the microphone.
  const __m256 improved =
      _mm256_or_ps(greater(mic_power, adaptive_power), greater(mic_power, stored_power));
  const __m256 adaptive_wins = greater(stored_power, adaptive_power);
  const Bins out = choose(improved, choose(adaptive_wins, err_adaptive, err_stored), mic);
  const __m256 best_power = _mm256_blendv_ps(stored_power, adaptive_power, adaptive_wins);
  store4(band.mic, out.low);
  store4(band.mic + 4, out.high);
  _mm256_storeu_ps(band.mic_power, _mm256_blendv_ps(mic_power, best_power, improved));

  // Each verdict excludes the ones after it; a broken bin clears both filters and learns from the
  // microphone.
  Verdicts v;
  v.adaptive_diverged = greater(s_adaptive, _mm256_mul_ps(fill(kDiverged), s_mic));
  v.adaptive_better =
      _mm256_and_ps(greater(s_mic, _mm256_mul_ps(fill(kCancels), s_adaptive)),
                    greater(s_stored, _mm256_mul_ps(fill(kClearlyBetter), s_adaptive)));
  v.stored_diverged = greater(s_stored, _mm256_mul_ps(fill(kDiverged), s_mic));
  v.stored_better =
      _mm256_and_ps(greater(s_mic, _mm256_mul_ps(fill(kCancels), s_stored)),
                    greater(s_adaptive, _mm256_mul_ps(fill(kClearlyBetter), s_stored)));
  const __m256 broken = _mm256_cmp_ps(_mm256_add_ps(_mm256_add_ps(s_mic, s_adaptive), s_stored),
                                      fill(kBeyondAudio), _CMP_NLE_UQ);
  Bins err = err_adaptive;
  const __m256 any =
      _mm256_or_ps(_mm256_or_ps(_mm256_or_ps(v.adaptive_diverged, v.adaptive_better), broken),
                   _mm256_or_ps(v.stored_diverged, v.stored_better));
  if (_mm256_movemask_ps(any) != 0) {
    __m256 decided = v.adaptive_diverged = _mm256_or_ps(v.adaptive_diverged, broken);
    v.adaptive_better = _mm256_andnot_ps(decided, v.adaptive_better);
    decided = _mm256_or_ps(decided, v.adaptive_better);
    v.stored_diverged = _mm256_andnot_ps(decided, v.stored_diverged);
    decided = _mm256_or_ps(decided, v.stored_diverged);
    v.stored_better = _mm256_andnot_ps(decided, v.stored_better);
    v.stored_diverged = _mm256_or_ps(v.stored_diverged, broken);
    carry_out<Taps>(v, band.adaptive, band.stored);

    const __m256 new_stored = _mm256_blendv_ps(s_stored, s_adaptive, v.adaptive_better);
    s_adaptive = _mm256_blendv_ps(s_adaptive, s_stored, v.stored_better);
    s_stored = new_stored;
    const __m256 restart = _mm256_or_ps(v.adaptive_diverged, v.stored_diverged);
    s_mic = _mm256_andnot_ps(restart, s_mic);
    s_adaptive = _mm256_andnot_ps(restart, s_adaptive);
    s_stored = _mm256_andnot_ps(restart, s_stored);
    err = choose(broken, mic, choose(v.stored_better, err_stored, err_adaptive));
  }

  const __m256i hold = _mm256_cmpeq_epi32(
      _mm256_loadu_si256(reinterpret_cast<const __m256i*>(band.adapt)), _mm256_setzero_si256());
  const int which = ~_mm256_movemask_ps(_mm256_castsi256_ps(hold)) & ((1 << kGroup) - 1);
  if (which != 0) adapt<Taps>(which, err, band.ref_energy, band.ref, band.adaptive);

  _mm256_storeu_ps(band.mic_smooth, s_mic);
  _mm256_storeu_ps(band.err_adaptive, s_adaptive);
  _mm256_storeu_ps(band.err_stored, s_stored);
}

// The band without its first `bins` bins.
inline EchoBand skip(EchoBand band, int bins, int taps) {
  band.bins -= bins;
  band.ref += bins * taps;
  band.ref_energy += bins;
  band.adapt += bins;
  band.adaptive += bins * taps;
  band.stored += bins * taps;
  band.err_adaptive += bins;
  band.err_stored += bins;
  band.mic_smooth += bins;
  band.mic += bins;
  band.mic_power += bins;
  return band;
}

// Runs all whole groups. Returns what is left of the band.
template <int Taps>
EchoBand subtract_groups(const EchoBand& band) {
  int bin = 0;
  for (; bin + kGroup <= band.bins; bin += kGroup) subtract_group<Taps>(skip(band, bin, Taps));
  return skip(band, bin, Taps);
}

void subtract_8(const EchoBand& band) {
  kScalarEcho.subtract_8(subtract_groups<8>(band));
}

void subtract_4(const EchoBand& band) {
  kScalarEcho.subtract_4(subtract_groups<4>(band));
}

void subtract_2(const EchoBand& band) {
  kScalarEcho.subtract_2(subtract_groups<2>(band));
}

}  // namespace

void use_avx2(EchoKernels& k) {
  k.subtract_8 = subtract_8;
  k.subtract_4 = subtract_4;
  k.subtract_2 = subtract_2;
}

}  // namespace se

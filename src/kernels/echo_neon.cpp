// NEON echo subtraction: four neighbouring bins at a time.
//
// The taps of a bin are multiplied four at a time; the sums of four bins then go side by side into
// one vector, and everything that follows (residuals, smoothed powers, decisions) is done for the
// four at once with masks. Filters that are to be cleared or copied, which is rare, are handled one
// by one. See echo_scalar.cpp for the algorithm itself.
#include "kernels/neon.h"
#include "kernels/variants.h"

namespace se {
namespace {

using namespace neon;

inline Complex4 product(Complex4 a, Complex4 b) {
  return {vmlsq_f32(vmulq_f32(a.re, b.re), a.im, b.im),
          vmlaq_f32(vmulq_f32(a.re, b.im), a.im, b.re)};
}

inline float32x4_t power(Complex4 x) {
  return vmlaq_f32(vmulq_f32(x.re, x.re), x.im, x.im);
}

inline float32x4_t select(uint32x4_t mask, float32x4_t where_set, float32x4_t elsewhere) {
  return vbslq_f32(mask, where_set, elsewhere);
}

inline Complex4 select(uint32x4_t mask, Complex4 where_set, Complex4 elsewhere) {
  return {select(mask, where_set.re, elsewhere.re), select(mask, where_set.im, elsewhere.im)};
}

// What a filter predicts for one bin, still as two pairs to be added: the taps' products with their
// halves added down to two.
struct TwoSums {
  float32x2_t re;
  float32x2_t im;
};

inline TwoSums added_halves(Complex4 p) {
  return {vadd_f32(vget_low_f32(p.re), vget_high_f32(p.re)),
          vadd_f32(vget_low_f32(p.im), vget_high_f32(p.im))};
}

// The predictions of both filters for four bins.
struct Predictions {
  Complex4 adaptive;
  Complex4 stored;
};

inline Complex4 side_by_side(const TwoSums* bin) {
  return {vcombine_f32(vpadd_f32(bin[0].re, bin[1].re), vpadd_f32(bin[2].re, bin[3].re)),
          vcombine_f32(vpadd_f32(bin[0].im, bin[1].im), vpadd_f32(bin[2].im, bin[3].im))};
}

template <int Taps>
struct Rows;

template <>
struct Rows<8> {
  static Predictions predict(const zel_lcomplex* ref, const zel_lcomplex* adaptive,
                             const zel_lcomplex* stored) {
    TwoSums a[4], b[4];
    for (int bin = 0; bin < 4; ++bin, ref += 8, adaptive += 8, stored += 8) {
      const Complex4 newer = load4(ref);
      const Complex4 older = load4(ref + 4);
      a[bin] = added_halves(product(newer, load4(adaptive)) + product(older, load4(adaptive + 4)));
      b[bin] = added_halves(product(newer, load4(stored)) + product(older, load4(stored + 4)));
    }
    return {side_by_side(a), side_by_side(b)};
  }
};

template <>
struct Rows<4> {
  static Predictions predict(const zel_lcomplex* ref, const zel_lcomplex* adaptive,
                             const zel_lcomplex* stored) {
    TwoSums a[4], b[4];
    for (int bin = 0; bin < 4; ++bin, ref += 4, adaptive += 4, stored += 4) {
      const Complex4 frames = load4(ref);
      a[bin] = added_halves(product(frames, load4(adaptive)));
      b[bin] = added_halves(product(frames, load4(stored)));
    }
    return {side_by_side(a), side_by_side(b)};
  }
};

// With two taps a row is one quadruple, and four rows are taken apart into four bins at once.
template <>
struct Rows<2> {
  struct Pair {
    Complex4 newer;
    Complex4 older;
  };

  static Pair load(const zel_lcomplex* rows) {
    const float32x4x4_t v = vld4q_f32(floats(rows));
    return {{v.val[0], v.val[1]}, {v.val[2], v.val[3]}};
  }

  static void store(zel_lcomplex* rows, Pair p) {
    const float32x4x4_t interleaved = {{p.newer.re, p.newer.im, p.older.re, p.older.im}};
    vst4q_f32(floats(rows), interleaved);
  }

  static Predictions predict(const zel_lcomplex* ref, const zel_lcomplex* adaptive,
                             const zel_lcomplex* stored) {
    const Pair frames = load(ref);
    const Pair a = load(adaptive);
    const Pair b = load(stored);
    return {product(frames.newer, a.newer) + product(frames.older, a.older),
            product(frames.newer, b.newer) + product(frames.older, b.older)};
  }
};

// What a decision does to the filters of a bin.
enum Change : std::uint32_t {
  kKeep = 0,
  kClearAdaptive = 1,
  kStore = 2,
  kClearStored = 4,
  kRestore = 8
};

template <int Taps>
void change_filters(uint32x4_t changes, zel_lcomplex* adaptive, zel_lcomplex* stored) {
  std::uint32_t change[4];
  vst1q_u32(change, changes);
  for (int bin = 0; bin < 4; ++bin, adaptive += Taps, stored += Taps) {
    for (int t = 0; t < Taps; ++t) {
      if (change[bin] & kClearAdaptive) adaptive[t] = {0.0f, 0.0f};
      if (change[bin] & kStore) stored[t] = adaptive[t];
      if (change[bin] & kClearStored) stored[t] = {0.0f, 0.0f};
      if (change[bin] & kRestore) adaptive[t] = stored[t];
    }
  }
}

// One step of four taps of a bin. `re` and `im` hold the steps of two bins, the bin's in Lane.
template <int Lane>
inline void adapt4(float32x2_t re, float32x2_t im, const zel_lcomplex* ref, zel_lcomplex* filter) {
  const Complex4 r = load4(ref);
  const Complex4 f = load4(filter);
  const float32x4_t change_re = vmlaq_lane_f32(vmulq_lane_f32(r.re, re, Lane), r.im, im, Lane);
  const float32x4_t change_im = vmlsq_lane_f32(vmulq_lane_f32(r.re, im, Lane), r.im, re, Lane);
  store4(filter, {vaddq_f32(f.re, change_re), vaddq_f32(f.im, change_im)});
}

template <int Taps, int Lane>
inline void adapt_bin(float32x2_t re, float32x2_t im, const zel_lcomplex* ref,
                      zel_lcomplex* filter) {
  for (int t = 0; t < Taps; t += 4) adapt4<Lane>(re, im, ref + t, filter + t);
}

template <int Taps>
inline void adapt(const std::int32_t* flags, Complex4 step, const zel_lcomplex* ref,
                  zel_lcomplex* filter) {
  const float32x2_t low_re = vget_low_f32(step.re), low_im = vget_low_f32(step.im);
  const float32x2_t high_re = vget_high_f32(step.re), high_im = vget_high_f32(step.im);
  if (flags[0] != 0) adapt_bin<Taps, 0>(low_re, low_im, ref, filter);
  if (flags[1] != 0) adapt_bin<Taps, 1>(low_re, low_im, ref + Taps, filter + Taps);
  if (flags[2] != 0) adapt_bin<Taps, 0>(high_re, high_im, ref + 2 * Taps, filter + 2 * Taps);
  if (flags[3] != 0) adapt_bin<Taps, 1>(high_re, high_im, ref + 3 * Taps, filter + 3 * Taps);
}

inline Complex4 adapted(uint32x4_t adapts, Complex4 step, Complex4 ref, Complex4 filter) {
  const Complex4 moved = {
      vaddq_f32(filter.re, vmlaq_f32(vmulq_f32(step.re, ref.re), step.im, ref.im)),
      vaddq_f32(filter.im, vmlsq_f32(vmulq_f32(step.im, ref.re), step.re, ref.im))};
  return select(adapts, moved, filter);
}

template <>
inline void adapt<2>(const std::int32_t* flags, Complex4 step, const zel_lcomplex* ref,
                     zel_lcomplex* filter) {
  const int32x4_t flag = vld1q_s32(flags);
  const uint32x4_t adapts = vtstq_s32(flag, flag);
  const Rows<2>::Pair r = Rows<2>::load(ref);
  const Rows<2>::Pair f = Rows<2>::load(filter);
  Rows<2>::store(
      filter, {adapted(adapts, step, r.newer, f.newer), adapted(adapts, step, r.older, f.older)});
}

inline float32x4_t smoothed(float32x4_t s, float32x4_t share, float32x4_t x) {
  return vmlaq_f32(s, share, vsubq_f32(x, s));
}

inline uint32x4_t exceeds(float32x4_t a, float factor, float32x4_t b) {
  return greater(a, vmulq_f32(vdupq_n_f32(factor), b));
}

inline uint32x4_t marked(uint32x4_t mask, Change change) {
  return vandq_u32(mask, vdupq_n_u32(change));
}

// Four bins from `bin` on.
template <int Taps>
inline void subtract4(const EchoBand& band, int bin) {
  const zel_lcomplex* ref = band.ref + bin * Taps;
  zel_lcomplex* adaptive = band.adaptive + bin * Taps;
  zel_lcomplex* stored = band.stored + bin * Taps;
  const float32x4_t share = vdupq_n_f32(band.smoothing);

  const Predictions echo = Rows<Taps>::predict(ref, adaptive, stored);
  const Complex4 mic = load4(band.mic + bin);
  const Complex4 err_adaptive = mic - echo.adaptive;
  const Complex4 err_stored = mic - echo.stored;
  const float32x4_t mic_power = vld1q_f32(band.mic_power + bin);
  const float32x4_t adaptive_power = power(err_adaptive);
  const float32x4_t stored_power = power(err_stored);

  const uint32x4_t better =
      vorrq_u32(greater(mic_power, adaptive_power), greater(mic_power, stored_power));
  const uint32x4_t adaptive_wins = greater(stored_power, adaptive_power);
  store4(band.mic + bin, select(better, select(adaptive_wins, err_adaptive, err_stored), mic));
  vst1q_f32(band.mic_power + bin,
            select(better, select(adaptive_wins, adaptive_power, stored_power), mic_power));

  const float32x4_t s_mic = smoothed(vld1q_f32(band.mic_smooth + bin), share, mic_power);
  const float32x4_t s_adaptive =
      smoothed(vld1q_f32(band.err_adaptive + bin), share, adaptive_power);
  const float32x4_t s_stored = smoothed(vld1q_f32(band.err_stored + bin), share, stored_power);

  // The first decision that applies stands. A broken bin clears both filters and learns from the
  // microphone.
  const uint32x4_t broken = vmvnq_u32(
      at_or_above(vdupq_n_f32(kBeyondAudio), vaddq_f32(vaddq_f32(s_mic, s_adaptive), s_stored)));
  const uint32x4_t clears_adaptive = vorrq_u32(exceeds(s_adaptive, kDiverged, s_mic), broken);
  uint32x4_t decided = clears_adaptive;
  const uint32x4_t stores = vbicq_u32(vandq_u32(exceeds(s_mic, kCancels, s_adaptive),
                                                exceeds(s_stored, kClearlyBetter, s_adaptive)),
                                      decided);
  decided = vorrq_u32(decided, stores);
  const uint32x4_t clears_stored =
      vorrq_u32(vbicq_u32(exceeds(s_stored, kDiverged, s_mic), decided), broken);
  decided = vorrq_u32(decided, clears_stored);
  const uint32x4_t restores = vbicq_u32(
      vandq_u32(exceeds(s_mic, kCancels, s_stored), exceeds(s_adaptive, kClearlyBetter, s_stored)),
      decided);
  decided = vorrq_u32(decided, restores);

  const uint32x4_t clears = vorrq_u32(clears_adaptive, clears_stored);
  vst1q_f32(band.mic_smooth + bin, zero_where(clears, s_mic));
  vst1q_f32(band.err_adaptive + bin, zero_where(clears, select(restores, s_stored, s_adaptive)));
  vst1q_f32(band.err_stored + bin, zero_where(clears, select(stores, s_adaptive, s_stored)));

  if (any(decided)) {
    const uint32x4_t changes =
        vorrq_u32(vorrq_u32(marked(clears_adaptive, kClearAdaptive), marked(stores, kStore)),
                  vorrq_u32(marked(clears_stored, kClearStored), marked(restores, kRestore)));
    change_filters<Taps>(changes, adaptive, stored);
  }

  if (!any(vreinterpretq_u32_s32(vld1q_s32(band.adapt + bin)))) return;
  const float32x4_t energy = vaddq_f32(vld1q_f32(band.ref_energy + bin), vdupq_n_f32(kEnergyFloor));
  const float32x4_t gain = divide(vdupq_n_f32(kStepSize), energy);
  const Complex4 err = select(broken, mic, select(restores, err_stored, err_adaptive));
  adapt<Taps>(band.adapt + bin, {vmulq_f32(gain, err.re), vmulq_f32(gain, err.im)}, ref, adaptive);
}

// What is left of a band behind its first `done` bins.
template <int Taps>
EchoBand rest_of(const EchoBand& band, int done) {
  return {band.bins - done,          band.smoothing,           band.ref + done * Taps,
          band.ref_energy + done,    band.adapt + done,        band.adaptive + done * Taps,
          band.stored + done * Taps, band.err_adaptive + done, band.err_stored + done,
          band.mic_smooth + done,    band.mic + done,          band.mic_power + done};
}

template <int Taps>
int subtract(const EchoBand& band) {
  int bin = 0;
  for (; bin + 4 <= band.bins; bin += 4) subtract4<Taps>(band, bin);
  return bin;
}

void subtract_8(const EchoBand& band) {
  kScalarEcho.subtract_8(rest_of<8>(band, subtract<8>(band)));
}

void subtract_4(const EchoBand& band) {
  kScalarEcho.subtract_4(rest_of<4>(band, subtract<4>(band)));
}

void subtract_2(const EchoBand& band) {
  kScalarEcho.subtract_2(rest_of<2>(band, subtract<2>(band)));
}

}  // namespace

void use_neon(EchoKernels& k) {
  k.subtract_8 = subtract_8;
  k.subtract_4 = subtract_4;
  k.subtract_2 = subtract_2;
}

}  // namespace se

// Kernels of transforms, windows, power spectra and gains.
//
// Arguments come as inputs, outputs, sizes. Arrays are aligned to 4 bytes only (module buffers to
// 16); sizes may be any number >= 0 unless stated. In the element-wise kernels an output may be the
// same array as an input; in the transform kernels no arrays overlap. "Partial sums" are four: S0,
// S1, S2, S3 over the indices 0, 1, 2, 3 modulo 4, each in index order, combined as (S0 + S2) +
// (S1 + S3). What is fused is said; everything else rounds after every operation.
#pragma once

#include "speechenhance/types.h"

namespace se {

struct SpectralKernels {
  // ---- Stages of the complex transform (see butterflies.h for their exact order of operations) --

  // First stage, radix 4 or 8: for g < stride the butterfly of in[k * stride + g] goes to
  // out[g * radix + k]. In a power-of-two transform stride is 1 or a multiple of 4.
  void (*first_stage4)(const zel_lcomplex* in, zel_lcomplex* out, int stride);
  void (*first_stage8)(const zel_lcomplex* in, zel_lcomplex* out, int stride);

  // Later radix-4 stage: for g < stride and j < span the butterfly of in[(k * stride + g) * span +
  // j] times twiddles[(k - 1) * span + j] (k > 0) goes to out[(g * 4 + k) * span + j]. In a
  // power-of-two transform span is a multiple of 4, except behind a first stage of radix 2.
  void (*stage4)(const zel_lcomplex* in, const zel_lcomplex* twiddles, zel_lcomplex* out,
                 int stride, int span);

  // The same with conjugated rotations and every output multiplied by `scale` at the end.
  void (*inverse_first_stage4)(const zel_lcomplex* in, zel_lcomplex* out, int stride, float scale);
  void (*inverse_first_stage8)(const zel_lcomplex* in, zel_lcomplex* out, int stride, float scale);
  void (*inverse_stage4)(const zel_lcomplex* in, const zel_lcomplex* twiddles, zel_lcomplex* out,
                         int stride, int span, float scale);

  // ---- Real transform around a complex one of n values, n a power of two ------------------------

  // Forward: spectrum z of the samples taken in pairs -> n + 1 bins of the real signal, with
  // twiddles[k - 1] = e^(-i pi (k / n + 1/2)), k = 1 .. n / 2. For each k: P = z[k], Q =
  // conj(z[n - k]), F = P + Q, T = (P - Q) W; bin k = (F + T) / 2, bin n - k = conj(F - T) / 2.
  void (*real_from_pairs)(const zel_lcomplex* z, const zel_lcomplex* twiddles,
                          zel_lcomplex* spectrum, int n);

  // Inverse of it: the same with conj(W); bins 0 and n count with their real parts only.
  void (*pairs_from_real)(const zel_lcomplex* spectrum, const zel_lcomplex* twiddles,
                          zel_lcomplex* z, int n);

  // ---- Windows and overlap-add ------------------------------------------------------------------

  // out[i] = a[i] * b[i]
  void (*multiply)(const float* a, const float* b, float* out, int n);

  // sum[i] += frame[i] * window[i], the product rounded first.
  void (*overlap_add)(const float* frame, const float* window, float* sum, int n);

  // The same, and envelope[i] = fma(window[i], window[i], envelope[i]).
  void (*overlap_add_envelope)(const float* frame, const float* window, float* sum, float* envelope,
                               int n);

  // out[i] = a[i] / b[i], and 0 where b[i] is 0.
  void (*divide_or_zero)(const float* a, const float* b, float* out, int n);

  // ---- Spectra ----------------------------------------------------------------------------------

  // power[k] = fma(re, re, im * im)
  void (*power_spectrum)(const zel_lcomplex* spectrum, float* power, int n);

  // magnitude[k] = sqrt(fma(re, re, im * im) + bias)
  void (*magnitude)(const zel_lcomplex* spectrum, float bias, float* magnitude, int n);

  // out[k] = in[k] * gain[k] for both components.
  void (*apply_gain)(const zel_lcomplex* in, const float* gain, zel_lcomplex* out, int n);

  // spectrum[k] *= fma(first + k * direction, step, level) for both components; first + k *
  // direction is an integer below 2^24.
  void (*apply_slope)(zel_lcomplex* spectrum, float first, float direction, float step, float level,
                      int n);

  // out[k] = fma(level, open * dry[k], wet[k]) for both components: the unprocessed signal at the
  // gain of an open bin, mixed back at a level.
  void (*mix)(const zel_lcomplex* wet, const zel_lcomplex* dry, float open, float level,
              zel_lcomplex* out, int n);

  // ---- Sums -------------------------------------------------------------------------------------

  // Sum of a[i] by four partial sums.
  float (*sum)(const float* a, int n);

  // Sum of a[i] * a[i] by four partial sums, each product fused onto its sum.
  float (*sum_of_squares)(const float* a, int n);
};

extern const SpectralKernels kScalarSpectral;

}  // namespace se

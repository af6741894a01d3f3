// Complex FFT of any length: the generic mixed-radix engine.
//
// The stages of kernels/butterflies.h with radix 2, 3, 4 and 5, and 8 or any other number in the
// first one executed: what a length leaves that 2, 3 and 5 do not divide. Such a radix p is summed
// directly, p * p operations per group, in double precision (p terms would add up p rounding
// errors), with its roots of unity computed on the spot: no other stage shares them, and a plan has
// no room for them. It is the only stage that needs more than its input and output; as no stage has
// run before it, the array that it does not write is still free, so nothing is ever allocated.
#include <cmath>
#include <cstdint>
#include <utility>

#include "kernels/butterflies.h"
#include "kernels/kernels.h"
#include "spectral/factor_table.h"
#include "speechenhance/zel_fft.h"

using namespace se;

namespace {

// The first stage for a radix p without a butterfly of its own. `roots` takes p values.
template <bool kInverse>
void direct_first_stage(const zel_lcomplex* in, zel_lcomplex* out, int stride, int p,
                        zel_lcomplex* roots) {
  constexpr double kTwoPi = 6.283185307179586;
  for (int r = 0; r < p; ++r) {
    const double phase = -kTwoPi * r / p;
    roots[r] = {static_cast<float>(std::cos(phase)), static_cast<float>(std::sin(phase))};
  }
  for (int g = 0; g < stride; ++g) {
    for (int q = 0; q < p; ++q) {
      double re = in[g].re;
      double im = in[g].im;
      int r = 0;  // q * k modulo p
      for (int k = 1; k < p; ++k) {
        r = r >= p - q ? r - (p - q) : r + q;
        const zel_lcomplex leg = in[k * stride + g];
        const double c = roots[r].re;
        const double s = kInverse ? -roots[r].im : roots[r].im;
        re += c * leg.re - s * leg.im;
        im += c * leg.im + s * leg.re;
      }
      out[g * p + q] = {static_cast<float>(re), static_cast<float>(im)};
    }
  }
}

template <bool kInverse>
void run_first_stage(const zel_lcomplex* in, zel_lcomplex* out, int stride, int radix,
                     zel_lcomplex* spare) {
  const SpectralKernels& kernel = *kernels().spectral;
  switch (radix) {
    case 2:
      return first_stage<2, kInverse, false>(in, out, stride, 1.0f);
    case 3:
      return first_stage<3, kInverse, false>(in, out, stride, 1.0f);
    case 4:
      return kInverse ? kernel.inverse_first_stage4(in, out, stride, 1.0f)
                      : kernel.first_stage4(in, out, stride);
    case 5:
      return first_stage<5, kInverse, false>(in, out, stride, 1.0f);
    case 8:
      return kInverse ? kernel.inverse_first_stage8(in, out, stride, 1.0f)
                      : kernel.first_stage8(in, out, stride);
    default:
      return direct_first_stage<kInverse>(in, out, stride, radix, spare);
  }
}

template <bool kInverse>
void run_later_stage(const zel_lcomplex* in, const zel_lcomplex* twiddles, zel_lcomplex* out,
                     int stride, int radix, int span) {
  const SpectralKernels& kernel = *kernels().spectral;
  switch (radix) {
    case 2:
      return twiddle_stage<2, kInverse, false>(in, twiddles, out, stride, span, 1.0f);
    case 3:
      return twiddle_stage<3, kInverse, false>(in, twiddles, out, stride, span, 1.0f);
    case 4:
      return kInverse ? kernel.inverse_stage4(in, twiddles, out, stride, span, 1.0f)
                      : kernel.stage4(in, twiddles, out, stride, span);
    case 5:
      return twiddle_stage<5, kInverse, false>(in, twiddles, out, stride, span, 1.0f);
    default:
      return;  // the factorisation puts every other radix first
  }
}

template <bool kInverse>
void generic_engine(zel_lcomplex* out, const zel_lcomplex* in, const std::int32_t* factors,
                    const zel_lcomplex* twiddles, zel_lcomplex* work, bool is_scaled) {
  const int stages = stage_count(factors);
  const int first_radix = radix_of(factors, stages);
  int stride = first_stride(factors);
  const int nfft = first_radix * stride;

  // Stages alternate between the two arrays such that the last one writes `out`.
  zel_lcomplex* target = stages % 2 == 1 ? out : work;
  zel_lcomplex* other = stages % 2 == 1 ? work : out;
  run_first_stage<kInverse>(in, target, stride, first_radix, other);
  if (first_radix % 2 == 1) twiddles += first_radix;

  for (int pair = stages - 1; pair >= 1; --pair) {
    const int radix = radix_of(factors, pair);
    const int span = span_of(factors, pair);
    stride /= radix;
    run_later_stage<kInverse>(target, twiddles, other, stride, radix, span);
    std::swap(target, other);
    twiddles += (radix - 1) * span;
  }

  if (is_scaled) {
    const auto scale = static_cast<float>(1.0 / nfft);
    for (int i = 0; i < nfft; ++i) out[i] = out[i] * scale;
  }
}

}  // namespace

void ne10_mixed_radix_generic_butterfly_float32_impl_c(zel_lcomplex* out, const zel_lcomplex* in,
                                                       const int32_t* factors,
                                                       const zel_lcomplex* twiddles,
                                                       zel_lcomplex* work, int is_inverse,
                                                       int is_scaled) {
  if (is_inverse) {
    generic_engine<true>(out, in, factors, twiddles, work, is_scaled != 0);
  } else {
    generic_engine<false>(out, in, factors, twiddles, work, is_scaled != 0);
  }
}

void ne10_mixed_radix_generic_butterfly_float32_c_x(zel_lcomplex* out, const zel_lcomplex* in,
                                                    const int32_t* factors,
                                                    const zel_lcomplex* twiddles,
                                                    zel_lcomplex* work, int is_scaled) {
  ne10_mixed_radix_generic_butterfly_float32_impl_c(out, in, factors, twiddles, work, 0, is_scaled);
}

void ne10_mixed_radix_generic_butterfly_inverse_float32_c_x(zel_lcomplex* out,
                                                            const zel_lcomplex* in,
                                                            const int32_t* factors,
                                                            const zel_lcomplex* twiddles,
                                                            zel_lcomplex* work, int is_scaled) {
  ne10_mixed_radix_generic_butterfly_float32_impl_c(out, in, factors, twiddles, work, 1, is_scaled);
}

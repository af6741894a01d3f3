// Complex FFT, single precision: factorisation, twiddles, plans, and the power-of-two engine.
//
// Mixed radix, decimation in time, self-sorting: stages ping-pong between the output and a work
// array, so that no bit reversal is needed and every stage walks memory in order (see
// kernels/butterflies.h). Powers of two run as radix-4 stages behind a first stage of radix 4 or 8;
// 256 points take four radix-4 stages, about 34 operations per butterfly and 8,700 in all. Every
// other length runs on the generic engine (zel_ne10_fft_generic_float32.cpp).
#include <cmath>
#include <utility>

#include "kernels/butterflies.h"
#include "kernels/kernels.h"
#include "spectral/factor_table.h"
#include "spectral/fft_plans.h"

using namespace se;

namespace {

constexpr int kMaxStages = 21;

struct Step {
  int radix;
  FftAlgorithm algorithm;
};

Step next_step(int remaining, bool eight_first) {
  if (eight_first && remaining == 8) return {8, kPowerOfTwo};
  if (eight_first && remaining == 24) return {3, kGeneric};
  if (eight_first && remaining == 40) return {5, kGeneric};
  if (remaining % 4 == 0) return {4, kPowerOfTwo};
  if (remaining % 2 == 0) return {2, kPowerOfTwo};
  if (remaining % 5 == 0) return {5, kGeneric};
  if (remaining % 3 == 0) return {3, kGeneric};
  return {remaining, kGeneric};
}

struct Layout {
  c2c_plan* plan;
  std::int32_t* factors;  // the twiddles directly behind them: one buffer
};

Layout lay_out(MemoryWalk& mem, int nfft) {
  static_assert(sizeof(zel_lcomplex) == 2 * sizeof(std::int32_t), "twiddles follow the factors");
  return {mem.record<c2c_plan>(kC2cPlanSlot),
          mem.buffer<std::int32_t>(ZEL_FFT_FACTORS + 2 * count_of(nfft))};
}

template <bool kInverse>
void power_of_two_engine(zel_lcomplex* out, const zel_lcomplex* in, const std::int32_t* factors,
                         const zel_lcomplex* twiddles, zel_lcomplex* work) {
  const SpectralKernels& kernel = *kernels().spectral;
  const int stages = stage_count(factors);
  const int first_radix = radix_of(factors, stages);
  int stride = first_stride(factors);
  const float full_scale = 1.0f / static_cast<float>(first_radix * stride);
  const auto scale_of = [&](int pair) { return pair == 1 ? full_scale : 1.0f; };

  // Stages alternate between the two arrays such that the last one writes `out`.
  zel_lcomplex* target = stages % 2 == 1 ? out : work;
  zel_lcomplex* other = stages % 2 == 1 ? work : out;

  const float scale = scale_of(stages);
  switch (first_radix) {
    case 8:
      if (kInverse) kernel.inverse_first_stage8(in, target, stride, scale);
      if (!kInverse) kernel.first_stage8(in, target, stride);
      break;
    case 4:
      if (kInverse) kernel.inverse_first_stage4(in, target, stride, scale);
      if (!kInverse) kernel.first_stage4(in, target, stride);
      break;
    case 2:  // two points, or a factor table that leaves an 8 as 4 times 2
      first_stage<2, kInverse, kInverse>(in, target, stride, scale);
      break;
    default:  // a single point
      target[0] = in[0];
  }

  for (int pair = stages - 1; pair >= 1; --pair) {
    const int span = span_of(factors, pair);
    stride /= radix_of(factors, pair);
    if (kInverse) kernel.inverse_stage4(target, twiddles, other, stride, span, scale_of(pair));
    if (!kInverse) kernel.stage4(target, twiddles, other, stride, span);
    std::swap(target, other);
    twiddles += 3 * span;
  }
}

}  // namespace

int ne10_factor(int n, int32_t* factors, int flags) {
  const bool eight_first = (flags & kEightFirst) != 0;
  int stages = 0;
  int remaining = n;
  FftAlgorithm algorithm = kPowerOfTwo;
  Step step = {};
  do {
    if (stages == kMaxStages) return -1;
    step = next_step(remaining, eight_first);
    if (step.algorithm == kGeneric) algorithm = kGeneric;
    remaining /= step.radix;
    ++stages;
    factors[2 * stages] = step.radix;
    factors[2 * stages + 1] = remaining;
  } while (remaining > 1);
  factors[0] = stages;
  factors[1] = n / step.radix;
  factors[2 * stages + 2] = algorithm;
  return 0;
}

void ne10_fft_generate_twiddles_line_float32_x(zel_lcomplex* out, int mstride, int fstride,
                                               int radix, int nfft) {
  constexpr double kMinusTwoPi = -6.2831854820251465;  // rounded to single precision
  const double per_point = 1.0 / nfft;
  for (int k = 1; k < radix; ++k) {
    for (int j = 0; j < mstride; ++j) {
      const double phase = k * (per_point * (j * (fstride * kMinusTwoPi)));
      const auto rounded = static_cast<double>(static_cast<float>(phase));
      out[(k - 1) * mstride + j] = {static_cast<float>(std::cos(rounded)),
                                    static_cast<float>(std::sin(rounded))};
    }
  }
}

zel_lcomplex* ne10_fft_generate_twiddles_impl_float32_x(ne10_twiddle_line_generator line_generator,
                                                        zel_lcomplex* twiddles,
                                                        const int32_t* factors, int nfft) {
  const int stages = stage_count(factors);
  const int first_radix = radix_of(factors, stages);
  int fstride = first_stride(factors);
  if (first_radix % 2 == 1) {
    *twiddles++ = {1.0f, 0.0f};
    line_generator(twiddles, 1, fstride, first_radix, nfft);
    twiddles += first_radix - 1;
  }
  for (int pair = stages - 1; pair >= 1; --pair) {
    const int radix = radix_of(factors, pair);
    const int mstride = span_of(factors, pair);
    fstride /= radix;
    line_generator(twiddles, mstride, fstride, radix, nfft);
    twiddles += (radix - 1) * mstride;
  }
  return twiddles;
}

void ne10_fft_generate_twiddles_float32_x(zel_lcomplex* twiddles, const int32_t* factors,
                                          int nfft) {
  ne10_fft_generate_twiddles_impl_float32_x(ne10_fft_generate_twiddles_line_float32_x, twiddles,
                                            factors, nfft);
}

size_t zel_fft_c2c_float32_query_mem(int nfft) {
  return measured(lay_out, nfft);
}

size_t zel_fft_c2c_float32_query_scratch_mem(int nfft) {
  MemoryWalk scratch;
  scratch.buffer<zel_lcomplex>(count_of(nfft));
  return scratch.size();
}

c2c_plan* ne10_fft_init_c2c_float32_c_x(int nfft, void* mem, void* scratch) {
  MemoryWalk mem_walk(mem);
  MemoryWalk scratch_walk(scratch);
  const Layout layout = lay_out(mem_walk, nfft);
  c2c_plan* plan = layout.plan;
  plan->nfft = nfft;
  plan->factors = layout.factors;
  plan->twiddles = reinterpret_cast<zel_lcomplex*>(layout.factors + ZEL_FFT_FACTORS);
  plan->buffer = scratch_walk.buffer<zel_lcomplex>(count_of(nfft));
  plan->is_forward_scaled = 0;
  plan->is_backward_scaled = 1;

  if (nfft < 1) return nullptr;
  if (ne10_factor(nfft, plan->factors, kEightFirst) != 0) return nullptr;
  // The generic engine has no use for the 8 that the rule keeps for the power-of-two engine.
  if (algorithm_of(plan->factors) == kGeneric && ne10_factor(nfft, plan->factors, 0) != 0) {
    return nullptr;
  }
  ne10_fft_generate_twiddles_float32_x(plan->twiddles, plan->factors, nfft);
  return plan;
}

void ne10_fft_destroy_c2c_float32_x(c2c_plan*) {}

void ne10_fft_c2c_1d_float32_c_x(zel_lcomplex* out, const zel_lcomplex* in, c2c_plan* plan,
                                 int inverse) {
  switch (algorithm_of(plan->factors)) {
    case kPowerOfTwo:
      if (inverse) {
        ne10_mixed_radix_butterfly_inverse_float32_c(out, in, plan->factors, plan->twiddles,
                                                     plan->buffer);
      } else {
        ne10_mixed_radix_butterfly_float32_c(out, in, plan->factors, plan->twiddles, plan->buffer);
      }
      break;
    case kGeneric:
      ne10_mixed_radix_generic_butterfly_float32_impl_c(
          out, in, plan->factors, plan->twiddles, plan->buffer, inverse,
          inverse ? plan->is_backward_scaled : plan->is_forward_scaled);
      break;
    default:
      break;
  }
}

void ne10_mixed_radix_butterfly_float32_c(zel_lcomplex* out, const zel_lcomplex* in,
                                          const int32_t* factors, const zel_lcomplex* twiddles,
                                          zel_lcomplex* work) {
  power_of_two_engine<false>(out, in, factors, twiddles, work);
}

void ne10_mixed_radix_butterfly_inverse_float32_c(zel_lcomplex* out, const zel_lcomplex* in,
                                                  const int32_t* factors,
                                                  const zel_lcomplex* twiddles,
                                                  zel_lcomplex* work) {
  power_of_two_engine<true>(out, in, factors, twiddles, work);
}

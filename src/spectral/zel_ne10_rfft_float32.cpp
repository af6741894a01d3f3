// Real FFT, single precision: N samples to N/2 + 1 bins and back.
//
// N real samples, taken in pairs as N/2 complex ones, go through a complex transform of half the
// length; one more pass separates the spectra of the even and the odd samples and puts them
// together (Sorensen et al. 1987). Powers of two run that pass in place of mirrored pairs of bins;
// other even lengths use two coefficient tables, one product per bin and table. A 512-point
// transform costs 8,700 operations for its 256 complex points and 2,300 for the pass.
#include <cmath>
#include <cstring>

#include "kernels/butterflies.h"
#include "kernels/kernels.h"
#include "spectral/factor_table.h"
#include "spectral/fft512_tables.h"
#include "spectral/fft_plans.h"

using namespace se;

#ifndef PI
const float PI = 3.14159274f;
#endif

namespace {

// By this rule 0 counts as a power of two, too.
bool is_power_of_two(int n) {
  return n >= 0 && (n & (n - 1)) == 0;
}

const zel_lcomplex* as_pairs(const float* samples) {
  return reinterpret_cast<const zel_lcomplex*>(samples);
}

zel_lcomplex* as_pairs(float* samples) {
  return reinterpret_cast<zel_lcomplex*>(samples);
}

struct Pow2Layout {
  r2c_plan* plan;
  std::int32_t* factors;  // both twiddle tables directly behind them: one buffer
};

Pow2Layout lay_out_pow2(MemoryWalk& mem, int n) {
  const std::size_t ncfft = count_of(n) / 2;
  return {mem.record<r2c_plan>(kR2cPlanSlot),
          mem.buffer<std::int32_t>(ZEL_FFT_FACTORS + 2 * (ncfft + ncfft / 2))};
}

struct GeneralLayout {
  real_plan* plan;
  void* complex_plan;
  zel_lcomplex* coefficients;  // a, then b
};

GeneralLayout lay_out_general(MemoryWalk& mem, int n) {
  const std::size_t half = count_of(n) / 2;
  return {mem.record<real_plan>(kRealPlanSlot),
          mem.nested(zel_fft_c2c_float32_query_mem(static_cast<int>(half))),
          mem.buffer<zel_lcomplex>(2 * half)};
}

struct GeneralScratch {
  void* complex_plan;
  zel_lcomplex* work;  // in, then out
};

GeneralScratch lay_out_general_scratch(MemoryWalk& scratch, int n) {
  const std::size_t half = count_of(n) / 2;
  return {scratch.nested(zel_fft_c2c_float32_query_scratch_mem(static_cast<int>(half))),
          scratch.buffer<zel_lcomplex>(2 * half + 1)};
}

struct HandleLayout {
  r2c_handle* handle;
  void* plan;
};

HandleLayout lay_out_handle(MemoryWalk& mem, int n) {
  return {mem.record<r2c_handle>(kR2cHandleSlot),
          mem.nested(is_power_of_two(n) ? zel_fft_r2c_float32_query_mem(n)
                                        : zel_fft_real_float32_query_mem(n))};
}

void interleave(const float* re, const float* im, int n, zel_lcomplex* out) {
  for (int i = 0; i < n; ++i) out[i] = {re[i], im[i]};
}

void fill_pow2_tables(r2c_plan* plan) {
  if (plan->ncfft == 256) {
    interleave(kFft512TwiddleRe, kFft512TwiddleIm, kFft512Twiddles, plan->twiddles);
    interleave(kFft512SuperTwiddleRe, kFft512SuperTwiddleIm, kFft512SuperTwiddles,
               plan->super_twiddles);
    return;
  }
  constexpr double kPi = 3.141592653589793;
  ne10_fft_generate_twiddles_float32_x(plan->twiddles, plan->factors, plan->ncfft);
  for (int i = 0; i < plan->ncfft / 2; ++i) {
    const double phase = -kPi * ((i + 1.0) / plan->ncfft + 0.5);
    plan->super_twiddles[i] = {static_cast<float>(std::cos(phase)),
                               static_cast<float>(std::sin(phase))};
  }
}

void fill_general_tables(real_plan* plan) {
  const int half = plan->plan->nfft;
  const float step = 3.1415927f / static_cast<float>(half);
  plan->coef_a[0] = {0.5f, -0.5f};
  plan->coef_b[0] = {0.5f, 0.5f};
  for (int k = 1; k < half; ++k) {
    // Through double precision: the result rounds the same with every mathematics library.
    const auto theta = static_cast<double>(static_cast<float>(k) * step);
    const auto s = static_cast<float>(std::sin(theta));
    const auto c = static_cast<float>(std::cos(theta));
    plan->coef_a[k] = {(1.0f - s) * 0.5f, -0.5f * c};
    plan->coef_b[k] = {0.5f + 0.5f * s, 0.5f * c};
  }
}

}  // namespace

// ---- Powers of two --------------------------------------------------------------------------

size_t zel_fft_r2c_float32_query_mem(int N) {
  return measured(lay_out_pow2, N);
}

size_t zel_fft_r2c_float32_query_scratch_mem(int N) {
  MemoryWalk scratch;
  scratch.buffer<zel_lcomplex>(count_of(N));
  return scratch.size();
}

r2c_plan* ne10_fft_r2c_init_float32_x(int N, void* mem, void* scratch) {
  if (N < 2 || !is_power_of_two(N)) return nullptr;
  MemoryWalk mem_walk(mem);
  MemoryWalk scratch_walk(scratch);
  const Pow2Layout layout = lay_out_pow2(mem_walk, N);
  r2c_plan* plan = layout.plan;
  plan->buffer = scratch_walk.buffer<zel_lcomplex>(count_of(N));
  plan->ncfft = N / 2;
  plan->factors = layout.factors;
  plan->twiddles = reinterpret_cast<zel_lcomplex*>(layout.factors + ZEL_FFT_FACTORS);
  plan->super_twiddles = plan->twiddles + plan->ncfft;
  if (ne10_factor(plan->ncfft, plan->factors, kEightFirst) != 0) return nullptr;
  fill_pow2_tables(plan);
  return plan;
}

void zel_fft_r2c_float32(zel_lcomplex* spectrum_out, const float* signal_in, r2c_handle* handle) {
  if (!handle->is_pow2) {
    zel_fft_real_by_cplx_float32(spectrum_out, signal_in, handle->general_plan);
    return;
  }
  const r2c_plan* plan = handle->pow2_plan;
  if (plan == nullptr) return;
  ne10_mixed_radix_butterfly_float32_c(plan->buffer, as_pairs(signal_in), plan->factors,
                                       plan->twiddles, spectrum_out);
  kernels().spectral->real_from_pairs(plan->buffer, plan->super_twiddles, spectrum_out,
                                      plan->ncfft);
}

void zel_ifft_c2r_float32(float* signal_out, const zel_lcomplex* spectrum_in, r2c_handle* handle) {
  if (!handle->is_pow2) {
    zel_ifft_real_by_cplx_float32(signal_out, spectrum_in, handle->general_plan);
    return;
  }
  const r2c_plan* plan = handle->pow2_plan;
  if (plan == nullptr) return;
  kernels().spectral->pairs_from_real(spectrum_in, plan->super_twiddles, plan->buffer, plan->ncfft);
  ne10_mixed_radix_butterfly_inverse_float32_c(as_pairs(signal_out), plan->buffer, plan->factors,
                                               plan->twiddles, plan->buffer + plan->ncfft);
}

// ---- Other lengths --------------------------------------------------------------------------

size_t zel_fft_real_float32_query_mem(int N) {
  return measured(lay_out_general, N);
}

size_t zel_fft_real_float32_query_scratch_mem(int N) {
  return measured(lay_out_general_scratch, N);
}

real_plan* zel_fft_real_float32_init(int N, void* mem, void* scratch) {
  MemoryWalk mem_walk(mem);
  MemoryWalk scratch_walk(scratch);
  const GeneralLayout layout = lay_out_general(mem_walk, N);
  const GeneralScratch scratch_layout = lay_out_general_scratch(scratch_walk, N);
  const int half = N > 0 ? N / 2 : 0;
  real_plan* plan = layout.plan;
  *plan = {};
  plan->plan =
      ne10_fft_init_c2c_float32_c_x(half, layout.complex_plan, scratch_layout.complex_plan);
  if (plan->plan == nullptr) return plan;
  plan->coef_a = layout.coefficients;
  plan->coef_b = layout.coefficients + half;
  plan->work_in = scratch_layout.work;
  plan->work_out = scratch_layout.work + half;
  fill_general_tables(plan);
  return plan;
}

void zel_fft_real_by_cplx_float32(zel_lcomplex* spectrum_out, const float* signal_in,
                                  real_plan* plan) {
  if (plan->plan == nullptr) return;
  const int half = plan->plan->nfft;
  zel_lcomplex* z = plan->work_out;
  std::memcpy(plan->work_in, signal_in, count_of(half) * sizeof(zel_lcomplex));
  ne10_fft_c2c_1d_float32_c_x(z, plan->work_in, plan->plan, 0);
  z[half] = z[0];
  for (int k = 0; k < half; ++k) {
    spectrum_out[k] = z[k] * plan->coef_a[k] + conjugate(z[half - k]) * plan->coef_b[k];
  }
  spectrum_out[half] = {z[0].re - z[0].im, 0.0f};
}

void zel_ifft_real_by_cplx_float32(float* signal_out, const zel_lcomplex* spectrum_in,
                                   real_plan* plan) {
  if (plan->plan == nullptr) return;
  const int half = plan->plan->nfft;
  zel_lcomplex* x = plan->work_out;
  std::memcpy(x, spectrum_in, (count_of(half) + 1) * sizeof(zel_lcomplex));
  for (int k = 0; k < half; ++k) {
    plan->work_in[k] = x[k] * conjugate(plan->coef_a[k]) + conjugate(x[half - k] * plan->coef_b[k]);
  }
  ne10_fft_c2c_1d_float32_c_x(x, plan->work_in, plan->plan, 1);
  std::memcpy(signal_out, x, count_of(half) * sizeof(zel_lcomplex));
}

void zel_fft_destroy_real_float32(real_plan*) {}

// ---- The handle over both -------------------------------------------------------------------

size_t zel_fft_r2c_u_float32_query_mem(int N) {
  return measured(lay_out_handle, N);
}

size_t zel_fft_r2c_u_float32_query_scratch_mem(int N) {
  return is_power_of_two(N) ? zel_fft_r2c_float32_query_scratch_mem(N)
                            : zel_fft_real_float32_query_scratch_mem(N);
}

r2c_handle* zel_fft_r2c_init_float32(int N, void* mem, void* scratch) {
  MemoryWalk walk(mem);
  const HandleLayout layout = lay_out_handle(walk, N);
  r2c_handle* handle = layout.handle;
  *handle = {};
  handle->is_pow2 = is_power_of_two(N) ? 1 : 0;
  if (handle->is_pow2) {
    handle->pow2_plan = ne10_fft_r2c_init_float32_x(N, layout.plan, scratch);
  } else {
    handle->general_plan = zel_fft_real_float32_init(N, layout.plan, scratch);
  }
  return handle;
}

void zel_fft_destroy_r2c_float32(r2c_handle* handle) {
  if (handle != nullptr && !handle->is_pow2) zel_fft_destroy_real_float32(handle->general_plan);
}

size_t zel_fft_r2c_query_mem_api(int N) {
  return zel_fft_r2c_u_float32_query_mem(N);
}

size_t zel_fft_r2c_query_scratch_mem_api(int N) {
  return zel_fft_r2c_u_float32_query_scratch_mem(N);
}

r2c_handle* zel_fft_init_r2c(int N, void* mem, void* scratch) {
  return zel_fft_r2c_init_float32(N, mem, scratch);
}

void zel_CLfftL(r2c_handle* handle, zel_lcomplex* spectrum_out, const float* signal_in) {
  zel_fft_r2c_float32(spectrum_out, signal_in, handle);
}

void zel_LifftCL(r2c_handle* handle, float* signal_out, const zel_lcomplex* spectrum_in) {
  zel_ifft_c2r_float32(signal_out, spectrum_in, handle);
}

void zel_fft_destroy_r2c(r2c_handle* handle) {
  zel_fft_destroy_r2c_float32(handle);
}

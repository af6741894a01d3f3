/* Single-precision Fourier transforms: complex of any length, real of any even length.
 *
 * Conventions shared by all of them: the forward transform is X[k] = sum x[n] e^(-2 pi i n k / N),
 * unscaled; the inverse is scaled by 1/N, so that forward then inverse returns the input to
 * single-precision rounding. Results are the same bits on every machine (plain multiplications and
 * additions in a fixed order).
 *
 * Nothing here allocates. A plan lives in memory of the caller, of any alignment, sized by the
 * *_query_mem function, and uses scratch memory sized by *_query_scratch_mem (any alignment) during
 * each transform; it needs no teardown, the destroy functions release nothing and accept null.
 * Scratch may be shared with anything that does not run at the same time. A plan serves one thread
 * at a time; different plans with different scratch are independent. Arguments are not checked;
 * pointers must not be null unless a function says so. Query functions take a negative length as 0.
 *
 * Most users want the real transform: zel_fft_init_r2c, zel_CLfftL, zel_LifftCL. */
#ifndef SPEECHENHANCE_ZEL_FFT_H
#define SPEECHENHANCE_ZEL_FFT_H

#include <stddef.h>
#include <stdint.h>

#include "speechenhance/export.h"
#include "speechenhance/types.h"

SE_BEGIN_C

/* pi in single precision. A macro of that name that the host defined before takes its place. */
#ifndef PI
extern SE_API const float PI;
#endif

/* ---- Real transform ------------------------------------------------------------------------- */

/* A planned real transform of N samples. */
typedef struct r2c_handle r2c_handle;

/* Bytes of memory and of scratch for N samples (3381 + record growth on 64-bit targets, and 4111,
 * for N = 512). */
SE_API size_t zel_fft_r2c_query_mem_api(int N);
SE_API size_t zel_fft_r2c_query_scratch_mem_api(int N);

/* Plans a real transform of N samples in `mem` with `scratch`. Returns the handle, which lies in
 * `mem`; never null.
 *
 * N is even and at least 2. Powers of two are the fast path, and N = 512 (the engine's) takes its
 * twiddles from constant tables of six decimals, every other length from the formulas in full
 * single precision. An odd N >= 3 transforms the first N - 1 samples: the spectrum has the
 * (N - 1) / 2 + 1 bins of that even length, and the inverse writes N - 1 samples and leaves the
 * last one alone. With N < 2 there is nothing to transform: the handle is valid, and the transforms
 * on it touch no memory. */
SE_API r2c_handle* zel_fft_init_r2c(int N, void* mem, void* scratch);

/* Forward: N samples to N/2 + 1 bins; the imaginary parts of bin 0 and bin N/2 are 0.
 * `signal_in` is only read, `spectrum_out` serves as work space meanwhile; they do not overlap. */
SE_API void zel_CLfftL(r2c_handle* handle, zel_lcomplex* spectrum_out, const float* signal_in);

/* Inverse: N/2 + 1 bins to N samples, scaled by 1/N. `spectrum_in` is only read; no overlap.
 * Bins 0 and N/2 of a real signal have no imaginary part: on power-of-two lengths it is not read,
 * for other lengths it must be 0. */
SE_API void zel_LifftCL(r2c_handle* handle, float* signal_out, const zel_lcomplex* spectrum_in);

SE_API void zel_fft_destroy_r2c(r2c_handle* handle);

/* The layer below: the same operations with the arguments in another order, and the two paths
 * behind the handle on their own. */
SE_API size_t zel_fft_r2c_u_float32_query_mem(int N);
SE_API size_t zel_fft_r2c_u_float32_query_scratch_mem(int N);
SE_API r2c_handle* zel_fft_r2c_init_float32(int N, void* mem, void* scratch);
SE_API void zel_fft_r2c_float32(zel_lcomplex* spectrum_out, const float* signal_in,
                                r2c_handle* handle);
SE_API void zel_ifft_c2r_float32(float* signal_out, const zel_lcomplex* spectrum_in,
                                 r2c_handle* handle);
SE_API void zel_fft_destroy_r2c_float32(r2c_handle* handle);

/* Path for powers of two: its plan alone. Returns null when N is not a power of two of at least
 * 2. */
typedef struct r2c_plan r2c_plan;
SE_API size_t zel_fft_r2c_float32_query_mem(int N);
SE_API size_t zel_fft_r2c_float32_query_scratch_mem(int N);
SE_API r2c_plan* ne10_fft_r2c_init_float32_x(int N, void* mem, void* scratch);

/* Path for general lengths, N as in zel_fft_init_r2c: a plan is always returned; with N < 2 it has
 * no tables and its transforms touch no memory. Buffers as in zel_CLfftL and zel_LifftCL. */
typedef struct real_plan real_plan;
SE_API size_t zel_fft_real_float32_query_mem(int N);
SE_API size_t zel_fft_real_float32_query_scratch_mem(int N);
SE_API real_plan* zel_fft_real_float32_init(int N, void* mem, void* scratch);
SE_API void zel_fft_real_by_cplx_float32(zel_lcomplex* spectrum_out, const float* signal_in,
                                         real_plan* plan);
SE_API void zel_ifft_real_by_cplx_float32(float* signal_out, const zel_lcomplex* spectrum_in,
                                          real_plan* plan);
SE_API void zel_fft_destroy_real_float32(real_plan* plan);

/* ---- Complex transform ---------------------------------------------------------------------- */

/* A planned complex transform of nfft values, for both directions. */
typedef struct c2c_plan c2c_plan;

/* Bytes of memory (8 nfft + 302, + record growth on 64-bit targets) and scratch (8 nfft + 15). */
SE_API size_t zel_fft_c2c_float32_query_mem(int nfft);
SE_API size_t zel_fft_c2c_float32_query_scratch_mem(int nfft);

/* Plans a transform of nfft >= 1 values in `mem` with `scratch`. Returns the plan, which lies in
 * `mem`, or null when nfft < 1 or needs more than 21 stages. Fast for lengths whose prime factors
 * are 2, 3 and 5; what remains of nfft after dividing these out, p, is summed directly, prime or
 * not, at nfft * p operations. */
SE_API c2c_plan* ne10_fft_init_c2c_float32_c_x(int nfft, void* mem, void* scratch);

/* Transforms nfft values from `in` (only read) into `out`; the arrays do not overlap. `inverse` is
 * 0 for forward, anything else for inverse. */
SE_API void ne10_fft_c2c_1d_float32_c_x(zel_lcomplex* out, const zel_lcomplex* in, c2c_plan* plan,
                                        int inverse);

SE_API void ne10_fft_destroy_c2c_float32_x(c2c_plan* plan);

/* ---- Parts of the complex transform ---------------------------------------------------------- */

/* Splits n into the radices of the stages, 4 before 2 before 5 before 3 before what remains. Writes
 * the factor table, of ZEL_FFT_FACTORS entries: [0] stages S; [1] n divided by the last radix;
 * [2i] and [2i + 1] for i = 1..S the radix of pair i and what remains of n behind it; [2S + 2] 0
 * for the power-of-two engine, 1 for the generic engine. Stages run from pair S to pair 1.
 * `flags` bit 0 keeps a remainder of 8 for a radix-8 stage (also behind 3 in 24 and behind 5 in
 * 40). Returns 0, or -1 when more than 21 stages would be needed. */
#define ZEL_FFT_FACTORS 64
SE_API int ne10_factor(int n, int32_t* factors, int flags);

/* Fills the twiddle table (at most nfft entries) of a factor table: per stage but the first, in
 * the order of running, a block of (radix - 1) * mstride values e^(-2 pi i fstride j k / nfft) at
 * [(k - 1) * mstride + j], mstride being what remains behind the pair and fstride * radix * mstride
 * = nfft. An odd radix of the first stage puts radix values of (1, 0) in front. */
SE_API void ne10_fft_generate_twiddles_float32_x(zel_lcomplex* twiddles, const int32_t* factors,
                                                 int nfft);

/* The walk behind it, with the function that writes one block given; returns the first entry behind
 * the table. */
typedef void (*ne10_twiddle_line_generator)(zel_lcomplex* out, int mstride, int fstride, int radix,
                                            int nfft);
SE_API zel_lcomplex* ne10_fft_generate_twiddles_impl_float32_x(
    ne10_twiddle_line_generator line_generator, zel_lcomplex* twiddles, const int32_t* factors,
    int nfft);
SE_API void ne10_fft_generate_twiddles_line_float32_x(zel_lcomplex* out, int mstride, int fstride,
                                                      int radix, int nfft);

/* The engines. `out`, `in` and `work` hold nfft values each and do not overlap; `in` is only read.
 * The power-of-two engine takes factor tables whose radices are 2, 4 and 8 (2 and 8 in the last
 * pair only) and 1 for nfft = 1; its inverse is always scaled by 1/nfft. The generic engine takes
 * every factor table and scales by 1/nfft when `is_scaled` is not 0. */
SE_API void ne10_mixed_radix_butterfly_float32_c(zel_lcomplex* out, const zel_lcomplex* in,
                                                 const int32_t* factors,
                                                 const zel_lcomplex* twiddles, zel_lcomplex* work);
SE_API void ne10_mixed_radix_butterfly_inverse_float32_c(zel_lcomplex* out, const zel_lcomplex* in,
                                                         const int32_t* factors,
                                                         const zel_lcomplex* twiddles,
                                                         zel_lcomplex* work);
SE_API void ne10_mixed_radix_generic_butterfly_float32_c_x(zel_lcomplex* out,
                                                           const zel_lcomplex* in,
                                                           const int32_t* factors,
                                                           const zel_lcomplex* twiddles,
                                                           zel_lcomplex* work, int is_scaled);
SE_API void ne10_mixed_radix_generic_butterfly_inverse_float32_c_x(
    zel_lcomplex* out, const zel_lcomplex* in, const int32_t* factors, const zel_lcomplex* twiddles,
    zel_lcomplex* work, int is_scaled);
SE_API void ne10_mixed_radix_generic_butterfly_float32_impl_c(
    zel_lcomplex* out, const zel_lcomplex* in, const int32_t* factors, const zel_lcomplex* twiddles,
    zel_lcomplex* work, int is_inverse, int is_scaled);

SE_END_C

#endif

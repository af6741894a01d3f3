/* Short-time Fourier transform: windowed analysis frame by frame, and overlap-add synthesis.
 *
 * An analysis object turns each block of `hop` new samples into the spectrum of the last N samples
 * under a window; a synthesis object turns one spectrum per block back into `hop` samples, divided
 * by the running sum of squared window values (weighted overlap-add, Crochiere 1980). With the
 * window below, N = 512 and hop = 160, analysis followed by zel_stft_synthesis_envelop returns the
 * input delayed by N - hop = 352 samples, to single-precision rounding.
 *
 * Objects live in memory of the caller, which must be zero-filled before init (the zeros are the
 * initial state) and may have any alignment. The scratch memory is used within each call only, so
 * that objects used one after the other share it; an object serves one thread at a time. Nothing
 * allocates. Arguments are not checked and null is outside the contract, except for destroy;
 * functions that return int return 0.
 *
 * N is even and at least 2, hop 1 .. N. With an odd N the last sample of a frame takes no part in
 * the transform (see zel_fft_init_r2c) and comes back as 0; with N < 2 analysis writes nothing and
 * synthesis writes zeros. */
#ifndef SPEECHENHANCE_ZEL_STFT_H
#define SPEECHENHANCE_ZEL_STFT_H

#include <stddef.h>

#include "speechenhance/export.h"
#include "speechenhance/types.h"

SE_BEGIN_C

/* The periodic Hann window 0.5 - 0.5 cos(2 pi n / 512), n = 0 .. 511, to six decimals. */
extern SE_API const float p_win_tmp[512];

/* Copies the first n values of p_win_tmp to `out`, n at most 512; nothing for n <= 0. */
SE_API void zel_stft_generate_win(int n, float* out);

typedef struct stft_state stft_state;

/* Bytes of memory for an object and of scratch for its calls. For N = 512 and 4-byte pointers 5487
 * (analysis), 7550 (synthesis) and 6174 (scratch); wider pointers add what the records grow. */
SE_API size_t zel_stft_query_mem(int N, int is_synthesis);
SE_API size_t zel_stft_query_scratch(int N);

/* Makes an object in `mem`: analysis when `is_synthesis` is 0, synthesis otherwise. `window` holds
 * N values, stays the caller's, and must outlive the object. Returns the object. */
SE_API stft_state* zel_stft_init(void* mem, void* scratch, const float* window, int N, int hop,
                                 int is_synthesis);

/* Analysis object: takes `hop` samples, writes N/2 + 1 bins of an unscaled transform. Samples and
 * bins do not overlap. */
SE_API int zel_stft_analysis(stft_state* state, const float* samples_in,
                             zel_lcomplex* spectrum_out);

/* Synthesis object: takes N/2 + 1 bins (only read), writes `hop` samples normalised by the sum of
 * squared window values that covers each. After init that sum starts at 1e9, so that the first
 * N - hop samples, which no input belongs to, come out as practically 0. After zel_stft_reset it
 * starts at 0 and is exact from the first sample on; a sample that no non-zero window value covers
 * (the very first one under a Hann window) is 0. */
SE_API int zel_stft_synthesis_envelop(stft_state* state, const zel_lcomplex* spectrum_in,
                                      float* samples_out);

/* The same without normalisation: plain windowed overlap-add. With the window above and hop 160 its
 * gain varies between 1.1905 and 1.2101 within a hop. */
SE_API int zel_stft_synthesis(stft_state* state, const zel_lcomplex* spectrum_in,
                              float* samples_out);

/* Clears the object's past: the input history, or the overlap-add accumulator and the sum of
 * squared window values. */
SE_API int zel_stft_reset(stft_state* state);

/* Delay of analysis followed by synthesis in samples: N - hop. */
SE_API int zel_stft_get_delay(const stft_state* state);

/* Ends the use of an object; null is accepted. Releases nothing: the memory is the caller's. */
SE_API int zel_stft_destroy(stft_state* state);

SE_END_C

#endif

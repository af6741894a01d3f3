/* Classical noise reduction: a tracker of the stationary noise and a suppressor driven by it.
 *
 * Both work on one frame after another: a spectrum of `num_bins` bins, or its bin powers
 * (re * re + im * im). Common to all functions here: nothing is allocated; memory handed to an init
 * is the caller's, zero-filled where static, of any content where scratch, of any alignment, and
 * must live as long as the state, which lies inside the static part. Scratch memory may be used by
 * other modules between calls. A state belongs to one thread at a time. There is no reset: zero the
 * memory and initialise again.
 *
 * Values out of range are brought into it: `frame_ms` below 1 counts as 1, in the noise estimator
 * above 60 as 60; `num_bins` below 0 counts as 0, and with 0 bins a process call touches no array.
 */
#ifndef SPEECHENHANCE_NOISE_REDUCTION_H
#define SPEECHENHANCE_NOISE_REDUCTION_H

#include <stddef.h>
#include <stdint.h>

#include "speechenhance/export.h"
#include "speechenhance/types.h"

SE_BEGIN_C

/* ---- Noise estimator ------------------------------------------------------------------------- */

/* Follows the minimum of each bin's power, averaged over 60 ms, within a window of two to four
 * seconds, and reports four times (6 dB above) its smoothed value, but never less than a floor.
 * After R. Martin, "Noise power spectral density estimation based on optimal smoothing and minimum
 * statistics", IEEE Trans. Speech Audio Process. 9, 2001.
 *
 * Frames whose mean bin power is below a per-sample power of 1e-7 (digital silence), or not finite,
 * leave the estimate as it is. */
typedef struct NoiseEstimator NoiseEstimator;

/* Bytes of static memory for frames of `frame_ms` milliseconds (1..60) and `num_bins` bins:
 * num_bins * (60 / frame_ms * 4 + 16) + 162 where pointers have 4 bytes; 10442 for (10, 257). */
SE_API size_t noise_estimate_query_mem(int32_t frame_ms, int32_t num_bins);

/* Bytes of scratch memory: 4 * num_bins + 15. */
SE_API size_t noise_estimate_query_scratch(int32_t num_bins);

/* Places an estimator in `mem` and `scratch`, sized by the queries with the same values.
 * `window_energy` is the sum of the squared samples of the analysis window of the spectra; the two
 * levels, 1e-7 (silence) and 3.16e-7 (floor) per sample, are relative to it. */
SE_API NoiseEstimator* noise_estimate_init(void* mem, void* scratch, int32_t frame_ms,
                                           int32_t num_bins, float window_energy);

/* Takes in the bin powers of the next frame and writes the noise power of each bin to `noise`, on
 * every call. Both arrays have `num_bins` values; `noise` may be `power`. */
SE_API void noise_estimate_process(NoiseEstimator* state, const float* power, float* noise);

/* ---- Noise suppressor ------------------------------------------------------------------------ */

/* A Wiener gain per bin on the decision-directed a-priori signal-to-noise ratio of Y. Ephraim,
 * D. Malah, "Speech enhancement using a minimum mean-square error short-time spectral amplitude
 * estimator", IEEE Trans. ASSP 32, 1984. The gains are smoothed over neighbouring bins (a single
 * bin has none) and held above a floor. */
typedef struct NoiseSuppressor NoiseSuppressor;

/* Bytes of static memory: 4 * num_bins + 70 where pointers have 4 bytes; 1098 for 257 bins. */
SE_API size_t noise_suppress_query_mem(int32_t num_bins);

/* Bytes of scratch memory: 12 * num_bins + 45; 3129 for 257 bins. */
SE_API size_t noise_suppress_query_scratch(int32_t num_bins);

/* Places a suppressor in `mem` and `scratch`. `max_atten_db` is the deepest attenuation in dB
 * (positive; 10 leaves gains of at least 0.316). */
SE_API NoiseSuppressor* noise_suppress_init(void* mem, void* scratch, int32_t frame_ms,
                                            int32_t num_bins, float max_atten_db);

/* Suppresses the noise of one frame: `in` and `out` are spectra of `num_bins` bins and may be the
 * same array; `noise` holds the noise power of each bin in this frame. The first call after init
 * only takes in the spectrum and leaves `out` as it is. */
SE_API void noise_suppress_process(NoiseSuppressor* state, const float* noise,
                                   const zel_lcomplex* in, zel_lcomplex* out);

SE_END_C

#endif

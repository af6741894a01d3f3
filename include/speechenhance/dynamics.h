/* Output dynamics: a peak limiter for samples and a slow automatic gain control for spectra.
 *
 * Common to all functions here: nothing is allocated and no argument is checked beyond what is
 * said. Memory handed to an init is the caller's, zero-filled, of any alignment, and must live as
 * long as the state, which lies inside it. A state belongs to one thread at a time. There is no
 * reset: zero the memory and initialise again.
 */
#ifndef SPEECHENHANCE_DYNAMICS_H
#define SPEECHENHANCE_DYNAMICS_H

#include <stdbool.h>
#include <stddef.h>
#include <stdint.h>

#include "speechenhance/export.h"
#include "speechenhance/types.h"

SE_BEGIN_C

/* ---- Limiter --------------------------------------------------------------------------------- */

/* A peak limiter with one block (16 samples, 1 ms at 16 kHz) of look-ahead and as much delay.
 *
 * Levels up to the knee, 0.9 times the ceiling, are scaled by the make-up gain exactly; above it,
 * levels are compressed such that full scale lands at the ceiling. No sample leaves above
 * 0.9999 times the ceiling (up to the rounding of the last bit) while the ceiling and the make-up
 * gain stay as they are.
 *
 * A make-up gain at or below the knee leaves nothing to compress: an input would have to exceed
 * full scale to reach the knee. Such an input is scaled by the make-up gain up to 0.9999 times the
 * ceiling and held there.
 *
 * NaN samples come out as NaN one block later and do not count as level. An infinite sample comes
 * out as NaN in a silent block, between a block that is faded out and one that is faded in.
 */
typedef struct LimiterStruct LimiterStruct;

/* Bytes of static memory: 246 where pointers have 4 bytes. There is no scratch memory. */
SE_API size_t limiter_query_mem(void);

/* Places a limiter in `mem` (`limiter_query_mem()` bytes): ceiling 0.9, silent delay. */
SE_API LimiterStruct* limiter_init(void* mem);

/* Sets the ceiling, a linear level above 0 (1.0 is full scale), and the knee to 0.9 times it, from
 * the next block on. */
SE_API void limiter_set_max_gain(LimiterStruct* state, float max_gain);

/* Limits `samples` in place (full scale +-1.0), delayed by 16 samples.
 *
 * num_samples  16 samples make a block; what is left over at the end stays as it is and is not
 *              limited, so hand in multiples of 16. Nothing happens below 16.
 * flag         has no effect
 * level_db     make-up gain in dB */
SE_API void limiter_process_float(LimiterStruct* state, float* samples, int32_t num_samples,
                                  bool flag, float level_db);

/* The same for 16-bit samples. Output is truncated toward zero and saturates. */
SE_API void limiter_process(LimiterStruct* state, int16_t* samples, int32_t num_samples,
                            float level_db);

/* ---- Automatic gain control ------------------------------------------------------------------ */

/* A slow gain that brings active speech to 22 dB below full scale, at most 6 dB down and 50 dB up.
 * It works on one 257-bin spectrum per 10 ms frame. Levels are relative to the analysis window of
 * the spectra: `window_energy_db` is 10 log10 of the sum of its squared samples (with it, white
 * noise of power p per sample has the mean bin power p * 10^(window_energy_db / 10)).
 *
 * The first second never sets the gain, nor do the 50 updates after it; from then on the gain moves
 * by one of a few fixed factors per frame while it is off by more than 3 dB. At any time, a frame
 * that does not update lowers the gain by 10 % if the smoothed level times the gain exceeds twice
 * the target amplitude. Gains within 1 % of 1 are not applied.
 *
 * `AgcCore` measures level and activity itself; `AgcState` takes them from the caller. */
typedef struct AgcState AgcState;
typedef struct AgcCore AgcCore;

/* Bytes of static memory: 182 where pointers have 4 bytes. There is no scratch memory. */
SE_API size_t agc_query_mem(void);

/* Places a gain control with gain 1 in `mem` (`agc_query_mem()` zero-filled bytes). */
SE_API AgcState* agc_init(void* mem, float window_energy_db);

/* Runs one frame and scales the 257 bins of `spectrum` in place.
 *
 * active  the frame holds speech
 * level   its mean bin power (re * re + im * im), finite */
SE_API void agc_process(AgcState* state, zel_lcomplex* spectrum, bool active, float level);

/* Limits the gain to which the control steers (linear; 316 after init), from the next update on. */
SE_API void agc_set_max_gain(AgcState* state, float max_gain);

/* Bytes of static memory: 201 where pointers have 4 bytes. */
SE_API size_t agc_core_query_mem(void);

/* Bytes of scratch memory: 0. */
SE_API size_t agc_core_query_scratch(void);

/* Places a core in `mem` (`agc_core_query_mem()` zero-filled bytes). `scratch` is not used and may
 * be null. */
SE_API AgcCore* agc_core_init(void* mem, void* scratch, float window_energy_db);

/* Measures the 257 bins of `spectrum`, averaged with the frame before, calls it active above a mean
 * bin power of -55 dB, and scales it in place. The bins must be finite: a NaN
 * stays in the level, and the gain stops moving. */
SE_API void agc_core_process(AgcCore* core, zel_lcomplex* spectrum);

/* agc_set_max_gain for the control inside. */
SE_API void agc_core_set_max_gain(AgcCore* core, float max_gain);

SE_END_C

#endif

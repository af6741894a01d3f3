/* Acoustic echo canceller: takes the loudspeaker's echo out of two microphone spectra.
 *
 * The canceller works on 257-bin spectra of 512-point transforms, one frame every 10 ms (160
 * samples at 16 kHz), with the scale of samples at +-1.0. It models the path from the loudspeaker
 * to each microphone, bin by bin, as a short complex FIR filter over the reference spectra of the
 * last frames:
 *
 *     bins      frequency (Hz)   taps (10 ms each)
 *     0..2      below 94         not processed
 *     3..31     94..969          8
 *     32..127   1000..3969       4
 *     128..256  4000..8000       2
 *
 * Two modules, each usable on its own: `aec_*` keeps the history of the reference and serves two
 * microphones; `echo_subtraction_*` holds the filters of one microphone.
 *
 * Common to all functions here: nothing is allocated and no argument is checked. Inputs ought to be
 * finite, with powers below 1e16 (full scale in one bin is 65536). What is not spoils its bin of
 * the output, in the reference for the 8, 4 or 2 frames that the bin remembers; then the bin starts
 * anew, as after initialisation. The others never notice. A state belongs to one thread at a time.
 * There is no reset: zero the memory and initialise again.
 */
#ifndef SPEECHENHANCE_AEC_H
#define SPEECHENHANCE_AEC_H

#include <stddef.h>
#include <stdint.h>

#include "speechenhance/export.h"
#include "speechenhance/types.h"

SE_BEGIN_C

/* ---- The canceller: reference history, two microphones --------------------------------------- */

typedef struct aec_state aec_state;

/* Bytes of static memory: 46080 where pointers have 4 bytes. */
SE_API size_t aec_query_mem(void);

/* Bytes of scratch memory: 2074. */
SE_API size_t aec_query_scratch(void);

/* Places a canceller in `mem`, `aec_query_mem()` zero-filled bytes of any alignment, which stay the
 * caller's and must live as long as the state is used. `scratch` is `aec_query_scratch()` bytes of
 * any alignment and content; other modules may use them between the calls of aec_process. Returns
 * the state, which lies inside `mem`; never fails. */
SE_API aec_state* aec_init(void* mem, void* scratch);

/* Takes the echo out of one frame.
 *
 * mic_spectra   two pointers to 257-bin spectra, microphone 0 and 1; bins 3..256 change in place
 * mic_powers    two pointers to their 257 bin powers (re * re + im * im), which follow in place
 * ref_spectrum  the 257 bins of what the loudspeaker plays in the same frame; bins 0..2 are not
 * read
 *
 * No two of the five arrays may overlap. A bin adapts while the reference energy over its taps
 * exceeds 0.001, so a reference that falls silent stops it within 8, 4 or 2 frames; until one has
 * sounded the microphones pass unchanged. The energy is a running sum that stays within 2^-10 of
 * the sum of the frames' powers, however loud the reference was before. */
SE_API void aec_process(aec_state* state, zel_lcomplex* const* mic_spectra,
                        float* const* mic_powers, const zel_lcomplex* ref_spectrum);

/* ---- Echo subtraction: the filters of one microphone ----------------------------------------- */

typedef struct echo_subtraction_state echo_subtraction_state;

/* Bytes of static memory: 17210 where pointers have 4 bytes. There is no scratch memory. */
SE_API size_t echo_subtraction_query_mem(void);

/* Places the filters in `mem`, `echo_subtraction_query_mem()` zero-filled bytes of any alignment,
 * which stay the caller's. Returns the state, which lies inside `mem`; never fails. */
SE_API echo_subtraction_state* echo_subtraction_init(void* mem);

/* Takes the echo out of one frame of one microphone.
 *
 * mic_spectrum      257 bins; bins 3..256 change in place
 * mic_power         their 257 powers (re * re + im * im), which follow in place
 * ref_history_low   reference bins 3..31, per bin the last 8 frames, newest first (29 x 8)
 * ref_history_mid   bins 32..127, the last 4 frames (96 x 4)
 * ref_history_high  bins 128..256, the last 2 frames (129 x 2)
 * ref_energy        254 values, bins 3..256: the power of each bin summed over those frames
 * adapt_flags       254 values, bins 3..256: non-zero lets the bin's filter adapt
 *
 * The last five are read only. No two arrays may overlap. */
SE_API void echo_subtraction_process(echo_subtraction_state* state, zel_lcomplex* mic_spectrum,
                                     float* mic_power, const zel_lcomplex* ref_history_low,
                                     const zel_lcomplex* ref_history_mid,
                                     const zel_lcomplex* ref_history_high, const float* ref_energy,
                                     const int32_t* adapt_flags);

SE_END_C

#endif

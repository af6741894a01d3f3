/* speechenhance: two microphones and the loudspeaker's signal in, one clean voice out.
 *
 *   #include <speechenhance/speechenhance.h>
 *   #include <stdio.h>
 *
 *   // embed IN OUT: from raw 16-bit samples at 16 kHz, two microphones interleaved, to the voice.
 *   int main(int argc, char** argv) {
 *     FILE* in = argc == 3 ? fopen(argv[1], "rb") : NULL;
 *     FILE* out = in ? fopen(argv[2], "wb") : NULL;
 *     SEInstance* engine = out ? se_create() : NULL;
 *     if (!engine) return 1;
 *
 *     NnProcessConfig config = {0};
 *     config.limiter_enable = 1;
 *     config.limiter_max_gain = 0.9f;
 *     set_nn_process_config(engine, config);
 *
 *     int16_t mic[320], ref[160] = {0}, voice[160];  // ref: what the loudspeaker plays
 *     while (fread(mic, sizeof mic, 1, in) == 1) {
 *       se_process_frames(engine, mic, ref, 160, voice, true, false);
 *       fwrite(voice, sizeof voice, 1, out);
 *     }
 *     se_destroy(engine);
 *     return fclose(out) == 0 ? 0 : 1;
 *   }
 *
 * The engine works at 16 kHz on blocks of 160 samples (10 ms) in a short-time Fourier domain of
 * 512-point frames (257 bins). Each block passes through echo cancellation of both microphones, a
 * neural denoiser that yields one gain per bin, an optional mix of the unprocessed signal with
 * optional classical noise suppression, a twelve-band equaliser, synthesis and an optional limiter.
 * Only microphone 1 reaches the output; microphone 0 is a second view for the denoiser.
 *
 * Delay: the output lags the input by 1152 samples, 352 of the short-time transform and 800 of the
 * denoiser's look-ahead of five frames, and by 16 more while the limiter is on. The figures that
 * se_get_process_delay() and se_get_aec_process_delay() report are nominal.
 *
 * Threads: one instance is used by one thread at a time; separate instances may run on separate
 * threads. All instances of a process share the denoiser's quiet-frame history (denoiser.h), which
 * is updated without data races; during long noise-only stretches it attenuates by a further factor
 * of 0.6, so streams of one process influence each other there.
 *
 * Floating point: loading the library sets flush-to-zero (on x86 also denormals-are-zero) on the
 * loading thread. Threads started later inherit it on Linux; threads that were already running do
 * not. A host that processes on such a thread sets the mode there itself, or subnormal values may
 * slow it down and change last bits.
 *
 * Same bits: with that mode set, the same input gives the same output on every CPU, compiler and
 * optimisation level. The C library's powf and log10f are called when an engine is created, never
 * while it runs.
 *
 * Memory: two allocations in se_create(), none afterwards.
 *
 * Null pointers are outside the contract unless a function says otherwise. */
#ifndef SPEECHENHANCE_SPEECHENHANCE_H
#define SPEECHENHANCE_SPEECHENHANCE_H

#include <stdbool.h>
#include <stddef.h>
#include <stdint.h>

#include "export.h"

SE_BEGIN_C

/* Samples per block and channel. */
#define SE_BLOCK_LEN 160
/* Samples per second of every signal that crosses this interface. */
#define SE_SAMPLE_RATE 16000
/* The largest magnitude of an input sample, 24 dB above full scale. */
#define SE_MAX_SAMPLE 16.0f

/* One engine, for one audio stream. Opaque. */
typedef struct SEInstance SEInstance;

/* A shelf of the equaliser: cuts below (low shelf) or above (high shelf) its corner. */
typedef struct ShelfBand {
  int32_t enable; /* nonzero switches the band on */
  float freq_hz;  /* corner, Hz; bin = freq_hz / 31 truncated */
  float atten_db; /* attenuation beyond the corner's ramp of eight bins, dB; <= 0 changes nothing */
} ShelfBand;

/* A peak of the equaliser: a triangle in linear gain around its centre. */
typedef struct PeakBand {
  int32_t center_hz; /* centre, Hz; bin = center_hz / 31 truncated */
  float gain_db;     /* gain at the centre, dB; positive boosts, negative cuts */
  int32_t q;         /* the band spans center_hz / q Hz; 0 switches it off, negative does nothing */
} PeakBand;

/* What set_nn_process_config() sets: 43 consecutive 32-bit fields, passed by value. */
typedef struct NnProcessConfig {
  int32_t residual_db;    /* attenuation of the unprocessed signal in the plain mix, dB; the mix
                             level is 10^(-residual_db/20), at most 1: 0 mixes it in full */
  int32_t ns_residual_db; /* the same ahead of the classical suppressor, offset by 10 dB:
                             10^(-(ns_residual_db - 10)/20), at most 1 */
  int32_t limiter_enable; /* nonzero runs the limiter on the output */
  float limiter_max_gain; /* the limiter's ceiling, linear (0.9: never above 0.89991) */
  float limiter_level_db; /* the limiter's make-up gain, dB */
  int32_t reserved_a;     /* stored, not used */
  int32_t reserved_b;     /* stored, not used */
  ShelfBand low_shelf;    /* corner above bin 8 (279 Hz), else the band is skipped */
  ShelfBand high_shelf;   /* corner below bin 249 (7719 Hz), else the band is skipped */
  PeakBand peak[10];      /* applied in order after the shelves; the gains of all bands multiply */
} NnProcessConfig;

/* The version of this interface, a constant string whose build date is part of it: hosts compare
 * the text. The library's own version is that of its package and file name. Any thread. */
SE_API const char* se_get_version(void);

/* Creates an engine: unconfigured (no mix, limiter off, equaliser off), with all histories zero.
 * Prints two lines with its memory figures to standard output. Returns null if memory is short
 * (after the lines; nothing leaks). The caller owns the engine and releases it with se_destroy().
 */
SE_API SEInstance* se_create(void);

/* Releases an engine and all its memory. Null is accepted. */
SE_API void se_destroy(SEInstance* instance);

/* Enhances one block of 10 ms.
 *   mic      320 floats, full scale +-1.0: microphone 0's 160 samples, then microphone 1's
 *   ref      160 floats: what the loudspeaker played in the same 10 ms (zeros if nothing)
 *   out      receives 160 floats; must not overlap the inputs. Not clipped unless the limiter is on
 *   nn_only  true: the denoised signal alone, whatever the mix levels are
 *   use_ns   if nn_only is false: true mixes at the level of ns_residual_db and runs the classical
 *            suppressor on the mix; false mixes at the level of residual_db alone (bins from
 *            125 Hz up). With nn_only true it has no effect.
 * The first blocks come out silent (see Delay above). Every input is accepted: samples beyond
 * +-SE_MAX_SAMPLE, infinities among them, are taken as +-SE_MAX_SAMPLE and NaN as 0, so that the
 * output is always finite (as long as the configuration's gains are) and the echo canceller is as
 * good as a new one within ten seconds after the worst of bursts. One thread per instance at a
 * time; does not allocate, lock or print. */
SE_API void se_process(SEInstance* instance, const float* mic, const float* ref, float* out,
                       bool nn_only, bool use_ns);

/* The same for 16-bit samples, any number of whole blocks at once.
 *   mic      2 * n samples, microphones interleaved (microphone 0 first)
 *   ref      n samples
 *   n        samples per channel; n / 160 blocks are processed. The remaining n % 160 samples are
 *            neither processed nor written nor kept; less than 160 (or negative) does nothing
 *   out      receives 160 samples per block, saturated at -32768 and 32767, truncated toward zero;
 *            must not overlap the inputs
 * However a stream is cut into calls of whole blocks, the output is the same. Working memory is a
 * few blocks of stack whatever n is. Threads as se_process(). */
SE_API void se_process_frames(SEInstance* instance, const int16_t* mic, const int16_t* ref,
                              int32_t n, int16_t* out, bool nn_only, bool use_ns);

/* Separates interleaved channels: dst[c * n + i] = src[i * channels + c] for n samples of each of
 * `channels` channels. src and dst do not overlap. channels <= 0 or n <= 0 writes nothing. Any
 * thread. */
SE_API void deinterleave(const int16_t* src, int16_t* dst, int32_t n, int32_t channels);

/* Replaces every setting of the engine at once; takes effect with the next block. Histories are
 * kept. Every value is accepted: mix levels are capped at 1, bands that do not fit are skipped, and
 * the part of a band that lies outside the 257 bins is dropped. Prints one line to standard output.
 * Note that a record of zeros means a mix level of 1 (0 dB), unlike an engine that was never
 * configured. Must not overlap se_process() on the same instance. */
SE_API void set_nn_process_config(SEInstance* instance, NnProcessConfig config);

/* Nominal delay of the echo canceller, samples: 320. Any thread. */
SE_API int32_t se_get_aec_process_delay(void);

/* Nominal delay of the whole process, samples: 1120. For sample alignment use the true delay stated
 * above. Any thread. */
SE_API int32_t se_get_process_delay(void);

/* Fill the 160 floats of `out` with zeros; the engine keeps no copies of these intermediate
 * signals. They do not read the instance. */
SE_API void se_get_aec_out(SEInstance* instance, float* out);
SE_API void se_get_nn_out(SEInstance* instance, float* out);

/* Writes a line of statistics (both numbers 0) into `buffer`, at most `size` bytes with the
 * terminator; size <= 0 writes nothing. Returns the line's full length, 30. Does not read the
 * instance. */
SE_API int32_t se_get_statistic_info(SEInstance* instance, char* buffer, int32_t size);

SE_END_C

#endif

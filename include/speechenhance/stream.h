/* speechenhance/stream.h: the engine for audio hosts. Any sample rate, blocks of any length, planar
 * float, a reference that finds its own delay. A library of its own: libspeechenhance-stream.
 *
 *   #include <speechenhance/stream.h>
 *
 *   SEStream* stream;
 *   int32_t error = se_stream_create(48000, 2, 1, SE_STREAM_DELAY_AUTO, &stream);
 *   if (error != SE_STREAM_OK) return fail(se_stream_error_text(error));
 *
 *   SEStreamSettings settings;
 *   se_stream_get_preset("call", &settings);
 *   se_stream_set_settings(stream, &settings);
 *
 *   // in the audio callback, with any number of frames:
 *   const float* mics[2] = {left, right};
 *   const float* refs[1] = {playback};
 *   se_stream_process(stream, mics, refs, out, frames);
 *
 * What comes out is mono, at the stream's rate, se_stream_latency() samples behind the microphones,
 * from the first call to the last, whatever the blocks. How a stream is cut into calls changes not
 * one bit of it. At 16 kHz it is, but for the latency, what the program speech-enhance makes of the
 * same recording; at other rates the sound is resampled on its way in and out (linear phase) and
 * nothing above 8 kHz passes.
 *
 * Microphones. One feeds both inputs of the engine. Of two, the second is the one that is enhanced,
 * and the first another view of the same talker.
 *
 * The reference is what the loudspeaker plays. Echo is cancelled only where the reference arrives
 * ahead of its echo, and by less than 50 ms; between a player's buffer and a recorder's there are
 * often hundreds. With SE_STREAM_DELAY_AUTO the stream finds the delay (0 to 500 ms) from the sound
 * itself within 3 s of far-end sound, and follows it; see delay_estimator.h for how. Two channels
 * of reference are averaged.
 *
 * Threads: se_stream_process() and se_stream_reset() belong to one thread at a time (the audio
 * thread). Functions whose comment says "any thread" may be called while it runs. Streams are
 * independent of each other: nothing that one hears changes what another gives.
 *
 * Real time: se_stream_process(), se_stream_reset() and the functions for any thread neither
 * allocate nor lock nor call the system. Nothing is ever printed. The calling thread's
 * floating-point mode is set for the call and restored after it; loading this library changes no
 * mode (loading libspeechenhance does).
 *
 * Pointers must not be null unless a function says so. */
#ifndef SPEECHENHANCE_STREAM_H
#define SPEECHENHANCE_STREAM_H

#include <stdint.h>

#include "export.h"
#include "speechenhance.h"

SE_BEGIN_C

/* What functions that can fail return. Negative values are errors. */
typedef enum SEStreamResult {
  SE_STREAM_OK = 0,
  SE_STREAM_NO_MEMORY = -1,
  SE_STREAM_BAD_RATE = -2,
  SE_STREAM_BAD_CHANNELS = -3,
  SE_STREAM_BAD_DELAY = -4,
  SE_STREAM_NO_PRESET = -5,
  SE_STREAM_BAD_MODE = -6,
  SE_STREAM_BAD_AMOUNT = -7,
  SE_STREAM_BAD_RESIDUAL = -8,
  SE_STREAM_BAD_LIMITER = -9,
  SE_STREAM_BAD_SHELF = -10,
  SE_STREAM_BAD_PEAK = -11
} SEStreamResult;

/* What is wrong and what to do, one line without a full stop, a constant string. Every value has a
 * text, unknown ones included. Any thread. */
SE_API const char* se_stream_error_text(int32_t result);

/* The library's version, for example "1.0.0". Any thread. */
SE_API const char* se_stream_version(void);

/* ---- Life of a stream ------------------------------------------------------------------------ */

/* One stream of sound. Opaque. */
typedef struct SEStream SEStream;

/* Lowest and highest sample rate, Hz. */
#define SE_STREAM_MIN_RATE 8000
#define SE_STREAM_MAX_RATE 192000

/* The largest delay of either sign, ms. */
#define SE_STREAM_MAX_DELAY_MS 500

/* As a delay: find it and follow it. */
#define SE_STREAM_DELAY_AUTO INT32_MAX

/* Creates a stream with the settings of the preset "recording".
 *   rate          samples per second of all its signals, 8000 to 192000
 *   mic_channels  1 or 2
 *   ref_channels  0 (no echo is cancelled), 1 or 2
 *   delay_ms      by how much later the echo reaches the microphones' input than the reference
 *                 reaches its own: SE_STREAM_DELAY_AUTO, or -500 to 500. A negative delay (the
 *                 reference comes after its echo) holds the microphones back by as much, which the
 *                 latency contains
 *   stream        receives the stream, which the caller owns and releases with se_stream_destroy();
 *                 null after an error
 * Returns SE_STREAM_OK, SE_STREAM_BAD_RATE, SE_STREAM_BAD_CHANNELS, SE_STREAM_BAD_DELAY or
 * SE_STREAM_NO_MEMORY. Allocates up to 2 MB, all that the stream ever uses. Any thread. */
SE_API int32_t se_stream_create(int32_t rate, int32_t mic_channels, int32_t ref_channels,
                                int32_t delay_ms, SEStream** stream);

/* Releases a stream. Null is accepted. Nothing else may use the stream meanwhile. */
SE_API void se_stream_destroy(SEStream* stream);

/* By how many samples at the stream's rate the output lags the microphones, exactly and always:
 * 1327 at 16 kHz (82.9 ms). To get the end of a recording out, process as many samples of silence
 * behind it. Any thread. */
SE_API int32_t se_stream_latency(const SEStream* stream);

/* Enhances `frames` samples of each signal.
 *   mics    mic_channels pointers to `frames` samples of full scale +-1. Null, or a null pointer
 *           among them: silence
 *   refs    ref_channels pointers likewise: what the loudspeaker plays meanwhile. Ignored without
 *           reference channels
 *   out     receives `frames` samples. May be one of the inputs, but not overlap one otherwise. Not
 *           clipped unless the limiter is on
 *   frames  any number; below 1 nothing happens
 * NaN counts as silence, what lies beyond +-SE_MAX_SAMPLE as that. The work is done in blocks of
 * 10 ms: calls with fewer samples than that cost nothing or a whole block. */
SE_API void se_stream_process(SEStream* stream, const float* const* mics, const float* const* refs,
                              float* out, int32_t frames);

/* Forgets all sound, what the echo canceller and the delay search have learnt included, as if the
 * stream were new; settings and a fixed delay stay. For seeks and restarts. Takes about as long as
 * ten blocks. */
SE_API void se_stream_reset(SEStream* stream);

/* ---- Settings ----------------------------------------------------------------------------------
 */

/* What is done to the sound. */
typedef enum SEStreamMode {
  SE_STREAM_DENOISE = 0, /* the denoised signal alone */
  SE_STREAM_MIX = 1,     /* with some of the unprocessed signal mixed in, at residual_db */
  SE_STREAM_SUPPRESS = 2 /* mixed at ns_residual_db, then through the classical noise suppressor */
} SEStreamMode;

/* The settings of a stream. Take a preset's or the stream's own and change what should differ. */
typedef struct SEStreamSettings {
  int32_t mode;           /* SEStreamMode */
  float amount;           /* 1: the enhanced sound; 0: the sound of the (second) microphone as it
                             came in, with the same latency, a bypass; between: both, mixed */
  NnProcessConfig engine; /* mix levels, limiter, equaliser (speechenhance.h), within these ranges:
                             residual_db 0 to 120, ns_residual_db 10 to 130; limiter_max_gain 0.01
                             to 1 and limiter_level_db 0 to 60 if the limiter is on; of a shelf that
                             is on, freq_hz 279 to 8000 (low) or 0 to 7718 (high) and atten_db 0 to
                             120; of a peak with q > 0, center_hz 31 to 7966, gain_db -60 to 40, and
                             q at most center_hz / 31 */
} SEStreamSettings;

/* Names and descriptions of the presets, which are the program's, "plain" first; null beyond the
 * last. Constant strings. Any thread. */
SE_API const char* se_stream_preset_name(int32_t index);
SE_API const char* se_stream_preset_description(int32_t index);

/* Fills `settings` with those of the preset. Returns SE_STREAM_OK or SE_STREAM_NO_PRESET (then
 * `settings` is left as it was). Older names of presets are known, though not listed: "voice" is
 * "recording". Any thread. */
SE_API int32_t se_stream_get_preset(const char* name, SEStreamSettings* settings);

/* Returns SE_STREAM_OK, or what is outside its range: SE_STREAM_BAD_MODE, SE_STREAM_BAD_AMOUNT,
 * SE_STREAM_BAD_RESIDUAL, SE_STREAM_BAD_LIMITER, SE_STREAM_BAD_SHELF or SE_STREAM_BAD_PEAK. Any
 * thread. */
SE_API int32_t se_stream_check_settings(const SEStreamSettings* settings);

/* Replaces all settings at once, from the next block of 10 ms on; changes of the limiter and of the
 * amount fade over that block. Returns as se_stream_check_settings(), and after an error leaves the
 * settings as they were. Any thread, also several at a time; the last one wins. */
SE_API int32_t se_stream_set_settings(SEStream* stream, const SEStreamSettings* settings);

/* Fills `settings` with those set last. Any thread. */
SE_API void se_stream_get_settings(const SEStream* stream, SEStreamSettings* settings);

/* Changes the delay (see se_stream_create()) from the next block on: SE_STREAM_DELAY_AUTO, or a
 * fixed one of at most 500 ms and, if it is negative, no more negative than the one that the stream
 * was created with, since the latency stays. Returns SE_STREAM_OK or SE_STREAM_BAD_DELAY. Any
 * thread. */
SE_API int32_t se_stream_set_delay(SEStream* stream, int32_t delay_ms);

/* ---- What goes on
 * -------------------------------------------------------------------------------- */

/* Levels are root mean squares over the last 100 ms or so, in dB relative to a constant 1; -150 for
 * silence. */
typedef struct SEStreamStatus {
  float mic_db;            /* the enhanced microphone */
  float ref_db;            /* the reference */
  float out_db;            /* the output */
  float echo_reduction_db; /* level of the microphone over the output's, over the last seconds in
                              which the loudspeaker played (a talker in the room counts against
                              it); 0 until it has */
  float delay_ms;          /* the delay of the echo behind the reference: found, or set; 0 until one
                              is found */
  float delay_confidence;  /* 0 to 1: how clearly the sound shows the delay; 1 if it is set. At 0.5
                              and above it is relied on */
  int32_t delay_found;     /* 1 once a delay has been found (or set) */
  int32_t reserved[9];     /* 0 */
} SEStreamStatus;

/* Fills `status`. The fields are each from the last block, but not all from the same. Any
 * thread. */
SE_API void se_stream_get_status(const SEStream* stream, SEStreamStatus* status);

SE_END_C

#endif

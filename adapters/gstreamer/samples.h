// Interleaved samples of buffers, S16 or F32, one or two channels, as planar floats and back.
#pragma once

#include <gst/audio/audio.h>

G_BEGIN_DECLS

// What the elements take; channels as a string literal.
#define SE_CAPS(channels)                                         \
  "audio/x-raw, format = { " GST_AUDIO_NE(S16) ", " GST_AUDIO_NE( \
      F32) " }, layout = interleaved, rate = [ 8000, 192000 ], channels = " channels

enum { SE_MOST_CHANNELS = 2 };

// Frames `from` to `from + frames` of the buffer. A mono buffer goes to both channels of `planar`;
// a buffer without data (a gap) is silence.
void se_read_samples(GstBuffer* buffer, const GstAudioInfo* info, gint64 from, gint64 frames,
                     float* const planar[SE_MOST_CHANNELS]);

// A mono buffer. 16-bit samples are clipped, and rounded as the program speech-enhance does.
GstBuffer* se_write_samples(const float* samples, gint64 frames, const GstAudioInfo* info);

// How many frames a buffer stands for, by its size or, without data, by its duration.
gint64 se_frames_of(GstBuffer* buffer, const GstAudioInfo* info);

G_END_DECLS

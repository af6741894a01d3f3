/* Cleans a microphone of the echo of a loudspeaker, as an audio callback would: stream IN.raw
 * OUT.raw reads interleaved 16-bit samples at 48 kHz, microphone and loudspeaker, and writes the
 * clean voice, mono, of the same length and aligned with the microphone. */
#include <speechenhance/stream.h>
#include <stdio.h>

enum { RATE = 48000, FRAMES = 500 };

int main(int argc, char** argv) {
  SEStream* stream;
  int32_t error = se_stream_create(RATE, 1, 1, SE_STREAM_DELAY_AUTO, &stream);
  if (error != SE_STREAM_OK) {
    fprintf(stderr, "%s\n", se_stream_error_text(error));
    return 1;
  }
  SEStreamSettings settings;
  if (se_stream_get_preset("call", &settings) == SE_STREAM_OK) {
    se_stream_set_settings(stream, &settings);
  }

  FILE* in = argc == 3 ? fopen(argv[1], "rb") : NULL;
  FILE* out = argc == 3 ? fopen(argv[2], "wb") : NULL;
  if (!in || !out) return 2;
  long late = se_stream_latency(stream); /* samples that come out before the first one's turn */
  long ending = late;                    /* samples of silence that bring the last one out */
  for (;;) {
    int16_t pcm[2 * FRAMES] = {0};
    float mic[FRAMES], ref[FRAMES], clean[FRAMES];
    const float *mics[] = {mic}, *refs[] = {ref};
    long count = (long)fread(pcm, 2 * sizeof *pcm, FRAMES, in);
    if (count == 0) {
      count = ending < FRAMES ? ending : FRAMES;
      ending -= count;
      if (count == 0) break;
    }
    for (long i = 0; i < count; ++i) {
      mic[i] = (float)pcm[2 * i] / 32768;
      ref[i] = (float)pcm[2 * i + 1] / 32768;
    }
    se_stream_process(stream, mics, refs, clean, (int32_t)count);
    for (long i = 0; i < count; ++i) {
      int16_t sample = (int16_t)(clean[i] * 32767); /* the preset limits it to below 1 */
      if (--late < 0) fwrite(&sample, sizeof sample, 1, out);
    }
  }
  se_stream_destroy(stream);
  return fclose(out) == 0 ? 0 : 2;
}

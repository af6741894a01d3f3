#include <speechenhance/speechenhance.h>
#include <stdio.h>

// embed IN OUT: from raw 16-bit samples at 16 kHz, two microphones interleaved, to the voice.
int main(int argc, char** argv) {
  FILE* in = argc == 3 ? fopen(argv[1], "rb") : NULL;
  FILE* out = in ? fopen(argv[2], "wb") : NULL;
  SEInstance* engine = out ? se_create() : NULL;
  if (!engine) return 1;

  NnProcessConfig config = {0};
  config.limiter_enable = 1;
  config.limiter_max_gain = 0.9f;
  set_nn_process_config(engine, config);

  int16_t mic[320], ref[160] = {0}, voice[160];  // ref: what the loudspeaker plays
  while (fread(mic, sizeof mic, 1, in) == 1) {
    se_process_frames(engine, mic, ref, 160, voice, true, false);
    fwrite(voice, sizeof voice, 1, out);
  }
  se_destroy(engine);
  return fclose(out) == 0 ? 0 : 1;
}

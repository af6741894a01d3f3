#include <speechenhance/speechenhance.h>
#include <stdio.h>

/* Reads interleaved 16-bit stereo at 16 kHz from standard input and writes the clean voice, mono,
 * to standard error; standard output carries the lines that the library prints. */
int main(void) {
  int16_t mic[320], ref[160] = {0}, out[160];
  SEInstance* engine = se_create();
  if (!engine) return 1;

  NnProcessConfig config = {0};
  config.limiter_enable = 1;
  config.limiter_max_gain = 0.9f;
  set_nn_process_config(engine, config);

  while (fread(mic, sizeof mic, 1, stdin) == 1) {
    se_process_frames(engine, mic, ref, 160, out, true, false);
    fwrite(out, sizeof out, 1, stderr);
  }
  se_destroy(engine);
  return 0;
}

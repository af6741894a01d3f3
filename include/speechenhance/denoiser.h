/* The neural denoiser: from the spectra of a frame to one gain per bin.
 *
 * Two microphone spectra and the far-end reference spectrum are pooled into 128 bands each and run
 * through a fixed network: five int8 convolution layers over (time, frequency), two pairs of GRU
 * layers and a fully connected layer with a sigmoid; its 128 band values are expanded to 257 gains.
 * The gains lag five frames. The layers are usable on their own.
 *
 * Every module follows the library's memory convention: *_query_mem gives the bytes of static
 * memory (zero-filled by the caller, kept as long as the state is used), *_query_scratch the bytes
 * of scratch memory (contents needed only during one call; layers and modules that never run at the
 * same time may share one block), *_init places the state at the start of the static memory and
 * returns it. Both blocks may have any alignment and stay the caller's; nothing is allocated. A
 * state is used by one thread at a time.
 *
 * The records and globals below are usable from C. The functions have C++ linkage. */
#ifndef SPEECHENHANCE_DENOISER_H
#define SPEECHENHANCE_DENOISER_H

#include <stdint.h>

#include "speechenhance/export.h"
#include "speechenhance/types.h"

SE_BEGIN_C

/* Parameters of a convolution layer. The weight of output channel o at time tap t (oldest first),
 * frequency offset f and input channel c is
 *   kernel[o * row + (t * kernel_freq + f) * in_channels + c] * kernel_scale[o],
 * where `row` is kernel_time * kernel_freq * in_channels rounded up to a multiple of 8; the weights
 * lie in -127..127 and the padding is zero. */
typedef struct Conv2DLayer {
  const int8_t* kernel;
  const float* kernel_scale; /* one per output channel */
  const float* bias;         /* one per output channel */
  int32_t in_channels;
  int32_t out_channels;
  int32_t kernel_time; /* frames */
  int32_t kernel_freq; /* positions along frequency */
  int32_t activation;  /* a code kept with the model, not read by the library; 3 */
  int32_t reserved;    /* 0 */
} Conv2DLayer;

/* Batch normalisation folded into one multiplier and one offset per element of a convolution
 * output: y = x * gamma_var + gmb, then clamped to 0..6. Element (position p, channel c) is number
 * p * channels + c. */
typedef struct BNLayer {
  const float* gamma_var;
  const float* gmb;
  int32_t width; /* positions along frequency */
} BNLayer;

/* Parameters of a GRU layer: 3 * hidden_size rows each, in the gate order reset, update, candidate.
 * A stored weight w stands for w / 256. */
typedef struct GRULayer {
  const int8_t* weight_ih; /* rows of input_size */
  const int8_t* weight_hh; /* rows of hidden_size */
  const float* bias_ih;
  const float* bias_hh;
  int32_t input_size;
  int32_t hidden_size;
} GRULayer;

/* Parameters of a fully connected layer: weight[out][in] * weight_scale[out] and bias[out]. */
typedef struct FCLayer {
  const int8_t* weight;
  const float* weight_scale;
  const float* bias;
  int32_t in_size;
  int32_t out_size;
  int32_t activation; /* as in Conv2DLayer; the head always applies the sigmoid */
} FCLayer;

/* The sixteen layers in network order. `fc1` is a second head of the shape of `fc2`, which the
 * denoiser does not compute: nothing reads its result. */
typedef struct DenoiseModel {
  const Conv2DLayer* conv1;
  const BNLayer* bn1;
  const Conv2DLayer* conv2;
  const BNLayer* bn2;
  const Conv2DLayer* conv3;
  const BNLayer* bn3;
  const Conv2DLayer* conv4;
  const BNLayer* bn4;
  const Conv2DLayer* conv5;
  const BNLayer* bn5;
  const GRULayer* gru1_1;
  const GRULayer* gru1_2;
  const GRULayer* gru2_1;
  const GRULayer* gru2_2;
  const FCLayer* fc1;
  const FCLayer* fc2;
} DenoiseModel;

/* The model that is compiled into the library. Constant, shared by every denoiser. The shapes of
 * the network are fixed: the integer fields of the records describe them and change nothing. */
SE_API extern const DenoiseModel nn_denoise_model;

/* The quiet-frame history: one per process, shared by all denoisers, zero at load, never reset. A
 * frame is quiet when its gains are close to zero; where more than 900 of the last 1000 frames were
 * quiet, gains that are still low are multiplied by 0.6.
 *
 * Denoisers on several threads update it with relaxed atomic operations, so that noise_flag_sum is
 * the number of ones in noise_buf whenever no nn_process_api call is under way. On other threads
 * than the denoiser's, read with __atomic_load_n(&x, __ATOMIC_RELAXED). Hosts write at most zeros
 * to all four, and only while no nn_process_api call is under way: so that the next recording does
 * not depend on those before it. */
SE_API extern int32_t noise_flag;       /* the flag of the latest frame, 0 or 1 */
SE_API extern int32_t noise_buf[1000];  /* the flags of the last 1000 frames, as a ring */
SE_API extern int32_t noise_flag_sum;   /* ones in noise_buf */
SE_API extern int32_t noise_flag_index; /* next position to write, 0..999 */

SE_END_C

#ifdef __cplusplus

/* ---- The network ---- */

/* Bytes of static and of scratch memory that one denoiser needs. */
SE_API int nn_query_mem_api();
SE_API int nn_query_scratch_api();

/* Makes a denoiser with the parameters of `nn_denoise_model` at the start of `mem`, which is
 * zero-filled, and returns it. There is no other reset: to start over, clear the memory and
 * initialise again (the quiet-frame history keeps counting). */
SE_API void* nn_init_api(void* mem, void* scratch);

/* Runs one frame of 10 ms.
 *   state      from nn_init_api
 *   spec_mics  2 x 257 bins, microphone 0 then microphone 1
 *   spec_ref   257 bins of the far-end reference
 *   gain       257 gains, linear, 0..1; written only when the result is 1. The value of a band of w
 *              bins is divided by w: a band of 4 bins yields at most 0.25. gain[256] is 0.
 *   nn_only, use_ns  the frame pipeline's flags; the denoiser does not depend on them
 * The gains belong to the spectra of five calls earlier. Returns 0 during the first five calls,
 * while the convolution layers fill their histories, then 1. The inputs are not modified and must
 * not overlap `gain`. Gains stay finite and within 0..1 whatever the bins are; after infinite or
 * NaN bins they return to what they would have been as the recurrent layers forget, over seconds.
 */
SE_API int nn_process_api(void* state, const zel_lcomplex* spec_mics, const zel_lcomplex* spec_ref,
                          float* gain, bool nn_only, bool use_ns);

/* ---- One quantized convolution layer over a stream of frames ---- */

/* State of a layer, placed by conv2d_init. */
struct Conv2D;

/* Bytes of static memory: the state and past_frames + 1 stored frames. past_frames is at least the
 * kernel's extent in time - 1. */
SE_API int conv2d_query_mem(int past_frames, int in_channels, int in_width, int freq_pad);
SE_API int conv2d_query_scratch(int in_channels, int kernel_time, int kernel_freq, int in_width,
                                int groups);

/* Makes a layer in zero-filled memory. Only the three tables of `layer` are read, during
 * processing; its dimensions are the arguments:
 *
 *   past_frames               as given to conv2d_query_mem
 *
 *   in_channels, in_width     shape of an input frame
 *
 *   out_channels, out_width   shape of an output frame; output position x reads the input from
 *                             x * freq_stride - freq_pad on, zeros outside
 *
 *   kernel_time, kernel_freq  extent of the kernel
 *
 *   time_stride, freq_stride  steps between outputs
 *
 *   time_pad                  zero frames assumed before the first frame
 *
 *   freq_pad                  zero positions on each side of the frequency axis
 *
 *   groups                    channel groups
 *
 * Returns null, with the memory untouched, for what the layer does not do: kernel_time outside
 * 1..3, time_stride other than 1, groups above 1, a negative time_pad or freq_pad, past_frames
 * below kernel_time - 1, sizes or a frequency stride below 1, or output positions that read beyond
 * the padded input. */
SE_API Conv2D* conv2d_init(void* mem, void* scratch, const Conv2DLayer* layer, int past_frames,
                           int in_channels, int in_width, int out_channels, int out_width,
                           int kernel_time, int kernel_freq, int time_stride, int freq_stride,
                           int time_pad, int freq_pad, int groups);

/* Takes one input frame and produces one output frame, which lags by kernel_time - 1 - time_pad
 * frames. Frames are position-major: (position x, channel c) is element x * channels + c. Inputs
 * are rounded to steps of 1/1024, half away from zero, and saturate at -32 and 32 - 1/1024 (NaN
 * counts as 0); sums are exact, modulo 2^32. Returns 1, or 0 for the first kernel_time - 1 -
 * time_pad calls (none where that is negative), which only store their frame and leave `out`
 * untouched. `out` may be `in`. */
SE_API int conv2d_process(Conv2D* state, float* out, const float* in);

/* ---- One GRU layer ---- */

/* State of a layer, placed by gru_init. */
struct Gru;

SE_API int gru_query_mem(int hidden);
SE_API int gru_query_scratch(int hidden, int input);

/* Makes a layer of `hidden` units with `input` inputs and clears its hidden state. Only the four
 * tables of `layer` are read, during processing. The model's sizes are multiples of 8; other sizes
 * work the same way. Returns null, with the memory untouched, for sizes below 1. */
SE_API Gru* gru_init(void* mem, void* scratch, const GRULayer* layer, int hidden, int input);

/* Runs one step: reads `input` floats from `in`, writes the `hidden` new state values (-1..1) to
 * `out`, which may overlap `in`. Inputs are rounded to steps of 1/2048, half away from zero, and
 * saturate at -16 and 16 - 1/2048 (NaN counts as 0); so does the state that the next step uses, not
 * the one written to `out`. Sums are exact, modulo 2^32 (which sizes up to 511 cannot reach).
 * Always returns 0. */
SE_API int gru_process(Gru* gru, const float* in, float* out);

#endif /* __cplusplus */

#endif

/* A training step's convolutions and GRU loops for CPUs without AMX: the same functions for
 * AVX-512 with VNNI and BF16 (suffix _avx512) and for AVX2 with FMA (_avx2). Without either the
 * same is computed in PyTorch.
 *
 * Forward, weights and activations are the integers that the engine computes with, and sums are
 * exact. Backward, products are bf16 with float sums (_avx512), or float (_avx2).
 *
 * Arrays are dense, in the stated order; batches are multiples of 8. Functions are reentrant. */
#ifndef SE_TRAINING_QUICK_STEP_H
#define SE_TRAINING_QUICK_STEP_H

#include <stdint.h>

#include "speechenhance/export.h"

SE_BEGIN_C

/* Whether this CPU has what the functions with a suffix ("avx512", "avx2") need. */
SE_API int se_training_has_path(const char* suffix);

/* A convolution over 3 frames and `kernel_freq` positions with normalisation per element and clamp.
 * Widths and channels are multiples of 16 and 8; of the input channels, 4. */
typedef struct {
  int batch, steps;            /* B; T frames of output, from T + 2 of input */
  int in_width, in_channels;   /* W, C */
  int out_width, out_channels; /* F, O */
  int kernel_freq, freq_stride, freq_pad;
  int out_pad; /* positions of zeros on both sides of an output frame: the next layer's freq_pad */
  int rest;    /* frames at the start of a fresh stream whose output is zero */
  float in_scale;  /* of the input integers: 1024 for Q10 */
  float out_scale; /* of the output integers */
  float limit;     /* of the output, before out_scale */
} se_training_conv;

/* x (B, T + 2, W + 2 * freq_pad, C), zeros where padded; weights (O, C, 3, kernel_freq), integers;
 * multiplier, offset (F, O); fresh (B), marks streams that begin.
 * sums (B, T, F, O) = convolution of x / in_scale; out (B, T, F + 2 * out_pad, O)
 *   = round(clamp(sums * multiplier + offset, 0, limit) * out_scale), the padding zero. */
#define SE_TRAINING_CONV_FORWARD(name)                                                   \
  SE_API void name(const se_training_conv* conv, const int16_t* x, const float* weights, \
                   const float* multiplier, const float* offset, const uint8_t* fresh,   \
                   float* sums, int16_t* out)

/* grad_out (B, T, F, O) of out / out_scale -> gradients of the weights, multiplier, offset and,
 * unless grad_x is null, of x / in_scale: (B, T + 2, W, C). Rounding passes gradients straight
 * through. */
#define SE_TRAINING_CONV_BACKWARD(name)                                                  \
  SE_API void name(const se_training_conv* conv, const int16_t* x, const float* weights, \
                   const float* multiplier, const float* offset, const uint8_t* fresh,   \
                   const float* sums, const float* grad_out, float* grad_weights,        \
                   float* grad_multiplier, float* grad_offset, float* grad_x)

/* The time loop of a pair of GRUs. H = 200 hidden units, G = 3 H gate rows (reset, update,
 * candidate), I inputs (a multiple of 8).
 *   x (2, T, B, I) in Q11; w_ih (2, G, I), w_hh (2, G, H) in steps of 1/256; b_ih, b_hh (2, G);
 *   states (2, T + 1, B, H): index 0 is given, the rest written, rounded to Q11;
 *   gates (2, T, B, G): reset, update and candidate values; recurrent (2, T, B, H): the candidate's
 *   recurrent sum with bias. */
#define SE_TRAINING_GRU_FORWARD(name)                                                      \
  SE_API void name(int steps, int batch, int inputs, const float* x, const float* w_ih,    \
                   const float* w_hh, const float* b_ih, const float* b_hh, float* states, \
                   float* gates, float* recurrent)

/* grad_states (2, T, B, H) -> the gradients of x, weights and biases. */
#define SE_TRAINING_GRU_BACKWARD(name)                                                            \
  SE_API void name(int steps, int batch, int inputs, const float* grad_states, const float* x,    \
                   const float* w_ih, const float* w_hh, const float* states, const float* gates, \
                   const float* recurrent, float* grad_x, float* grad_w_ih, float* grad_w_hh,     \
                   float* grad_b_ih, float* grad_b_hh)

/* The gain rule as training sees it (gain_rule.py). Tables have `bins` entries rounded up to whole
 * vectors of 16. Band values spread to bin k from bands band[k] and band[k] + 1. */
typedef struct {
  int rows, bins, bands;
  float gate, leak;   /* of squared gains; of the gate, where speech is lost */
  float holds_speech; /* of the mixture, for a target bin to count as speech */
  const int32_t* band;
  const float *own, *next; /* weights of the two bands */
  const float* make_up;
} se_training_gain_rule;

/* values (rows, bands), far_end (rows), mixture and target (rows, bins) -> gain (rows, bins). */
#define SE_TRAINING_GAIN_FORWARD(name)                                                             \
  SE_API void name(const se_training_gain_rule* rule, const float* values, const uint8_t* far_end, \
                   const float* mixture, const float* target, float* gain)

/* The gradient passes straight through the gate. */
#define SE_TRAINING_GAIN_BACKWARD(name)                                                            \
  SE_API void name(const se_training_gain_rule* rule, const float* values, const uint8_t* far_end, \
                   const float* grad_gain, float* grad_values)

/* What the loss needs of each frame's bins (loss.py, Aims and Sums). */
typedef struct {
  int rows, bins, octaves;
  float exponent, floor, magnitude, complex_;
  const float* weights;    /* of bins, a table as above; so are the two rows of ceilings: */
  const float* ceilings;   /* without and with far end */
  const float* compressed; /* ceilings ^ exponent */
  const int32_t* edges;    /* of third octaves: octaves + 1 bins */
} se_training_loss;

/* mixture, target, cosine (rows, bins), far_end (rows) -> loud, full, towards (rows, bins), aimed
 * and noise (rows), octaves (rows, octaves). */
#define SE_TRAINING_LOSS_AIMS(name)                                                         \
  SE_API void name(const se_training_loss* loss, const float* mixture, const float* target, \
                   const float* cosine, const uint8_t* far_end, float* loud, float* full,   \
                   float* towards, float* aimed, float* noise, float* octaves)

/* Of the gain (rows, bins) and a weight per row: spectral, error, openness (rows), octaves (rows,
 * octaves), and for the way back the slope of the spectral error (rows, bins). */
#define SE_TRAINING_LOSS_FORWARD(name)                                                    \
  SE_API void name(const se_training_loss* loss, const float* gain, const float* mixture, \
                   const float* target, const float* cosine, const uint8_t* far_end,      \
                   const float* loud, const float* towards, const float* attenuated,      \
                   float* spectral, float* error, float* openness, float* octaves, float* slope)

#define SE_TRAINING_LOSS_BACKWARD(name)                                                            \
  SE_API void name(const se_training_loss* loss, const float* gain, const float* loud,             \
                   const float* towards, const float* slope, const float* grad_spectral,           \
                   const float* grad_error, const float* grad_openness, const float* grad_octaves, \
                   float* grad_gain)

SE_TRAINING_CONV_FORWARD(se_training_conv_forward_avx2);
SE_TRAINING_CONV_FORWARD(se_training_conv_forward_avx512);
SE_TRAINING_CONV_BACKWARD(se_training_conv_backward_avx2);
SE_TRAINING_CONV_BACKWARD(se_training_conv_backward_avx512);
SE_TRAINING_GRU_FORWARD(se_training_gru_forward_avx2);
SE_TRAINING_GRU_FORWARD(se_training_gru_forward_avx512);
SE_TRAINING_GRU_BACKWARD(se_training_gru_backward_avx2);
SE_TRAINING_GRU_BACKWARD(se_training_gru_backward_avx512);
SE_TRAINING_GAIN_FORWARD(se_training_gain_forward_avx2);
SE_TRAINING_GAIN_FORWARD(se_training_gain_forward_avx512);
SE_TRAINING_GAIN_BACKWARD(se_training_gain_backward_avx2);
SE_TRAINING_GAIN_BACKWARD(se_training_gain_backward_avx512);
SE_TRAINING_LOSS_AIMS(se_training_loss_aims_avx2);
SE_TRAINING_LOSS_AIMS(se_training_loss_aims_avx512);
SE_TRAINING_LOSS_FORWARD(se_training_loss_forward_avx2);
SE_TRAINING_LOSS_FORWARD(se_training_loss_forward_avx512);
SE_TRAINING_LOSS_BACKWARD(se_training_loss_backward_avx2);
SE_TRAINING_LOSS_BACKWARD(se_training_loss_backward_avx512);

SE_END_C

#endif

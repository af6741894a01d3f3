/* The two parts of a training step that PyTorch is slow at on small machines, for CPUs with AMX
 * (x86-64 server cores from 2023 on): the time loop of a pair of GRUs, and normalisation and clamp
 * after a convolution. Everything is optional: without AMX the same is computed in PyTorch.
 *
 * Arrays are dense, in the stated order. bf16 is uint16_t. Products are bf16 with float sums; the
 * GRUs' forward products carry inputs and states as two bf16 summands, so that values in Q11 are
 * exact, as int8 weights are. */
#ifndef SE_TRAINING_ACCELERATE_H
#define SE_TRAINING_ACCELERATE_H

#include <stdint.h>

#include "speechenhance/export.h"

SE_BEGIN_C

/* 1 where this CPU and kernel let the caller use AMX. */
SE_API int se_training_has_amx(void);

/* Forward loop. H = 200 hidden units, G = 3 H gate rows (reset, update, candidate), I inputs (a
 * multiple of 8, at most 224), batch B a multiple of 16.
 *   x (2, T, B, I) in Q11; w_ih (2, G, I), w_hh (2, G, H) quantised; b_ih, b_hh (2, G);
 *   states (2, T + 1, B, H): index 0 is given, the rest written, rounded to Q11;
 *   gates (2, T, B, G): reset, update and candidate values; recurrent (2, T, B, H): the candidate's
 *   recurrent sum with bias. */
SE_API void se_training_gru_forward(int steps, int batch, int inputs, const float* x,
                                    const float* w_ih, const float* w_hh, const float* b_ih,
                                    const float* b_hh, float* states, float* gates,
                                    float* recurrent);

/* Backward loop. grad_states (2, T, B, H) -> grad_x (2, T, B, I), grad_in and grad_rec
 * (2, T, B, G, bf16): the gradients of the input-side and the recurrent gate sums. */
SE_API void se_training_gru_backward(int steps, int batch, int inputs, const float* grad_states,
                                     const float* w_ih, const float* w_hh, const float* states,
                                     const float* gates, const float* recurrent, float* grad_x,
                                     uint16_t* grad_in, uint16_t* grad_rec);

/* out = clamp(y * multiplier + offset, 0, limit) over `rows` rows of `size` elements (a multiple of
 * 16), bf16 in and out. */
SE_API void se_training_norm_clamp(int64_t rows, int size, float limit, const uint16_t* y,
                                   const float* multiplier, const float* offset, uint16_t* out);

/* Its gradients: grad_y bf16; grad_multiplier and grad_offset (size). */
SE_API void se_training_norm_clamp_backward(int64_t rows, int size, float limit, const uint16_t* y,
                                            const float* multiplier, const float* offset,
                                            const uint16_t* grad_out, uint16_t* grad_y,
                                            float* grad_multiplier, float* grad_offset);

SE_END_C

#endif

/* Delay between two signals that hold the same sound: by how much an echo lags what the loudspeaker
 * plays. In libspeechenhance-stream, whose streams use it; it needs nothing of them.
 *
 * The method is the generalised cross-correlation with phase transform (C. H. Knapp and
 * G. C. Carter, "The generalized correlation method for estimation of time delay", IEEE Trans.
 * ASSP 24, 1976): both signals are taken down to 4 kHz; every 120 ms the last 512 ms of the
 * microphone are correlated with the last second of the reference, each frequency weighted by its
 * phase alone; these cross-spectra are averaged over about a second and a half of far-end sound.
 * What both signals share adds up at its delay, whatever the room, the talker and the noise do at
 * others. The highest correlation is believed when it stands far above all others for some time.
 *
 *   void* memory = calloc(delay_estimator_query_mem(), 1);
 *   DelayEstimator* estimator = delay_estimator_init(memory);
 *   for (;;) delay_estimator_process(estimator, mic, ref);   // 10 ms each
 *   DelayEstimate found = delay_estimator_get(estimator);
 *
 * Found: delays of 0 to 500 ms, to 2 ms. Nothing is learnt while the reference is silent, and in
 * sounds that repeat themselves (a dial tone) no delay is believed.
 *
 * Nothing here allocates. An estimator serves one thread at a time. Null pointers are outside the
 * contract. */
#ifndef SPEECHENHANCE_DELAY_ESTIMATOR_H
#define SPEECHENHANCE_DELAY_ESTIMATOR_H

#include <stddef.h>
#include <stdint.h>

#include "export.h"

SE_BEGIN_C

/* An estimator. Opaque. */
typedef struct DelayEstimator DelayEstimator;

typedef struct DelayEstimate {
  int32_t found;    /* 1 once a delay has been found; it stays 1 */
  float delay_ms;   /* the one found last, 0 before */
  float confidence; /* 0 to 1: how far the correlation at its delay stands above all others right
                       now; from 0.5 on it is believed */
} DelayEstimate;

/* Bytes that an estimator needs (about 157,000). */
SE_API size_t delay_estimator_query_mem(void);

/* Makes an estimator at the start of `mem`: zero-filled memory of delay_estimator_query_mem() bytes
 * and any alignment, which stays the caller's. Never null. To reset one, zero-fill the memory and
 * initialise again. */
SE_API DelayEstimator* delay_estimator_init(void* mem);

/* Takes the next 10 ms: 160 samples each of a microphone and of the reference at 16 kHz, full scale
 * +-1, finite. The work of an estimate is spread over five of twelve blocks: on average a block
 * takes about 8 % of the instructions that the engine takes for one, the dearest 18 %. */
SE_API void delay_estimator_process(DelayEstimator* estimator, const float* mic, const float* ref);

/* The present estimate. */
SE_API DelayEstimate delay_estimator_get(const DelayEstimator* estimator);

SE_END_C

#endif

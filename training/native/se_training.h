/* What training needs of the library, over whole scenes in one call, for Python's ctypes (which
 * releases the interpreter lock while it runs). Every array is the caller's; frames are 160
 * samples. Functions are reentrant. */
#ifndef SE_TRAINING_H
#define SE_TRAINING_H

#include "speechenhance/export.h"
#include "speechenhance/speechenhance.h"
#include "speechenhance/types.h"

SE_BEGIN_C

/* Geometry, network shape and the gain rule's numbers as JSON; the only place Python takes them
 * from. */
SE_API const char* se_training_shape(void);

/* Spectra of `frames` frames, 257 bins each. */
SE_API void se_training_analyse(const float* samples, int frames, zel_lcomplex* spectra);

/* Samples of `frames` spectra, delayed against the analysed signal by frame - hop samples. */
SE_API void se_training_synthesise(const zel_lcomplex* spectra, int frames, float* samples);

/* The library's hyperbolic tangent, in place. */
SE_API void se_training_tanh(float* x, int n);

/* The engine's path up to the network: analysis of both microphones and the reference, echo
 * cancellation, features.
 *   mic_spectra  frames x 2 x 257, echo-reduced
 *   ref_spectra  frames x 257
 *   ref_energy   frames, energy of the reference spectrum
 *   features     frames x 3 x 128, microphone 0, microphone 1, reference */
SE_API void se_training_front_end(const float* mic0, const float* mic1, const float* ref,
                                  int frames, zel_lcomplex* mic_spectra, zel_lcomplex* ref_spectra,
                                  float* ref_energy, float* features);

/* The gain rule over gains of the network, frames x 257, in place: what the pipeline multiplies the
 * spectrum of five frames earlier by. */
SE_API void se_training_gain_rule(float* gains, const float* ref_energy, int frames);

/* The next two run a model file, the compiled-in model where it is null. They start with an empty
 * quiet-frame history, so calls on several threads disturb each other's. They return null, or what
 * is wrong with the file. */

/* The network over features as se_training_front_end gives them, expanded to gains: frames x 257;
 * the rows of the first five frames, which have no result, stay as they are. */
SE_API const char* se_training_network(const unsigned char* model_file, long size,
                                       const float* features, int frames, float* gains);

/* The whole engine. `config` may be null; out: frames x 160 samples. */
SE_API const char* se_training_engine(const unsigned char* model_file, long size, const float* mic0,
                                      const float* mic1, const float* ref, int frames, int nn_only,
                                      int use_ns, const NnProcessConfig* config, float* out);

SE_END_C

#endif

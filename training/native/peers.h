/* The free alternatives that evaluation compares with, over whole scenes: Debian's SpeexDSP and
 * WebRTC audio processing at 16 kHz. Samples are floats at full scale 1.0; frames of 160. Each
 * returns 0, or -1 where the peer cannot be set up. `echo` chooses whether the peer also gets the
 * reference. */
#ifndef SE_PEERS_H
#define SE_PEERS_H

#include "speechenhance/export.h"

SE_BEGIN_C

/* Preprocessor with noise suppression; with `echo` its canceller (128 ms) and residual suppression.
 */
SE_API int se_peer_speexdsp(const float* mic, const float* ref, int frames, int echo, float* out);

/* Noise suppression "high" and the high-pass filter; with `echo` the echo canceller. */
SE_API int se_peer_webrtc(const float* mic, const float* ref, int frames, int echo, float* out);

SE_END_C

#endif

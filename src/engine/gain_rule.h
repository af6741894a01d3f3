// The second half of the frame pipeline: from the network's band values to the output spectrum.
//
// The rule's numbers stand here and nowhere else; training takes them from the library
// (se_training_shape() in training/native).
#pragma once

#include "engine/se_instance.h"

namespace se {

// Reference energy of a frame above which the far end is active: that of a sine at -64 dB of full
// scale.
constexpr double kFarEndEnergy = 0.01;
// While it is, gains are squared, and squared gains below this become 0.
constexpr double kFarEndGate = 0.1;

constexpr int kFirstKeptBin = 4;              // bins below (125 Hz) get no gain
constexpr int kFirstFullBin = 8;              // bins below get the lower make-up gain
constexpr float kMakeUp = 3.0f;               // of full bins and of the unprocessed signal
constexpr float kLowMakeUp = 0.5f * kMakeUp;  // of kept bins that are not full

// Turns 257 gains of the network into those of the output, in place: square and gate while
// `ref_energy` says that the far end is active, which removes the echo that cancellation left; then
// the make-up gains.
void reshape_gains(float* gain, float ref_energy);

// Shapes the spectrum of five frames ago by the band values that the network has just given for it.
//
//   in   bands         128 values in 0..1; null while the network fills, which leaves the gains of
//                      the frame before in place (0 from creation)
//        ref_energy    of the front end
//        s.mic_spec[1] this frame's spectrum, which goes into the delay line
//   out  s.nn_gain     257 gains: expanded from the bands, taken down in long noise, reshaped
//        s.mic_spec[1] the denoised spectrum: the delayed one times these gains
void apply_gain_rule(SEInstance& s, const float* bands, float ref_energy);

// Adds the delayed unprocessed spectrum to s.mic_spec[1]: at `dry_mix` from the first kept bin on,
// or, with `use_ns`, at `ns_dry_mix` in all bins, followed by the classical suppressor, whose noise
// estimate is then in s.noise_spec.
void mix_unprocessed(SEInstance& s, bool use_ns);

}  // namespace se

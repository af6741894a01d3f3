// The engine instance: every module's state and every buffer of one audio stream.
#pragma once

#include <cstdint>

#include "common/geometry.h"
#include "common/module_memory.h"
#include "engine/delays.h"
#include "engine/equaliser.h"
#include "speechenhance/aec.h"
#include "speechenhance/denoiser.h"
#include "speechenhance/dynamics.h"
#include "speechenhance/noise_reduction.h"
#include "speechenhance/speechenhance.h"
#include "speechenhance/zel_stft.h"

namespace se {

constexpr int kHistoryLen = kLookAhead + 1;

}  // namespace se

// Lies at the start of the static block; `static_mem` and `scratch_mem` are the engine's only two
// allocations. All pointers are set once by se_create() and point into these blocks.
struct SEInstance {
  void* static_mem;           // as the allocator returned it
  void* scratch_mem;          // shared by all modules, holds nothing between calls
  zel_lcomplex* mic_spec[2];  // this frame's spectra; [1] becomes the output spectrum
  float* mic_pow[2];          // their power spectra
  zel_lcomplex* ref_spec;     // this frame's reference spectrum
  float* window;              // 512 samples, shared by the four transforms
  stft_state* stft_mic[2];
  stft_state* stft_ref;
  stft_state* stft_out;
  aec_state* aec;
  NoiseEstimator* noise_est;
  float* noise_spec;  // 257: noise power estimate
  NoiseSuppressor* noise_sup;
  zel_lcomplex* ns_spec;       // 257: the suppressor's output
  void* nn;                    // the denoiser
  zel_lcomplex* spec_history;  // the last 6 echo-reduced spectra of microphone 1, a ring
  float* nn_gain;              // 257: gain of the frame five frames ago
  LimiterStruct* limiter;
  alignas(8) std::int64_t frame_count;  // frames since creation
  float dry_mix;                        // linear level of the unprocessed signal, plain mix
  float ns_dry_mix;                     // the same ahead of the classical suppressor
  std::int32_t limiter_enable;
  float limiter_max_gain;  // linear ceiling
  float limiter_level_db;  // make-up gain, dB
  AgcCore* agc;            // for hosts; the pipeline does not run it
  std::int32_t reserved_a;
  float win_energy_db;  // 10 log10 of win_energy, or -400
  float win_energy;     // sum of the squared window samples
  std::int32_t reserved_b;
  ShelfBand low_shelf;
  ShelfBand high_shelf;
  PeakBand peak[se::kNumPeakBands];
};

namespace se {

constexpr RecordSlot kInstanceSlot{287, 280};

// As se_create(), but with the parameters of `model`, which outlives the instance with its tables,
// and without a word on standard output. Null where memory is short.
SEInstance* create_instance(const DenoiseModel* model);

// Makes the instance what create_instance() gave, in the memory that it has.
void reset_instance(SEInstance* instance, const DenoiseModel* model);

// As set_nn_process_config(), without a word on standard output.
void configure(SEInstance* instance, const NnProcessConfig& config);

}  // namespace se

// The hot loops of the library behind one table of functions.
//
// A kernel is a plain function over arrays that the caller owns; it allocates nothing and keeps
// nothing. The scalar variant is the definition: every other variant gives the same bits. Which
// variant runs is decided once, when the library is loaded: the best one that the CPU and the
// operating system can run, or the one that the environment variable SPEECHENHANCE_KERNELS names
// ("scalar", "avx2", "avxvnni", "avx512", "neon", "dotprod", "i8mm", "wasm128"; a name that is
// unknown or cannot run here is ignored). Modules call `kernels()` per use and never ask about the
// CPU themselves.
#pragma once

#include "kernels/echo_kernels.h"
#include "kernels/nn_kernels.h"
#include "kernels/noise_kernels.h"
#include "kernels/sample_kernels.h"
#include "kernels/spectral_kernels.h"

namespace se {

struct Kernels {
  const char* name;  // "scalar", ...
  const SpectralKernels* spectral;
  const EchoKernels* echo;
  const NnKernels* nn;
  const NoiseKernels* noise;
  const SampleKernels* sample;
};

extern const Kernels kScalarKernels;

// The variant in use. Never null; safe to call from any thread and before static constructors ran.
const Kernels& kernels();

// For tests and benchmarks, while nothing is processed: the variants that can run here, best first,
// the scalar one last (`index` from 0; null past the last one), and the choice of one by its name.
// False, and nothing changed, where there is no such variant.
const Kernels* available_kernels(int index);
bool use_kernels(const char* name);

}  // namespace se

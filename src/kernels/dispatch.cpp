// What happens when the library is loaded: the floating-point mode is set and the kernel variant
// chosen.
#include <cstdlib>
#include <cstring>

#include "common/float_mode.h"
#include "kernels/kernels.h"
#include "kernels/variants.h"

#if SE_DOTPROD_KERNELS
#include <sys/auxv.h>
#endif

namespace se {

const Kernels kScalarKernels = {"scalar",   &kScalarSpectral, &kScalarEcho,
                                &kScalarNn, &kScalarNoise,    &kScalarSample};

namespace {

bool runs_everywhere() {
  return true;
}

#if SE_X86_KERNELS
const Kernels kAvx2Kernels = {"avx2",   &kAvx2Spectral, &kAvx2Echo,
                              &kAvx2Nn, &kAvx2Noise,    &kAvx2Sample};

// The rooms that gain nothing from 512 bits keep their AVX2 kernels.
const Kernels kAvx512Kernels = {"avx512",   &kAvx2Spectral, &kAvx2Echo,
                                &kAvx512Nn, &kAvx2Noise,    &kAvx2Sample};

// The built-in asks the operating system as well: it must save the wide registers.
bool runs_avx2() {
  return __builtin_cpu_supports("avx2") && __builtin_cpu_supports("fma");
}

bool runs_avx512() {
  return runs_avx2() && __builtin_cpu_supports("avx512f") && __builtin_cpu_supports("avx512bw") &&
         __builtin_cpu_supports("avx512dq") && __builtin_cpu_supports("avx512vl") &&
         __builtin_cpu_supports("avx512vnni");
}
#endif

#if SE_NEON_KERNELS
const Kernels kNeonKernels = {"neon",   &kNeonSpectral, &kNeonEcho,
                              &kNeonNn, &kNeonNoise,    &kNeonSample};
#endif

#if SE_DOTPROD_KERNELS
const Kernels kDotprodKernels = {"dotprod",   &kNeonSpectral, &kNeonEcho,
                                 &kDotprodNn, &kNeonNoise,    &kNeonSample};

bool runs_dotprod() {
  constexpr unsigned long kDotProducts = 1ul << 20;  // HWCAP_ASIMDDP of Linux on AArch64
  return (getauxval(AT_HWCAP) & kDotProducts) != 0;
}
#endif

struct Variant {
  const Kernels* kernels;
  bool (*runs_here)();
};

// Best first.
constexpr Variant kVariants[] = {
#if SE_X86_KERNELS
    {&kAvx512Kernels, runs_avx512},  //
    {&kAvx2Kernels, runs_avx2},
#endif
#if SE_DOTPROD_KERNELS
    {&kDotprodKernels, runs_dotprod},
#endif
#if SE_NEON_KERNELS  // where the whole build is for NEON
    {&kNeonKernels, runs_everywhere},
#endif
    {&kScalarKernels, runs_everywhere},
};

const Kernels* g_active = &kScalarKernels;

__attribute__((constructor)) void on_load() {
  flush_subnormals_to_zero();
#if SE_X86_KERNELS
  __builtin_cpu_init();
#endif
  g_active = available_kernels(0);
  if (const char* name = std::getenv("SPEECHENHANCE_KERNELS")) use_kernels(name);
}

}  // namespace

const Kernels& kernels() {
  return *g_active;
}

const Kernels* available_kernels(int index) {
  for (const Variant& variant : kVariants) {
    if (variant.runs_here() && index-- == 0) return variant.kernels;
  }
  return nullptr;
}

bool use_kernels(const char* name) {
  for (int i = 0; const Kernels* variant = available_kernels(i); ++i) {
    if (std::strcmp(variant->name, name) == 0) {
      g_active = variant;
      return true;
    }
  }
  return false;
}

}  // namespace se

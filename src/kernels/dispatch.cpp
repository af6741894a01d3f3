// The variants of this build, and what happens when the library is loaded: the floating-point mode
// is set, where the library does that, the tables of the variants are filled and one is chosen.
#include <cstdlib>
#include <cstring>
#include <type_traits>

#include "common/float_mode.h"
#include "kernels/kernels.h"
#include "kernels/variants.h"

#if SE_KERNELS_AVXVNNI
#include <cpuid.h>
#endif
#if SE_KERNELS_DOTPROD || SE_KERNELS_I8MM
#include <sys/auxv.h>
#endif

namespace se {

const Kernels kScalarKernels = {"scalar",   &kScalarSpectral, &kScalarEcho,
                                &kScalarNn, &kScalarNoise,    &kScalarSample};

namespace {

// The tables of a variant, by room.
struct Rooms {
  SpectralKernels spectral;
  EchoKernels echo;
  NnKernels nn;
  NoiseKernels noise;
  SampleKernels sample;
};

// The tables are filled when the library is loaded; an initialisation of their own could come
// later.
static_assert(std::is_trivially_default_constructible_v<Rooms>);

struct Variant {
  const char* name;
  bool (*runs_here)();
  void (*fill)(Rooms& rooms);  // starting from the scalar kernels, base before refinement
};

#if SE_KERNELS_AVX2
// The built-in asks the operating system as well: it must save the wide registers.
bool runs_avx2() {
  return __builtin_cpu_supports("avx2") && __builtin_cpu_supports("fma");
}

void fill_avx2(Rooms& rooms) {
  use_avx2(rooms.spectral);
  use_avx2(rooms.echo);
  use_avx2(rooms.nn);
  use_avx2(rooms.noise);
  use_avx2(rooms.sample);
}
#endif

#if SE_KERNELS_AVXVNNI
// Asked of the CPU itself: not every compiler's built-in knows the name.
bool runs_avxvnni() {
  constexpr unsigned kAvxVnni = 1u << 4;  // EAX of leaf 7, subleaf 1
  unsigned most_subleaves, eax, ebx, ecx, edx;
  return runs_avx2() && __get_cpuid_count(7, 0, &most_subleaves, &ebx, &ecx, &edx) != 0 &&
         most_subleaves >= 1 && __get_cpuid_count(7, 1, &eax, &ebx, &ecx, &edx) != 0 &&
         (eax & kAvxVnni) != 0;
}

void fill_avxvnni(Rooms& rooms) {
  fill_avx2(rooms);
  use_avxvnni(rooms.nn);
}
#endif

#if SE_KERNELS_AVX512
bool runs_avx512() {
  return runs_avx2() && __builtin_cpu_supports("avx512f") && __builtin_cpu_supports("avx512bw") &&
         __builtin_cpu_supports("avx512dq") && __builtin_cpu_supports("avx512vl") &&
         __builtin_cpu_supports("avx512vnni");
}

// The rooms that gain nothing from 512 bits keep their AVX2 kernels.
void fill_avx512(Rooms& rooms) {
  fill_avx2(rooms);
  use_avx512(rooms.nn);
}
#endif

#if SE_KERNELS_NEON
void fill_neon(Rooms& rooms) {
  use_neon(rooms.spectral);
  use_neon(rooms.echo);
  use_neon(rooms.nn);
  use_neon(rooms.noise);
  use_neon(rooms.sample);
}

// The build as a whole is for NEON.
bool runs_neon() {
  return true;
}
#endif

#if SE_KERNELS_DOTPROD
bool runs_dotprod() {
  constexpr unsigned long kDotProducts = 1ul << 20;  // HWCAP_ASIMDDP of Linux on AArch64
  return (getauxval(AT_HWCAP) & kDotProducts) != 0;
}

void fill_dotprod(Rooms& rooms) {
  fill_neon(rooms);
  use_dotprod(rooms.nn);
}
#endif

#if SE_KERNELS_I8MM
bool runs_i8mm() {
  constexpr unsigned long kByteMatrices = 1ul << 13;  // HWCAP2_I8MM of Linux on AArch64
  return (getauxval(AT_HWCAP2) & kByteMatrices) != 0;
}

void fill_i8mm(Rooms& rooms) {
  fill_neon(rooms);
  use_i8mm(rooms.nn);
}
#endif

#if SE_KERNELS_WASM128
void fill_wasm128(Rooms& rooms) {
  use_wasm128(rooms.spectral);
  use_wasm128(rooms.nn);
}

// The module as a whole is for vectors.
bool runs_wasm128() {
  return true;
}
#endif

// Best first. The scalar variant, behind all of them, needs no entry.
constexpr Variant kVariants[] = {
#if SE_KERNELS_AVX512
    {"avx512", runs_avx512, fill_avx512},
#endif
#if SE_KERNELS_AVXVNNI
    {"avxvnni", runs_avxvnni, fill_avxvnni},
#endif
#if SE_KERNELS_AVX2
    {"avx2", runs_avx2, fill_avx2},
#endif
#if SE_KERNELS_I8MM
    {"i8mm", runs_i8mm, fill_i8mm},
#endif
#if SE_KERNELS_DOTPROD
    {"dotprod", runs_dotprod, fill_dotprod},
#endif
#if SE_KERNELS_NEON
    {"neon", runs_neon, fill_neon},
#endif
#if SE_KERNELS_WASM128
    {"wasm128", runs_wasm128, fill_wasm128},
#endif
    {nullptr, nullptr, nullptr}};

constexpr int kMostVariants = static_cast<int>(sizeof kVariants / sizeof kVariants[0]);
Rooms g_rooms[kMostVariants];
Kernels g_filled[kMostVariants];
const Kernels* g_available[kMostVariants];  // those that run here, best first
int g_available_count = 0;
const Kernels* g_active = &kScalarKernels;

void fill_tables() {
  for (const Variant& variant : kVariants) {
    if (!variant.name || !variant.runs_here()) continue;
    Rooms& rooms = g_rooms[g_available_count];
    rooms = {kScalarSpectral, kScalarEcho, kScalarNn, kScalarNoise, kScalarSample};
    variant.fill(rooms);
    Kernels& filled = g_filled[g_available_count];
    filled = {variant.name, &rooms.spectral, &rooms.echo, &rooms.nn, &rooms.noise, &rooms.sample};
    g_available[g_available_count++] = &filled;
  }
  g_available[g_available_count++] = &kScalarKernels;
}

__attribute__((constructor)) void on_load() {
  if (kLoadingSetsFloatMode) flush_subnormals_to_zero();
#if SE_KERNELS_AVX2
  __builtin_cpu_init();
#endif
  fill_tables();
  g_active = available_kernels(0);
  if (const char* name = std::getenv("SPEECHENHANCE_KERNELS")) use_kernels(name);
}

}  // namespace

const Kernels& kernels() {
  return *g_active;
}

const Kernels* available_kernels(int index) {
  return index < g_available_count ? g_available[index] : nullptr;
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

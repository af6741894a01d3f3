// Flush-to-zero: subnormal results become zero, as they do in the vector unit of the smallest
// target whatever its mode. Fading echoes and filters would otherwise spend their tails in slow
// subnormal arithmetic, and the bits would depend on the CPU.
#pragma once

#include <cstdint>

#if defined(__SSE__)
#include <xmmintrin.h>
#endif

namespace se {

// Sets the mode on the calling thread (on x86 also denormals-are-zero, which ARM's mode includes).
inline void flush_subnormals_to_zero() {
#if defined(__SSE__)
  constexpr unsigned kFlushToZero = 0x8000, kDenormalsAreZero = 0x0040;
  _mm_setcsr(_mm_getcsr() | kFlushToZero | kDenormalsAreZero);
#elif defined(__aarch64__)
  std::uint64_t control;
  __asm__ volatile("mrs %0, fpcr" : "=r"(control));
  __asm__ volatile("msr fpcr, %0" : : "r"(control | (1u << 24)));
#elif defined(__arm__) && defined(__ARM_FP)
  std::uint32_t control;
  __asm__ volatile("vmrs %0, fpscr" : "=r"(control));
  __asm__ volatile("vmsr fpscr, %0" : : "r"(control | (1u << 24)));
#endif
}

}  // namespace se

// Flush-to-zero: subnormal results become zero, as they do in the vector unit of the smallest
// target whatever its mode. Fading echoes and filters would otherwise spend their tails in slow
// subnormal arithmetic, and the bits would depend on the CPU.
#pragma once

#include <cstdint>

#if defined(__SSE__)
#include <xmmintrin.h>
#endif

namespace se {

#if defined(__SSE__)
using FloatControl = unsigned;
constexpr FloatControl kDefaultFloatControl = 0x1F80;  // to nearest, no traps
constexpr FloatControl kFlushSubnormals = 0x8040;      // flush-to-zero, denormals-are-zero
inline FloatControl float_control() {
  return _mm_getcsr();
}
inline void set_float_control(FloatControl control) {
  _mm_setcsr(control);
}
#elif defined(__aarch64__)
using FloatControl = std::uint64_t;
constexpr FloatControl kDefaultFloatControl = 0;
constexpr FloatControl kFlushSubnormals = 1u << 24;
inline FloatControl float_control() {
  FloatControl control;
  __asm__ volatile("mrs %0, fpcr" : "=r"(control));
  return control;
}
inline void set_float_control(FloatControl control) {
  __asm__ volatile("msr fpcr, %0" : : "r"(control) : "memory");
}
#elif defined(__arm__) && defined(__ARM_FP)
using FloatControl = std::uint32_t;
constexpr FloatControl kDefaultFloatControl = 0;
constexpr FloatControl kFlushSubnormals = 1u << 24;
inline FloatControl float_control() {
  FloatControl control;
  __asm__ volatile("vmrs %0, fpscr" : "=r"(control));
  return control;
}
inline void set_float_control(FloatControl control) {
  __asm__ volatile("vmsr fpscr, %0" : : "r"(control) : "memory");
}
#else  // no mode to set
using FloatControl = unsigned;
constexpr FloatControl kDefaultFloatControl = 0;
constexpr FloatControl kFlushSubnormals = 0;
inline FloatControl float_control() {
  return 0;
}
inline void set_float_control(FloatControl) {}
#endif

// Whether loading the library sets the mode on the loading thread: each library that the engine is
// linked into says for itself.
extern const bool kLoadingSetsFloatMode;

// Sets the mode on the calling thread (on x86 also denormals-are-zero, which ARM's mode includes).
inline void flush_subnormals_to_zero() {
  set_float_control(float_control() | kFlushSubnormals);
}

// The engine's mode for as long as it lives, whatever the caller's was: subnormals flushed,
// rounding to nearest, no traps. Then the caller's again, with the exception flags that it had.
class FloatModeScope {
 public:
  FloatModeScope() : callers_(float_control()) {
    set_float_control(kDefaultFloatControl | kFlushSubnormals);
  }
  ~FloatModeScope() { set_float_control(callers_); }
  FloatModeScope(const FloatModeScope&) = delete;
  FloatModeScope& operator=(const FloatModeScope&) = delete;

 private:
  FloatControl callers_;
};

}  // namespace se

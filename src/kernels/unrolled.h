// Loops written out, for the sums of a block that are to stay in registers.
#pragma once

// For lambdas that have to be inlined as their callers are.
#define SE_INLINE __attribute__((always_inline))

namespace se {
namespace {

// body(0), body(1), ... body(kCount - 1), written out so that arrays indexed by them become
// registers. (GCC unrolls nested loops too late for that.)
template <int kCount, class Body>
SE_INLINE inline void unrolled(Body body) {
  if constexpr (kCount > 0) {
    unrolled<kCount - 1>(body);
    body(kCount - 1);
  }
}

// Hides from the compiler where a pointer stands, so that it carries no values from one step of a
// loop to the next instead of loading them where they are used.
template <class T>
SE_INLINE inline void forget(T*& p) {
  __asm__("" : "+r"(p));
}

}  // namespace
}  // namespace se

// Watches the allocator of the whole test program, the library included; for one source file of it.
// Sanitizers bring their own allocator: nothing is watched under them.
#pragma once

#include <cstddef>

inline thread_local std::size_t g_allocations = 0;  // of this thread since the program started
inline thread_local long g_live = 0;                // less its frees
inline thread_local int g_failing_calloc = 0;       // 1: the next calloc fails; 0: none does

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr bool kAllocationTrapWorks = false;
#else
constexpr bool kAllocationTrapWorks = true;

extern "C" {
void* __libc_malloc(std::size_t bytes);
void* __libc_calloc(std::size_t count, std::size_t bytes);
void* __libc_realloc(void* memory, std::size_t bytes);
void __libc_free(void* memory);

__attribute__((visibility("default"))) void* malloc(std::size_t bytes) {
  ++g_allocations;
  ++g_live;
  return __libc_malloc(bytes);
}

__attribute__((visibility("default"))) void* calloc(std::size_t count, std::size_t bytes) {
  ++g_allocations;
  if (g_failing_calloc > 0 && --g_failing_calloc == 0) return nullptr;
  ++g_live;
  return __libc_calloc(count, bytes);
}

__attribute__((visibility("default"))) void* realloc(void* memory, std::size_t bytes) {
  ++g_allocations;
  if (memory == nullptr) ++g_live;
  return __libc_realloc(memory, bytes);
}

__attribute__((visibility("default"))) void free(void* memory) {
  if (memory != nullptr) --g_live;
  __libc_free(memory);
}
}
#endif

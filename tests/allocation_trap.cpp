#include "allocation_trap.h"

namespace {
thread_local std::size_t g_allocations = 0;
thread_local long g_live = 0;
thread_local int g_fail_countdown = 0;
}  // namespace

std::size_t allocations_so_far() {
  return g_allocations;
}

long live_allocations() {
  return g_live;
}

void fail_calloc(int countdown) {
  g_fail_countdown = countdown;
}

#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
extern "C" {
void* __libc_malloc(std::size_t bytes);
void* __libc_calloc(std::size_t count, std::size_t bytes);
void __libc_free(void* memory);

__attribute__((visibility("default"))) void* malloc(std::size_t bytes) {
  ++g_allocations;
  ++g_live;
  return __libc_malloc(bytes);
}

__attribute__((visibility("default"))) void* calloc(std::size_t count, std::size_t bytes) {
  ++g_allocations;
  if (g_fail_countdown > 0 && --g_fail_countdown == 0) return nullptr;
  ++g_live;
  return __libc_calloc(count, bytes);
}

__attribute__((visibility("default"))) void free(void* memory) {
  if (memory != nullptr) --g_live;
  __libc_free(memory);
}
}
#endif

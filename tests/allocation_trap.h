// Watches the allocator of the whole test program, the library included. Does nothing under
// sanitizers, which bring their own allocator: `kAllocationTrapWorks` says so.
#pragma once

#include <cstddef>

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr bool kAllocationTrapWorks = false;
#else
constexpr bool kAllocationTrapWorks = true;
#endif

// Allocations of this thread since the program started.
std::size_t allocations_so_far();

// Allocations of this thread minus its frees of memory other than null.
long live_allocations();

// Makes this thread's calloc number `countdown` from now on (1 = the next one) fail; 0 stops that.
void fail_calloc(int countdown);

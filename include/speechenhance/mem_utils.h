/* Aligned memory. All functions may be called from any thread. */
#ifndef SPEECHENHANCE_MEM_UTILS_H
#define SPEECHENHANCE_MEM_UTILS_H

#include <stdint.h>

#include "export.h"

SE_BEGIN_C

/* `size` bytes on a multiple of `alignment` (a power of two), or null when memory is short, the
 * alignment is 0 or no power of two, or the request does not fit the address space. The result lies
 * 5 to 4 + alignment bytes above an address obtained from malloc(); the four bytes below it are the
 * allocator's. The caller owns the memory and releases it with aligned_free(). */
SE_API void* aligned_malloc(uint32_t size, uint32_t alignment);

/* The same, set to zero. */
SE_API void* aligned_zmalloc(uint32_t size, uint32_t alignment);

/* The same for count * size bytes; the product wraps at 32 bits unchecked. */
SE_API void* aligned_calloc(uint32_t count, uint32_t size, uint32_t alignment);

/* Releases memory of one of the three above. Null is accepted. */
SE_API void aligned_free(void* memory);

SE_END_C

#endif

// Aligned allocation, offered to hosts beside the engine; the library allocates with calloc alone.
#include "speechenhance/mem_utils.h"

#include <cstdint>
#include <cstdlib>
#include <cstring>

// The word below a result holds the low 32 bits of the address that malloc gave. The result lies at
// most 4 + 2^31 bytes above that address, so the low 32 bits of their distance are the distance:
// wider pointers need no wider word, and the placement is the same on every target.

void* aligned_malloc(uint32_t size, uint32_t alignment) {
  if (alignment == 0 || ((alignment - 1) & alignment) != 0) return nullptr;
  const std::uint64_t bytes = std::uint64_t{size} + 4 + alignment;
  if (bytes > SIZE_MAX) return nullptr;
  void* allocated = std::malloc(static_cast<std::size_t>(bytes));
  if (allocated == nullptr) return nullptr;

  const auto start = reinterpret_cast<std::uintptr_t>(allocated);
  const std::uintptr_t aligned = ((start + 4) | (std::uintptr_t{alignment} - 1)) + 1;
  auto* result = static_cast<char*>(allocated) + (aligned - start);
  const auto low_word = static_cast<uint32_t>(start);
  std::memcpy(result - sizeof low_word, &low_word, sizeof low_word);
  return result;
}

void* aligned_zmalloc(uint32_t size, uint32_t alignment) {
  void* result = aligned_malloc(size, alignment);
  if (result != nullptr) std::memset(result, 0, size);
  return result;
}

void* aligned_calloc(uint32_t count, uint32_t size, uint32_t alignment) {
  return aligned_zmalloc(count * size, alignment);
}

void aligned_free(void* memory) {
  if (memory == nullptr) return;
  auto* result = static_cast<char*>(memory);
  uint32_t low_word;
  std::memcpy(&low_word, result - sizeof low_word, sizeof low_word);
  const auto low_result = static_cast<uint32_t>(reinterpret_cast<std::uintptr_t>(result));
  std::free(result - static_cast<uint32_t>(low_result - low_word));
}

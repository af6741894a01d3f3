// The one mechanism by which modules find their place in memory that the caller owns.
//
// A module describes its memory once, as a walk over a region: first its state record, then its
// buffers and nested modules, slot after slot without gaps. The same walk answers both questions:
// started without a base address it measures (every pointer is null, `size()` is what *_query_mem
// and *_query_scratch return); started at an address it places.
//
//   struct Layout { LimiterStruct* state; float* blocks; };
//   Layout lay_out(MemoryWalk& mem) {
//     return {mem.record<LimiterStruct>(kLimiterSlot), mem.buffer<float>(3 * 16)};
//   }
//   size_t limiter_query_mem() { return measured(lay_out); }
//
// A module of many buffers lets the walk fill in a record, `fields`, with which its init begins.
//
// Braced initialisers evaluate in order, so the order of the fields is the order in memory. The
// address handed in may have any alignment: every slot is consumed whole, slack included, whether
// or not the rounding needed it.
#pragma once

#include <cstddef>
#include <cstdint>

namespace se {

// What a state record takes in its module's memory. `bytes` is the figure in the headers for the
// slot on targets with 4-byte pointers, slack for alignment included, and `record_bytes` the size
// of the record there. Wider pointers grow the slot by exactly what the record grows. `alignment`
// asks for a wider boundary than the record's own (a record of 4-byte pointers that starts on a
// multiple of 8).
struct RecordSlot {
  std::size_t bytes;
  std::size_t record_bytes;
  std::size_t alignment = 1;

  constexpr std::size_t bytes_for(std::size_t actual_record_bytes) const {
    return actual_record_bytes > record_bytes ? bytes + (actual_record_bytes - record_bytes)
                                              : bytes;
  }
};

class MemoryWalk {
 public:
  MemoryWalk() = default;                                    // measures
  explicit MemoryWalk(void* base) : base_(address(base)) {}  // places

  // The state record, on its natural boundary or the wider one of its slot. Growing the slot by the
  // record alone leaves room for the boundary of 8 that 8-byte pointers ask for: whatever follows
  // in the region is aligned to at least 8 and is placed 3 or more bytes behind the unaligned end
  // of the record, so it can never reach back over the end of the aligned one.
  template <class Record>
  Record* record(RecordSlot slot) {
    return take<Record>(slot.bytes_for(sizeof(Record)),
                        alignof(Record) > slot.alignment ? alignof(Record) : slot.alignment);
  }

  // A buffer of `count` values on a 16-byte boundary: 15 bytes of slack. Tables that follow one
  // another without slack of their own are one buffer, split by the module.
  template <class T>
  T* buffer(std::size_t count) {
    return take<T>(count * sizeof(T) + kBufferAlignment - 1, kBufferAlignment);
  }

  // The region of a nested module of `bytes`, handed to its own init as it is (any alignment).
  void* nested(std::size_t bytes) { return take<void>(bytes, 1); }

  // Bytes walked so far.
  std::size_t size() const { return used_; }

 private:
  static constexpr std::size_t kBufferAlignment = 16;

  static std::uintptr_t address(void* p) { return reinterpret_cast<std::uintptr_t>(p); }

  template <class T>
  T* take(std::size_t bytes, std::size_t alignment) {
    const std::uintptr_t start = base_ + used_;
    used_ += bytes;
    if (base_ == 0) return nullptr;
    return reinterpret_cast<T*>((start + (alignment - 1)) & ~(alignment - 1));
  }

  std::uintptr_t base_ = 0;
  std::size_t used_ = 0;
};

// The number of values that a length stands for in a query: a negative one counts as 0.
inline std::size_t count_of(int n) {
  return n > 0 ? static_cast<std::size_t>(n) : 0;
}

// The bytes of the walk that `lay_out` describes.
template <class LayOut, class... Sizes>
std::size_t measured(LayOut lay_out, Sizes... sizes) {
  MemoryWalk mem;
  lay_out(mem, sizes...);
  return mem.size();
}

}  // namespace se

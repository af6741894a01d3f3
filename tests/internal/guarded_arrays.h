// Arrays that end at memory that cannot be touched.
#pragma once

#include <sys/mman.h>
#include <unistd.h>

#include <cmath>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <deque>
#include <new>
#include <type_traits>
#include <vector>

// An array between two inaccessible pages, flush with the second one (a byte read or written past
// the end ends the test program; odd lengths start misaligned) or with the first one.
class GuardedArray {
 public:
  GuardedArray(const void* contents, std::size_t bytes, bool flush_with_end) : bytes_(bytes) {
    const auto page = static_cast<std::size_t>(sysconf(_SC_PAGESIZE));
    const std::size_t room = (bytes + page - 1) / page * page;
    mapped_ = room + 2 * page;
    void* const map =
        mmap(nullptr, mapped_, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (map == MAP_FAILED) throw std::bad_alloc();
    map_ = static_cast<unsigned char*>(map);
    mprotect(map_, page, PROT_NONE);
    mprotect(map_ + page + room, page, PROT_NONE);
    data_ = map_ + page + (flush_with_end ? room - bytes : 0);
    if (bytes > 0) std::memcpy(data_, contents, bytes);
  }
  ~GuardedArray() { munmap(map_, mapped_); }
  GuardedArray(const GuardedArray&) = delete;
  GuardedArray& operator=(const GuardedArray&) = delete;

  unsigned char* data() const { return data_; }
  std::size_t bytes() const { return bytes_; }

 private:
  unsigned char* map_;
  unsigned char* data_;
  std::size_t mapped_, bytes_;
};

// The arrays of one kernel call, inputs and outputs alike.
class Arrays {
 public:
  explicit Arrays(bool flush_with_end) : flush_with_end_(flush_with_end) {}

  template <class T>
  T* place(const std::vector<T>& values) {
    arrays_.emplace_back(values.data(), values.size() * sizeof(T), flush_with_end_);
    is_float_.push_back(!std::is_integral<T>::value);
    return reinterpret_cast<T*>(arrays_.back().data());
  }

  // Equal to the bit; only that all NaNs count as one.
  bool operator==(const Arrays& other) const {
    if (arrays_.size() != other.arrays_.size()) return false;
    for (std::size_t i = 0; i < arrays_.size(); ++i) {
      const unsigned char *a = arrays_[i].data(), *b = other.arrays_[i].data();
      if (arrays_[i].bytes() != other.arrays_[i].bytes()) return false;
      if (!is_float_[i]) {
        if (std::memcmp(a, b, arrays_[i].bytes()) != 0) return false;
        continue;
      }
      for (std::size_t k = 0; k < arrays_[i].bytes(); k += sizeof(float)) {
        float x, y;
        std::memcpy(&x, a + k, sizeof x);
        std::memcpy(&y, b + k, sizeof y);
        if (std::memcmp(&x, &y, sizeof x) != 0 && !(std::isnan(x) && std::isnan(y))) return false;
      }
    }
    return true;
  }

 private:
  bool flush_with_end_;
  std::deque<GuardedArray> arrays_;
  std::vector<bool> is_float_;
};

// What the fuzz targets share: their entry, a check that stops the run, and a reader of the input.
//
// Each target is one source file with the function below. With Clang it is linked with libFuzzer
// (scripts/fuzz); with every compiler the tests replay the corpus through it (replay.cpp).
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>

// Takes any bytes. Returns 0; a finding ends the process.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

namespace se_fuzz {

inline void check(bool holds, const char* promise) {
  if (holds) return;
  std::fprintf(stderr, "broken promise: %s\n", promise);
  std::abort();
}

// Values taken off the front of an input, zero behind its end.
class Input {
 public:
  Input(const std::uint8_t* data, std::size_t size) : data_(data), left_(size) {}

  bool empty() const { return left_ == 0; }

  template <class T>
  T take() {
    T value = {};
    const std::size_t count = left_ < sizeof value ? left_ : sizeof value;
    std::memcpy(&value, data_, count);
    data_ += count;
    left_ -= count;
    return value;
  }

 private:
  const std::uint8_t* data_;
  std::size_t left_;
};

}  // namespace se_fuzz

// A model file with random parameters, built in memory, for tests of the network.
#pragma once

#include <cmath>
#include <cstdint>
#include <cstring>
#include <random>
#include <vector>

#include "nn/model_file.h"

namespace se::nn {

// Small deterministic generator: the same numbers on every machine.
class Random {
 public:
  explicit Random(std::uint32_t seed) : state_(seed * 2654435761u + 1u) {}
  std::uint32_t bits() {
    state_ ^= state_ << 13;
    state_ ^= state_ >> 17;
    state_ ^= state_ << 5;
    return state_;
  }
  // Uniform in [low, high), with 24 random bits.
  float uniform(float low, float high) {
    return low + (high - low) * (static_cast<float>(bits() >> 8) * 0x1p-24f);
  }
  int integer(int low, int high) {
    return low + static_cast<int>(bits() % static_cast<std::uint32_t>(high - low + 1));
  }

 private:
  std::uint32_t state_;
};

// Weights are drawn so that every layer's values spread over its range and the recurrent layers stay
// well below chaos: a rounding difference does not grow from frame to frame.
class RandomModel {
 public:
  explicit RandomModel(std::uint32_t seed) : storage_(kModelFileBytes + kModelAlignment) {
    Random random(seed);
    const auto address = reinterpret_cast<std::uintptr_t>(storage_.data());
    bytes_ = storage_.data() + (kModelAlignment - address % kModelAlignment) % kModelAlignment;
    const auto draw = [&](const char* name, std::int8_t* table, int rows, int columns) {
      const int range = std::strncmp(name, "gru", 3) == 0 ? 24 : 127;
      const int used = std::strcmp(name, "conv1_kernel") == 0 ? 45 : columns;
      for (int r = 0; r < rows; ++r) {
        for (int i = 0; i < used; ++i) {
          table[r * columns + i] = static_cast<std::int8_t>(random.integer(-range, range));
        }
      }
    };
    const auto draw_floats = [&](const char* name, float* table, int count) {
      float low = -0.5f, high = 0.5f;
      if (std::strstr(name, "_scale")) low = 0.0003f, high = 0.002f;
      if (std::strstr(name, "_gamma_var")) low = -0.2f, high = 1.5f;
      if (std::strstr(name, "_gmb")) low = -0.5f, high = 2.0f;
      for (int i = 0; i < count; ++i) table[i] = random.uniform(low, high);
    };
#define SE_MODEL_TABLE(name, type, rows, columns, offset) \
  draw_table(draw, draw_floats, #name, reinterpret_cast<type*>(bytes_ + (offset)), rows, columns);
#include "nn/model_tables.def"
#undef SE_MODEL_TABLE
    seal();
    open_model(bytes_, kModelFileBytes, &records_);
  }
  RandomModel(const RandomModel&) = delete;
  RandomModel& operator=(const RandomModel&) = delete;

  const DenoiseModel& model() const { return records_.model; }
  const unsigned char* bytes() const { return bytes_; }

 private:
  template <class Ints, class Floats>
  static void draw_table(Ints& ints, Floats&, const char* name, std::int8_t* table, int rows,
                         int columns) {
    ints(name, table, rows, columns);
  }
  template <class Ints, class Floats>
  static void draw_table(Ints&, Floats& floats, const char* name, float* table, int rows,
                         int columns) {
    floats(name, table, rows * columns);
  }

  void seal() {
    const std::uint32_t header[3] = {
        kModelVersion, static_cast<std::uint32_t>(kModelFileBytes),
        crc32(bytes_ + kModelHeaderBytes, kModelFileBytes - kModelHeaderBytes)};
    std::memcpy(bytes_, kModelMagic, 8);
    std::memcpy(bytes_ + 8, header, sizeof header);
  }

  std::vector<unsigned char> storage_;
  unsigned char* bytes_;
  ModelRecords records_;
};

}  // namespace se::nn

// A model with random parameters, built in memory as a model file, for tests of the network.
#pragma once

#include <cstdint>
#include <cstring>
#include <vector>

#include "nn/model_file.h"
#include "random_signal.h"

// Parameters are drawn so that every layer's values spread over its range and the recurrent layers
// stay well below chaos: a rounding difference does not grow from frame to frame.
class RandomModel {
 public:
  explicit RandomModel(std::uint64_t seed)
      : storage_(se::nn::kModelFileBytes + se::nn::kModelAlignment) {
    const auto address = reinterpret_cast<std::uintptr_t>(storage_.data());
    bytes_ = storage_.data() + (se::nn::kModelAlignment - address % se::nn::kModelAlignment) %
                                   se::nn::kModelAlignment;
    RandomSignal random(seed);
    unsigned char* next = bytes_ + se::nn::kModelHeaderBytes;
    const se::nn::ModelTable* table = se::nn::kModelTables;
#define SE_MODEL_TABLE(name, type, rows, columns)                    \
  draw(random, #name, reinterpret_cast<type*>(next), rows, columns); \
  next += (table++)->slot();
#include "nn/model_tables.def"
#undef SE_MODEL_TABLE
    seal();
    error_ = se::nn::open_model(bytes_, se::nn::kModelFileBytes, &records_);
  }
  RandomModel(const RandomModel&) = delete;
  RandomModel& operator=(const RandomModel&) = delete;

  const DenoiseModel* get() const {
    return &records_.model;
  }
  const char* error() const {
    return error_;
  }

  // The file itself, and its checksum brought up to date after a change.
  unsigned char* file() {
    return bytes_;
  }
  void seal() {
    using namespace se::nn;
    const std::uint32_t header[3] = {
        kModelVersion, static_cast<std::uint32_t>(kModelFileBytes),
        crc32(bytes_ + kModelHeaderBytes, kModelFileBytes - kModelHeaderBytes)};
    std::memcpy(bytes_, kModelMagic, 8);
    std::memcpy(bytes_ + 8, header, sizeof header);
  }

  // A table of get() for writing.
  template <class T>
  static T* writable(const T* table) {
    return const_cast<T*>(table);
  }

 private:
  static void draw(RandomSignal& random, const char* name, std::int8_t* table, int rows,
                   int columns) {
    const float range = std::strncmp(name, "gru", 3) == 0 ? 25.0f : 127.9f;
    const int used = std::strcmp(name, "conv1_kernel") == 0 ? 45 : columns;
    for (int r = 0; r < rows; ++r) {
      for (int i = 0; i < used; ++i) {
        table[r * columns + i] = static_cast<std::int8_t>(range * random.uniform());
      }
    }
  }

  static void draw(RandomSignal& random, const char* name, float* table, int rows, int columns) {
    float low = -0.5f, high = 0.5f;
    if (std::strstr(name, "_scale")) low = 0.0003f, high = 0.002f;
    if (std::strstr(name, "_gamma_var")) low = -0.2f, high = 1.5f;
    if (std::strstr(name, "_gmb")) low = -0.5f, high = 2.0f;
    for (int i = 0; i < rows * columns; ++i) {
      table[i] = low + (high - low) * (0.5f + 0.5f * random.uniform());
    }
  }

  std::vector<unsigned char> storage_;
  unsigned char* bytes_;
  se::nn::ModelRecords records_;
  const char* error_;
};

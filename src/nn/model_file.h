// The model file: the denoiser's parameters as one block of bytes, compiled into the library and
// loadable at run time by tests and tools.
//
// Layout (little-endian; version 1; the size is fixed by the network):
//   0   8 bytes   "SEDENOIS"
//   8   uint32    version, 1
//   12  uint32    size of the file in bytes
//   16  uint32    CRC-32 (IEEE 802.3, as zlib's) of everything from byte 64 on
//   20  44 bytes  name of the model, UTF-8, padded with zeros (at least one)
//   64  tables    as listed in model_tables.def
#pragma once

#include <cstddef>
#include <cstdint>

#include "nn/network.h"
#include "speechenhance/denoiser.h"

namespace se::nn {

constexpr char kModelMagic[] = "SEDENOIS";
constexpr std::uint32_t kModelVersion = 1;
constexpr std::size_t kModelHeaderBytes = 64;
constexpr std::size_t kModelNameOffset = 20;
constexpr std::size_t kModelAlignment = 16;

struct ModelTable {
  const char* name;
  std::size_t offset;
  std::size_t bytes;
};

constexpr ModelTable kModelTables[] = {
#define SE_MODEL_TABLE(name, type, rows, columns, offset) \
  {#name, offset, std::size_t{rows} * (columns) * sizeof(type)},
#include "nn/model_tables.def"
#undef SE_MODEL_TABLE
};

// Bytes of all tables; the file adds its header.
constexpr std::size_t model_table_bytes() {
  std::size_t sum = 0;
  for (const ModelTable& table : kModelTables) sum += table.bytes;
  return sum;
}
constexpr std::size_t kModelFileBytes = kModelHeaderBytes + model_table_bytes();

// A model read from a file: its records, with pointers into the file's bytes.
struct ModelRecords {
  Conv2DLayer conv[kConvLayers];
  BNLayer bn[kConvLayers];
  GRULayer gru[kGruLayers];
  FCLayer fc[kHeads];
  DenoiseModel model;
};

// Builds the records over `size` bytes at `file`, which start on a 16-byte boundary and stay in
// place as long as the records are used. Returns null on success, otherwise what is wrong with the
// bytes. `records->model` points into *records, which must not move.
const char* open_model(const void* file, std::size_t size, ModelRecords* records);

// CRC-32 as in the file's header.
std::uint32_t crc32(const void* data, std::size_t size);

// The file compiled into the library.
extern "C" const unsigned char se_model_file[kModelFileBytes];

// The records' fixed parts.
constexpr Conv2DLayer conv_record(const std::int8_t* kernel, const float* scale, const float* bias,
                                  const ConvShape& shape) {
  return {
      kernel, scale, bias, shape.in_channels, shape.out_channels, kKernelTime, shape.kernel_freq,
      3,      0};
}

constexpr BNLayer bn_record(const float* gamma_var, const float* gmb, const ConvShape& shape) {
  return {gamma_var, gmb, shape.out_width};
}

constexpr GRULayer gru_record(const std::int8_t* weight_ih, const std::int8_t* weight_hh,
                              const float* bias_ih, const float* bias_hh, int input) {
  return {weight_ih, weight_hh, bias_ih, bias_hh, input, kGruHidden};
}

constexpr FCLayer fc_record(const std::int8_t* weight, const float* scale, const float* bias) {
  return {weight, scale, bias, kHeadInput, kBands, 3};
}

}  // namespace se::nn

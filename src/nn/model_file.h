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
  std::size_t rows, columns, element_bytes;

  constexpr std::size_t bytes() const { return rows * columns * element_bytes; }
  // What the table takes in the file.
  constexpr std::size_t slot() const {
    return (bytes() + kModelAlignment - 1) / kModelAlignment * kModelAlignment;
  }
};

constexpr ModelTable kModelTables[] = {
#define SE_MODEL_TABLE(name, type, rows, columns) {#name, rows, columns, sizeof(type)},
#include "nn/model_tables.def"
#undef SE_MODEL_TABLE
};

constexpr std::size_t model_file_bytes() {
  std::size_t sum = kModelHeaderBytes;
  for (const ModelTable& table : kModelTables) sum += table.slot();
  return sum;
}
constexpr std::size_t kModelFileBytes = model_file_bytes();

// Where the tables of a model are.
struct ModelPointers {
#define SE_MODEL_TABLE(name, type, rows, columns) const type* name;
#include "nn/model_tables.def"
#undef SE_MODEL_TABLE
};

struct LayerRecords {
  Conv2DLayer conv[kConvLayers];
  BNLayer bn[kConvLayers];
  GRULayer gru[kGruLayers];
  FCLayer fc[kHeads];
};

// A model read from a file: its records, with pointers into the file's bytes.
struct ModelRecords {
  LayerRecords layers;
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

// The records of a model whose tables are at `at`.
constexpr LayerRecords layer_records(const ModelPointers& at) {
  constexpr int kCode = 3;  // the activation code of the format; nothing reads it
  constexpr int kReserved = 0;
  const auto conv = [](int i, const std::int8_t* kernel, const float* scale,
                       const float* bias) -> Conv2DLayer {
    const ConvShape& s = kConv[i];
    return {kernel,      scale,         bias,  s.in_channels, s.out_channels,
            kKernelTime, s.kernel_freq, kCode, kReserved};
  };
  const auto fc = [](const std::int8_t* weight, const float* scale, const float* bias) -> FCLayer {
    return {weight, scale, bias, kHeadInput, kBands, kCode};
  };
#define SE_CONV(n) conv(n - 1, at.conv##n##_kernel, at.conv##n##_kernel_scale, at.conv##n##_bias)
#define SE_BN(n) \
  { at.bn##n##_bn_gamma_var, at.bn##n##_bn_gmb, kConv[n - 1].out_width }
#define SE_GRU(n, index)                                                                    \
  {                                                                                         \
    at.gru##n##_weight_ih, at.gru##n##_weight_hh, at.gru##n##_bias_ih, at.gru##n##_bias_hh, \
        kGruInput[index], kGruHidden                                                        \
  }
#define SE_FC(n) fc(at.fc##n##_weight, at.fc##n##_weight_scale, at.fc##n##_bias)
  return {{SE_CONV(1), SE_CONV(2), SE_CONV(3), SE_CONV(4), SE_CONV(5)},
          {SE_BN(1), SE_BN(2), SE_BN(3), SE_BN(4), SE_BN(5)},
          {SE_GRU(1_1, 0), SE_GRU(1_2, 1), SE_GRU(2_1, 2), SE_GRU(2_2, 3)},
          {SE_FC(1), SE_FC(2)}};
#undef SE_CONV
#undef SE_BN
#undef SE_GRU
#undef SE_FC
}

// The model over these records, which must not move.
constexpr DenoiseModel model_of(const LayerRecords& r) {
  return {&r.conv[0], &r.bn[0], &r.conv[1], &r.bn[1],  &r.conv[2], &r.bn[2],  &r.conv[3], &r.bn[3],
          &r.conv[4], &r.bn[4], &r.gru[0],  &r.gru[1], &r.gru[2],  &r.gru[3], &r.fc[0],   &r.fc[1]};
}

}  // namespace se::nn

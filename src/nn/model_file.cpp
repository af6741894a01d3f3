// Opens model files: checks the bytes and points the records at the tables.
#include "nn/model_file.h"

#include <cstring>

namespace se::nn {
namespace {

static_assert(__BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__, "model files are used as they are stored");

constexpr bool tables_follow_one_another() {
  std::size_t end = kModelHeaderBytes;
  for (const ModelTable& table : kModelTables) {
    if (table.offset != end) return false;
    end = (table.offset + table.bytes + kModelAlignment - 1) / kModelAlignment * kModelAlignment;
  }
  return end == kModelFileBytes;
}
static_assert(tables_follow_one_another());

std::uint32_t read_u32(const unsigned char* p) {
  std::uint32_t value;
  std::memcpy(&value, p, sizeof value);
  return value;
}

}  // namespace

std::uint32_t crc32(const void* data, std::size_t size) {
  std::uint32_t table[256];
  for (std::uint32_t i = 0; i < 256; ++i) {
    std::uint32_t value = i;
    for (int bit = 0; bit < 8; ++bit) value = (value >> 1) ^ ((value & 1) ? 0xedb88320u : 0u);
    table[i] = value;
  }
  std::uint32_t crc = 0xffffffffu;
  const auto* bytes = static_cast<const unsigned char*>(data);
  for (std::size_t i = 0; i < size; ++i) crc = (crc >> 8) ^ table[(crc ^ bytes[i]) & 0xff];
  return crc ^ 0xffffffffu;
}

const char* open_model(const void* file, std::size_t size, ModelRecords* records) {
  const auto* bytes = static_cast<const unsigned char*>(file);
  if (reinterpret_cast<std::uintptr_t>(file) % kModelAlignment != 0) {
    return "the model must start on a 16-byte boundary";
  }
  if (size < kModelHeaderBytes || std::memcmp(bytes, kModelMagic, sizeof kModelMagic - 1) != 0) {
    return "not a denoiser model file";
  }
  if (read_u32(bytes + 8) != kModelVersion) return "a model file of another version";
  if (size != kModelFileBytes || read_u32(bytes + 12) != kModelFileBytes) {
    return "a model file of the wrong size";
  }
  if (bytes[kModelHeaderBytes - 1] != 0) return "a model file with a broken name";
  if (read_u32(bytes + 16) != crc32(bytes + kModelHeaderBytes, size - kModelHeaderBytes)) {
    return "a damaged model file (wrong checksum)";
  }

#define SE_MODEL_TABLE(name, type, rows, columns, offset) \
  const auto* const name = reinterpret_cast<const type*>(bytes + (offset));
#include "nn/model_tables.def"
#undef SE_MODEL_TABLE
  *records = {
      {conv_record(conv1_kernel, conv1_kernel_scale, conv1_bias, kConv[0]),
       conv_record(conv2_kernel, conv2_kernel_scale, conv2_bias, kConv[1]),
       conv_record(conv3_kernel, conv3_kernel_scale, conv3_bias, kConv[2]),
       conv_record(conv4_kernel, conv4_kernel_scale, conv4_bias, kConv[3]),
       conv_record(conv5_kernel, conv5_kernel_scale, conv5_bias, kConv[4])},
      {bn_record(bn1_bn_gamma_var, bn1_bn_gmb, kConv[0]),
       bn_record(bn2_bn_gamma_var, bn2_bn_gmb, kConv[1]),
       bn_record(bn3_bn_gamma_var, bn3_bn_gmb, kConv[2]),
       bn_record(bn4_bn_gamma_var, bn4_bn_gmb, kConv[3]),
       bn_record(bn5_bn_gamma_var, bn5_bn_gmb, kConv[4])},
      {gru_record(gru1_1_weight_ih, gru1_1_weight_hh, gru1_1_bias_ih, gru1_1_bias_hh, kGruInput[0]),
       gru_record(gru1_2_weight_ih, gru1_2_weight_hh, gru1_2_bias_ih, gru1_2_bias_hh, kGruInput[1]),
       gru_record(gru2_1_weight_ih, gru2_1_weight_hh, gru2_1_bias_ih, gru2_1_bias_hh, kGruInput[2]),
       gru_record(gru2_2_weight_ih, gru2_2_weight_hh, gru2_2_bias_ih, gru2_2_bias_hh,
                  kGruInput[3])},
      {fc_record(fc1_weight, fc1_weight_scale, fc1_bias),
       fc_record(fc2_weight, fc2_weight_scale, fc2_bias)},
      {&records->conv[0], &records->bn[0], &records->conv[1], &records->bn[1], &records->conv[2],
       &records->bn[2], &records->conv[3], &records->bn[3], &records->conv[4], &records->bn[4],
       &records->gru[0], &records->gru[1], &records->gru[2], &records->gru[3], &records->fc[0],
       &records->fc[1]}};
  return nullptr;
}

}  // namespace se::nn

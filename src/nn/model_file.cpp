// Opens model files: checks the bytes and points the records at the tables.
#include "nn/model_file.h"

#include <cmath>
#include <cstring>

namespace se::nn {
namespace {

static_assert(__BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__, "model files are used as they are stored");

// Checks the list of tables against the network's shapes, table by table in file order.
class ShapeCheck {
 public:
  constexpr void expect(int rows, int columns, std::size_t element_bytes) {
    const ModelTable& table = kModelTables[next_++];
    right_ = right_ && table.rows == static_cast<std::size_t>(rows) &&
             table.columns == static_cast<std::size_t>(columns) &&
             table.element_bytes == element_bytes;
  }
  constexpr bool passed() const {
    return right_ && next_ == sizeof kModelTables / sizeof kModelTables[0];
  }

 private:
  std::size_t next_ = 0;
  bool right_ = true;
};

constexpr bool tables_fit_the_network() {
  constexpr int kRowMultiple = 8;  // kernel rows are padded with zeros
  ShapeCheck check;
  for (const ConvShape& s : kConv) {
    const int taps = kKernelTime * s.kernel_freq * s.in_channels;
    check.expect(s.out_channels, (taps + kRowMultiple - 1) / kRowMultiple * kRowMultiple, 1);
    for (int i = 0; i < 2; ++i) check.expect(1, s.out_channels, sizeof(float));  // scale, bias
    for (int i = 0; i < 2; ++i) check.expect(s.out_width, s.out_channels, sizeof(float));
  }
  for (const int input : kGruInput) {
    check.expect(3 * kGruHidden, input, 1);
    check.expect(3 * kGruHidden, kGruHidden, 1);
    for (int i = 0; i < 2; ++i) check.expect(3, kGruHidden, sizeof(float));
  }
  for (int head = 0; head < kHeads; ++head) {
    check.expect(kBands, kHeadInput, 1);
    for (int i = 0; i < 2; ++i) check.expect(1, kBands, sizeof(float));
  }
  return check.passed();
}
static_assert(tables_fit_the_network());

constexpr bool all_finite(const std::int8_t*, std::size_t) {
  return true;
}

bool all_finite(const float* table, std::size_t count) {
  for (std::size_t i = 0; i < count; ++i) {
    if (!std::isfinite(table[i])) return false;
  }
  return true;
}

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

  ModelPointers at = {};
  const unsigned char* next = bytes + kModelHeaderBytes;
  const ModelTable* table = kModelTables;
#define SE_MODEL_TABLE(name, type, rows, columns)                       \
  at.name = reinterpret_cast<const type*>(next);                        \
  if (!all_finite(at.name, std::size_t{rows} * std::size_t{columns})) { \
    return #name ": holds values that are not finite";                  \
  }                                                                     \
  next += (table++)->slot();
#include "nn/model_tables.def"
#undef SE_MODEL_TABLE
  records->layers = layer_records(at);
  records->model = model_of(records->layers);
  return nullptr;
}

}  // namespace se::nn

#include "nn/packed_model.h"

#include "kernels/kernels.h"
#include "kernels/packing.h"

namespace se::nn {
namespace {

constexpr int kBoundary = 64;  // of every table: a cache line

// What any variant needs: at most sixteen lanes, groups of eight.
constexpr PackOrder kWidest = {16, 16, 8};

constexpr PackShape kHeadShape = {kBands, 1, kHeadInput};

constexpr PackShape conv_shape(const ConvShape& s) {
  return {s.out_channels, kKernelTime, s.kernel_freq * s.in_channels};
}

// Whether two positions can be computed at a time.
constexpr bool has_pairs(const ConvShape& s) {
  return s.kernel_freq == 3 && s.freq_stride == 1;
}

constexpr std::size_t pair_bytes(const ConvShape& s) {
  return static_cast<std::size_t>(pair_weights(s.out_channels, kKernelTime, s.in_channels)) *
         sizeof(std::int16_t);
}

constexpr std::size_t round_to_boundary(std::size_t bytes) {
  return (bytes + kBoundary - 1) / kBoundary * kBoundary;
}

constexpr std::size_t slot(const PackShape& shape) {
  const auto entries = static_cast<std::size_t>(shape.packed_rows(kWidest));
  return round_to_boundary(shape.bytes(kWidest)) +
         round_to_boundary(entries * sizeof(std::int32_t)) +
         round_to_boundary(entries * sizeof(std::uint32_t));
}

constexpr std::size_t conv_slot(const ConvShape& s) {
  const std::size_t plain = slot(conv_shape(s));
  const std::size_t pairs = has_pairs(s) ? round_to_boundary(pair_bytes(s)) : 0;
  return plain > pairs ? plain : pairs;
}

constexpr std::size_t packed_model_bytes() {
  std::size_t sum = slot(kHeadShape);
  for (const ConvShape& s : kConv) sum += conv_slot(s);
  for (const int input : kGruInput) {
    sum += slot({kGates * kGruHidden, 1, input}) + slot({kGates * kGruHidden, 1, kGruHidden});
  }
  return sum;
}

alignas(kBoundary) std::int8_t g_storage[packed_model_bytes()];
PackedConv g_conv[kConvLayers];
PackedGru g_gru[kGruLayers];
PackedMatrix g_head;

// The kernels for which the tables above are in order, null for none. Read by all threads, written
// by the one that holds `g_packing`.
const NnKernels* g_packed_for;
bool g_packing;

bool ready() {
  return __atomic_load_n(&g_packed_for, __ATOMIC_ACQUIRE) == kernels().nn;
}

// Places one table after the other.
class Packer {
 public:
  PackedMatrix add(const Matrix& m, const PackShape& shape, const PackOrder& order,
                   const ShortSums& short_sums) {
    PackSpace space = {take<std::int8_t>(shape.bytes(order)),
                       take<std::int32_t>(static_cast<std::size_t>(shape.packed_rows(order))),
                       nullptr};
    if (short_sums.columns > 0) {
      space.fits = take<std::uint32_t>(static_cast<std::size_t>(shape.panels(order)));
    }
    return pack(m, shape, order, short_sums, space);
  }

  const std::int16_t* add_pairs(const Matrix& m, const ConvShape& shape) {
    auto* const pairs = take<std::int16_t>(pair_bytes(shape) / sizeof(std::int16_t));
    pack_pairs(m, kKernelTime, shape.in_channels, pairs);
    return pairs;
  }

 private:
  template <class T>
  T* take(std::size_t count) {
    auto* const table = reinterpret_cast<T*>(next_);
    next_ += round_to_boundary(count * sizeof(T));
    return table;
  }

  std::int8_t* next_ = g_storage;
};

const Conv2DLayer* conv_layer(int i) {
  const DenoiseModel& m = nn_denoise_model;
  const Conv2DLayer* const layers[] = {m.conv1, m.conv2, m.conv3, m.conv4, m.conv5};
  return layers[i];
}

const GRULayer* gru_layer(int i) {
  const DenoiseModel& m = nn_denoise_model;
  const GRULayer* const layers[] = {m.gru1_1, m.gru1_2, m.gru2_1, m.gru2_2};
  return layers[i];
}

void pack_convolutions(Packer& packer, const NnKernels& k) {
  for (int i = 0; i < kConvLayers; ++i) {
    const PackShape shape = conv_shape(kConv[i]);
    const int row_len = round_up(shape.parts * shape.part, 8);
    const Matrix m = {conv_layer(i)->kernel, kConv[i].out_channels, row_len};
    g_conv[i] = {};
    if (k.paired_convolve && has_pairs(kConv[i])) {
      g_conv[i].pairs = packer.add_pairs(m, kConv[i]);
    } else {
      g_conv[i].matrix = packer.add(m, shape, k.convolve_order, {0, 0});
    }
  }
}

void pack_products(Packer& packer, const NnKernels& k) {
  for (int i = 0; i < kGruLayers; ++i) {
    const GRULayer& layer = *gru_layer(i);
    const auto side = [&](const std::int8_t* weights, int cols) {
      constexpr int kRows = kGates * kGruHidden;
      return packer.add({weights, kRows, cols}, {kRows, 1, cols}, k.product_order, k.short_sums);
    };
    g_gru[i] = {side(layer.weight_ih, kGruInput[i]), side(layer.weight_hh, kGruHidden)};
  }
  g_head = packer.add({nn_denoise_model.fc2->weight, kBands, kHeadInput}, kHeadShape,
                      k.product_order, k.short_sums);
}

}  // namespace

void pack_model() {
  if (ready() || __atomic_test_and_set(&g_packing, __ATOMIC_ACQUIRE)) return;
  const NnKernels& k = *kernels().nn;
  if (!ready()) {
    __atomic_store_n(&g_packed_for, nullptr, __ATOMIC_RELEASE);
    Packer packer;
    if (k.convolve_order.panel > 0) pack_convolutions(packer, k);
    if (k.product_order.panel > 0) pack_products(packer, k);
    __atomic_store_n(&g_packed_for, &k, __ATOMIC_RELEASE);
  }
  __atomic_clear(&g_packing, __ATOMIC_RELEASE);
}

const PackedConv* packed_conv(const Conv2DLayer* layer, int rows, int frames, int window) {
  if (!ready() || kernels().nn->convolve_order.panel == 0) return nullptr;
  for (int i = 0; i < kConvLayers; ++i) {
    if (layer != conv_layer(i)) continue;
    const PackShape shape = conv_shape(kConv[i]);
    return rows == shape.rows && frames == shape.parts && window == shape.part ? &g_conv[i]
                                                                               : nullptr;
  }
  return nullptr;
}

const PackedGru* packed_gru(const GRULayer* layer, int hidden, int input) {
  if (!ready() || kernels().nn->product_order.panel == 0 || hidden != kGruHidden) return nullptr;
  for (int i = 0; i < kGruLayers; ++i) {
    if (layer == gru_layer(i)) return input == kGruInput[i] ? &g_gru[i] : nullptr;
  }
  return nullptr;
}

const PackedMatrix* packed_head(const FCLayer* layer) {
  if (!ready() || kernels().nn->product_order.panel == 0) return nullptr;
  return layer == nn_denoise_model.fc2 ? &g_head : nullptr;
}

}  // namespace se::nn

#include "bare_products.h"

#include <cstring>

#include "kernels/kernels.h"
#include "kernels/packing.h"
#include "nn/network.h"
#include "nn/packed_model.h"

namespace se_bench {

namespace {

// The layers in the order of a variant's kernels.
[[maybe_unused]] BareProducts with_layers(const ProductPasses& passes, const se::NnKernels& k) {
  using namespace se::nn;
  BareProducts products = {passes, {}, {}};
  const auto add_dense = [&](int rows, int cols) {
    const se::PackShape shape = {rows, 1, cols};
    products.dense.push_back({static_cast<std::int64_t>(shape.bytes(k.product_order)), 1});
  };
  for (const ConvShape& s : kConv) {
    const se::PackShape shape = {s.out_channels, kKernelTime, s.kernel_freq * s.in_channels};
    products.convolutions.push_back(
        {static_cast<std::int64_t>(shape.bytes(k.convolve_order)), s.out_width});
  }
  for (const int input : kGruInput) {
    add_dense(kGates * kGruHidden, input);
    add_dense(kGates * kGruHidden, kGruHidden);
  }
  add_dense(kBands, kHeadInput);
  return products;
}

}  // namespace

std::vector<BareProducts> bare_products() {
  std::vector<BareProducts> all;
#if defined(__x86_64__)
  for (int i = 0; const se::Kernels* variant = se::available_kernels(i); ++i) {
    for (const ProductPasses* passes : {&kPassesAvx512, &kPassesAvx2}) {
      if (std::strcmp(passes->variant, variant->name) == 0) {
        all.push_back(with_layers(*passes, *variant->nn));
      }
    }
  }
#endif
  return all;
}

}  // namespace se_bench

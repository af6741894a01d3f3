// The least time of the denoiser's products: as many exact multiply-adds as a variant's kernels do
// over as many bytes of weights, and nothing else. Activations are a pattern that stays in a
// register, every layer is ready when it is its turn, nothing is quantised or scaled. Zeros, which
// kernels may leave out, count in full.
#pragma once

#include <cstdint>
#include <vector>

namespace se_bench {

// The bytes of a layer's packed weights, and at how many positions each serves.
struct ProductLayer {
  std::int64_t bytes;
  int positions;
};

// How a variant multiplies. Both take weights on a boundary of 64 bytes, filled up to kProductStep.
struct ProductPasses {
  const char* variant;
  std::int32_t (*dense)(const std::int8_t* weights, const ProductLayer& layer);
  std::int32_t (*convolution)(const std::int8_t* weights, const ProductLayer& layer);
};
constexpr std::int64_t kProductStep = 512;

#if defined(__x86_64__)
extern const ProductPasses kPassesAvx512, kPassesAvx2;
#endif

struct BareProducts {
  ProductPasses passes;
  std::vector<ProductLayer> dense;         // GRU layers and head: every weight serves once
  std::vector<ProductLayer> convolutions;  // at every position along frequency
};

// For the variants with packed weights that this CPU can run.
std::vector<BareProducts> bare_products();

}  // namespace se_bench

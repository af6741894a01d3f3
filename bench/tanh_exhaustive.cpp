// The library's tanh over every float: the largest error against the C library's double-precision
// tanh, in units of the last place of the true value, and whether every kernel variant gives the
// scalar one's bits and is odd.
//
//   tanh_exhaustive [STEP]
//
// With STEP, every STEP-th float alone. Prints JSON; exits with 1 if a variant differs, a sign is
// wrong, a result is not finite or the error exceeds 1.5 units.
#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <string>
#include <vector>

#include "kernels/kernels.h"

namespace {

constexpr int kChunk = 4096;
constexpr std::uint32_t kSign = 0x80000000u;
constexpr std::uint32_t kSmallestNormal = 0x00800000u;
constexpr std::uint32_t kInfinity = 0x7f800000u;
constexpr double kLimitUlp = 1.5;

float float_of(std::uint32_t bits) {
  float x;
  std::memcpy(&x, &bits, sizeof x);
  return x;
}

std::uint32_t bits_of(float x) {
  std::uint32_t bits;
  std::memcpy(&bits, &x, sizeof bits);
  return bits;
}

// tanh of a positive value in double precision, with what costs less where it is as good.
double true_tanh(double x) {
  if (x < 0x1p-12) return x - x * x * x / 3.0;
  return x < 20.0 ? std::tanh(x) : 1.0;
}

double error_in_ulp(float result, float x) {
  const double truth = true_tanh(static_cast<double>(x));
  const double ulp = std::ldexp(1.0, std::ilogb(truth) - 23);
  return std::fabs(static_cast<double>(result) - truth) / ulp;
}

struct Findings {
  double max_ulp = 0.0;
  float at = 0.0f;
  std::uint64_t floats = 0;
  std::uint64_t wrong_sign = 0;
  std::uint64_t not_finite = 0;
};

struct VariantFindings {
  const se::Kernels* kernels;
  std::uint64_t different = 0;
};

// Puts `count` positive floats through every variant, with both signs.
void check(const float* x, int count, std::vector<VariantFindings>& variants, Findings& findings) {
  static float expected[kChunk], got[kChunk];
  std::copy(x, x + count, expected);
  se::kScalarKernels.nn->tanh(expected, count);
  findings.floats += 2 * static_cast<std::uint64_t>(count);
  for (int i = 0; i < count; ++i) {
    if (!std::isfinite(expected[i])) {
      ++findings.not_finite;
    } else if (bits_of(x[i]) >= kSmallestNormal) {
      const double error = error_in_ulp(expected[i], x[i]);
      if (error > findings.max_ulp) {
        findings.max_ulp = error;
        findings.at = x[i];
      }
    }
  }
  for (VariantFindings& variant : variants) {
    for (const std::uint32_t sign : {0u, kSign}) {
      for (int i = 0; i < count; ++i) got[i] = float_of(bits_of(x[i]) | sign);
      variant.kernels->nn->tanh(got, count);
      for (int i = 0; i < count; ++i) {
        if (bits_of(got[i]) == (bits_of(expected[i]) | sign)) continue;
        ++(variant.kernels == &se::kScalarKernels ? findings.wrong_sign : variant.different);
      }
    }
  }
}

}  // namespace

int main(int argc, char** argv) {
  const std::uint32_t step =
      argc > 1 ? static_cast<std::uint32_t>(std::max(1, std::atoi(argv[1]))) : 1;
  std::vector<VariantFindings> variants;
  for (int i = 0; const se::Kernels* kernels = se::available_kernels(i); ++i) {
    variants.push_back({kernels});
  }
  Findings findings;
  float x[kChunk];
  int count = 0;
  for (std::uint64_t bits = 0; bits <= kInfinity; bits += step) {
    x[count++] = float_of(static_cast<std::uint32_t>(bits));
    if (count == kChunk) {
      check(x, count, variants, findings);
      count = 0;
    }
  }
  check(x, count, variants, findings);

  bool good = findings.max_ulp <= kLimitUlp && findings.wrong_sign == 0 && findings.not_finite == 0;
  std::printf(
      "{\"step\": %u, \"floats\": %llu, \"max_ulp\": %.4f, \"at\": %.9g, \"wrong_sign\": %llu, "
      "\"not_finite\": %llu, \"different\": {",
      step, static_cast<unsigned long long>(findings.floats), findings.max_ulp,
      static_cast<double>(findings.at), static_cast<unsigned long long>(findings.wrong_sign),
      static_cast<unsigned long long>(findings.not_finite));
  const char* separator = "";
  for (const VariantFindings& variant : variants) {
    if (variant.kernels == &se::kScalarKernels) continue;
    std::printf("%s\"%s\": %llu", separator, variant.kernels->name,
                static_cast<unsigned long long>(variant.different));
    separator = ", ";
    good = good && variant.different == 0;
  }
  std::printf("}}\n");
  return good ? 0 : 1;
}

// Shared by the tests of the transforms: random spectra, and the transform by its definition in
// double precision.
#pragma once

#include <gtest/gtest.h>

#include <cmath>
#include <complex>
#include <cstddef>
#include <cstdint>
#include <vector>

#include "guarded_region.h"
#include "random_signal.h"
#include "speechenhance/types.h"

namespace spectral_test {

// Numbers in [-1, 1) that are the same on every machine.
class Noise {
 public:
  explicit Noise(std::uint64_t seed) : random_(seed) {}

  std::vector<float> reals(int n) {
    std::vector<float> values(static_cast<std::size_t>(n));
    for (float& v : values) v = random_.uniform();
    return values;
  }

  std::vector<zel_lcomplex> complexes(int n) {
    std::vector<zel_lcomplex> values(static_cast<std::size_t>(n));
    for (zel_lcomplex& v : values) {
      v.re = random_.uniform();
      v.im = random_.uniform();
    }
    return values;
  }

 private:
  RandomSignal random_;
};

// An opaque record, for GuardedRegion::holds.
inline const std::uint8_t* bytes_of(const void* record) {
  return static_cast<const std::uint8_t*>(record);
}

using Complexes = std::vector<std::complex<double>>;

inline Complexes widen(const std::vector<zel_lcomplex>& values) {
  Complexes wide;
  for (const zel_lcomplex& v : values) wide.emplace_back(v.re, v.im);
  return wide;
}

inline Complexes widen(const std::vector<float>& values) {
  return Complexes(values.begin(), values.end());
}

// X[k] = sum x[n] e^(sign 2 pi i n k / N), for k < bins.
inline Complexes dft(const Complexes& x, std::size_t bins, double sign = -1) {
  const std::size_t n = x.size();
  Complexes roots;
  for (std::size_t i = 0; i < n; ++i) {
    roots.push_back(std::polar(
        1.0, sign * 2 * 3.14159265358979323846 * static_cast<double>(i) / static_cast<double>(n)));
  }
  Complexes spectrum(bins);
  for (std::size_t k = 0; k < bins; ++k) {
    for (std::size_t i = 0; i < n; ++i) spectrum[k] += x[i] * roots[i * k % n];
  }
  return spectrum;
}

inline double norm(const Complexes& x) {
  double sum = 0;
  for (const auto& v : x) sum += std::norm(v);
  return std::sqrt(sum);
}

inline double largest_difference(const Complexes& a, const Complexes& b) {
  EXPECT_EQ(a.size(), b.size());
  double largest = 0;
  for (std::size_t i = 0; i < a.size(); ++i) largest = std::fmax(largest, std::abs(a[i] - b[i]));
  return largest;
}

// What a published byte figure becomes on this target: it counts 4 bytes for a pointer, and every
// record grows by what its fields take more.
constexpr std::size_t grown(std::size_t published, std::size_t growth_with_8_byte_pointers) {
  return sizeof(void*) == 4 ? published : published + growth_with_8_byte_pointers;
}

}  // namespace spectral_test

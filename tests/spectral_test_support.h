// Shared by the tests of the transforms: the transform by its definition in double precision.
#pragma once

#include <gtest/gtest.h>

#include <cmath>
#include <complex>
#include <cstddef>
#include <vector>

#include "guarded_region.h"
#include "random_signal.h"

namespace spectral_test {

using Spectrum = std::vector<zel_lcomplex>;

constexpr double kPi = 3.14159265358979323846;

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
  Complexes roots, spectrum(bins);
  for (std::size_t i = 0; i < n; ++i) {
    roots.push_back(
        std::polar(1.0, sign * 2 * kPi * static_cast<double>(i) / static_cast<double>(n)));
  }
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

// The `count` values that `write` writes; nothing around them.
template <class T, class Write>
std::vector<T> written(std::size_t count, const Write& write) {
  GuardedRegion out(count * sizeof(T));
  T* values = reinterpret_cast<T*>(out.data());
  write(values);
  EXPECT_TRUE(out.intact());
  return {values, values + count};
}

}  // namespace spectral_test

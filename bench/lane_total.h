// The sum of a vector's 32-bit lanes.
#pragma once

#include <cstdint>
#include <cstring>
#include <iterator>
#include <numeric>

namespace se_bench {

template <class Vector>
std::int32_t lane_total(const Vector& vector) {
  std::int32_t lanes[sizeof vector / sizeof(std::int32_t)];
  std::memcpy(lanes, &vector, sizeof lanes);
  return std::accumulate(std::begin(lanes), std::end(lanes), 0);
}

}  // namespace se_bench

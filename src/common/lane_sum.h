// The one order in which this library adds up a long row of floats.
#pragma once

namespace se {

// term(0) + term(1) + ... + term(n - 1), four lanes at a time: lane j holds the terms j, j + 4, ...
// of all whole groups of four, the total is (lane 0 + lane 2) + (lane 1 + lane 3), and the up to
// three terms left over follow one by one. A vector of four gives the same bits.
template <class Term>
float lane_sum(int n, Term term) {
  float lane[4] = {0.0f, 0.0f, 0.0f, 0.0f};
  int i = 0;
  for (; i + 4 <= n; i += 4) {
    for (int j = 0; j < 4; ++j) lane[j] += term(i + j);
  }
  float sum = (lane[0] + lane[2]) + (lane[1] + lane[3]);
  for (; i < n; ++i) sum += term(i);
  return sum;
}

inline float lane_sum(const float* x, int n) {
  return lane_sum(n, [x](int i) { return x[i]; });
}

}  // namespace se

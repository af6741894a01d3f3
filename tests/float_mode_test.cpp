// Loading the library sets flush-to-zero, for the thread that loads it and those started later.
#include <gtest/gtest.h>

#include <cfloat>
#include <cstring>
#include <thread>

#include "speechenhance/speechenhance.h"

namespace {

// As bits: in this mode a subnormal compares equal to zero.
std::uint32_t bits_of_half_the_smallest() {
  volatile float smallest = FLT_MIN, half = 0.5f;
  const float product = smallest * half;
  std::uint32_t bits;
  std::memcpy(&bits, &product, sizeof bits);
  return bits;
}

TEST(FloatMode, SubnormalResultsAreZeroOnEveryThread) {
  EXPECT_EQ(bits_of_half_the_smallest(), 0u);
  std::uint32_t on_thread = 1;
  std::thread([&] { on_thread = bits_of_half_the_smallest(); }).join();
  EXPECT_EQ(on_thread, 0u);
  EXPECT_NE(se_get_version(), nullptr) << "the library is linked";
}

}  // namespace

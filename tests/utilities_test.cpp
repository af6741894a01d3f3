// Log sink, aligned memory and clocks.
#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "speechenhance/mem_utils.h"
#include "speechenhance/se_log.h"
#include "speechenhance/time_utils.h"

namespace {

std::string logged(SELogLevel level, const char* text, int expected_length) {
  testing::internal::CaptureStdout();
  testing::internal::CaptureStderr();
  EXPECT_EQ(se_log_default(level, "%s", text), expected_length);
  const std::string out = testing::internal::GetCapturedStdout();
  const std::string err = testing::internal::GetCapturedStderr();
  return "out:" + out + "err:" + err;
}

TEST(Log, DefaultSinkWritesByLevel) {
  EXPECT_EQ(logged(SE_LOG_DEBUG, "hello", 5), "out:[D] hello\nerr:");
  EXPECT_EQ(logged(SE_LOG_INFO, "hello", 5), "out:[I] hello\nerr:");
  EXPECT_EQ(logged(SE_LOG_WARN, "", 0), "out:[W] \nerr:");
  EXPECT_EQ(logged(SE_LOG_ERROR, "hello\n", 6), "out:err:[E] hello\n");
  EXPECT_EQ(logged(static_cast<SELogLevel>(7), "x", 1), "out:err:");
  EXPECT_EQ(logged(static_cast<SELogLevel>(-5), "x", 1), "out:err:");
  const std::string long_text(2000, 'a');
  EXPECT_EQ(logged(SE_LOG_INFO, long_text.c_str(), 1023),
            "out:[I] " + long_text.substr(0, 1023) + "\nerr:");
}

TEST(Log, SinkAndLevelAreReplaceable) {
  EXPECT_EQ(g_se_log, &se_log_default);
  EXPECT_EQ(g_se_log_level, SE_LOG_INFO);
  se_set_log_func(nullptr);
  testing::internal::CaptureStdout();
  EXPECT_EQ(g_se_log(SE_LOG_INFO, "silent"), 0);
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
  se_set_log_func(se_log_default);
  EXPECT_EQ(g_se_log, &se_log_default);
  se_set_log_level(-5);
  EXPECT_EQ(g_se_log_level, -5);
  se_set_log_level(SE_LOG_INFO);
}

TEST(AlignedMemory, IsPlacedAndReleased) {
  for (std::uint32_t alignment = 1; alignment <= 1u << 20; alignment *= 2) {
    auto* p = static_cast<unsigned char*>(aligned_malloc(100, alignment));
    ASSERT_NE(p, nullptr);
    const auto address = reinterpret_cast<std::uintptr_t>(p);
    EXPECT_EQ(address % alignment, 0u);
    std::uint32_t word;
    std::memcpy(&word, p - 4, 4);
    const std::uint32_t above = static_cast<std::uint32_t>(address) - word;
    EXPECT_GE(above, 5u);
    EXPECT_LE(above, 4 + alignment);
    if (alignment == 1) {
      EXPECT_EQ(above, 5u);
    }
    std::memset(p, 0xff, 100);
    aligned_free(p);
  }
  aligned_free(nullptr);
}

TEST(AlignedMemory, ZeroesAndRefuses) {
  for (int round = 0; round < 3; ++round) {
    auto* z = static_cast<unsigned char*>(aligned_zmalloc(300, 64));
    auto* c = static_cast<unsigned char*>(aligned_calloc(4, 8, 16));
    for (int i = 0; i < 300; ++i) EXPECT_EQ(z[i], 0);
    for (int i = 0; i < 32; ++i) EXPECT_EQ(c[i], 0);
    std::memset(z, 1, 300);
    std::memset(c, 1, 32);
    aligned_free(z);
    aligned_free(c);
  }
  for (const std::uint32_t alignment : {0u, 3u, 24u}) {
    EXPECT_EQ(aligned_malloc(100, alignment), nullptr);
    EXPECT_EQ(aligned_zmalloc(100, alignment), nullptr);
    EXPECT_EQ(aligned_calloc(1, 100, alignment), nullptr);
  }
  if (sizeof(void*) == 4) {
    EXPECT_EQ(aligned_malloc(0xfffffff0u, 16), nullptr);
  }
}

TEST(Clock, UnitsAgreeAndTimeAdvances) {
  std::int64_t last = get_time_in_ns();
  for (int i = 0; i < 100; ++i) {
    const std::int64_t now = get_time_in_ns();
    EXPECT_GE(now, last);
    last = now;
  }
  const std::int64_t ns = get_time_in_ns(), hns = get_time_in_hns(), us = get_time_in_us(),
                     ms = get_time_in_ms(), after = get_time_in_ns();
  EXPECT_TRUE(ns / 100 <= hns && hns <= after / 100);
  EXPECT_TRUE(ns / 1000 <= us && us <= after / 1000);
  EXPECT_TRUE(ns / 1000000 <= ms && ms <= after / 1000000);
}

}  // namespace

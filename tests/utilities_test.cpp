// Log sink, aligned memory and clocks.
#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "speechenhance/mem_utils.h"
#include "speechenhance/se_log.h"
#include "speechenhance/time_utils.h"

namespace {

std::string logged(int level, const char* text, int expected_length) {
  testing::internal::CaptureStdout();
  testing::internal::CaptureStderr();
  EXPECT_EQ(g_se_log(static_cast<SELogLevel>(level), "%s", text), expected_length);
  const std::string out = testing::internal::GetCapturedStdout();
  return "out:" + out + "err:" + testing::internal::GetCapturedStderr();
}

TEST(Log, DefaultSinkWritesByLevelAndIsReplaceable) {
  EXPECT_EQ(g_se_log, &se_log_default);
  EXPECT_EQ(logged(SE_LOG_DEBUG, "hello", 5), "out:[D] hello\nerr:");
  EXPECT_EQ(logged(SE_LOG_INFO, "hello", 5), "out:[I] hello\nerr:");
  EXPECT_EQ(logged(SE_LOG_WARN, "", 0), "out:[W] \nerr:");
  EXPECT_EQ(logged(SE_LOG_ERROR, "hello\n", 6), "out:err:[E] hello\n");
  EXPECT_EQ(logged(7, "x", 1), "out:err:");
  EXPECT_EQ(logged(-5, "x", 1), "out:err:");
  const std::string long_text(2000, 'a');
  EXPECT_EQ(logged(SE_LOG_INFO, long_text.c_str(), 1023),
            "out:[I] " + long_text.substr(0, 1023) + "\nerr:");

  se_set_log_func(nullptr);
  EXPECT_EQ(logged(SE_LOG_INFO, "silent", 0), "out:err:");
  se_set_log_func(se_log_default);
  EXPECT_EQ(g_se_log, &se_log_default);
  EXPECT_EQ(g_se_log_level, SE_LOG_INFO);
  se_set_log_level(-5);
  EXPECT_EQ(g_se_log_level, -5);
  se_set_log_level(SE_LOG_INFO);
}

TEST(AlignedMemory, IsPlacedZeroedAndReleased) {
  for (std::uint32_t alignment = 1; alignment <= 1u << 20; alignment *= 2) {
    auto* p = static_cast<unsigned char*>(aligned_malloc(100, alignment));
    auto* z = static_cast<unsigned char*>(aligned_zmalloc(100, alignment));
    auto* c = static_cast<unsigned char*>(aligned_calloc(4, 25, alignment));
    for (unsigned char* block : {p, z, c}) {
      ASSERT_NE(block, nullptr);
      const auto address = reinterpret_cast<std::uintptr_t>(block);
      EXPECT_EQ(address % alignment, 0u);
      std::uint32_t word;  // the start of what malloc gave
      std::memcpy(&word, block - 4, 4);
      const std::uint32_t above = static_cast<std::uint32_t>(address) - word;
      EXPECT_TRUE(above >= 5 && above <= 4 + alignment) << above;
      for (int i = 0; i < 100; ++i) EXPECT_TRUE(block == p || block[i] == 0);
      std::memset(block, 0xff, 100);
      aligned_free(block);
    }
  }
  aligned_free(nullptr);
  for (const std::uint32_t alignment : {0u, 3u, 24u}) {
    EXPECT_EQ(aligned_malloc(100, alignment), nullptr);
    EXPECT_EQ(aligned_zmalloc(100, alignment), nullptr);
    EXPECT_EQ(aligned_calloc(1, 100, alignment), nullptr);
  }
  EXPECT_TRUE(sizeof(void*) != 4 || aligned_malloc(0xfffffff0u, 16) == nullptr);
}

TEST(Clock, UnitsAgreeAndTimeAdvances) {
  for (int i = 0; i < 100; ++i) {
    const std::int64_t ns = get_time_in_ns(), hns = get_time_in_hns(), us = get_time_in_us(),
                       ms = get_time_in_ms(), after = get_time_in_ns();
    EXPECT_TRUE(ns / 100 <= hns && hns <= after / 100);
    EXPECT_TRUE(ns / 1000 <= us && us <= after / 1000);
    EXPECT_TRUE(ns / 1000000 <= ms && ms <= after / 1000000);
  }
}

}  // namespace

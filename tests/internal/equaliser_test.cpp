// The equaliser's gain per bin, measured on a spectrum of ones.
#include "engine/equaliser.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <limits>

namespace {

using Gains = std::array<float, 257>;

struct Setting {
  ShelfBand low = {}, high = {};
  PeakBand peak[10] = {};
};

// The gains that a setting applies; checks on the way that nothing outside the bins is touched and
// that both components get the same gain.
Gains gains_of(const Setting& setting) {
  std::array<zel_lcomplex, 257 + 2> guarded;
  guarded.fill({1.0f, -2.0f});
  se::equalise(guarded.data() + 1, setting.low, setting.high, setting.peak);
  EXPECT_EQ(guarded.front().re, 1.0f);
  EXPECT_EQ(guarded.back().re, 1.0f);
  Gains gains;
  for (std::size_t k = 0; k < gains.size(); ++k) {
    gains[k] = guarded[k + 1].re;
    EXPECT_EQ(guarded[k + 1].im, -2.0f * gains[k]);
  }
  return gains;
}

bool all_ones(const Gains& gains, std::size_t first = 0, std::size_t last = 256) {
  return std::all_of(&gains[first], &gains[last] + 1, [](float g) { return g == 1.0f; });
}

TEST(Equaliser, LowShelfRampsUpToItsCorner) {
  Setting setting;
  setting.low = {1, 1000.0f, 20.0f};
  const Gains gains = gains_of(setting);
  for (std::size_t k = 0; k <= 24; ++k) EXPECT_FLOAT_EQ(gains[k], 0.1f);
  for (std::size_t k = 25; k <= 32; ++k) {
    EXPECT_FLOAT_EQ(gains[k], 0.2125f + 0.1125f * static_cast<float>(k - 25));
  }
  EXPECT_EQ(gains[32], 1.0f);
  EXPECT_TRUE(all_ones(gains, 33));

  setting.low.enable = 0;
  EXPECT_TRUE(all_ones(gains_of(setting)));
  setting.low = {1, 270.0f, 20.0f};  // bin 8
  EXPECT_TRUE(all_ones(gains_of(setting)));
  setting.low = {1, 1000.0f, -6.0f};
  EXPECT_TRUE(all_ones(gains_of(setting)));
  setting.low = {1, 279.1f, 20.0f};  // bin 9
  EXPECT_LT(gains_of(setting)[0], 0.11f);
  EXPECT_TRUE(all_ones(gains_of(setting), 9));
  setting.low = {1, 1e9f, 20.0f};  // one past the last bin
  EXPECT_FLOAT_EQ(gains_of(setting)[256], 1.0f - 0.1125f);
}

TEST(Equaliser, HighShelfMirrorsIt) {
  Setting setting;
  setting.high = {-1, 1000.0f, 20.0f};
  const Gains gains = gains_of(setting);
  EXPECT_TRUE(all_ones(gains, 0, 32));
  for (std::size_t k = 33; k <= 39; ++k) {
    EXPECT_FLOAT_EQ(gains[k], 1.0f - 0.1125f * static_cast<float>(k - 32));
  }
  for (std::size_t k = 40; k <= 256; ++k) EXPECT_FLOAT_EQ(gains[k], 0.1f);

  setting.high = {1, 7719.0f, 20.0f};  // bin 249
  EXPECT_TRUE(all_ones(gains_of(setting)));
  setting.high = {1, 7700.0f, 20.0f};
  EXPECT_TRUE(all_ones(gains_of(setting), 0, 248));
  EXPECT_FLOAT_EQ(gains_of(setting)[256], 0.1f);
  setting.high = {1, -1e9f, 20.0f};
  EXPECT_FLOAT_EQ(gains_of(setting)[0], 0.1f);
}

TEST(Equaliser, PeakIsATriangleInLinearGain) {
  Setting setting;
  setting.peak[9] = {1000, 6.0f, 2};
  const Gains gains = gains_of(setting);
  const float top = std::pow(10.0f, 0.3f);
  EXPECT_TRUE(all_ones(gains, 0, 24));
  EXPECT_TRUE(all_ones(gains, 40));
  for (int d = -8; d < 8; ++d) {
    EXPECT_NEAR(gains[static_cast<std::size_t>(32 + d)],
                top - (top - 1.0f) * static_cast<float>(std::abs(d)) / 8.0f, 1e-6f);
  }
  setting.peak[9] = {1000, -6.0f, 20};  // one bin wide
  EXPECT_NEAR(gains_of(setting)[32], 1.0f / top, 1e-6f);
  EXPECT_TRUE(all_ones(gains_of(setting), 33));
  for (const std::int32_t q : {0, -1, -1000, 1000000}) {
    setting.peak[9].q = q;
    EXPECT_TRUE(all_ones(gains_of(setting))) << q;
  }
}

TEST(Equaliser, BandsMultiplyAndStayWithinTheSpectrum) {
  Setting setting;
  setting.peak[0] = setting.peak[5] = {2000, 12.0f, 4};
  setting.low = {1, 4000.0f, 6.0f};
  EXPECT_NEAR(gains_of(setting)[64], std::pow(10.0f, 0.9f), 1e-4f);

  constexpr float kInfinity = std::numeric_limits<float>::infinity();
  constexpr std::int32_t kMax = std::numeric_limits<std::int32_t>::max(),
                         kMin = std::numeric_limits<std::int32_t>::min();
  const PeakBand peaks[] = {{8000, 6.0f, 1}, {6000, 6.0f, 1},    {kMax, 6.0f, 1},
                            {kMin, 6.0f, 1}, {kMin, 6.0f, -1},   {kMax, 6.0f, kMax},
                            {62, 6.0f, 1},   {kMin, 6.0f, kMin}, {7900, -90.0f, 3}};
  for (const PeakBand& peak : peaks) {
    Setting wild;
    wild.peak[0] = peak;
    for (const float g : gains_of(wild)) EXPECT_TRUE(std::isfinite(g) && g >= 0.0f);
  }
  for (const float corner : {kInfinity, -kInfinity, NAN, 1e30f}) {
    Setting wild;
    wild.low = wild.high = {1, corner, 20.0f};
    for (const float g : gains_of(wild)) EXPECT_TRUE(g >= 0.0f && g <= 1.0f);
  }
}

}  // namespace

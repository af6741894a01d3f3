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

Gains shelf(const ShelfBand& low, const ShelfBand& high = {}) {
  return gains_of({low, high, {}});
}

TEST(Equaliser, ShelvesRampTowardsTheirCorners) {
  const Gains low = shelf({1, 1000.0f, 20.0f}), high = shelf({}, {-1, 1000.0f, 20.0f});
  for (std::size_t k = 0; k <= 256; ++k) {  // the corner is bin 32, eight bins from level to level
    const float ramp = static_cast<float>(k) - 32.0f;
    EXPECT_FLOAT_EQ(low[k], k <= 24 ? 0.1f : k < 32 ? 1.0f + 0.1125f * ramp : 1.0f) << k;
    EXPECT_FLOAT_EQ(high[k], k <= 32 ? 1.0f : k < 40 ? 1.0f - 0.1125f * ramp : 0.1f) << k;
  }
  EXPECT_TRUE(all_ones(low, 32) && all_ones(high, 0, 32));
  EXPECT_TRUE(all_ones(shelf({0, 1000.0f, 20.0f})));
  for (const float no_attenuation : {0.0f, -6.0f, -1000.0f, -INFINITY, NAN}) {
    const ShelfBand band = {1, 1000.0f, no_attenuation};
    EXPECT_TRUE(all_ones(shelf(band, band))) << no_attenuation;
  }
  EXPECT_TRUE(all_ones(shelf({1, 270.0f, 20.0f})));  // bin 8
  EXPECT_LT(shelf({1, 279.1f, 20.0f})[0], 0.11f);    // bin 9
  EXPECT_TRUE(all_ones(shelf({1, 279.1f, 20.0f}), 9));
  EXPECT_FLOAT_EQ(shelf({1, 1e9f, 20.0f})[256], 1.0f - 0.1125f);  // one past the last bin
  EXPECT_TRUE(all_ones(shelf({}, {1, 7719.0f, 20.0f})));          // bin 249
  EXPECT_TRUE(all_ones(shelf({}, {1, 7700.0f, 20.0f}), 0, 248));
  EXPECT_FLOAT_EQ(shelf({}, {1, 7700.0f, 20.0f})[256], 0.1f);
  EXPECT_FLOAT_EQ(shelf({}, {1, -1e9f, 20.0f})[0], 0.1f);
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
  for (const float corner : {INFINITY, -INFINITY, NAN, 1e30f}) {
    for (const float g : shelf({1, corner, 20.0f}, {1, corner, 20.0f}))
      EXPECT_TRUE(g >= 0.0f && g <= 1.0f);
  }
}

}  // namespace

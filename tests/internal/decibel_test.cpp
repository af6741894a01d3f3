// Decibels to amplitude, against the C library in long double.
#include "common/decibel.h"

#include <gtest/gtest.h>

#include <cfloat>
#include <cmath>

#include "random_signal.h"

namespace {

// Where long double is no wider than double, the reference is off by up to a half itself.
constexpr double kReferenceUlp = LDBL_MANT_DIG > DBL_MANT_DIG ? 0.0 : 1.0;

TEST(Decibel, TheExponentialIsWithinOneUlp) {
  RandomSignal random(1);
  double worst = 0;
  for (int i = 0; i < 200000; ++i) {
    // The whole normal range, and more of the middle, where levels lie.
    const double x = static_cast<double>(random.uniform()) * (i % 2 ? 707.9 : 12.0) + i * 1e-9;
    const double value = se::deterministic_exp(x);
    const long double exact = std::exp(static_cast<long double>(x));
    const double ulp = std::nextafter(value, INFINITY) - value;
    worst = std::max(worst, static_cast<double>(std::fabs(value - exact)) / ulp);
  }
  EXPECT_LT(worst, 1.0 + kReferenceUlp);
  RecordProperty("worst_ulp", std::to_string(worst));

  EXPECT_EQ(se::deterministic_exp(0.0), 1.0);
  EXPECT_EQ(se::deterministic_exp(-708.1), 0.0);
  EXPECT_EQ(se::deterministic_exp(-INFINITY), 0.0);
  EXPECT_EQ(se::deterministic_exp(709.1), INFINITY);
  EXPECT_TRUE(std::isnan(se::deterministic_exp(NAN)));
}

TEST(Decibel, AmplitudesAreThoseOfTheRoundedExponent) {
  for (int tenth = -7000; tenth <= 7000; ++tenth) {
    const float db = static_cast<float>(tenth) * 0.1f;
    const long double exact = std::pow(10.0L, static_cast<long double>(db * 0.05f));
    const auto rounded = static_cast<float>(exact);
    const float value = se::amplitude_from_db(db);
    // Half way between two floats the double result may fall to either side.
    EXPECT_TRUE(value == rounded || std::nextafter(value, rounded) == rounded) << db;
    EXPECT_NEAR(value, static_cast<double>(exact), static_cast<double>(exact) * 6e-8) << db;
  }
}

}  // namespace

// The GRU layer: bit for bit against its formulas with the library's tanh, and close to the same in
// double precision over many steps.
#include "nn/gru.h"

#include <gtest/gtest.h>

#include <algorithm>

#include "guarded_region.h"
#include "kernels/tanh.h"
#include "nn_reference.h"
#include "random_signal.h"
#include "speechenhance/denoiser.h"

namespace {

// Parameters of a layer. The weights use the whole int8 range, -128 included.
struct Parameters {
  Parameters(int hidden, int input, float weight_range, std::uint64_t seed) {
    RandomSignal random(seed);
    const auto rows = static_cast<std::size_t>(3 * hidden);
    weight_ih.resize(rows * static_cast<std::size_t>(input));
    weight_hh.resize(rows * static_cast<std::size_t>(hidden));
    for (auto* table : {&weight_ih, &weight_hh}) {
      for (std::int8_t& w : *table) w = static_cast<std::int8_t>(weight_range * random.uniform());
      table->front() = -128;
    }
    bias_ih.resize(rows);
    bias_hh.resize(rows);
    for (auto* table : {&bias_ih, &bias_hh}) {
      for (float& b : *table) b = 0.5f * random.uniform();
    }
    layer = {weight_ih.data(), weight_hh.data(), bias_ih.data(), bias_hh.data(), input, hidden};
  }
  std::vector<std::int8_t> weight_ih, weight_hh;
  std::vector<float> bias_ih, bias_hh;
  GRULayer layer;
};

struct Size {
  int hidden, input;
};

class GruLayer : public testing::TestWithParam<Size> {
 protected:
  const int hidden_ = GetParam().hidden, input_ = GetParam().input;
  const std::size_t units_ = static_cast<std::size_t>(hidden_);

  std::vector<float> random_input(RandomSignal& random) const {
    std::vector<float> in(static_cast<std::size_t>(input_));
    for (float& x : in) x = 3.0f * (1.0f + random.uniform());
    return in;
  }
};

float sigmoid(float x) {
  return 0.5f * (se::tanh_scalar(0.5f * x) + 1.0f);
}

// One step in single precision, in the documented order, on the state `h`.
std::vector<float> exact_step(const GRULayer& p, int hidden, int input,
                              const std::vector<float>& in, std::vector<std::int64_t>& h) {
  std::vector<std::int64_t> q;
  for (const float x : in) q.push_back(reference::quantized(x, 2048));
  const auto sum = [](const std::int8_t* row, const std::vector<std::int64_t>& v) {
    std::int64_t s = 0;
    for (std::size_t i = 0; i < v.size(); ++i) s += row[i] * v[i];
    return static_cast<float>(s);
  };
  const float unit = 1.0f / 524288;
  std::vector<float> out;
  for (int j = 0; j < hidden; ++j) {
    const auto gate = [&](int row) {
      float v = sum(p.weight_ih + row * input, q) * unit;
      v += p.bias_ih[row];
      v = std::fma(sum(p.weight_hh + row * hidden, h), unit, v);
      v += p.bias_hh[row];
      return sigmoid(v);
    };
    const float r = gate(j), z = gate(hidden + j);
    const int row = 2 * hidden + j;
    float n = sum(p.weight_hh + row * hidden, h) * unit;
    n += p.bias_hh[row];
    n *= r;
    n = std::fma(sum(p.weight_ih + row * input, q), unit, n);
    n += p.bias_ih[row];
    n = se::tanh_scalar(n);
    out.push_back(std::fma(static_cast<float>(h[static_cast<std::size_t>(j)]), z * (1.0f / 2048),
                           (1.0f - z) * n));
  }
  for (std::size_t j = 0; j < out.size(); ++j) h[j] = reference::quantized(out[j], 2048);
  return out;
}

TEST_P(GruLayer, FollowsItsFormulasBitForBitAtAnyMisalignment) {
  const Parameters p(hidden_, input_, 127.9f, 3);
  for (const std::size_t shift : {0u, 3u, 9u, 15u}) {
    GuardedRegion mem(static_cast<std::size_t>(gru_query_mem(hidden_)), shift);
    GuardedRegion scratch(static_cast<std::size_t>(gru_query_scratch(hidden_, input_)), 15 - shift);
    std::fill_n(mem.data(), mem.size(), std::uint8_t{0x55});  // the state is cleared by gru_init
    Gru* gru = gru_init(mem.data(), scratch.data(), &p.layer, hidden_, input_);
    ASSERT_TRUE(mem.holds(gru, 1, alignof(Gru)));
    ASSERT_TRUE(mem.holds(gru->state, units_, 16));
    for (const float* area : {gru->update, gru->reset, gru->candidate}) {
      ASSERT_TRUE(scratch.holds(area, units_, 16));
    }
    ASSERT_TRUE(scratch.holds(gru->qinput, static_cast<std::size_t>(input_), 16));

    RandomSignal random(4);
    std::vector<std::int64_t> h(units_);
    for (int frame = 0; frame < 40; ++frame) {
      const std::vector<float> in = random_input(random);
      std::vector<float> out(units_);
      EXPECT_EQ(gru_process(gru, in.data(), out.data()), 0);
      ASSERT_EQ(out, exact_step(p.layer, hidden_, input_, in, h)) << "frame " << frame;
      ASSERT_TRUE(std::equal(h.begin(), h.end(), gru->state)) << "frame " << frame;
    }
    EXPECT_TRUE(mem.intact());
    EXPECT_TRUE(scratch.intact());
  }
}

TEST_P(GruLayer, StaysCloseToDoublePrecision) {
  const Parameters p(hidden_, input_, 20.0f, 5);
  std::vector<std::max_align_t> mem(1000), scratch(2000);
  Gru* gru = gru_init(mem.data(), scratch.data(), &p.layer, hidden_, input_);
  reference::Gru plain(&p.layer, hidden_, input_);
  RandomSignal random(6);
  for (int frame = 0; frame < 200; ++frame) {
    const std::vector<float> in = random_input(random);
    std::vector<float> out(units_);
    gru_process(gru, in.data(), out.data());
    const reference::Values expected = plain.step({in.begin(), in.end()});
    for (std::size_t j = 0; j < units_; ++j) {
      ASSERT_NEAR(out[j], expected[j], 0.002) << "frame " << frame;
      ASSERT_LE(std::fabs(out[j] - static_cast<float>(gru->state[j]) / 2048), 1.0f / 4096);
    }
  }
}

// The layers of the model, and sizes that are no multiple of anything.
INSTANTIATE_TEST_SUITE_P(Sizes, GruLayer,
                         testing::Values(Size{200, 128}, Size{200, 200}, Size{13, 7}, Size{1, 1}));

TEST(GruMemory, IsAsPublished) {
  EXPECT_EQ(gru_query_mem(200), 450 + static_cast<int>(sizeof(Gru)) - 32);
  EXPECT_EQ(gru_query_scratch(200, 128), 2716);
  EXPECT_EQ(gru_query_scratch(200, 200), 2860);
  if (sizeof(void*) == 4) {
    EXPECT_EQ(sizeof(Gru), 32u);
  }
}

TEST(GruInit, RefusesSizesWhoseSumsCouldOverflow) {
  const GRULayer layer = {};
  std::vector<std::max_align_t> mem(1000), scratch(2000);
  const auto init = [&](int hidden, int input) {
    return gru_init(mem.data(), scratch.data(), &layer, hidden, input);
  };
  EXPECT_NE(init(511, 511), nullptr);
  EXPECT_EQ(init(0, 8), nullptr);
  EXPECT_EQ(init(8, 0), nullptr);
  EXPECT_EQ(init(512, 8), nullptr);
  EXPECT_EQ(init(8, 512), nullptr);
}

}  // namespace

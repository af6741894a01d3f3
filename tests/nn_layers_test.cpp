// The denoiser's layers against plain versions: the quantized convolution value for value, the GRU
// in double precision.
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <cstddef>
#include <vector>

#include "guarded_region.h"
#include "nn/gru.h"
#include "nn_reference.h"
#include "random_signal.h"
#include "speechenhance/denoiser.h"

namespace {

class ConvLayer : public testing::TestWithParam<reference::ConvShape> {};

TEST_P(ConvLayer, MatchesThePlainVersion) {
  const reference::ConvShape& s = GetParam();
  RandomSignal random(1);
  const auto channels = static_cast<std::size_t>(s.out_channels);
  const int used = s.kernel_time * s.kernel_freq * s.in_channels;
  std::vector<std::int8_t> kernel;
  for (int i = 0; i < s.out_channels * s.row(); ++i) {
    kernel.push_back(i % s.row() < used ? static_cast<std::int8_t>(random.uniform() * 127.9f)
                                        : std::int8_t{0});
  }
  const std::vector<float> scale = random.reals(channels, 0.003f), bias = random.reals(channels);
  const Conv2DLayer layer = {kernel.data(), scale.data(), bias.data(), 0, 0, 0, 0, 0, 0};

  GuardedRegion mem(static_cast<std::size_t>(
                        conv2d_query_mem(s.kernel_time - 1, s.in_channels, s.in_width, s.freq_pad)),
                    3);
  GuardedRegion scratch(static_cast<std::size_t>(conv2d_query_scratch(
                            s.in_channels, s.kernel_time, s.kernel_freq, s.in_width, 1)),
                        12);
  Conv2D* conv = conv2d_init(mem.data(), scratch.data(), &layer, s.kernel_time - 1, s.in_channels,
                             s.in_width, s.out_channels, s.out_width, s.kernel_time, s.kernel_freq,
                             1, s.freq_stride, s.time_pad, s.freq_pad, 1);
  ASSERT_NE(conv, nullptr);
  reference::Conv plain(s);
  for (int frame = 0; frame < 9; ++frame) {  // the ring wraps several times
    const auto in = random.reals(s.in_channels * s.in_width, frame % 3 == 0 ? 50.0f : 4.0f);
    std::vector<float> out(channels * static_cast<std::size_t>(s.out_width), -7.0f);
    const reference::Integers sums = plain.sums({in.begin(), in.end()}, kernel.data());
    ASSERT_EQ(conv2d_process(conv, out.data(), in.data()), sums.empty() ? 0 : 1);
    for (std::size_t n = 0; n < out.size(); ++n) {
      const std::size_t o = n % channels;
      ASSERT_EQ(out[n], sums.empty()
                            ? -7.0f
                            : static_cast<float>(sums[n]) * (scale[o] * (1.0f / 1024)) + bias[o])
          << "frame " << frame << ", value " << n;
    }
  }
  EXPECT_TRUE(mem.intact() && scratch.intact());
}

// The layers of the model, then shapes of other kinds: one frame without look-ahead, no padding,
// odd rows, a stride that leaves the end of the axis unread, more padding in time than the kernel
// asks for.
INSTANTIATE_TEST_SUITE_P(Shapes, ConvLayer,
                         testing::Values(reference::ConvShape{3, 128, 8, 64, 3, 5, 2, 1, 2},
                                         reference::ConvShape{8, 64, 16, 32, 3, 3, 2, 1, 1},
                                         reference::ConvShape{16, 32, 32, 16, 3, 3, 2, 1, 1},
                                         reference::ConvShape{32, 16, 64, 16, 3, 3, 1, 1, 1},
                                         reference::ConvShape{64, 16, 16, 16, 3, 3, 1, 1, 1},
                                         reference::ConvShape{5, 9, 3, 4, 1, 3, 2, 0, 0},
                                         reference::ConvShape{1, 7, 2, 9, 2, 1, 1, 0, 1},
                                         reference::ConvShape{2, 12, 3, 3, 2, 4, 4, 1, 1},
                                         reference::ConvShape{3, 6, 5, 8, 3, 3, 1, 2, 2},
                                         reference::ConvShape{2, 8, 3, 8, 1, 3, 1, 1, 1}));

// A layer that passes its input through: what it stores can be read from its output.
TEST(ConvQuantisation, RoundsHalvesAwayFromZeroAndSaturates) {
  const std::int8_t kernel[8] = {1};
  const float scale = 1.0f, bias = 0.0f;
  const Conv2DLayer layer = {kernel, &scale, &bias, 1, 1, 1, 1, 3, 0};
  std::vector<std::max_align_t> mem(100), scratch(200);
  Conv2D* conv =
      conv2d_init(mem.data(), scratch.data(), &layer, 0, 1, 1, 1, 1, 1, 1, 1, 1, 0, 0, 1);
  const std::pair<float, float> cases[] = {
      {0.00048828125f, 1}, {-0.00048828125f, -1},   {0.0004f, 0},     {2.5f / 1024, 3},
      {40.0f, 32767},      {31.9990234375f, 32767}, {-40.0f, -32768}, {-32.0f, -32768},
      {INFINITY, 32767},   {-INFINITY, -32768},     {NAN, 0}};
  for (const auto& [in, stored] : cases) {
    float out = -1.0f;
    EXPECT_EQ(conv2d_process(conv, &out, &in), 1);
    EXPECT_EQ(out * 1024.0f, stored) << in;
  }
}

TEST(ConvInit, RefusesWhatTheLayerDoesNotDo) {
  const Conv2DLayer layer = {};
  std::vector<std::max_align_t> mem(1000), scratch(1000);
  // past, in_ch, in_w, out_ch, out_w, k_time, k_freq, t_stride, f_stride, t_pad, f_pad, groups
  const auto init = [&](std::array<int, 12> a) {
    return conv2d_init(mem.data(), scratch.data(), &layer, a[0], a[1], a[2], a[3], a[4], a[5], a[6],
                       a[7], a[8], a[9], a[10], a[11]);
  };
  const std::array<int, 12> good = {2, 3, 16, 8, 8, 3, 5, 1, 2, 1, 2, 1};
  EXPECT_NE(init(good), nullptr);
  const std::pair<std::size_t, int> changes[] = {{0, 1}, {1, 0},  {2, 14},  {3, 0}, {4, 0},
                                                 {4, 9}, {5, 0},  {5, 4},   {6, 7}, {7, 2},
                                                 {8, 0}, {9, -1}, {10, -1}, {11, 2}};
  for (const auto& [argument, value] : changes) {
    std::array<int, 12> bad = good;
    bad[argument] = value;
    EXPECT_EQ(init(bad), nullptr) << "argument " << argument << " = " << value;
  }
}

// ---- GRU ----------------------------------------------------------------------------------------

// Parameters of a layer. The weights use the whole int8 range, -128 included.
struct Parameters {
  Parameters(int hidden, int input, RandomSignal& random)
      : weight_ih(static_cast<std::size_t>(3 * hidden * input)),
        weight_hh(static_cast<std::size_t>(3 * hidden * hidden)),
        bias_ih(random.reals(3 * hidden, 0.5f)),
        bias_hh(random.reals(3 * hidden, 0.5f)),
        layer{weight_ih.data(), weight_hh.data(), bias_ih.data(), bias_hh.data(), input, hidden} {
    for (auto* table : {&weight_ih, &weight_hh}) {
      for (std::int8_t& w : *table) w = static_cast<std::int8_t>(127.9f * random.uniform());
      table->front() = -128;
    }
  }
  std::vector<std::int8_t> weight_ih, weight_hh;
  std::vector<float> bias_ih, bias_hh;
  GRULayer layer;
};

// Before every frame the model takes over the layer's state, so that rounding does not add up.
TEST(GruLayer, FollowsItsFormulas) {
  // The layers of the model, and sizes that are no multiple of anything.
  for (const auto& [hidden, input] : {std::pair{200, 128}, {200, 200}, {13, 7}, {1, 1}, {8, 520}}) {
    SCOPED_TRACE(testing::Message() << hidden << " units, " << input << " inputs");
    RandomSignal random(3);
    const Parameters p(hidden, input, random);
    GuardedRegion mem(static_cast<std::size_t>(gru_query_mem(hidden)), 3);
    GuardedRegion scratch(static_cast<std::size_t>(gru_query_scratch(hidden, input)), 9);
    std::fill_n(mem.data(), mem.size(), std::uint8_t{0x55});  // the state is cleared by gru_init
    Gru* gru = gru_init(mem.data(), scratch.data(), &p.layer, hidden, input);
    reference::Gru plain(&p.layer, hidden, input);
    for (int frame = 0; frame < 40; ++frame) {
      std::vector<float> in = random.reals(input), out(static_cast<std::size_t>(hidden));
      for (float& x : in) x = 3.0f * (1.0f + x);
      const reference::Values expected = plain.step({in.begin(), in.end()});
      EXPECT_EQ(gru_process(gru, in.data(), out.data()), 0);
      for (std::size_t j = 0; j < out.size(); ++j) {
        ASSERT_NEAR(out[j], expected[j], 1e-5) << "frame " << frame;
        ASSERT_EQ(gru->state[j], reference::quantized(out[j], 2048)) << "frame " << frame;
        plain.state[j] = gru->state[j];
      }
    }
    EXPECT_TRUE(mem.intact() && scratch.intact());
  }
}

TEST(GruInit, RefusesSizesBelowOne) {
  const GRULayer layer = {};
  std::vector<std::max_align_t> mem(1000), scratch(2000);
  const auto init = [&](int hidden, int input) {
    return gru_init(mem.data(), scratch.data(), &layer, hidden, input);
  };
  EXPECT_NE(init(8, 8), nullptr);
  for (const int bad : {0, -1}) EXPECT_TRUE(!init(bad, 8) && !init(8, bad)) << bad;
}

}  // namespace

// The quantized convolution layer against a plain version, value for value.
#include "nn/conv2d.h"

#include <gtest/gtest.h>

#include <array>
#include <cmath>
#include <cstddef>
#include <vector>

#include "guarded_region.h"
#include "nn_reference.h"
#include "random_signal.h"
#include "speechenhance/denoiser.h"

namespace {

struct Case {
  reference::ConvShape shape;
  int static_bytes, scratch_bytes;  // published, with 4-byte pointers; 0: not published
};

// The layers of the model, then shapes of other kinds: one frame without look-ahead, no padding,
// odd rows, a stride that leaves the end of the axis unread.
const Case kCases[] = {
    {{3, 128, 8, 64, 3, 5, 2, 1, 2}, 2552, 7053},
    {{8, 64, 16, 32, 3, 3, 2, 1, 1}, 3344, 17597},
    {{16, 32, 32, 16, 3, 3, 2, 1, 1}, 3440, 34125},
    {{32, 16, 64, 16, 3, 3, 1, 1, 1}, 3632, 67181},
    {{64, 16, 16, 16, 3, 3, 1, 1, 1}, 7088, 134317},
    {{5, 9, 3, 4, 1, 3, 2, 0, 0}, 0, 0},
    {{1, 7, 2, 9, 2, 1, 1, 0, 1}, 0, 0},
    {{2, 12, 3, 3, 2, 4, 4, 1, 1}, 0, 0},
    {{3, 6, 5, 8, 3, 3, 1, 2, 2}, 0, 0},
};

class ConvLayer : public testing::TestWithParam<Case> {
 protected:
  static constexpr int kFrames = 9;

  const reference::ConvShape& s() const { return GetParam().shape; }
  int mem_bytes() const {
    return conv2d_query_mem(s().kernel_time - 1, s().in_channels, s().in_width, s().freq_pad);
  }
  int scratch_bytes() const {
    return conv2d_query_scratch(s().in_channels, s().kernel_time, s().kernel_freq, s().in_width, 1);
  }
  Conv2D* init(void* mem, void* scratch, const Conv2DLayer* layer) const {
    return conv2d_init(mem, scratch, layer, s().kernel_time - 1, s().in_channels, s().in_width,
                       s().out_channels, s().out_width, s().kernel_time, s().kernel_freq, 1,
                       s().freq_stride, s().time_pad, s().freq_pad, 1);
  }
  std::size_t in_size() const { return static_cast<std::size_t>(s().in_channels * s().in_width); }
  std::size_t out_size() const {
    return static_cast<std::size_t>(s().out_channels * s().out_width);
  }
};

TEST_P(ConvLayer, MatchesThePlainVersionAtAnyMisalignment) {
  RandomSignal random(1);
  const auto channels = static_cast<std::size_t>(s().out_channels);
  const auto used = static_cast<std::size_t>(s().kernel_time * s().kernel_freq * s().in_channels);
  std::vector<std::int8_t> kernel(channels * static_cast<std::size_t>(s().row()));
  for (std::size_t i = 0; i < kernel.size(); ++i) {
    const bool padding = i % static_cast<std::size_t>(s().row()) >= used;
    kernel[i] = padding ? std::int8_t{0} : static_cast<std::int8_t>(random.uniform() * 127.9f);
  }
  std::vector<float> scale(channels), bias(channels);
  for (float& x : scale) x = 0.002f + 0.001f * random.uniform();
  for (float& x : bias) x = random.uniform();
  const Conv2DLayer layer = {kernel.data(), scale.data(), bias.data(), 0, 0, 0, 0, 0, 0};

  for (const std::size_t shift : {0u, 1u, 6u, 12u, 15u}) {
    GuardedRegion mem(static_cast<std::size_t>(mem_bytes()), shift);
    GuardedRegion scratch(static_cast<std::size_t>(scratch_bytes()), 15 - shift);
    Conv2D* conv = init(mem.data(), scratch.data(), &layer);
    ASSERT_TRUE(mem.holds(conv, 1, alignof(Conv2D)));
    for (int i = 0; i < s().kernel_time; ++i) {
      ASSERT_TRUE(mem.holds(conv->ring[i], static_cast<std::size_t>(conv->slot_len), 16));
    }
    ASSERT_TRUE(scratch.holds(conv->patch, static_cast<std::size_t>(conv->kernel_len), 16));
    ASSERT_TRUE(scratch.holds(conv->qinput, in_size(), 16));

    reference::Conv plain(s());
    RandomSignal input(2);
    for (int frame = 0; frame < kFrames; ++frame) {
      // Up to 50: beyond saturation. Many frames: the ring wraps several times.
      std::vector<float> in(in_size()), out(out_size(), -7.0f);
      for (float& x : in) x = input.uniform() * (frame % 3 == 0 ? 50.0f : 4.0f);
      const reference::Integers sums =
          plain.sums(reference::Values(in.begin(), in.end()), kernel.data());
      ASSERT_EQ(conv2d_process(conv, out.data(), in.data()), sums.empty() ? 0 : 1);
      for (std::size_t n = 0; n < out.size(); ++n) {
        const std::size_t o = n % channels;
        const float expected = sums.empty()
                                   ? -7.0f
                                   : static_cast<float>(static_cast<std::int32_t>(sums[n])) *
                                             (scale[o] * (1.0f / 1024)) +
                                         bias[o];
        ASSERT_EQ(out[n], expected) << "frame " << frame << ", value " << n;
      }
    }
    EXPECT_TRUE(mem.intact());
    EXPECT_TRUE(scratch.intact());
  }
}

TEST_P(ConvLayer, TakesThePublishedMemory) {
  if (GetParam().static_bytes == 0) return;
  EXPECT_EQ(mem_bytes(), GetParam().static_bytes + static_cast<int>(sizeof(Conv2D)) - 124);
  EXPECT_EQ(scratch_bytes(), GetParam().scratch_bytes);
  if (sizeof(void*) == 4) {
    EXPECT_EQ(sizeof(Conv2D), 124u);
  }
}

INSTANTIATE_TEST_SUITE_P(Shapes, ConvLayer, testing::ValuesIn(kCases));

// A layer that passes its input through: what it stores can be read from its output.
TEST(ConvQuantisation, RoundsHalvesAwayFromZeroAndSaturates) {
  const std::int8_t kernel[8] = {1};
  const float scale = 1.0f, bias = 0.0f;
  const Conv2DLayer layer = {kernel, &scale, &bias, 1, 1, 1, 1, 3, 0};
  std::vector<std::max_align_t> mem(100), scratch(200);
  Conv2D* conv =
      conv2d_init(mem.data(), scratch.data(), &layer, 0, 1, 1, 1, 1, 1, 1, 1, 1, 0, 0, 1);
  const auto stored = [&](float x) {
    float out = -1.0f;
    EXPECT_EQ(conv2d_process(conv, &out, &x), 1);
    return out * 1024.0f;
  };
  EXPECT_EQ(stored(0.00048828125f), 1.0f);
  EXPECT_EQ(stored(-0.00048828125f), -1.0f);
  EXPECT_EQ(stored(0.0004f), 0.0f);
  EXPECT_EQ(stored(2.5f / 1024), 3.0f);
  EXPECT_EQ(stored(40.0f), 32767.0f);
  EXPECT_EQ(stored(31.9990234375f), 32767.0f);
  EXPECT_EQ(stored(-40.0f), -32768.0f);
  EXPECT_EQ(stored(-32.0f), -32768.0f);
  EXPECT_EQ(stored(INFINITY), 32767.0f);
  EXPECT_EQ(stored(-INFINITY), -32768.0f);
  EXPECT_EQ(stored(NAN), 0.0f);
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
  const struct {
    std::size_t argument;
    int value;
  } changes[] = {{0, 1}, {1, 0}, {2, 14}, {3, 0}, {4, 0},  {4, 9},   {5, 0}, {5, 4},
                 {6, 7}, {7, 2}, {8, 0},  {9, 3}, {9, -1}, {10, -1}, {11, 2}};
  for (const auto& change : changes) {
    std::array<int, 12> bad = good;
    bad[change.argument] = change.value;
    EXPECT_EQ(init(bad), nullptr) << "argument " << change.argument << " = " << change.value;
  }
}

}  // namespace

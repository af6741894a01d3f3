// The compiled-in model against the golden vectors that its export wrote.
//
// data/golden_denoiser.bin comes from
//   python3 -m training.export --checkpoint training/checkpoints/denoiser.npz
// and holds: "SEGOLDEN", frames, checksum of the model file's tables, first frame scored (uint32
// each); 3 x frames * 160 int16 samples (microphones 0 and 1, reference); frames x 257 float gains
// of the exporting machine, which it had checked against a computation of its own within 1e-4.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <cstring>
#include <fstream>
#include <iterator>
#include <vector>

#include "engine/front_end.h"
#include "engine/se_instance.h"
#include "kernels/kernels.h"
#include "nn/denoiser.h"
#include "nn/model_file.h"
#include "speechenhance/denoiser.h"

namespace {

constexpr int kBins = se::nn::kBins;

TEST(GoldenDenoiser, CompiledInModelGivesTheExportedGains) {
  std::ifstream file(SE_TEST_DATA "/golden_denoiser.bin", std::ios::binary);
  ASSERT_TRUE(file) << "no golden vectors";
  const std::vector<char> bytes{std::istreambuf_iterator<char>(file), {}};
  ASSERT_GE(bytes.size(), 20u);
  ASSERT_EQ(std::memcmp(bytes.data(), "SEGOLDEN", 8), 0);
  std::uint32_t header[3];
  std::memcpy(header, bytes.data() + 8, sizeof header);
  const int frames = static_cast<int>(header[0]), first = static_cast<int>(header[2]);
  ASSERT_EQ(header[1], se::nn::crc32(se::nn::se_model_file + se::nn::kModelHeaderBytes,
                                     se::nn::kModelFileBytes - se::nn::kModelHeaderBytes))
      << "model and golden vectors come from different exports";
  std::vector<std::int16_t> samples(static_cast<std::size_t>(3 * frames * SE_BLOCK_LEN));
  std::vector<float> expected(static_cast<std::size_t>(frames * kBins));
  ASSERT_EQ(bytes.size(), 20 + samples.size() * 2 + expected.size() * 4);
  std::memcpy(samples.data(), bytes.data() + 20, samples.size() * 2);
  std::memcpy(expected.data(), bytes.data() + 20 + samples.size() * 2, expected.size() * 4);

  SEInstance* engine = se::create_instance(&nn_denoise_model);
  float largest = 0.0f, spread = 0.0f;
  for (int t = 0; t < frames; ++t) {
    float blocks[3][SE_BLOCK_LEN], gain[kBins];
    for (int c = 0; c < 3; ++c) {
      se::kernels().sample->s16_to_float(
          &samples[static_cast<std::size_t>((c * frames + t) * SE_BLOCK_LEN)], blocks[c],
          SE_BLOCK_LEN);
    }
    const se::FrontEndResult front = se::run_front_end(*engine, blocks[0], blocks[2]);
    const float* bands =
        se::nn::run_network(*static_cast<se::nn::NNDenoiser*>(engine->nn), front.features);
    ASSERT_EQ(bands != nullptr, t >= first);
    if (bands == nullptr) continue;
    se::nn::gains_from_bands(bands, gain);
    for (int k = 0; k < kBins; ++k) {
      const float want = expected[static_cast<std::size_t>(t * kBins + k)];
      largest = std::max(largest, std::fabs(gain[k] - want));
      spread = std::max(spread, want);
    }
  }
  se_destroy(engine);
  EXPECT_LE(largest, 1e-4f);
  EXPECT_GT(spread, 0.2f) << "the golden gains must not be trivial";
}

}  // namespace

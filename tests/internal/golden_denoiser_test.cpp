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

#include "nn/denoiser.h"
#include "nn/model_file.h"
#include "speechenhance/aec.h"
#include "speechenhance/denoiser.h"
#include "speechenhance/zel_stft.h"

namespace {

constexpr int kHop = 160;
constexpr int kBins = se::nn::kBins;

struct Analysis {
  std::vector<unsigned char> memory = std::vector<unsigned char>(zel_stft_query_mem(512, 0));
  std::vector<unsigned char> scratch = std::vector<unsigned char>(zel_stft_query_scratch(512));
  stft_state* state =
      zel_stft_init(memory.data(), scratch.data(), p_win_tmp, 512, kHop, /*is_synthesis=*/0);

  void run(const std::int16_t* samples, zel_lcomplex* spectrum) {
    float block[kHop];
    for (int i = 0; i < kHop; ++i) block[i] = static_cast<float>(samples[i]) / 32768.0f;
    zel_stft_analysis(state, block, spectrum);
  }
};

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
  std::vector<std::int16_t> samples(static_cast<std::size_t>(3 * frames * kHop));
  std::vector<float> expected(static_cast<std::size_t>(frames * kBins));
  ASSERT_EQ(bytes.size(), 20 + samples.size() * 2 + expected.size() * 4);
  std::memcpy(samples.data(), bytes.data() + 20, samples.size() * 2);
  std::memcpy(expected.data(), bytes.data() + 20 + samples.size() * 2, expected.size() * 4);

  Analysis stft[3];
  std::vector<unsigned char> aec_memory(aec_query_mem()), aec_scratch(aec_query_scratch());
  aec_state* aec = aec_init(aec_memory.data(), aec_scratch.data());
  std::vector<unsigned char> nn_memory(static_cast<std::size_t>(nn_query_mem_api()));
  std::vector<unsigned char> nn_scratch(static_cast<std::size_t>(nn_query_scratch_api()));
  void* denoiser = nn_init_api(nn_memory.data(), nn_scratch.data());

  float largest = 0.0f, spread = 0.0f;
  for (int t = 0; t < frames; ++t) {
    std::vector<zel_lcomplex> mics(2 * kBins), reference(kBins);
    std::vector<float> power(2 * kBins), gain(kBins, -1.0f);
    for (int c = 0; c < 3; ++c)
      stft[c].run(&samples[static_cast<std::size_t>((c * frames + t) * kHop)],
                  c < 2 ? &mics[static_cast<std::size_t>(c * kBins)] : reference.data());
    for (std::size_t k = 0; k < mics.size(); ++k)
      power[k] = std::fma(mics[k].re, mics[k].re, mics[k].im * mics[k].im);
    zel_lcomplex* spectra[] = {mics.data(), mics.data() + kBins};
    float* powers[] = {power.data(), power.data() + kBins};
    aec_process(aec, spectra, powers, reference.data());
    const int wrote =
        nn_process_api(denoiser, mics.data(), reference.data(), gain.data(), true, false);
    ASSERT_EQ(wrote, t >= first);
    if (!wrote) continue;
    for (int k = 0; k < kBins; ++k) {
      const float want = expected[static_cast<std::size_t>(t * kBins + k)];
      largest = std::max(largest, std::fabs(gain[static_cast<std::size_t>(k)] - want));
      spread = std::max(spread, want);
    }
  }
  EXPECT_LE(largest, 1e-4f);
  EXPECT_GT(spread, 0.2f) << "the golden gains must not be trivial";
}

}  // namespace

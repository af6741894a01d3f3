#include "inspect/band_gains.h"

#include <algorithm>
#include <cmath>

#include "engine/se_instance.h"
#include "formatted.h"
#include "nn/network.h"

namespace se_tool {
namespace {

constexpr double kHzPerBin = static_cast<double>(SE_SAMPLE_RATE) / se::kFrameLen;
constexpr std::size_t kWriteBytes = 1 << 16;
constexpr double kLowestGain = 1e-4;

// The middle of a frame lies 64 samples into the block before its newest one.
constexpr int kMiddle = 2 * SE_BLOCK_LEN - se::kFrameLen / 2;

}  // namespace

BandGains::BandGains(const std::string& file, std::uint64_t length)
    : table_(file),
      text_("time_s,far_end"),
      blocks_((length + SE_BLOCK_LEN - 1) / SE_BLOCK_LEN),
      block_(-se::kLookAhead - 1) {
  for (const int start : se::nn::kBandStart) text_ += formatted(",%g Hz", start * kHzPerBin);
  text_ += '\n';
  picture_.columns =
      static_cast<std::size_t>(std::min<std::uint64_t>(blocks_, Spectrogram::kMostColumns));
  sum_.resize(picture_.columns * se::nn::kBands);
  frames_in_column_.resize(picture_.columns);
}

void BandGains::add(const float* bands, bool far_end_active) {
  const std::int64_t block = block_++;
  if (bands == nullptr || block < 0 || static_cast<std::uint64_t>(block) >= blocks_) return;
  text_ += formatted("%.3f", static_cast<double>(block * SE_BLOCK_LEN + kMiddle) / SE_SAMPLE_RATE);
  text_ += far_end_active ? ",1" : ",0";
  for (int i = 0; i < se::nn::kBands; ++i)
    text_ += formatted(",%.4f", static_cast<double>(bands[i]));
  text_ += '\n';
  if (text_.size() >= kWriteBytes) {
    table_.append(text_);
    text_.clear();
  }
  const auto column =
      static_cast<std::size_t>(static_cast<std::uint64_t>(block) * picture_.columns / blocks_);
  ++frames_in_column_[column];
  for (std::size_t i = 0; i < se::nn::kBands; ++i) {
    sum_[column * se::nn::kBands + i] += static_cast<double>(bands[i]);
  }
}

void BandGains::finish() {
  table_.append(text_);
  table_.sync();
  picture_.power_db.resize(picture_.columns * SpectrumPicture::kBins);
  for (std::size_t column = 0; column < picture_.columns; ++column) {
    std::size_t band = 0;
    for (std::size_t bin = 0; bin < SpectrumPicture::kBins; ++bin) {
      if (band + 1 < se::nn::kBands &&
          bin >= static_cast<std::size_t>(se::nn::kBandStart[band + 1]))
        ++band;
      const double gain =
          sum_[column * se::nn::kBands + band] / std::max(1, frames_in_column_[column]);
      picture_.power_db[column * SpectrumPicture::kBins + bin] =
          static_cast<float>(20 * std::log10(std::max(gain, kLowestGain)));
    }
  }
}

}  // namespace se_tool

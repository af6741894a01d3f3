#include "spectrogram.h"

#include <algorithm>
#include <cmath>

#include "speechenhance/speechenhance.h"

namespace se_tool {
namespace {

constexpr int kFrame = 512;

float decibels(double power) {
  constexpr double kLowest = 1e-15;
  return static_cast<float>(10 * std::log10(std::max(power, kLowest)));
}

}  // namespace

Spectrogram::Spectrogram(std::uint64_t length)
    : window_(kFrame),
      memory_(zel_stft_query_mem(kFrame, 0)),
      scratch_(zel_stft_query_scratch(kFrame)),
      blocks_((length + SE_BLOCK_LEN - 1) / SE_BLOCK_LEN) {
  zel_stft_generate_win(kFrame, window_.data());
  stft_ = zel_stft_init(memory_.data(), scratch_.data(), window_.data(), kFrame, SE_BLOCK_LEN, 0);
  columns_ = static_cast<std::size_t>(std::min<std::uint64_t>(blocks_, kMostColumns));
  power_.resize(columns_ * SpectrumPicture::kBins);
  frames_in_column_.resize(columns_);
  energy_.resize(columns_);
  samples_in_column_.resize(columns_);
}

std::size_t Spectrogram::column_of(std::uint64_t block) const {
  return static_cast<std::size_t>(block * columns_ / blocks_);
}

void Spectrogram::add_block(const float* samples, std::size_t count) {
  const std::size_t column = column_of(frames_);
  for (std::size_t i = 0; i < count; ++i) {
    energy_[column] += static_cast<double>(samples[i]) * samples[i];
  }
  samples_in_column_[column] += count;

  float block[SE_BLOCK_LEN] = {};
  std::copy_n(samples, count, block);
  analyse(block);
}

// A frame of 512 samples is centred 256 before the end of its newest block, which is 16 samples
// from the middle of the block before: there its power is drawn.
void Spectrogram::analyse(const float* block) {
  zel_lcomplex spectrum[SpectrumPicture::kBins];
  zel_stft_analysis(stft_, block, spectrum);
  if (frames_++ == 0) return;
  const std::size_t column = column_of(frames_ - 2);
  for (std::size_t bin = 0; bin < SpectrumPicture::kBins; ++bin) {
    const double re = spectrum[bin].re;
    const double im = spectrum[bin].im;
    power_[column * SpectrumPicture::kBins + bin] += re * re + im * im;
  }
  ++frames_in_column_[column];
}

SpectrumPicture Spectrogram::finish() {
  const float silence[SE_BLOCK_LEN] = {};
  analyse(silence);
  // A sine of full scale in the middle of a bin has half the window's sum as its magnitude.
  constexpr double kFullScale = (kFrame / 4) * (kFrame / 4);
  SpectrumPicture picture;
  picture.columns = columns_;
  for (std::size_t i = 0; i < power_.size(); ++i) {
    const int frames = frames_in_column_[i / SpectrumPicture::kBins];
    picture.power_db.push_back(decibels(power_[i] / frames / kFullScale));
  }
  for (std::size_t i = 0; i < columns_; ++i) {
    picture.level_db.push_back(decibels(energy_[i] / static_cast<double>(samples_in_column_[i])));
  }
  return picture;
}

}  // namespace se_tool

#include "summarise/excerpt.h"

#include <algorithm>
#include <cmath>
#include <fstream>
#include <iterator>
#include <sndfile.hh>
#include <vector>

#include "audio_input.h"
#include "drawing.h"
#include "errors.h"
#include "speechenhance/speechenhance.h"

namespace se_tool {
namespace {

// Pixels.
constexpr int kWidth = 760;
constexpr int kHeight = 410;
constexpr double kLeft = 80;
constexpr double kPanelWidth = 660;
constexpr double kPanelHeight = 140;
constexpr double kSpectrumRangeDb = 80;

std::vector<float> read_mono(const std::string& path, const Segment& segment) {
  if (!is_regular_file(path)) throw Error(ExitCode::kInput, path + ": is not there");
  AudioInput input(path, kMostInputBytes, segment);
  const auto channels = static_cast<std::size_t>(input.channels());
  std::vector<float> frames(static_cast<std::size_t>(input.length()) * channels);
  input.read(frames.data(), static_cast<std::size_t>(input.length()));
  std::vector<float> samples(static_cast<std::size_t>(input.length()));
  for (std::size_t i = 0; i < samples.size(); ++i) {
    samples[i] = frames[i * channels + std::min<std::size_t>(channels, 2) - 1];
  }
  return samples;
}

std::string encode_flac(const std::vector<float>& samples) {
  const TemporaryFile file;
  const auto count = static_cast<sf_count_t>(samples.size());
  {
    SndfileHandle sound(file.path(), SFM_WRITE, SF_FORMAT_FLAC | SF_FORMAT_PCM_16, 1,
                        SE_SAMPLE_RATE);
    if (sound.rawHandle() == nullptr) throw Error(ExitCode::kInternal, sound.strError());
    sound.command(SFC_SET_CLIPPING, nullptr, SF_TRUE);
    if (sound.writef(samples.data(), count) != count) {
      throw Error(ExitCode::kInternal, sound.strError());
    }
  }
  std::ifstream bytes(file.path(), std::ios::binary);
  return {std::istreambuf_iterator<char>(bytes), {}};
}

SpectrumPicture picture_of(const std::vector<float>& samples) {
  Spectrogram spectrogram(samples.size());
  for (std::size_t at = 0; at < samples.size(); at += SE_BLOCK_LEN) {
    spectrogram.add_block(samples.data() + at,
                          std::min<std::size_t>(SE_BLOCK_LEN, samples.size() - at));
  }
  return spectrogram.finish();
}

std::string draw(const std::vector<float>& before, const std::vector<float>& after) {
  const SpectrumPicture input = picture_of(before);
  const SpectrumPicture output = picture_of(after);
  const double loudest =
      std::max(*std::max_element(input.power_db.begin(), input.power_db.end()),
               *std::max_element(output.power_db.begin(), output.power_db.end()));
  const Range range = range_below(loudest, 10, kSpectrumRangeDb);
  const Box upper = {kLeft, 30, kPanelWidth, kPanelHeight};
  const Box lower = {kLeft, upper.bottom() + 34, kPanelWidth, kPanelHeight};
  const Page page(kWidth, kHeight, kLeft, "");
  draw_spectrum(page.pen(), upper, input, range);
  draw_heading(page.pen(), upper, "Before");
  draw_spectrum(page.pen(), lower, output, range);
  draw_heading(page.pen(), lower, "After");
  draw_time_axis(page.pen(), {upper, lower}, static_cast<double>(before.size()) / SE_SAMPLE_RATE);
  return page.png();
}

}  // namespace

Excerpt make_excerpt(const ResultRecord& record, double most_s) {
  Excerpt excerpt;
  excerpt.duration_s = std::min(most_s, record.duration_s);
  excerpt.start_s = std::floor((record.duration_s - excerpt.duration_s) / 2);
  const std::vector<float> before =
      read_mono(record.source, {record.offset_s + excerpt.start_s, excerpt.duration_s});
  const std::vector<float> after = read_mono(record.result, {excerpt.start_s, excerpt.duration_s});
  excerpt.before = encode_flac(before);
  excerpt.after = encode_flac(after);
  excerpt.picture = draw(before, after);
  return excerpt;
}

}  // namespace se_tool

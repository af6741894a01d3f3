#include "inspect/stage_sound.h"

#include <algorithm>

#include "engine/se_instance.h"
#include "formatted.h"

namespace se_tool {
namespace {

constexpr std::size_t kBlock = SE_BLOCK_LEN;
constexpr int kIsSynthesis = 1;

}  // namespace

StageSound::Synthesis::Synthesis()
    : memory_(zel_stft_query_mem(se::kFrameLen, kIsSynthesis)),
      scratch_(zel_stft_query_scratch(se::kFrameLen)),
      stft_(zel_stft_init(memory_.data(), scratch_.data(), p_win_tmp, se::kFrameLen, SE_BLOCK_LEN,
                          kIsSynthesis)) {}

void StageSound::Synthesis::run(const zel_lcomplex* spectrum, float* block) {
  zel_stft_synthesis_envelop(stft_, spectrum, block);
}

StageSound::StageSound(const std::string& file, std::string title, std::uint64_t length, int delay)
    : output_(file, SoundFormat::kWavFloat, length),
      spectrum_(length),
      to_drop_(static_cast<std::size_t>(delay)),
      left_(length),
      heading_(std::move(title)) {}

void StageSound::add(const float* block) {
  const std::size_t dropped = std::min(to_drop_, kBlock);
  to_drop_ -= dropped;
  waiting_.insert(waiting_.end(), block + dropped, block + kBlock);
  while (left_ > 0) {
    const std::size_t count = static_cast<std::size_t>(
        std::min<std::uint64_t>(kBlock, left_));  // the last one is shorter
    if (waiting_.size() < count) return;
    emit(count);
  }
}

void StageSound::add(const zel_lcomplex* spectrum) {
  float block[kBlock];
  synthesis_.run(spectrum, block);
  add(block);
}

void StageSound::emit(std::size_t count) {
  output_.write(waiting_.data(), count);
  spectrum_.add_block(waiting_.data(), count);
  level_.add_block(waiting_.data(), count);
  waiting_.erase(waiting_.begin(), waiting_.begin() + static_cast<std::ptrdiff_t>(count));
  left_ -= count;
}

void StageSound::finish() {
  output_.finish();
  output_.sync();
  picture_ = spectrum_.finish();
  heading_ += formatted(" (level %.1f dBFS, peak %.1f dBFS)", level_.level_db(), level_.peak_db());
}

}  // namespace se_tool

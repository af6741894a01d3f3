#include "enhance.h"

#include <algorithm>
#include <chrono>
#include <cmath>
#include <memory>
#include <optional>
#include <vector>

#include "aligned_inputs.h"
#include "audio_output.h"
#include "engine/owned_engine.h"
#include "errors.h"
#include "growing_queue.h"
#include "nn/quiet_history.h"
#include "plot.h"
#include "signals.h"
#include "spectrogram.h"

namespace se_tool {
namespace {

constexpr std::size_t kBlock = SE_BLOCK_LEN;
constexpr int kBlocksPerProgress = 50;

// The engine between inputs and outputs that belong to the same samples: what comes out is held
// against the input of `delay` samples earlier.
class AlignedEngine {
 public:
  explicit AlignedEngine(const Settings& settings)
      : engine_(se_create()),
        denoised_alone_(settings.mode == Mode::kDenoise),
        suppress_(settings.mode == Mode::kSuppress),
        to_drop_(static_cast<std::size_t>(engine_delay(settings))) {
    if (!engine_) throw Error(ExitCode::kInternal, "not enough memory for the engine");
    se::nn::forget_quiet_frames();
    set_nn_process_config(engine_.get(), engine_config(settings));
  }

  // Both microphones' blocks one after the other, and the loudspeaker's.
  void process(const float mics[2 * kBlock], const float ref[kBlock]) {
    using Clock = std::chrono::steady_clock;
    float out[kBlock];
    const auto start = Clock::now();
    se_process(engine_.get(), mics, ref, out, denoised_alone_, suppress_);
    seconds_ += std::chrono::duration<double>(Clock::now() - start).count();

    mic_.push(mics + kBlock, kBlock);
    ref_.push(ref, kBlock);
    const std::size_t dropped = std::min(to_drop_, kBlock);
    to_drop_ -= dropped;
    out_.push(out + dropped, kBlock - dropped);
  }

  std::size_t available() const { return out_.size(); }
  const float* mic() const { return mic_.data(); }
  const float* ref() const { return ref_.data(); }
  const float* out() const { return out_.data(); }
  void advance(std::size_t count) {
    mic_.pop(count);
    ref_.pop(count);
    out_.pop(count);
  }

  double seconds() const { return seconds_; }

 private:
  se::OwnedEngine engine_;
  bool denoised_alone_;
  bool suppress_;
  std::size_t to_drop_;  // samples that come out before the first one belongs to the input
  GrowingQueue mic_, ref_, out_;
  double seconds_ = 0;
};

// What the tool tells about a recording beside the recording itself.
struct Observers {
  Observers(const Task& task, std::uint64_t length) : has_ref(!task.ref.empty()) {
    if (task.plot.empty()) return;
    spectrum_in.emplace(length);
    spectrum_out.emplace(length);
    plot_file.emplace(task.plot);
  }

  void add_block(const float* mic, const float* ref, const float* out, std::size_t count) {
    level_in.add_block(mic, count);
    level_out.add_block(out, count);
    if (has_ref) echo.add_block(mic, ref, out, count);
    if (!spectrum_in) return;
    spectrum_in->add_block(mic, count);
    spectrum_out->add_block(out, count);
  }

  bool has_ref;
  LevelMeter level_in, level_out;
  EchoMeter echo;
  std::optional<Spectrogram> spectrum_in, spectrum_out;
  std::optional<PendingFile> plot_file;
};

Statistics gather_statistics(const Observers& seen, std::uint64_t length, double engine_s) {
  Statistics result;
  result.duration_s = static_cast<double>(length) / SE_SAMPLE_RATE;
  result.engine_s = engine_s;
  result.real_time_factor = engine_s / result.duration_s;
  result.peak_in_db = seen.level_in.peak_db();
  result.peak_out_db = seen.level_out.peak_db();
  result.level_in_db = seen.level_in.level_db();
  result.level_out_db = seen.level_out.level_db();
  result.background_in_db = seen.level_in.background_db();
  result.background_out_db = seen.level_out.background_db();
  result.attenuation_db = result.level_in_db - result.level_out_db;
  result.echo_reduction_db = seen.echo.reduction_db();
  return result;
}

}  // namespace

Statistics enhance(const Task& task, const ProgressFunction& progress) {
  AlignedInputs inputs(task);
  const std::uint64_t length = inputs.length();
  AudioOutput output(task.output, task.format, length);
  Observers observers(task, length);
  AlignedEngine engine(task.settings);

  std::uint64_t done = 0;
  for (int block = 0; done < length; ++block) {
    float mics[2 * kBlock];
    float ref[kBlock];
    inputs.read_block(mics, ref);
    engine.process(mics, ref);
    const std::size_t count =
        static_cast<std::size_t>(std::min<std::uint64_t>(kBlock, length - done));
    if (engine.available() < count) continue;

    output.write(engine.out(), count);
    observers.add_block(engine.mic(), engine.ref(), engine.out(), count);
    engine.advance(count);
    done += count;
    if (block % kBlocksPerProgress == 0) progress(done, length);
    throw_if_interrupted();
  }
  progress(done, length);

  output.finish();
  if (task.to_disk) output.sync();
  if (observers.plot_file) {
    observers.plot_file->write(draw_plot(task.mic, static_cast<double>(length) / SE_SAMPLE_RATE,
                                         observers.spectrum_in->finish(),
                                         observers.spectrum_out->finish()));
    observers.plot_file->sync();
  }
  throw_if_interrupted();
  output.commit();
  if (observers.plot_file) observers.plot_file->commit();
  Statistics statistics = gather_statistics(observers, length, engine.seconds());
  statistics.clipped_samples = output.clipped();
  statistics.missing_bytes = inputs.missing_bytes();
  statistics.delay_ms = inputs.delay_ms().value_or(std::nan(""));
  statistics.excessive_mic_samples = inputs.excessive_mic_samples();
  statistics.excessive_ref_samples = inputs.excessive_ref_samples();
  return statistics;
}

}  // namespace se_tool

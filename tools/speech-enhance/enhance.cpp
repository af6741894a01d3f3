#include "enhance.h"

#include <algorithm>
#include <chrono>
#include <cmath>
#include <memory>
#include <optional>
#include <vector>

#include "audio_input.h"
#include "audio_output.h"
#include "errors.h"
#include "plot.h"
#include "signals.h"
#include "spectrogram.h"

namespace se_tool {
namespace {

constexpr std::size_t kBlock = SE_BLOCK_LEN;
constexpr int kBlocksPerProgress = 50;

struct DestroyEngine {
  void operator()(SEInstance* engine) const { se_destroy(engine); }
};
using EngineHandle = std::unique_ptr<SEInstance, DestroyEngine>;

// First in, first out.
class SampleQueue {
 public:
  std::size_t size() const { return samples_.size() - head_; }
  const float* data() const { return samples_.data() + head_; }
  void push(const float* samples, std::size_t count) {
    if (head_ > samples_.size() / 2) {
      samples_.erase(samples_.begin(), samples_.begin() + static_cast<std::ptrdiff_t>(head_));
      head_ = 0;
    }
    samples_.insert(samples_.end(), samples, samples + count);
  }
  void pop(std::size_t count) { head_ += count; }

 private:
  std::vector<float> samples_;
  std::size_t head_ = 0;
};

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
  EngineHandle engine_;
  bool denoised_alone_;
  bool suppress_;
  std::size_t to_drop_;  // samples that come out before the first one belongs to the input
  SampleQueue mic_, ref_, out_;
  double seconds_ = 0;
};

// What the tool tells about a recording beside the recording itself.
struct Observers {
  Observers(const Task& task, std::uint64_t length) {
    if (task.plot.empty()) return;
    spectrum_in.emplace(length);
    spectrum_out.emplace(length);
    plot_file.emplace(task.plot);
  }

  void add_block(const float* mic, const float* ref, const float* out, std::size_t count) {
    level_in.add_block(mic, count);
    level_out.add_block(out, count);
    echo.add_block(mic, ref, out, count);
    if (!spectrum_in) return;
    spectrum_in->add_block(mic, count);
    spectrum_out->add_block(out, count);
  }

  LevelMeter level_in, level_out;
  EchoMeter echo;
  std::optional<Spectrogram> spectrum_in, spectrum_out;
  std::optional<PendingFile> plot_file;
};

// Microphones and loudspeaker, block by block, silence behind their end.
class Inputs {
 public:
  explicit Inputs(const Task& task) : mic_(task.mic) {
    if (mic_.channels() > 2) {
      throw Error(ExitCode::kInput, mic_.name() + ": has " + std::to_string(mic_.channels()) +
                                        " channels, a recording of the microphones has 1 or 2");
    }
    if (task.ref.empty()) return;
    ref_.emplace(task.ref);
    check_reference();
  }

  std::uint64_t length() const { return mic_.length(); }
  std::uint64_t missing_bytes() const { return mic_.missing_bytes(); }

  void read_block(float mics[2 * kBlock], float ref[kBlock]) {
    std::fill_n(mics, 2 * kBlock, 0.0f);
    std::fill_n(ref, kBlock, 0.0f);
    const std::size_t count =
        static_cast<std::size_t>(std::min<std::uint64_t>(kBlock, length() - position_));
    position_ += count;
    if (count == 0) return;
    float frames[2 * kBlock];
    mic_.read(frames, count);
    const auto channels = static_cast<std::size_t>(mic_.channels());
    for (std::size_t i = 0; i < count; ++i) {
      mics[i] = frames[i * channels];
      mics[kBlock + i] = frames[i * channels + channels - 1];
    }
    if (ref_) ref_->read(ref, count);
  }

 private:
  // Both come from one device and one clock: anything else could not be cancelled anyway.
  void check_reference() const {
    const FrameSource::Format& mic = mic_.original();
    const FrameSource::Format& ref = ref_->original();
    const auto refuse = [this](const std::string& what) {
      throw Error(ExitCode::kInput, ref_->name() + ": " + what);
    };
    if (ref.channels != 1) {
      refuse("has " + std::to_string(ref.channels) + " channels, the reference must be mono");
    }
    if (ref.rate != mic.rate) {
      refuse("is at " + std::to_string(ref.rate) + " Hz but " + mic_.name() + " at " +
             std::to_string(mic.rate) + " Hz, the reference must be at the same rate");
    }
    if (ref.length != mic.length) {
      refuse("has " + std::to_string(ref.length) + " samples but " + mic_.name() + " has " +
             std::to_string(mic.length) + ", the reference must be as long");
    }
  }

  AudioInput mic_;
  std::optional<AudioInput> ref_;
  std::uint64_t position_ = 0;
};

void check_finite(const float* samples, std::size_t count, const std::string& name) {
  for (std::size_t i = 0; i < count; ++i) {
    if (std::isfinite(samples[i])) continue;
    throw Error(ExitCode::kInput, name + ": is too loud for the engine, full scale is 1.0");
  }
}

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
  Inputs inputs(task);
  const std::uint64_t length = inputs.length();
  AudioOutput output(task.output, task.as_float, length);
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

    check_finite(engine.out(), count, task.mic);
    output.write(engine.out(), count);
    observers.add_block(engine.mic(), engine.ref(), engine.out(), count);
    engine.advance(count);
    done += count;
    if (block % kBlocksPerProgress == 0) progress(done, length);
    throw_if_interrupted();
  }
  progress(done, length);

  output.finish();
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
  return statistics;
}

}  // namespace se_tool

#include "inspect/inspect.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstring>
#include <filesystem>
#include <memory>
#include <random>

#include "aligned_inputs.h"
#include "engine/owned_engine.h"
#include "engine/pipeline.h"
#include "errors.h"
#include "inspect/band_gains.h"
#include "inspect/stage_sound.h"
#include "inspect/stages_picture.h"
#include "pending_file.h"
#include "signals.h"

namespace se_tool {
namespace {

constexpr std::size_t kBlock = SE_BLOCK_LEN;
using se::kDenoiserDelay;
using se::kTransformDelay;
constexpr std::uint64_t kBlocksPerProgress = 50;

// Turns power spectra into noise of that power: frames of random phase. They add up by power, not
// by amplitude as those of a sound do, which costs what this factor makes good: with the overlap of
// 3.2 frames, its square root.
class NoiseOfPower {
 public:
  const zel_lcomplex* spectrum(const float* power) {
    constexpr double kTurn = 6.283185307179586 / 4294967296.0;
    const float overlap = std::sqrt(static_cast<float>(se::kFrameLen) / SE_BLOCK_LEN);
    for (std::size_t k = 0; k < spectrum_.size(); ++k) {
      const float magnitude = overlap * std::sqrt(power[k]);
      const double phase = kTurn * static_cast<double>(random_());
      spectrum_[k] = {magnitude * static_cast<float>(std::cos(phase)),
                      magnitude * static_cast<float>(std::sin(phase))};
    }
    spectrum_.front().im = spectrum_.back().im = 0;
    return spectrum_.data();
  }

 private:
  std::mt19937 random_;  // the same sound on every run
  std::array<zel_lcomplex, se::kNumBins> spectrum_ = {};
};

// The engine, and the watch on its stages.
class Inspector {
 public:
  Inspector(const Task& task, std::uint64_t length)
      : mode_(task.settings.mode),
        engine_(se::create_instance(&nn_denoise_model)),
        microphone_(file(task, "1-microphone.wav"), "1 Microphone", length, 0),
        reference_(file(task, "2-reference.wav"), "2 Reference, as aligned", length,
                   kTransformDelay),
        echo_reduced_(file(task, "3-echo-reduced.wav"), "3 Echo cancelled", length,
                      kTransformDelay),
        gains_(file(task, "4-band-gains.csv"), length),
        denoised_(file(task, "5-denoised.wav"), "5 Denoised", length, kDenoiserDelay),
        noise_(file(task, "6-noise-estimate.wav"), "6 Noise estimate", length, kDenoiserDelay),
        suppressed_(file(task, "7-suppressed.wav"), "7 Noise suppressed", length, kDenoiserDelay),
        equalised_(file(task, "8-equalised.wav"), "8 Equalised", length, kDenoiserDelay),
        limited_(file(task, "9-limited.wav"), "9 Limited: the output", length,
                 engine_delay(task.settings)),
        gains_picture_(file(task, "4-band-gains.png")),
        stages_picture_(file(task, "stages.png")) {
    if (!engine_) throw Error(ExitCode::kInternal, "not enough memory for the engine");
    set_nn_process_config(engine_.get(), engine_config(task.settings));
  }

  void process(const float mics[2 * kBlock], const float ref[kBlock]) {
    float out[kBlock];
    microphone_.add(mics + kBlock);
    se::run_pipeline(*engine_, mics, ref, out, mode_ == Mode::kDenoise, mode_ == Mode::kSuppress,
                     *this);
    limited_.add(out);
  }

  void finish(const std::string& title, double duration_s) {
    for (StageSound* sound : sounds()) sound->finish();
    gains_.finish();
    const Panel gains = {"4 Gain of the network's bands", &gains_.picture(), true};
    std::vector<Panel> panels;
    for (const StageSound* sound : sounds()) {
      if (sound == &denoised_) panels.push_back(gains);
      panels.push_back({sound->heading(), &sound->picture()});
    }
    gains_picture_.write(draw_stages(title, duration_s, {gains}));
    stages_picture_.write(draw_stages(title, duration_s, panels));
    gains_picture_.sync();
    stages_picture_.sync();
  }

  void commit() {
    for (StageSound* sound : sounds()) sound->commit();
    gains_.commit();
    gains_picture_.commit();
    stages_picture_.commit();
  }

  // The watch.

  void after_front_end(const se::FrontEndResult& front) {
    far_end_ = static_cast<double>(front.ref_energy) > se::kFarEndEnergy;
    reference_.add(engine_->ref_spec);
    echo_reduced_.add(engine_->mic_spec[1]);
  }

  void after_gain_rule(const float* bands) {
    gains_.add(bands, far_end_);
    denoised_.add(engine_->mic_spec[1]);
    if (mode_ != Mode::kSuppress) suppress_beside();
  }

  void after_mix() {
    if (mode_ == Mode::kSuppress) add_suppressed();
  }

  void after_synthesis(const float* out) { equalised_.add(out); }

 private:
  static std::string file(const Task& task, const char* name) {
    const std::string path = (std::filesystem::path(task.output) / name).string();
    for (const std::string& input : {task.mic, task.ref}) {
      const std::string identity = file_identity(input, Direction::kIn);
      if (!input.empty() && !identity.empty() && identity == file_identity(path, Direction::kOut)) {
        throw Error(ExitCode::kUsage, path + " would replace an input");
      }
    }
    return path;
  }

  std::array<StageSound*, 8> sounds() {
    return {&microphone_, &reference_,  &echo_reduced_, &denoised_,
            &noise_,      &suppressed_, &equalised_,    &limited_};
  }

  // What the suppressor would make of it, without a trace in the output: in these modes the engine
  // does not use the suppressor's state.
  void suppress_beside() {
    zel_lcomplex* const spectrum = engine_->mic_spec[1];
    std::array<zel_lcomplex, se::kNumBins> kept;
    std::copy_n(spectrum, kept.size(), kept.data());
    se::mix_unprocessed(*engine_, /*use_ns=*/true);
    add_suppressed();
    std::copy_n(kept.data(), kept.size(), spectrum);
  }

  void add_suppressed() {
    noise_.add(noise_of_power_.spectrum(engine_->noise_spec));
    suppressed_.add(engine_->mic_spec[1]);
  }

  Mode mode_;
  se::OwnedEngine engine_;
  StageSound microphone_, reference_, echo_reduced_;
  BandGains gains_;
  StageSound denoised_, noise_, suppressed_, equalised_, limited_;
  PendingFile gains_picture_, stages_picture_;
  NoiseOfPower noise_of_power_;
  bool far_end_ = false;
};

}  // namespace

void inspect(const Task& task, const ProgressFunction& progress) {
  AlignedInputs inputs(task);
  const std::uint64_t length = inputs.length();
  create_folder(task.output);
  const auto inspector = std::make_unique<Inspector>(task, length);
  const std::uint64_t blocks =
      (length + static_cast<std::uint64_t>(engine_delay(task.settings)) + kBlock - 1) / kBlock;
  for (std::uint64_t block = 0; block < blocks; ++block) {
    float mics[2 * kBlock];
    float ref[kBlock];
    inputs.read_block(mics, ref);
    inspector->process(mics, ref);
    if (block % kBlocksPerProgress == 0) progress(block, blocks);
    throw_if_interrupted();
  }
  progress(blocks, blocks);
  inspector->finish(task.mic, static_cast<double>(length) / SE_SAMPLE_RATE);
  throw_if_interrupted();
  inspector->commit();
}

}  // namespace se_tool

#include "live/live_command.h"

#include <unistd.h>

#include <algorithm>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "command_line.h"
#include "console.h"
#include "errors.h"
#include "live/meter_line.h"
#include "live/pcm_stream.h"
#include "setting_options.h"
#include "signals.h"
#include "speechenhance/stream.h"

namespace se_tool {
namespace {

constexpr int kMostMics = 2;
constexpr int kMostReferences = 2;
constexpr std::size_t kMostFrames = 4096;  // read at a time, if as many are there

constexpr const char* kDescription =
    "Cleans sound on its way from standard input to standard output, as it comes:\n"
    "what goes in comes out 83 ms later (91 ms at other rates than 16 kHz), cleaned.\n"
    "WAV in, WAV out; raw in, raw out; the rate and the kind of samples stay, the\n"
    "output is mono. Of two microphones the second channel is the one that is\n"
    "enhanced. On a terminal, standard error shows levels, and with a reference its\n"
    "delay and how much of the echo is gone.";

constexpr const char* kFooter = R"(Reference:
  What the loudspeaker plays, to cancel its echo, comes as the last channels of
  the input: devices with a loopback have it there, and ALSA's plugin "multi"
  joins a microphone and a loopback to one device. Its delay is found by itself.

Levels of the mix:
  As without live: --residual 30 puts the unprocessed signal 20.5 dB below the
  microphone's level, --ns-residual 40 the same ahead of the suppressor.

End:
  At the end of the input, on SIGINT or SIGTERM what has been read is finished;
  when the player closes its pipe, it just ends. All of these are exit code 0.

Examples:
  arecord -q -f S16_LE -r 16000 | speech-enhance live | aplay -q
  arecord -q -f S16_LE -r 48000 -c 2 | speech-enhance live --preset call > talk.wav
  arecord -q -D mic_and_loopback -f S16_LE -r 16000 -c 3 -t raw |
    speech-enhance live --format S16_LE --channels 3 --ref-channels 1 |
    aplay -q -f S16_LE -r 16000)";

struct LiveOptions {
  std::optional<PcmFormat> raw;  // none: WAV
  int ref_channels = 0;
  int32_t delay_ms = SE_STREAM_DELAY_AUTO;
  SEStreamSettings settings = {};
  bool quiet = false;
  std::string text_to_print;
};

std::optional<PcmFormat> raw_format(const std::string& type, std::optional<int> rate,
                                    std::optional<int> channels) {
  if (type.empty()) {
    if (rate || channels) usage_error("--rate and --channels need the --format of raw sound");
    return std::nullopt;
  }
  PcmFormat format;
  const std::optional<SampleType> found = find_sample_type(type);
  if (!found) usage_error("--format: \"" + type + "\" is not S16_LE, S24_3LE, S32_LE or FLOAT_LE");
  format.type = *found;
  format.rate = rate.value_or(format.rate);
  format.channels = channels.value_or(format.channels);
  return format;
}

SEStreamSettings stream_settings(const Settings& settings, double amount) {
  SEStreamSettings result = {};
  result.mode = settings.mode == Mode::kMix        ? SE_STREAM_MIX
                : settings.mode == Mode::kSuppress ? SE_STREAM_SUPPRESS
                                                   : SE_STREAM_DENOISE;
  result.amount = static_cast<float>(amount);
  result.engine = engine_config(settings);
  return result;
}

LiveOptions parse_live_options(int argc, const char* const* argv) {
  LiveOptions options;
  SettingOptions given;
  std::string type, delay;
  std::optional<int> rate, channels;
  double amount = 1;

  CLI::App app(kDescription, "speech-enhance live");
  prepare_command_line(app, "speech-enhance live [options] < IN > OUT");
  app.footer(kFooter);
  app.add_option("--format", type,
                 "The input has no WAV header but samples of S16_LE,\n"
                 "S24_3LE, S32_LE or FLOAT_LE")
      ->option_text("FORMAT");
  app.add_option("--rate", rate, "Rate of raw input (default 16000)")->option_text("HZ");
  app.add_option("--channels", channels, "Channels of raw input (default 1)")->option_text("N");
  app.add_option("--ref-channels", options.ref_channels,
                 "How many of the last channels are the reference,\n"
                 "0 to 2 (default 0)")
      ->option_text("N")
      ->check(CLI::Range(0, kMostReferences));
  add_delay_option(app, delay);
  app.add_option("--amount", amount, "Share of the enhanced sound, 0 to 1 (default 1)")
      ->option_text("A")
      ->check(CLI::Range(0.0, 1.0));
  app.add_flag("-q,--quiet", options.quiet, "Show no levels");
  add_setting_options(app, given);
  options.text_to_print = parse_command_line(app, argc, argv);
  if (!options.text_to_print.empty()) return options;

  options.raw = raw_format(type, rate, channels);
  if (!delay.empty() && options.ref_channels == 0) usage_error("--delay needs --ref-channels");
  options.delay_ms = parse_delay(delay).value_or(SE_STREAM_DELAY_AUTO);
  options.settings = stream_settings(resolve_settings(given), amount);
  return options;
}

struct DestroyStream {
  void operator()(SEStream* stream) const { se_stream_destroy(stream); }
};
using StreamHandle = std::unique_ptr<SEStream, DestroyStream>;

void check_channels(int channels, int ref_channels) {
  const int mics = channels - ref_channels;
  if (mics >= 1 && mics <= kMostMics) return;
  throw Error(ExitCode::kInput, "standard input: " + std::to_string(channels) + " channels less " +
                                    std::to_string(ref_channels) + " of the reference leave " +
                                    std::to_string(mics) + " microphones; there can be one or two");
}

StreamHandle create_stream(const PcmFormat& format, const LiveOptions& options) {
  SEStream* stream = nullptr;
  int32_t result = se_stream_create(format.rate, format.channels - options.ref_channels,
                                    options.ref_channels, options.delay_ms, &stream);
  StreamHandle handle(stream);
  if (result == SE_STREAM_OK) result = se_stream_set_settings(stream, &options.settings);
  if (result != SE_STREAM_OK) {
    throw Error(result == SE_STREAM_NO_MEMORY ? ExitCode::kInternal : ExitCode::kInput,
                std::string("standard input: ") + se_stream_error_text(result));
  }
  return handle;
}

// Interleaved channels, microphones first, through the stream.
class Enhancer {
 public:
  Enhancer(SEStream* stream, int channels, int ref_channels)
      : stream_(stream),
        channels_(static_cast<std::size_t>(channels)),
        mics_(channels_ - static_cast<std::size_t>(ref_channels)) {}

  std::vector<float> process(const std::vector<float>& frames) const {
    const std::size_t count = frames.size() / channels_;
    std::vector<float> planar(frames.size());
    std::vector<const float*> signals;
    for (std::size_t c = 0; c < channels_; ++c) {
      float* signal = planar.data() + c * count;
      for (std::size_t i = 0; i < count; ++i) signal[i] = frames[i * channels_ + c];
      signals.push_back(signal);
    }
    std::vector<float> out(count);
    se_stream_process(stream_, signals.data(), signals.data() + mics_, out.data(),
                      static_cast<int32_t>(count));
    return out;
  }

  // What is still inside once the sound has ended.
  std::vector<float> drain() const {
    return process(
        std::vector<float>(static_cast<std::size_t>(se_stream_latency(stream_)) * channels_));
  }

 private:
  SEStream* stream_;
  std::size_t channels_;
  std::size_t mics_;
};

}  // namespace

int run_live(int argc, const char* const* argv) {
  const LiveOptions options = parse_live_options(argc, argv);
  if (!options.text_to_print.empty()) return print_text(options.text_to_print);
  if (isatty(STDIN_FILENO) == 1 || isatty(STDOUT_FILENO) == 1) {
    usage_error("live works between pipes: arecord ... | speech-enhance live | aplay");
  }
  watch_signals();
  PcmReader reader(STDIN_FILENO, options.raw);
  check_channels(reader.format().channels, options.ref_channels);
  const StreamHandle stream = create_stream(reader.format(), options);
  const Enhancer enhancer(stream.get(), reader.format().channels, options.ref_channels);
  PcmWriter writer(STDOUT_FILENO, reader.format(), !options.raw);
  MeterLine meters(stream.get(), options.ref_channels > 0, options.quiet);

  bool listening = true;
  while (listening) {
    const std::vector<float> frames = reader.read(kMostFrames);
    if (frames.empty()) break;
    listening = writer.write(enhancer.process(frames));
    meters.update();
  }
  if (listening) {
    forget_signal();
    writer.write(enhancer.drain());
  }
  writer.finish();
  return 0;
}

}  // namespace se_tool

// Hours of audio through one engine, as fast as it goes: does it wear out?
//
//   soak HOURS [SEED]
//
// What it hears changes every few seconds: ordinary and rough loudspeaker signals at any level up
// to 12 dB above full scale, near-end noise from none to deafening, rooms that change, every way
// through the pipeline, random configurations, both entries, and bursts of samples that no audio
// has. Once an hour of audio (and at the end) it is probed with a quiet echo, beside an engine that
// starts with the probe. Prints a table with a row per probe; fails if a probe leaves more than 3
// dB above what the fresh engine leaves, if any sample was not finite, or if memory grew.
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <limits>
#include <string>

#include "rough_signals.h"
#include "speechenhance/speechenhance.h"

namespace {

constexpr int kBlock = SE_BLOCK_LEN;
constexpr int kBlocksPerSecond = SE_SAMPLE_RATE / kBlock;
constexpr double kMostBehindDb = 3.0;
constexpr long kMostGrowthKb = 512;

struct Frame {
  float mic[2 * kBlock], ref[kBlock], out[kBlock];
};

long resident_kb() {
  long pages = 0;
  if (std::FILE* file = std::fopen("/proc/self/statm", "r")) {
    if (std::fscanf(file, "%*d %ld", &pages) != 1) pages = 0;
    std::fclose(file);
  }
  return pages * (sysconf(_SC_PAGESIZE) / 1024);
}

// A stretch of one kind of sound, through one way of the pipeline.
class Torture {
 public:
  explicit Torture(std::uint64_t seed) : random_(seed), room_(seed + 1, kHere) {}

  // Runs the next 1 to 30 s. Returns the blocks.
  int run(SEInstance* engine) {
    if (pick(4) == 0) set_nn_process_config(engine, configuration());
    if (pick(2) == 0) room_.change_path(path());
    const auto kind = static_cast<FarEnd::Kind>(pick(5));
    const float far_level = level(), near_level = pick(3) == 0 ? 0.0f : level();
    const bool nn_only = pick(3) == 0, use_ns = pick(2) == 0, as_integers = pick(4) == 0;
    const int blocks = kBlocksPerSecond * (1 + pick(30));
    for (int i = 0; i < blocks; ++i) {
      Frame frame;
      room_.next(kind, frame.mic, frame.ref);
      for (float& x : frame.mic) x = far_level * x + near_level * random_.uniform();
      for (float& x : frame.ref) x *= far_level;
      spoil(frame);
      if (as_integers) {
        process_integers(engine, frame, nn_only, use_ns);
      } else {
        se_process(engine, frame.mic, frame.ref, frame.out, nn_only, use_ns);
        not_finite_ += static_cast<long>(std::count_if(frame.out, frame.out + kBlock,
                                                       [](float y) { return !std::isfinite(y); }));
      }
    }
    return blocks;
  }

  long not_finite() const { return not_finite_; }
  long bursts() const { return bursts_; }

 private:
  int pick(int n) { return static_cast<int>(random_.bits() % static_cast<std::uint32_t>(n)); }
  float level() { return std::exp2(-4.5f + 6.5f * random_.uniform()); }  // 4 down to 0.0005

  EchoPath path() {
    const auto reflection = [this] { return EchoPath::Reflection{pick(256), random_.uniform()}; };
    return EchoPath({reflection(), reflection(), reflection()});
  }

  NnProcessConfig configuration() {
    NnProcessConfig config = {};
    config.residual_db = pick(60);
    config.ns_residual_db = pick(60);
    config.limiter_enable = pick(2);
    config.limiter_max_gain = 0.5f + 0.25f * (1.0f + random_.uniform());
    config.limiter_level_db = 12.0f * random_.uniform();
    config.low_shelf = {pick(2), 100.0f + static_cast<float>(pick(900)), 20.0f * random_.uniform()};
    config.high_shelf = {pick(2), 3000.0f + static_cast<float>(pick(5000)),
                         20.0f * random_.uniform()};
    for (PeakBand& band : config.peak) band = {pick(8000), 12.0f * random_.uniform(), pick(5)};
    return config;
  }

  // Every few seconds, one sample to half a second of what no audio has, in one signal or in all.
  void spoil(Frame& frame) {
    constexpr float kBad[] = {std::numeric_limits<float>::quiet_NaN(),
                              std::numeric_limits<float>::infinity(),
                              3e38f,
                              1e20f,
                              1e6f,
                              1e4f,
                              1e-40f};
    if (bad_left_ == 0 && pick(5 * kBlocksPerSecond) == 0) {
      bad_left_ = pick(3) == 0 ? 1 : 1 + pick(SE_SAMPLE_RATE / 2);
      bad_ = kBad[pick(7)];
      signals_ = 1 + pick(7);
      ++bursts_;
    }
    for (int i = 0; i < kBlock && bad_left_ > 0; ++i, --bad_left_) {
      const float x = pick(2) ? bad_ : -bad_;
      if (signals_ & 1) frame.mic[i] = x;
      if (signals_ & 2) frame.mic[kBlock + i] = x;
      if (signals_ & 4) frame.ref[i] = x;
    }
  }

  static void process_integers(SEInstance* engine, const Frame& frame, bool nn_only, bool use_ns) {
    const auto narrow = [](float x) {
      return static_cast<std::int16_t>(x > -1.0f ? 32767.0f * std::min(x, 1.0f) : -32768.0f);
    };
    std::int16_t mic[2 * kBlock], ref[kBlock], out[kBlock];
    for (int i = 0; i < kBlock; ++i) {
      for (int c = 0; c < 2; ++c) mic[2 * i + c] = narrow(frame.mic[c * kBlock + i]);
      ref[i] = narrow(frame.ref[i]);
    }
    se_process_frames(engine, mic, ref, kBlock, out, nn_only, use_ns);
  }

  RandomSignal random_;
  Room room_;
  int bad_left_ = 0, signals_ = 0;
  float bad_ = 0.0f;
  long not_finite_ = 0, bursts_ = 0;
};

// What two engines leave of the same quiet echo, in dB of the microphone, in the second before 2,
// 10 and 20 s.
struct Residuals {
  static constexpr int kSeconds[] = {2, 10, 20};
  double used[3], fresh[3];

  double most_behind() const {
    double worst = -1e9;
    for (int i = 1; i < 3; ++i) worst = std::max(worst, used[i] - fresh[i]);
    return worst;
  }
};

Residuals probe(SEInstance* used) {
  NnProcessConfig config = {};  // mixes the unprocessed signal in full, everything else off
  SEInstance* const fresh = se_create();
  if (!fresh) std::exit(1);
  set_nn_process_config(used, config);
  set_nn_process_config(fresh, config);
  Room room(77, kElsewhere);
  Residuals residuals = {};
  int at = 0;
  for (int second = 1; second <= Residuals::kSeconds[2]; ++second) {
    double echo = 0, left[2] = {};
    for (int block = 0; block < kBlocksPerSecond; ++block) {
      Frame frame;
      room.next(FarEnd::kQuietNoise, frame.mic, frame.ref);
      for (int i = 0; i < kBlock; ++i) echo += std::pow(frame.mic[kBlock + i], 2.0);
      for (SEInstance* engine : {used, fresh}) {
        se_process(engine, frame.mic, frame.ref, frame.out, false, false);
        for (const float y : frame.out) left[engine == fresh] += std::pow(y, 2.0);
      }
    }
    if (second == Residuals::kSeconds[at]) {
      residuals.used[at] = 10 * std::log10(left[0] / echo);
      residuals.fresh[at++] = 10 * std::log10(left[1] / echo);
    }
  }
  se_destroy(fresh);
  return residuals;
}

}  // namespace

int main(int argc, char** argv) {
  const double hours = argc > 1 ? std::atof(argv[1]) : 0.0;
  const std::uint64_t seed = argc > 2 ? std::strtoull(argv[2], nullptr, 10) : 1;
  if (!(hours > 0.0) || argc > 3) {
    std::fprintf(stderr, "usage: soak HOURS [SEED]\n");
    return 2;
  }
  // The engine's own lines go nowhere.
  std::FILE* const table = fdopen(dup(STDOUT_FILENO), "w");
  if (!table || !std::freopen("/dev/null", "w", stdout)) return 1;

  std::fprintf(table,
               "| audio | bursts | echo left after 2 s, dB (fresh) | 10 s | 20 s | not finite | "
               "resident, KB |\n|---|---|---|---|---|---|---|\n");
  SEInstance* const engine = se_create();
  if (!engine) return 1;
  Torture torture(seed);
  const double blocks_per_hour = 3600.0 * kBlocksPerSecond, total = hours * blocks_per_hour;
  double done = 0, next_probe = std::min(total, blocks_per_hour);
  long first_kb = 0, last_kb = 0;
  bool good = true;
  while (done < total) {
    done += torture.run(engine);
    if (done < next_probe) continue;
    next_probe = std::min(total, next_probe + blocks_per_hour);
    const Residuals r = probe(engine);
    last_kb = resident_kb();
    if (first_kb == 0) first_kb = last_kb;
    std::fprintf(table, "| %.2f h | %ld |", done / blocks_per_hour, torture.bursts());
    for (int i = 0; i < 3; ++i) std::fprintf(table, " %.1f (%.1f) |", r.used[i], r.fresh[i]);
    std::fprintf(table, " %ld | %ld |\n", torture.not_finite(), last_kb);
    std::fflush(table);
    good = good && r.most_behind() <= kMostBehindDb;
  }
  se_destroy(engine);
  good = good && torture.not_finite() == 0 && last_kb - first_kb <= kMostGrowthKb;
  std::fprintf(table, "%s: seed %llu\n", good ? "passed" : "FAILED",
               static_cast<unsigned long long>(seed));
  return good && std::fclose(table) == 0 ? 0 : 1;
}

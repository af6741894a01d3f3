// What the echo canceller has been through must not show in what it does next. The canceller runs
// here as in the engine, behind the analysis of its three signals.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <numeric>
#include <string>
#include <vector>

#include "aec/aec_state.h"
#include "aec/echo_bands.h"
#include "guarded_region.h"
#include "rough_signals.h"
#include "speechenhance/speechenhance.h"
#include "speechenhance/zel_stft.h"

namespace {

constexpr int kBlock = SE_BLOCK_LEN, kBins = 257, kBlocksPerSecond = SE_SAMPLE_RATE / kBlock;

double decibels(double ratio) {
  return 10 * std::log10(ratio);
}

class FrontEnd {
 public:
  // The energy of microphone 1 before and after the cancellation of a block.
  struct Energies {
    double echo, residual;
  };

  Energies process(const float* mic, const float* ref) {
    zel_lcomplex spectrum[3][kBins];
    float power[2][kBins];
    for (int c = 0; c < 2; ++c) {
      zel_stft_analysis(analysis_[c], mic + c * kBlock, spectrum[c]);
      for (int k = 0; k < kBins; ++k) power[c][k] = power_of(spectrum[c][k]);
    }
    zel_stft_analysis(analysis_[2], ref, spectrum[2]);
    zel_lcomplex* const mics[] = {spectrum[0], spectrum[1]};
    float* const powers[] = {power[0], power[1]};
    Energies energies = {0, 0};
    for (int k = 3; k < kBins; ++k) energies.echo += static_cast<double>(power[1][k]);
    aec_process(aec_, mics, powers, spectrum[2]);
    for (int k = 3; k < kBins; ++k) energies.residual += static_cast<double>(power[1][k]);
    return energies;
  }

  const aec_state& state() const { return *aec_; }

 private:
  static float power_of(const zel_lcomplex& x) { return std::fma(x.re, x.re, x.im * x.im); }

  stft_state* analysis(GuardedRegion& mem) {
    return zel_stft_init(mem.data(), scratch_.data(), p_win_tmp, 512, kBlock, 0);
  }

  GuardedRegion scratch_{zel_stft_query_scratch(512) + aec_query_scratch()};
  GuardedRegion stft_mem_[3] = {GuardedRegion(zel_stft_query_mem(512, 0)),
                                GuardedRegion(zel_stft_query_mem(512, 0)),
                                GuardedRegion(zel_stft_query_mem(512, 0))};
  GuardedRegion aec_mem_{aec_query_mem()};
  stft_state* analysis_[3] = {analysis(stft_mem_[0]), analysis(stft_mem_[1]),
                              analysis(stft_mem_[2])};
  aec_state* aec_ = aec_init(aec_mem_.data(), scratch_.data());
};

FrontEnd::Energies play(Room& room, FarEnd::Kind kind, FrontEnd& front_end) {
  float mic[2 * kBlock], ref[kBlock];
  room.next(kind, mic, ref);
  return front_end.process(mic, ref);
}

// What is left, in dB, of a quiet echo in the second before each of these seconds of a probe.
constexpr int kProbeSeconds[] = {2, 5, 10, 20};

std::vector<double> probe(FrontEnd& front_end) {
  Room room(77, kElsewhere);
  std::vector<double> residual_db;
  double echo = 0, residual = 0;
  for (int second = 1; second <= 20; ++second) {
    echo = residual = 0;
    for (int block = 0; block < kBlocksPerSecond; ++block) {
      const auto energies = play(room, FarEnd::kQuietNoise, front_end);
      echo += energies.echo;
      residual += energies.residual;
    }
    if (second == kProbeSeconds[residual_db.size()]) {
      residual_db.push_back(decibels(residual / echo));
    }
  }
  return residual_db;
}

TEST(EchoCancellerRecovery, CancelsAQuietEchoAfterLoudOnesAsAFreshOneDoes) {
  FrontEnd fresh;
  const std::vector<double> expected = probe(fresh);
  ASSERT_LT(expected[0], -15.0);
  for (const FarEnd::Kind before : {FarEnd::kBeeps, FarEnd::kClippedMusic, FarEnd::kSilence}) {
    FrontEnd used;
    Room room(5, kHere);
    for (int block = 0; block < 30 * kBlocksPerSecond; ++block) play(room, before, used);
    const std::vector<double> actual = probe(used);
    for (std::size_t i = 0; i < actual.size(); ++i) {
      EXPECT_LT(actual[i], expected[i] + 1.0)
          << "kind " << before << ", " << kProbeSeconds[i] << " s";
    }
  }
}

// A bin's powers over its history, the newest first, and the energy made of them.
struct BinEnergy {
  std::vector<float> powers;
  float energy;

  static BinEnergy of(const aec_state& state, int i) {
    const auto row = [i, &state](const se::EchoBandShape& band, const float* history) {
      const float* first = history + (i - band.index()) * band.taps;
      return BinEnergy{{first, first + band.taps}, state.ref_energy[i]};
    };
    if (i < se::kMidBand.index()) return row(se::kLowBand, state.power_history_low);
    if (i < se::kHighBand.index()) return row(se::kMidBand, state.power_history_mid);
    return row(se::kHighBand, state.power_history_high);
  }
};

// The energy is the running sum, to the bit, as long as that is close to the sum of the powers, and
// never far from it: a reference that falls silent stops every bin within its 8, 4 or 2 frames.
TEST(EchoCancellerRecovery, KeepsTheReferenceEnergyByThePowersItIsMadeOf) {
  int running = 0, corrected = 0;
  for (const FarEnd::Kind kind : {FarEnd::kBeeps, FarEnd::kClippedMusic, FarEnd::kSpeech}) {
    FrontEnd front_end;
    Room room(6, kHere);
    for (int block = 0; block < 10 * kBlocksPerSecond; ++block) {
      std::vector<BinEnergy> before;
      for (int i = 0; i < se::kEchoBins; ++i) before.push_back(BinEnergy::of(front_end.state(), i));
      play(room, block % 500 < 470 ? kind : FarEnd::kSilence, front_end);
      for (int i = 0; i < se::kEchoBins; ++i) {
        const BinEnergy& old = before[static_cast<std::size_t>(i)];
        const BinEnergy now = BinEnergy::of(front_end.state(), i);
        const float newest = now.powers.front(), oldest = old.powers.back();
        const float sum_running = i < se::kHighBand.index() ? (newest - oldest) + old.energy
                                                            : newest + (old.energy - oldest);
        const double sum = std::accumulate(now.powers.begin(), now.powers.end(), 0.0);
        ASSERT_LE(std::abs(static_cast<double>(now.energy) - sum), sum / 1024) << i << " " << block;
        if (std::abs(static_cast<double>(sum_running) - sum) <= sum / 1100) {
          ASSERT_EQ(sum_running, now.energy) << i << " " << block;
          ++running;
        } else {
          ++corrected;
        }
      }
      if (block % 500 >= 482) {  // of the last 30 blocks, all silent, past every history
        const float* energy = front_end.state().ref_energy;
        ASSERT_TRUE(std::all_of(energy, energy + se::kEchoBins, [](float e) { return e == 0.0f; }));
      }
    }
  }
  EXPECT_GT(corrected, 1000);
  EXPECT_GT(running, 50 * corrected) << "corrections should be rare";
}

// What bad samples do to the canceller itself; the engine lets none of them get that far. The echo
// comes another way afterwards, so that no filter from before can help.
TEST(EchoCancellerRecovery, LearnsAnewAfterBadSamples) {
  constexpr int kEvent = kBlocksPerSecond, kAfter = 10 * kBlocksPerSecond;  // blocks
  for (const int samples : {1, SE_SAMPLE_RATE / 2}) {
    const int ordinary = kEvent + (samples + kBlock - 1) / kBlock;
    const auto residual_after = [&](float bad, bool in_reference) {
      FrontEnd front_end;
      Room room(9, kHere);
      double residual = 0;
      for (int block = 0; block < ordinary + kAfter; ++block) {
        if (block == ordinary) room.change_path(kElsewhere);
        float mic[2 * kBlock], ref[kBlock];
        room.next(FarEnd::kSpeech, mic, ref);
        if (bad == 0.0f && block < ordinary) continue;
        for (int i = 0; i < kBlock && (block - kEvent) * kBlock + i < samples; ++i) {
          if (block < kEvent) break;
          if (in_reference) ref[i] = i % 5 == 0 ? -bad : bad;
          if (!in_reference) mic[i] = mic[kBlock + i] = i % 3 == 0 ? -bad : bad;
        }
        const double left = front_end.process(mic, ref).residual;
        if (block >= ordinary + kAfter - kBlocksPerSecond) residual += left;
      }
      return residual;
    };
    const double fresh = residual_after(0.0f, false);
    for (const float bad : {NAN, INFINITY, 1e38f, 1e20f, 1e6f, 1e4f}) {
      for (const bool in_reference : {false, true}) {
        EXPECT_LT(decibels(residual_after(bad, in_reference) / fresh), 3.0)
            << samples << " of " << bad << (in_reference ? " in the reference" : " in both mics");
      }
    }
  }
}

}  // namespace

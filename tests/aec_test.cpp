// The echo canceller against a direct model in double precision, and on synthetic rooms.
#include "speechenhance/aec.h"

#include <gtest/gtest.h>

#include <cmath>
#include <complex>
#include <cstring>
#include <map>
#include <numeric>
#include <string>
#include <vector>

#include "aec/aec_state.h"
#include "aec/echo_subtraction_state.h"
#include "guarded_region.h"
#include "random_signal.h"

namespace {

constexpr int kBins = 257;
using Complex = std::complex<double>;
using Spectrum = std::vector<zel_lcomplex>;

Complex widen(zel_lcomplex x) {
  return {x.re, x.im};
}

bool same_bits(const Spectrum& a, const Spectrum& b) {
  return std::memcmp(a.data(), b.data(), a.size() * sizeof a[0]) == 0;
}

std::vector<float> powers(const Spectrum& x) {
  std::vector<float> result;
  for (const auto& bin : x) result.push_back(bin.re * bin.re + bin.im * bin.im);
  return result;
}

int taps_of(int bin) {
  return bin < 32 ? 8 : bin < 128 ? 4 : 2;
}

// The last references in a bin, the latest first, as far back as the canceller looks.
std::vector<Complex> history(const std::vector<Spectrum>& past, int bin) {
  std::vector<Complex> row;
  for (int t = 0; t < taps_of(bin); ++t) {
    row.push_back(widen(past[static_cast<size_t>(t)][static_cast<size_t>(bin)]));
  }
  return row;
}

// A room's answer to that history in every bin: a decaying train, which can be cancelled to
// nothing.
using Room = std::vector<std::vector<Complex>>;

Room random_room(RandomSignal& random) {
  Room room(kBins);
  for (int k = 0; k < kBins; ++k) {
    auto& row = room[static_cast<size_t>(k)];
    for (const auto& h : random.complexes(taps_of(k))) {
      row.push_back(widen(h) * std::pow(0.6, static_cast<double>(row.size())));
    }
  }
  return room;
}

void add_echo(const Room& room, const std::vector<Spectrum>& past, Spectrum& mic) {
  for (int k = 0; k < kBins; ++k) {
    auto& bin = mic[static_cast<size_t>(k)];
    const auto row = history(past, k);
    const Complex sum = std::inner_product(row.begin(), row.end(),
                                           room[static_cast<size_t>(k)].begin(), widen(bin));
    bin = {static_cast<float>(sum.real()), static_cast<float>(sum.imag())};
  }
}

struct Canceller {
  void process(Spectrum (&mic)[2], std::vector<float> (&power)[2], const Spectrum& ref) {
    zel_lcomplex* const mics[2] = {mic[0].data(), mic[1].data()};
    float* const mic_powers[2] = {power[0].data(), power[1].data()};
    aec_process(state, mics, mic_powers, ref.data());
  }

  GuardedRegion mem{aec_query_mem(), 3}, scratch{aec_query_scratch(), 8};
  aec_state* state = aec_init(mem.data(), scratch.data());
};

// ---- A bin in double precision ------------------------------------------------------------------

// Everything the echo subtraction knows about one bin of one microphone.
struct BinModel {
  std::vector<Complex> adaptive, stored;
  double s_mic = 0, s_adaptive = 0, s_stored = 0;

  static BinModel of(const echo_subtraction_state& state, int bin) {
    const int taps = taps_of(bin);
    const auto rows = [&](zel_lcomplex* low, zel_lcomplex* mid, zel_lcomplex* high) {
      const zel_lcomplex* row = taps == 8   ? low + (bin - 3) * 8
                                : taps == 4 ? mid + (bin - 32) * 4
                                            : high + (bin - 128) * 2;
      std::vector<Complex> result;
      for (int t = 0; t < taps; ++t) result.push_back(widen(row[t]));
      return result;
    };
    return {rows(state.adaptive_low, state.adaptive_mid, state.adaptive_high),
            rows(state.stored_low, state.stored_mid, state.stored_high),
            static_cast<double>(state.mic_smooth[bin - 3]),
            static_cast<double>(state.err_adaptive_smooth[bin - 3]),
            static_cast<double>(state.err_stored_smooth[bin - 3])};
  }

  struct Result {
    Complex out;
    double power;
    std::string branch;
    bool near_tie;  // some comparison was too close to expect single precision to agree
  };

  // `scale` is the size of the numbers of which the residuals are differences.
  Result step(double alpha, Complex mic, const std::vector<Complex>& ref, double energy, bool adapt,
              double scale) {
    bool near_tie = false;
    const auto greater = [&](double a, double b) {
      const double larger = std::max(a, b);
      const double uncertain = 1e-5 * larger + 2e-6 * scale * std::sqrt(larger);
      if (a != b && std::abs(a - b) < uncertain) near_tie = true;
      return a > b;
    };
    Complex ea = mic, eb = mic;
    for (size_t t = 0; t < ref.size(); ++t) {
      ea -= ref[t] * adaptive[t];
      eb -= ref[t] * stored[t];
    }
    const double p = std::norm(mic), pa = std::norm(ea), pb = std::norm(eb);
    s_mic += alpha * (p - s_mic);
    s_adaptive += alpha * (pa - s_adaptive);

    Result result = {mic, p, "keep", false};
    if (greater(p, pa) || greater(p, pb)) {
      result.out = greater(pb, pa) ? ea : eb;
      result.power = std::norm(result.out);
    }
    Complex error = ea;
    s_stored += alpha * (pb - s_stored);
    if (greater(s_adaptive, 8 * s_mic)) {
      adaptive.assign(adaptive.size(), 0);
      s_mic = s_adaptive = s_stored = 0;
      result.branch = "adaptive diverged";
    } else if (greater(s_mic, 8 * s_adaptive) && greater(s_stored, 2 * s_adaptive)) {
      stored = adaptive;
      s_stored = s_adaptive;
      result.branch = "stored refreshed";
    } else if (greater(s_stored, 8 * s_mic)) {
      stored.assign(stored.size(), 0);
      s_mic = s_adaptive = s_stored = 0;
      result.branch = "stored diverged";
    } else if (greater(s_mic, 8 * s_stored) && greater(s_adaptive, 2 * s_stored)) {
      adaptive = stored;
      s_adaptive = s_stored;
      error = eb;
      result.branch = "stored takes over";
    }
    if (adapt) {
      for (size_t t = 0; t < ref.size(); ++t) {
        adaptive[t] += 0.5 / (energy + 1e-7) * error * std::conj(ref[t]);
      }
    }
    result.near_tie = near_tie;
    return result;
  }
};

// Spoils the newest tap of every adaptive filter, as a burst of near-end speech does.
void lead_astray(echo_subtraction_state& state, float amount) {
  for (int i = 0; i < 29 * 8; i += 8) state.adaptive_low[i].re += amount;
  for (int i = 0; i < 96 * 4; i += 4) state.adaptive_mid[i].re += amount;
  for (int i = 0; i < 129 * 2; i += 2) state.adaptive_high[i].re += amount;
}

void expect_close(const std::vector<Complex>& expected, const std::vector<Complex>& actual,
                  double scale, const char* what) {
  for (size_t t = 0; t < expected.size(); ++t) {
    ASSERT_NEAR(expected[t].real(), actual[t].real(), 2e-6 * scale + 1e-12) << what;
    ASSERT_NEAR(expected[t].imag(), actual[t].imag(), 2e-6 * scale + 1e-12) << what;
  }
}

double largest(const std::vector<Complex>& filter) {
  double result = 0;
  for (const auto& tap : filter) result = std::max(result, std::abs(tap));
  return result;
}

// Two microphones through convergence, near-end bursts, sudden echo paths and pauses of the far
// end. Before every frame the model takes over the canceller's state, so that each step is compared
// exactly where a real run leads.
TEST(EchoCanceller, FollowsTheModelThroughEveryBranch) {
  Canceller aec;
  RandomSignal random(3);
  Room rooms[2] = {random_room(random), random_room(random)};
  std::vector<Spectrum> past(8, Spectrum(kBins));
  std::map<std::string, int> branches;
  int ties = 0;
  double echo = 0, rest = 0;

  for (int frame = 0; frame < 520; ++frame) {
    if (frame == 200) {  // adaptive and stored filter both become harmful
      for (auto& row : rooms[0])
        for (auto& h : row) h *= -0.25;
    }
    if (frame == 320) rooms[1] = random_room(random);
    if (frame == 420) lead_astray(*aec.state->subtraction[0], 1.0f);
    if (frame == 470) lead_astray(*aec.state->subtraction[1], 40.0f);
    const bool far_end = !(frame % 100 >= 80 && frame % 100 < 92);
    const float near_end = frame >= 260 && frame < 266 ? 30.0f : 0.01f;

    const Spectrum ref = random.complexes(kBins, far_end ? 4.0f : 0.0f);
    past.insert(past.begin(), ref);
    past.pop_back();

    Spectrum in[2], out[2];
    std::vector<float> power[2];
    std::vector<BinModel> models[2];
    for (size_t m = 0; m < 2; ++m) {
      in[m] = random.complexes(kBins, near_end);
      add_echo(rooms[m], past, in[m]);
      out[m] = in[m];
      power[m] = powers(in[m]);
      for (int k = 3; k < kBins; ++k) {
        models[m].push_back(BinModel::of(*aec.state->subtraction[m], k));
      }
    }
    const auto power_before = power[1];
    aec.process(out, power, ref);
    if (frame >= 150 && frame < 180) {  // converged
      echo += std::accumulate(power_before.begin() + 3, power_before.end(), 0.0);
      rest += std::accumulate(power[1].begin() + 3, power[1].end(), 0.0);
    }

    for (size_t m = 0; m < 2; ++m) {
      for (int k = 3; k < kBins; ++k) {
        const auto bin = static_cast<size_t>(k);
        const auto row = history(past, k);
        double energy = 0;
        for (const auto& x : row) energy += std::norm(x);
        ASSERT_NEAR(energy, aec.state->ref_energy[k - 3], 1e-3);
        BinModel& model = models[m][bin - 3];
        // What a filter leaves is a difference of numbers as large as its products.
        const double scale =
            std::sqrt(model.s_mic) + std::abs(widen(in[m][bin])) + 4 * std::sqrt(energy);
        const auto expected = model.step(k < 32 ? 0.03f : 0.05f, widen(in[m][bin]), row,
                                         aec.state->ref_energy[k - 3], energy > 0.002, scale);
        if (expected.near_tie) {
          ++ties;
          continue;
        }
        ++branches[expected.branch];
        SCOPED_TRACE("frame " + std::to_string(frame) + " bin " + std::to_string(k) + " " +
                     expected.branch);
        const auto after = BinModel::of(*aec.state->subtraction[m], k);
        expect_close({expected.out}, {widen(out[m][bin])}, scale, "output");
        expect_close({expected.power, model.s_mic, model.s_adaptive, model.s_stored},
                     {power[m][bin], after.s_mic, after.s_adaptive, after.s_stored}, scale * scale,
                     "powers");
        expect_close(model.adaptive, after.adaptive, largest(model.adaptive), "adaptive filter");
        expect_close(model.stored, after.stored, largest(model.stored), "stored filter");
        if (HasFatalFailure()) return;
      }
      ASSERT_TRUE(same_bits({&in[m][0], &in[m][3]}, {&out[m][0], &out[m][3]}));
    }
    ASSERT_EQ(power_before[2], power[1][2]);
  }
  for (const char* branch :
       {"keep", "adaptive diverged", "stored refreshed", "stored diverged", "stored takes over"}) {
    EXPECT_GT(branches[branch], 50) << branch;
  }
  EXPECT_LT(ties, 2000);  // of 264160 steps
  EXPECT_GT(10 * std::log10(echo / rest), 30.0);
}

// Nothing happens before the reference sounds; one that stops is forgotten by each band after its
// own number of frames.
TEST(EchoCanceller, AdaptsWhileTheReferenceIsInTheHistory) {
  Canceller aec;
  RandomSignal random(7);
  for (int frame = 0; frame < 40; ++frame) {
    Spectrum mic[2] = {random.complexes(kBins, 10.0f), random.complexes(kBins, 10.0f)};
    std::vector<float> power[2] = {powers(mic[0]), powers(mic[1])};
    const Spectrum before[2] = {mic[0], mic[1]};
    const bool sounds = frame >= 20 && frame < 24;
    Spectrum ref(kBins, sounds ? zel_lcomplex{0.5f, 0.25f} : zel_lcomplex{0.0f, 0.0f});
    ref[0] = ref[1] = ref[2] = {NAN, NAN};  // never read
    aec.process(mic, power, ref);
    for (int k = 3; k < kBins; ++k) {
      const bool adapts = frame >= 20 && frame < 23 + taps_of(k);
      ASSERT_EQ(adapts, aec.state->adapt_flags[k - 3] == 1) << frame << " " << k;
    }
    for (size_t m = 0; m < 2 && frame < 20; ++m) {
      ASSERT_TRUE(same_bits(before[m], mic[m]));
      ASSERT_EQ(powers(mic[m]), power[m]);
    }
  }
}

// Residuals that differ but are equally strong: the stored filter's is the output.
TEST(EchoCanceller, PrefersTheStoredFilterInATie) {
  Canceller aec;
  const auto& filters = *aec.state->subtraction[0];
  filters.adaptive_high[0] = {0.5f, 0.5f};  // bin 128
  filters.stored_high[0] = {0.5f, -0.5f};
  Spectrum ref(kBins), mic[2] = {Spectrum(kBins), Spectrum(kBins)};
  ref[128] = mic[0][128] = {1.0f, 0.0f};
  std::vector<float> power[2] = {powers(mic[0]), powers(mic[1])};
  aec.process(mic, power, ref);
  EXPECT_EQ(0.5f, mic[0][128].re);
  EXPECT_EQ(0.5f, mic[0][128].im);
  EXPECT_EQ(0.5f, power[0][128]);
}

}  // namespace

// The echo canceller against a direct model in double precision, and on synthetic rooms.
#include "speechenhance/aec.h"

#include <gtest/gtest.h>

#include <cmath>
#include <complex>
#include <map>
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

zel_lcomplex random_bin(RandomSignal& random, float scale) {
  const float re = random.uniform();
  return {scale * re, scale * random.uniform()};
}

std::vector<float> powers(const Spectrum& x) {
  std::vector<float> result;
  for (const auto& bin : x) result.push_back(bin.re * bin.re + bin.im * bin.im);
  return result;
}

int taps_of(int bin) {
  return bin < 32 ? 8 : bin < 128 ? 4 : 2;
}

// A room that answers each reference bin with a decaying train of as many frames as the canceller
// models, so that the echo can be cancelled to nothing.
class SyntheticRoom {
 public:
  explicit SyntheticRoom(std::uint64_t seed) : random_(seed) { change(1.0f); }

  void change(float scale) {
    response_.assign(kBins, {});
    for (int k = 0; k < kBins; ++k) {
      for (int t = 0; t < taps_of(k); ++t) {
        const zel_lcomplex h = random_bin(random_, scale * std::pow(0.6f, static_cast<float>(t)));
        response_[static_cast<size_t>(k)].push_back(widen(h));
      }
    }
  }
  void scale(double factor) {
    for (auto& row : response_)
      for (auto& h : row) h *= factor;
  }

  Spectrum echo(const Spectrum& ref) {
    past_.insert(past_.begin(), ref);
    if (past_.size() > 8) past_.pop_back();
    Spectrum result(kBins);
    for (size_t k = 0; k < kBins; ++k) {
      Complex sum = 0;
      for (size_t t = 0; t < std::min(response_[k].size(), past_.size()); ++t) {
        sum += response_[k][t] * widen(past_[t][k]);
      }
      result[k] = {static_cast<float>(sum.real()), static_cast<float>(sum.imag())};
    }
    return result;
  }

 private:
  RandomSignal random_;
  std::vector<std::vector<Complex>> response_;
  std::vector<Spectrum> past_;
};

struct Canceller {
  explicit Canceller(size_t misalignment = 0)
      : mem(aec_query_mem(), misalignment),
        scratch(aec_query_scratch(), misalignment + 5),
        state(aec_init(mem.data(), scratch.data())) {}

  void process(Spectrum& mic0, std::vector<float>& power0, Spectrum& mic1,
               std::vector<float>& power1, const Spectrum& ref) {
    zel_lcomplex* const mics[2] = {mic0.data(), mic1.data()};
    float* const mic_powers[2] = {power0.data(), power1.data()};
    aec_process(state, mics, mic_powers, ref.data());
  }

  GuardedRegion mem;
  GuardedRegion scratch;
  aec_state* state;
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
    if (greater(s_adaptive, 8 * s_mic)) {
      adaptive.assign(adaptive.size(), 0);
      s_mic = s_adaptive = s_stored = 0;
      result.branch = "adaptive diverged";
    } else {
      s_stored += alpha * (pb - s_stored);
      const bool adaptive_cancels = greater(s_mic, 8 * s_adaptive);
      const bool adaptive_better = greater(s_stored, 2 * s_adaptive);
      if (adaptive_cancels && adaptive_better) {
        stored = adaptive;
        s_stored = s_adaptive;
        result.branch = "stored refreshed";
      } else if (greater(s_stored, 8 * s_mic)) {
        stored.assign(stored.size(), 0);
        s_mic = s_adaptive = s_stored = 0;
        result.branch = "stored diverged";
      } else {
        const bool stored_cancels = greater(s_mic, 8 * s_stored);
        const bool stored_better = greater(s_adaptive, 2 * s_stored);
        if (stored_cancels && stored_better) {
          adaptive = stored;
          s_adaptive = s_stored;
          error = eb;
          result.branch = "stored takes over";
        }
      }
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

void expect_close(double expected, double actual, double scale, const char* what) {
  ASSERT_NEAR(expected, actual, 2e-6 * scale + 1e-12) << what;
}

void expect_close(const std::vector<Complex>& expected, const std::vector<Complex>& actual,
                  const char* what) {
  double scale = 0;
  for (const auto& x : expected) scale = std::max(scale, std::abs(x));
  for (size_t t = 0; t < expected.size(); ++t) {
    expect_close(expected[t].real(), actual[t].real(), scale, what);
    expect_close(expected[t].imag(), actual[t].imag(), scale, what);
  }
}

// Two microphones through convergence, near-end bursts, sudden echo paths and pauses of the far
// end. Before every frame the model takes over the canceller's state, so that each step is compared
// exactly where a real run leads.
TEST(EchoCanceller, FollowsTheModelThroughEveryBranch) {
  Canceller aec(3);
  SyntheticRoom rooms[2] = {SyntheticRoom(1), SyntheticRoom(2)};
  RandomSignal random(3);
  std::vector<Spectrum> past(8, Spectrum(kBins));
  std::map<std::string, int> branches;
  int ties = 0;

  for (int frame = 0; frame < 520; ++frame) {
    if (frame == 200) rooms[0].scale(-0.25);  // adaptive and stored filter both become harmful
    if (frame == 320) rooms[1].change(1.0f);
    if (frame == 420) lead_astray(*aec.state->subtraction[0], 1.0f);
    if (frame == 470) lead_astray(*aec.state->subtraction[1], 40.0f);
    const bool far_end = !(frame % 100 >= 80 && frame % 100 < 92);
    const float near_end = frame >= 260 && frame < 266 ? 30.0f : 0.01f;

    Spectrum ref(kBins);
    for (auto& bin : ref) bin = far_end ? random_bin(random, 4.0f) : zel_lcomplex{0.0f, 0.0f};
    past.insert(past.begin(), ref);
    past.pop_back();

    Spectrum in[2], out[2];
    std::vector<float> power[2];
    std::vector<BinModel> models[2];
    for (size_t m = 0; m < 2; ++m) {
      in[m] = rooms[m].echo(ref);
      for (auto& bin : in[m]) {
        const zel_lcomplex near = random_bin(random, near_end);
        bin = {bin.re + near.re, bin.im + near.im};
      }
      out[m] = in[m];
      power[m] = powers(in[m]);
      for (int k = 3; k < kBins; ++k) {
        models[m].push_back(BinModel::of(*aec.state->subtraction[m], k));
      }
    }
    const auto unprocessed_power = power[0];
    aec.process(out[0], power[0], out[1], power[1], ref);

    for (size_t m = 0; m < 2; ++m) {
      for (int k = 3; k < kBins; ++k) {
        const auto bin = static_cast<size_t>(k);
        std::vector<Complex> row;
        double energy = 0;
        for (int t = 0; t < taps_of(k); ++t) {
          row.push_back(widen(past[static_cast<size_t>(t)][bin]));
          energy += std::norm(row.back());
        }
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
        expect_close(expected.out.real(), out[m][bin].re, scale, "re");
        expect_close(expected.out.imag(), out[m][bin].im, scale, "im");
        expect_close(expected.power, power[m][bin], scale * scale, "power");
        expect_close(model.s_mic, after.s_mic, scale * scale, "mic");
        expect_close(model.s_adaptive, after.s_adaptive, scale * scale, "adaptive error");
        expect_close(model.s_stored, after.s_stored, scale * scale, "stored error");
        expect_close(model.adaptive, after.adaptive, "adaptive filter");
        expect_close(model.stored, after.stored, "stored filter");
        if (HasFatalFailure()) return;
      }
      for (size_t k = 0; k < 3; ++k) {
        ASSERT_EQ(in[m][k].re, out[m][k].re);
        ASSERT_EQ(in[m][k].im, out[m][k].im);
      }
    }
    ASSERT_EQ(unprocessed_power[2], power[0][2]);
  }
  for (const char* branch :
       {"keep", "adaptive diverged", "stored refreshed", "stored diverged", "stored takes over"}) {
    EXPECT_GT(branches[branch], 50) << branch;
  }
  EXPECT_LT(ties, 2000);  // of 264160 steps
}

TEST(EchoCanceller, SilentReferenceLeavesTheMicrophonesAlone) {
  Canceller aec;
  RandomSignal random(7);
  const Spectrum ref(kBins);
  for (int frame = 0; frame < 50; ++frame) {
    Spectrum mic[2] = {Spectrum(kBins), Spectrum(kBins)};
    for (auto& m : mic)
      for (auto& bin : m) bin = random_bin(random, 10.0f);
    std::vector<float> power[2] = {powers(mic[0]), powers(mic[1])};
    const Spectrum before[2] = {mic[0], mic[1]};
    const std::vector<float> power_before[2] = {power[0], power[1]};
    aec.process(mic[0], power[0], mic[1], power[1], ref);
    for (size_t m = 0; m < 2; ++m) {
      EXPECT_EQ(power_before[m], power[m]);
      for (size_t k = 0; k < kBins; ++k) {
        ASSERT_EQ(before[m][k].re, mic[m][k].re);
        ASSERT_EQ(before[m][k].im, mic[m][k].im);
      }
    }
  }
}

// A reference that stops is forgotten by each band after its own number of frames.
TEST(EchoCanceller, AdaptsUntilTheReferenceHasLeftTheHistory) {
  Canceller aec;
  Spectrum mic[2] = {Spectrum(kBins), Spectrum(kBins)};
  std::vector<float> power[2] = {std::vector<float>(kBins), std::vector<float>(kBins)};
  Spectrum ref(kBins, {0.5f, 0.25f});
  ref[0] = ref[1] = ref[2] = {NAN, NAN};  // never read
  for (int silent = -3; silent < 10; ++silent) {
    if (silent == 1) ref.assign(kBins, {0.0f, 0.0f});
    aec.process(mic[0], power[0], mic[1], power[1], ref);
    for (int k = 3; k < kBins; ++k) {
      ASSERT_EQ(silent < taps_of(k), aec.state->adapt_flags[k - 3] == 1) << silent << " " << k;
    }
  }
}

// Echo without delay: tap 0 learns the path, the output falls, and the stored filter takes a copy.
TEST(EchoCanceller, LearnsAPlainCopyOfTheReference) {
  Canceller aec;
  RandomSignal random(11);
  double last_power = 0, ref_power = 0;
  for (int frame = 0; frame < 200; ++frame) {
    Spectrum ref(kBins);
    for (auto& bin : ref) bin = random_bin(random, 3.0f);
    Spectrum mic[2] = {ref, ref};
    std::vector<float> power[2] = {powers(ref), powers(ref)};
    aec.process(mic[0], power[0], mic[1], power[1], ref);
    last_power = ref_power = 0;
    for (size_t k = 3; k < kBins; ++k) {
      last_power += static_cast<double>(power[1][k]);
      ref_power += std::norm(widen(ref[k]));
    }
  }
  EXPECT_LT(last_power, 1e-6 * ref_power);
  for (int k = 3; k < kBins; ++k) {
    const auto bin = BinModel::of(*aec.state->subtraction[0], k);
    EXPECT_NEAR(1.0, bin.adaptive[0].real(), 1e-2);
    EXPECT_GT(std::abs(bin.stored[0]), 0.5) << k;
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
  aec.process(mic[0], power[0], mic[1], power[1], ref);
  EXPECT_EQ(0.5f, mic[0][128].re);
  EXPECT_EQ(0.5f, mic[0][128].im);
  EXPECT_EQ(0.5f, power[0][128]);
}

TEST(EchoCanceller, ReducesTheEchoOfARoomByThirtyDecibels) {
  Canceller aec;
  SyntheticRoom rooms[2] = {SyntheticRoom(21), SyntheticRoom(22)};
  RandomSignal random(23);
  double before = 0, after = 0;
  for (int frame = 0; frame < 1000; ++frame) {
    Spectrum ref(kBins);
    const float level = 0.5f + 2.0f * (random.uniform() + 1.0f);
    for (auto& bin : ref) bin = random_bin(random, level);
    Spectrum mic[2] = {rooms[0].echo(ref), rooms[1].echo(ref)};
    for (auto& m : mic) {
      for (auto& bin : m) {
        const zel_lcomplex noise = random_bin(random, 0.01f);
        bin = {bin.re + noise.re, bin.im + noise.im};
      }
    }
    std::vector<float> power[2] = {powers(mic[0]), powers(mic[1])};
    const auto echo_power = power[0];
    aec.process(mic[0], power[0], mic[1], power[1], ref);
    if (frame < 600) continue;
    for (size_t k = 3; k < kBins; ++k) {
      before += static_cast<double>(echo_power[k]);
      after += static_cast<double>(power[0][k]);
    }
  }
  EXPECT_GT(10 * std::log10(before / after), 30.0);
}

TEST(EchoCanceller, TakesThePublishedMemoryAtAnyAlignment) {
  const size_t subtraction_growth = 9 * (sizeof(void*) - 4);  // pointers in the records
  const size_t aec_growth = 11 * (sizeof(void*) - 4);
  EXPECT_EQ(17210 + subtraction_growth, echo_subtraction_query_mem());
  EXPECT_EQ(46080 + 2 * subtraction_growth + aec_growth, aec_query_mem());
  EXPECT_EQ(2074u, aec_query_scratch());

  std::vector<float> reference_output;
  for (size_t misalignment = 0; misalignment < 16; ++misalignment) {
    Canceller aec(misalignment);
    EXPECT_TRUE(aec.mem.holds(aec.state, 1, 8));
    EXPECT_TRUE(aec.mem.holds(aec.state->subtraction[1], 1, 8));
    EXPECT_TRUE(aec.mem.holds(aec.state->subtraction[1]->mic_smooth, 254, 16));
    EXPECT_TRUE(aec.mem.holds(aec.state->ref_history_high, 129 * 2, 16));
    EXPECT_TRUE(aec.scratch.holds(aec.state->ref_power, 257, 16));

    RandomSignal random(5);
    Spectrum mic[2] = {Spectrum(kBins), Spectrum(kBins)};
    std::vector<float> power[2];
    for (int frame = 0; frame < 30; ++frame) {
      Spectrum ref(kBins);
      for (auto& bin : ref) bin = random_bin(random, 1.0f);
      mic[0] = mic[1] = ref;
      power[0] = power[1] = powers(ref);
      aec.process(mic[0], power[0], mic[1], power[1], ref);
    }
    EXPECT_TRUE(aec.mem.intact());
    EXPECT_TRUE(aec.scratch.intact());
    EXPECT_EQ(power[0], power[1]);
    if (misalignment == 0) reference_output = power[1];
    EXPECT_EQ(reference_output, power[1]) << misalignment;
  }
}

}  // namespace

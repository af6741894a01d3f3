// Sound and helpers for the tests of streams.
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <memory>
#include <vector>

#include "random_signal.h"
#include "speechenhance/stream.h"

struct DestroyStream {
  void operator()(SEStream* stream) const { se_stream_destroy(stream); }
};
using StreamHandle = std::unique_ptr<SEStream, DestroyStream>;

inline StreamHandle make_stream(int rate, int mics, int refs, int delay_ms) {
  SEStream* stream = nullptr;
  EXPECT_EQ(se_stream_create(rate, mics, refs, delay_ms, &stream), SE_STREAM_OK);
  return StreamHandle(stream);
}

inline SEStreamSettings preset(const char* name) {
  SEStreamSettings settings = {};
  EXPECT_EQ(se_stream_get_preset(name, &settings), SE_STREAM_OK) << name;
  return settings;
}

inline double energy_of(const std::vector<float>& signal) {
  double energy = 0;
  for (const float x : signal) energy += static_cast<double>(x) * x;
  return energy;
}

// The sample nearest to the centre of the signal's energy around its peak.
inline int centre_of(const std::vector<float>& signal) {
  const auto louder = [](float a, float b) { return std::abs(a) < std::abs(b); };
  const int peak =
      static_cast<int>(std::max_element(signal.begin(), signal.end(), louder) - signal.begin());
  const int around = static_cast<int>(signal.size()) / 50;
  double weight = 0, moment = 0;
  for (int i = std::max(0, peak - around);
       i < std::min(static_cast<int>(signal.size()), peak + around); ++i) {
    const double power = std::pow(signal[static_cast<std::size_t>(i)], 2);
    weight += power;
    moment += power * (i - peak);
  }
  return peak + static_cast<int>(std::lround(moment / weight));
}

// Through the stream in blocks of `block` samples, or of lengths that `next` draws up to it.
template <class Next>
std::vector<float> run(SEStream* stream, const std::vector<std::vector<float>>& mics,
                       const std::vector<std::vector<float>>& refs, int block, Next next) {
  const auto length = static_cast<int>(mics[0].size());
  std::vector<float> out(mics[0].size());
  for (int done = 0; done < length;) {
    const int count = std::min(next(block), length - done);
    std::vector<const float*> mic_at, ref_at;
    for (const auto& mic : mics) mic_at.push_back(mic.data() + done);
    for (const auto& ref : refs) ref_at.push_back(ref.data() + done);
    se_stream_process(stream, mic_at.data(), refs.empty() ? nullptr : ref_at.data(),
                      out.data() + done, count);
    done += count;
  }
  return out;
}

inline std::vector<float> run(SEStream* stream, const std::vector<std::vector<float>>& mics,
                              const std::vector<std::vector<float>>& refs, int block) {
  return run(stream, mics, refs, block, [](int most) { return most; });
}

// Syllables of a buzz with formants in noise at two microphones, and another such talker on two
// channels of the loudspeaker, heard by the microphones. At any rate, with nothing above 4 kHz.
struct Scene {
  Scene(int rate, double seconds) {
    const auto length = static_cast<std::size_t>(rate * seconds);
    for (auto* signals : {&mics, &refs}) signals->assign(2, std::vector<float>(length));
    for (std::size_t i = 0; i < length; ++i) {
      const double t = static_cast<double>(i) / rate;
      // Nothing at either end, where resamplers would have to guess what lies beyond.
      const double fade = std::clamp(std::min(t - 0.05, seconds - 0.2 - t) / 0.05, 0.0, 1.0);
      const double near = fade * talk(t, 121.0, 3.1), far = fade * talk(t, 187.0, 2.3);
      refs[0][i] = static_cast<float>(0.4 * far);
      refs[1][i] = static_cast<float>(0.3 * far);
      mics[0][i] = static_cast<float>(0.2 * near + 0.1 * fade * talk(t - 0.010, 187.0, 2.3));
      mics[1][i] = static_cast<float>(0.25 * near + 0.1 * fade * talk(t - 0.011, 187.0, 2.3));
    }
  }

  std::vector<std::vector<float>> mics, refs;

 private:
  static double talk(double t, double pitch_hz, double syllables_hz) {
    if (t < 0) return 0;
    constexpr double kTurn = 2 * 3.14159265358979;
    double sum = 0;
    for (int k = 1; k * pitch_hz < 3600; ++k) {
      const double f = k * pitch_hz;
      const double formants = 1 / (1 + std::pow((f - 600) / 250, 2)) +
                              0.5 / (1 + std::pow((f - 1900 - 400 * std::sin(kTurn * t)) / 300, 2));
      sum += formants * std::sin(kTurn * f * (t + 0.0005 * std::sin(kTurn * 1.7 * t)) + k * k);
    }
    const double syllable = std::sin(kTurn * syllables_hz * t);
    return syllable > 0 ? 0.3 * sum * syllable : 0;
  }
};

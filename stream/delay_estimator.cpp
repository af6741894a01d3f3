// Generalised cross-correlation with phase transform (Knapp and Carter 1976) over a second of the
// reference, averaged over far-end sound; the interface's comment has the outline.
//
// Every 120 ms, one step per block, so that no block bears the whole of it:
//   1, 2  transform the last 1.02 s of the reference, and the last 0.51 s of the microphone with
//         zeros ahead of it: with both as long, lags of 0 to 0.51 s see the whole of the
//         microphone's part and wrap nothing around
//   3     cross-spectrum, each bin divided by its magnitude, added to the running average
//   4, 5  transform back and look for the highest correlation of either sign
//
// Cost: the decimators take 2 x 40 x 48 products per block, the dearest step one real transform of
// 4096 samples.
//
// Limits: echo paths longer than the average's memory in which the loudest reflection is not the
// first are dated by that reflection. A reference that holds the near end's own voice (a loop
// through the far end) shows that loop's delay only if the reference comes first.
#include "speechenhance/delay_estimator.h"

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstring>

#include "common/module_memory.h"
#include "speechenhance/speechenhance.h"
#include "speechenhance/zel_fft.h"
#include "stream/meters.h"

namespace {

using se::MemoryWalk;

constexpr double kPi = 3.14159265358979323846;

constexpr int kBlock = SE_BLOCK_LEN;
constexpr int kDecimation = 4;
constexpr int kRate = SE_SAMPLE_RATE / kDecimation;
constexpr int kSlowBlock = kBlock / kDecimation;  // samples of a block at the low rate
constexpr int kTaps = 48;                         // of the decimator

constexpr int kWindow = 4096;       // of the reference, samples
constexpr int kPart = kWindow / 2;  // of the microphone; the highest lag
constexpr int kFade = kPart / 2;    // at each end of both windows, a raised cosine
constexpr int kBins = kWindow / 2 + 1;
constexpr int kPeriod = 12;  // blocks from one estimate to the next
constexpr int kHop = kPeriod * kSlowBlock;

// Bins that count: 100 to 1850 Hz.
constexpr int kFirstBin = 100 * kWindow / kRate;
constexpr int kLastBin = 1850 * kWindow / kRate;

constexpr float kMemory = 0.92f;        // of the average, per estimate: 1.4 s
constexpr float kDynamicRange = 1e-6f;  // of bins: 60 dB in either signal
constexpr float kSilence = 1e-7f;  // mean square of the reference below which nothing is learnt
constexpr int kNear = 12 * kRate / 1000;      // lags around a peak that belong to it
constexpr int kSameDelay = 4 * kRate / 1000;  // lags within which two estimates agree
constexpr int kLeastLearnt = 8;               // estimates in the average before one is believed
constexpr int kAgree = 4;  // estimates in a row that must agree on a delay that is new
// Signals that share nothing peak at 3 to 5 times the mean (RMS), echoes in rooms at 15 to 35; what
// repeats itself has other peaks almost as high.
constexpr float kLowPeak = 6.0f;      // over the mean: confidence 0
constexpr float kHighPeak = 16.0f;    // confidence 1
constexpr float kLeastMargin = 1.7f;  // over the next peak elsewhere

struct Decimator {
  float history[kTaps - kDecimation];
};

}  // namespace

struct DelayEstimator {
  r2c_handle* fft;
  float* taps;             // kTaps: the decimators' low-pass
  float* fade;             // kFade: 0 to 1
  float* ref;              // the last kWindow samples, and those since the last estimate
  float* mic;              // the last kPart samples, likewise
  float* work;             // kWindow
  zel_lcomplex* ref_spec;  // kBins
  zel_lcomplex* mic_spec;  // kBins
  zel_lcomplex* average;   // kBins: the weighted cross-spectrum
  Decimator ref_decimator, mic_decimator;
  std::int32_t fresh;      // samples since the last estimate
  std::int32_t step;       // of the estimate under way, 0 when there is none
  std::int32_t learnt;     // estimates in the average, up to kLeastLearnt
  std::int32_t candidate;  // lag of the latest peak
  std::int32_t agreeing;   // estimates in a row that found it
  std::int32_t found;
  std::int32_t lag;  // the delay that is believed
  float confidence;
};

namespace {

struct Layout {
  DelayEstimator* state;
  void* fft;
  void* fft_scratch;
  DelayEstimator fields;  // the buffers' places
};

Layout lay_out(MemoryWalk& mem) {
  constexpr se::RecordSlot kSlot = {sizeof(DelayEstimator) + 7, sizeof(DelayEstimator), 8};
  Layout at = {};
  at.state = mem.record<DelayEstimator>(kSlot);
  at.fields.taps = mem.buffer<float>(kTaps);
  at.fields.fade = mem.buffer<float>(kFade);
  at.fields.ref = mem.buffer<float>(kWindow + kHop);
  at.fields.mic = mem.buffer<float>(kPart + kHop);
  at.fields.work = mem.buffer<float>(kWindow);
  at.fields.ref_spec = mem.buffer<zel_lcomplex>(kBins);
  at.fields.mic_spec = mem.buffer<zel_lcomplex>(kBins);
  at.fields.average = mem.buffer<zel_lcomplex>(kBins);
  at.fft = mem.nested(zel_fft_r2c_query_mem_api(kWindow));
  at.fft_scratch = mem.nested(zel_fft_r2c_query_scratch_mem_api(kWindow));
  return at;
}

// A Hann-windowed sinc, 6 dB down at 1900 Hz.
void design_low_pass(float* taps) {
  constexpr double kCutoff = 2 * 1900.0 / SE_SAMPLE_RATE;  // of half the rate
  for (int i = 0; i < kTaps; ++i) {
    const double t = i - 0.5 * (kTaps - 1);
    const double window = 0.5 + 0.5 * std::cos(2 * kPi * t / kTaps);
    taps[i] = static_cast<float>(window * std::sin(kPi * kCutoff * t) / (kPi * t));
  }
}

void decimate(Decimator& d, const float* taps, const float* in, float* out) {
  constexpr int kPast = kTaps - kDecimation;
  float line[kPast + kBlock];
  std::copy_n(d.history, kPast, line);
  std::copy_n(in, kBlock, line + kPast);
  std::copy_n(line + kBlock, kPast, d.history);
  for (int i = 0; i < kSlowBlock; ++i) {
    const float* x = line + i * kDecimation;
    float sum[4] = {};
    for (int k = 0; k < kTaps; k += 4) {
      for (int lane = 0; lane < 4; ++lane) sum[lane] += taps[k + lane] * x[k + lane];
    }
    out[i] = (sum[0] + sum[2]) + (sum[1] + sum[3]);
  }
}

// Makes the last samples of both signals the ones that the estimate is made of. False if the
// reference is too quiet to learn from.
bool begin(DelayEstimator& e) {
  std::memmove(e.ref, e.ref + kHop, kWindow * sizeof *e.ref);
  std::memmove(e.mic, e.mic + kHop, kPart * sizeof *e.mic);
  return se::stream::mean_square(e.ref, kWindow) > kSilence;
}

// Lets both ends rise from and fall to zero. Both windows end at the same time: without that,
// sounds that go on beyond it would be found at a delay of 0.
void fade_ends(const DelayEstimator& e, float* x, int count) {
  for (int i = 0; i < kFade; ++i) {
    x[i] *= e.fade[i];
    x[count - 1 - i] *= e.fade[i];
  }
}

void transform_ref(DelayEstimator& e) {
  std::copy_n(e.ref, kWindow, e.work);
  fade_ends(e, e.work, kWindow);
  zel_CLfftL(e.fft, e.ref_spec, e.work);
}

void transform_mic(DelayEstimator& e) {
  std::fill_n(e.work, kWindow - kPart, 0.0f);
  std::copy_n(e.mic, kPart, e.work + kWindow - kPart);
  fade_ends(e, e.work + kWindow - kPart, kPart);
  zel_CLfftL(e.fft, e.mic_spec, e.work);
}

float square(zel_lcomplex a) {
  return a.re * a.re + a.im * a.im;
}

void average_cross_spectrum(DelayEstimator& e) {
  e.learnt = std::min(e.learnt + 1, kLeastLearnt);
  float loudest = 0.0f;
  for (int k = kFirstBin; k < kLastBin; ++k) {
    e.work[k] = std::sqrt(square(e.ref_spec[k])) * std::sqrt(square(e.mic_spec[k]));
    loudest = std::max(loudest, e.work[k]);
  }
  for (int k = kFirstBin; k < kLastBin; ++k) {
    const zel_lcomplex x = e.ref_spec[k], y = e.mic_spec[k];
    const float weight = 1.0f / (e.work[k] + kDynamicRange * loudest + 1e-20f);
    zel_lcomplex& s = e.average[k];
    s.re = kMemory * s.re + weight * (x.re * y.re + x.im * y.im);
    s.im = kMemory * s.im + weight * (x.re * y.im - x.im * y.re);
  }
}

void find_peak(DelayEstimator& e) {
  int peak = 0;
  float energy = 0.0f;
  for (int lag = 0; lag < kPart; ++lag) {
    e.work[lag] = std::abs(e.work[lag]);
    energy += e.work[lag] * e.work[lag];
    if (e.work[lag] > e.work[peak]) peak = lag;
  }
  float next = 0.0f;
  for (int lag = 0; lag < kPart; ++lag) {
    if (std::abs(lag - peak) > kNear) next = std::max(next, e.work[lag]);
  }
  const float mean = std::sqrt(energy / kPart);
  const float ratio = mean > 0.0f ? e.work[peak] / mean : 0.0f;
  const float height = (ratio - kLowPeak) / (kHighPeak - kLowPeak);
  const bool clear = e.work[peak] >= kLeastMargin * next && e.learnt == kLeastLearnt;
  e.confidence = std::clamp(height, 0.0f, clear ? 1.0f : 0.4f);

  e.agreeing = std::abs(peak - e.candidate) <= kSameDelay ? e.agreeing + 1 : 1;
  e.candidate = peak;
  if (e.confidence < 0.5f) e.agreeing = 0;
  const bool known = e.found != 0 && std::abs(peak - e.lag) <= kSameDelay;
  if (e.agreeing >= (known ? 1 : kAgree)) {
    e.found = 1;
    e.lag = peak;
  }
}

}  // namespace

size_t delay_estimator_query_mem(void) {
  return measured(lay_out);
}

DelayEstimator* delay_estimator_init(void* mem) {
  MemoryWalk walk(mem);
  const Layout at = lay_out(walk);
  DelayEstimator* const e = at.state;
  *e = at.fields;
  e->fft = zel_fft_init_r2c(kWindow, at.fft, at.fft_scratch);
  design_low_pass(e->taps);
  for (int i = 0; i < kFade; ++i) {
    e->fade[i] = static_cast<float>(0.5 - 0.5 * std::cos(kPi * (i + 0.5) / kFade));
  }
  return e;
}

void delay_estimator_process(DelayEstimator* estimator, const float* mic, const float* ref) {
  DelayEstimator& e = *estimator;
  decimate(e.ref_decimator, e.taps, ref, e.ref + kWindow + e.fresh);
  decimate(e.mic_decimator, e.taps, mic, e.mic + kPart + e.fresh);
  e.fresh += kSlowBlock;
  switch (e.step) {
    case 1:
      transform_ref(e);
      break;
    case 2:
      transform_mic(e);
      break;
    case 3:
      average_cross_spectrum(e);
      break;
    case 4:
      zel_LifftCL(e.fft, e.work, e.average);
      break;
    case 5:
      find_peak(e);
      break;
    default:
      break;
  }
  e.step = e.step == 0 || e.step == 5 ? 0 : e.step + 1;
  if (e.fresh == kHop) {
    e.fresh = 0;
    e.step = begin(e) ? 1 : 0;
  }
}

DelayEstimate delay_estimator_get(const DelayEstimator* e) {
  return {e->found, static_cast<float>(e->lag) * (1000.0f / kRate), e->confidence};
}

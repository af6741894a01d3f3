// The life of an engine instance and the small queries of its interface. The pipeline itself is in
// se_process.cpp.
#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <initializer_list>

#include "common/decibel.h"
#include "engine/se_instance.h"
#include "kernels/kernels.h"
#include "nn/denoiser.h"

namespace {

using se::kFrameLen;
using se::kFrameMs;
using se::kNumBins;
using se::MemoryWalk;

constexpr int kAnalysis = 0, kSynthesis = 1;
constexpr float kMaxAttenuationDb = 10.0f;  // of the classical suppressor
constexpr float kNoEnergyDb = -400.0f;
constexpr std::int64_t kNsOffsetDb = 10;  // of the mix ahead of the classical suppressor
constexpr std::int32_t kAecDelay = 320;   // samples, nominal

// Where everything lies in the static block, and what the groups of the report take of it.
struct Layout {
  SEInstance* instance;
  SEInstance fields;  // the buffers' places
  void* stft_mic[2];
  void* stft_out;
  void* aec;
  void* stft_ref;
  void* nn;
  void* noise_est;
  void* noise_sup;
  void* agc;
  void* limiter;

  std::size_t total, stft_bytes, aec_bytes, nn_bytes, agc_bytes, limiter_bytes;
};

Layout lay_out(MemoryWalk mem) {
  const std::size_t analysis_bytes = zel_stft_query_mem(kFrameLen, kAnalysis);
  Layout at{};
  at.instance = mem.record<SEInstance>(se::kInstanceSlot);
  for (zel_lcomplex*& spectrum : at.fields.mic_spec) spectrum = mem.buffer<zel_lcomplex>(kNumBins);
  for (float*& power : at.fields.mic_pow) power = mem.buffer<float>(kNumBins);

  std::size_t group = mem.size();
  const auto close_group = [&mem, &group] {
    const std::size_t bytes = mem.size() - group;
    group = mem.size();
    return bytes;
  };
  at.fields.window = mem.buffer<float>(kFrameLen);
  for (void*& stft : at.stft_mic) stft = mem.nested(analysis_bytes);
  at.stft_out = mem.nested(zel_stft_query_mem(kFrameLen, kSynthesis));
  at.stft_bytes = close_group();

  at.aec = mem.nested(aec_query_mem());
  at.stft_ref = mem.nested(analysis_bytes);
  at.fields.ref_spec = mem.buffer<zel_lcomplex>(kNumBins);
  at.aec_bytes = close_group();

  at.nn = mem.nested(static_cast<std::size_t>(nn_query_mem_api()));
  at.noise_est = mem.nested(noise_estimate_query_mem(kFrameMs, kNumBins));
  at.fields.noise_spec = mem.buffer<float>(kNumBins);
  at.noise_sup = mem.nested(noise_suppress_query_mem(kNumBins));
  at.fields.ns_spec = mem.buffer<zel_lcomplex>(kNumBins);
  at.fields.spec_history = mem.buffer<zel_lcomplex>(se::kHistoryLen * kNumBins);
  at.fields.nn_gain = mem.buffer<float>(kNumBins);
  at.nn_bytes = close_group();

  at.agc = mem.nested(agc_core_query_mem());
  at.agc_bytes = close_group();
  at.limiter = mem.nested(limiter_query_mem());
  at.limiter_bytes = close_group();
  at.total = mem.size();
  return at;
}

struct ScratchNeed {
  std::size_t stft, aec, nn, agc;

  std::size_t largest() const { return std::max({stft, aec, nn, agc}); }
};

ScratchNeed scratch_need() {
  return {zel_stft_query_scratch(kFrameLen), aec_query_scratch(),
          static_cast<std::size_t>(nn_query_scratch_api()) +
              noise_estimate_query_scratch(kNumBins) + noise_suppress_query_scratch(kNumBins),
          agc_core_query_scratch()};
}

// The energy of the window as one running sum in index order. Levels in dB are taken from it; the
// noise estimator takes the kernels' sum of four partial sums.
float running_energy(const float* window) {
  float energy = 0.0f;
  for (int i = 0; i < kFrameLen; ++i) energy = std::fma(window[i], window[i], energy);
  return energy;
}

void initialise(SEInstance* s, const Layout& at, void* scratch, const DenoiseModel* model) {
  zel_stft_generate_win(kFrameLen, s->window);
  const float lane_energy = se::kernels().spectral->sum_of_squares(s->window, kFrameLen);

  for (int c = 0; c < 2; ++c) {
    s->stft_mic[c] =
        zel_stft_init(at.stft_mic[c], scratch, s->window, kFrameLen, SE_BLOCK_LEN, kAnalysis);
  }
  s->stft_out = zel_stft_init(at.stft_out, scratch, s->window, kFrameLen, SE_BLOCK_LEN, kSynthesis);
  s->aec = aec_init(at.aec, scratch);
  s->stft_ref = zel_stft_init(at.stft_ref, scratch, s->window, kFrameLen, SE_BLOCK_LEN, kAnalysis);
  s->nn = se::nn::init_denoiser(at.nn, scratch, model);
  s->noise_est = noise_estimate_init(at.noise_est, scratch, kFrameMs, kNumBins, lane_energy);
  s->noise_sup = noise_suppress_init(at.noise_sup, scratch, kFrameMs, kNumBins, kMaxAttenuationDb);

  s->win_energy = running_energy(s->window);
  s->win_energy_db = s->win_energy > 0.0f ? 10.0f * std::log10(s->win_energy) : kNoEnergyDb;
  s->agc = agc_core_init(at.agc, scratch, s->win_energy_db);
  s->limiter = limiter_init(at.limiter);
}

// An instance in two zero-filled blocks.
SEInstance* place(void* static_mem, void* scratch_mem, const DenoiseModel* model) {
  const Layout at = lay_out(MemoryWalk(static_mem));
  *at.instance = at.fields;
  at.instance->static_mem = static_mem;
  at.instance->scratch_mem = scratch_mem;
  initialise(at.instance, at, scratch_mem, model);
  return at.instance;
}

// 10^(-attenuation/20), at most 1.
float mix_level(std::int64_t attenuation_db) {
  const float level = se::amplitude_from_db(-static_cast<float>(attenuation_db));
  return level > 1.0f ? 1.0f : level;
}

}  // namespace

SEInstance* se::create_instance(const DenoiseModel* model) {
  void* static_mem = std::calloc(lay_out(MemoryWalk()).total, 1);
  void* scratch_mem = std::calloc(scratch_need().largest(), 1);
  if (static_mem == nullptr || scratch_mem == nullptr) {
    std::free(scratch_mem);
    std::free(static_mem);
    return nullptr;
  }
  return place(static_mem, scratch_mem, model);
}

void se::reset_instance(SEInstance* instance, const DenoiseModel* model) {
  void* const static_mem = instance->static_mem;
  void* const scratch_mem = instance->scratch_mem;
  std::memset(static_mem, 0, lay_out(MemoryWalk()).total);
  std::memset(scratch_mem, 0, scratch_need().largest());
  place(static_mem, scratch_mem, model);
}

SEInstance* se_create(void) {
  const Layout need = lay_out(MemoryWalk());
  std::printf("Static mem: %zd, stft: %zd, aec: %zd, nn: %zd, limiter: %zd, agc: %zd\n", need.total,
              need.stft_bytes, need.aec_bytes, need.nn_bytes, need.limiter_bytes, need.agc_bytes);
  const ScratchNeed scratch = scratch_need();
  std::printf("Scratch mem: %zd, stft: %zd, aec: %zd, nn: %zd\n", scratch.largest(), scratch.stft,
              scratch.aec, scratch.nn);
  return se::create_instance(&nn_denoise_model);
}

void se_destroy(SEInstance* instance) {
  if (instance == nullptr) return;
  zel_stft_destroy(instance->stft_mic[0]);
  zel_stft_destroy(instance->stft_mic[1]);
  zel_stft_destroy(instance->stft_ref);
  zel_stft_destroy(instance->stft_out);
  void* static_mem = instance->static_mem;
  std::free(instance->scratch_mem);
  std::free(static_mem);
}

void se::configure(SEInstance* instance, const NnProcessConfig& config) {
  instance->dry_mix = mix_level(config.residual_db);
  instance->ns_dry_mix = mix_level(config.ns_residual_db - kNsOffsetDb);
  instance->limiter_enable = config.limiter_enable;
  instance->limiter_max_gain = config.limiter_max_gain;
  instance->limiter_level_db = config.limiter_level_db;
  instance->reserved_a = config.reserved_a;
  instance->reserved_b = config.reserved_b;
  instance->low_shelf = config.low_shelf;
  instance->high_shelf = config.high_shelf;
  std::memcpy(instance->peak, config.peak, sizeof instance->peak);
}

void set_nn_process_config(SEInstance* instance, NnProcessConfig config) {
  se::configure(instance, config);
  std::puts("########### set over ##############");
}

// Hosts compare this text, build date and all: it is part of the interface and follows no release.
const char* se_get_version(void) {
  return "1.0.0-branch(HEAD)-hash()-build(2024-08-14 03:45)";
}

int32_t se_get_aec_process_delay(void) {
  return kAecDelay;
}

int32_t se_get_process_delay(void) {
  return (se_get_aec_process_delay() / SE_BLOCK_LEN + se::kLookAhead) * SE_BLOCK_LEN;
}

void se_get_aec_out(SEInstance*, float* out) {
  std::memset(out, 0, SE_BLOCK_LEN * sizeof *out);
}

void se_get_nn_out(SEInstance*, float* out) {
  std::memset(out, 0, SE_BLOCK_LEN * sizeof *out);
}

int32_t se_get_statistic_info(SEInstance*, char* buffer, int32_t size) {
  const std::size_t room = size > 0 ? static_cast<std::size_t>(size) : 0;
  return std::snprintf(buffer, room, "max_noise_db=%d,avg_noise_db=%d\n", 0, 0);
}

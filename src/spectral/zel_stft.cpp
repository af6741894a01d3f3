// Short-time Fourier transform: windowed analysis and weighted overlap-add synthesis.
//
// Analysis transforms the last N samples under a window every `hop` samples. Synthesis windows each
// inverse transform once more, adds the overlapping frames and divides by the sum of the squared
// window values that went into each sample (Crochiere 1980): exact reconstruction for any window
// and hop that leave that sum above zero, also where the frames that overlap change in number, as
// they do with N = 512 and hop = 160. Cost per call: one transform, one window, moves of N samples.
#include "speechenhance/zel_stft.h"

#include <cstring>

#include "kernels/kernels.h"
#include "spectral/fft_plans.h"

using namespace se;

struct stft_state {
  r2c_handle* fft;
  const float* window;  // N values, the caller's
  float* history;       // analysis: the last N samples, oldest first
  float* ola;           // synthesis: N overlap-add sums, the next output first
  std::int32_t frame_len;
  std::int32_t hop;
  std::int32_t delay;
  std::uint8_t is_synthesis;
  float* envelope;  // synthesis: N sums of squared window values, beside `ola`
  float* frame;     // N samples of the frame at work, in scratch memory
};

namespace {

constexpr RecordSlot kStateSlot = {43, 40};

// Divides the output that no input belongs to yet down to nothing.
constexpr float kInitialEnvelope = 1.0e9f;

struct Layout {
  stft_state* state;
  void* fft;
  float* history_or_ola;
  float* envelope;
};

Layout lay_out(MemoryWalk& mem, int n, bool is_synthesis) {
  return {mem.record<stft_state>(kStateSlot), mem.nested(zel_fft_r2c_query_mem_api(n)),
          mem.buffer<float>(count_of(n)), is_synthesis ? mem.buffer<float>(count_of(n)) : nullptr};
}

struct ScratchLayout {
  void* fft;
  float* frame;
};

ScratchLayout lay_out_scratch(MemoryWalk& scratch, int n) {
  return {scratch.nested(zel_fft_r2c_query_scratch_mem_api(n)), scratch.buffer<float>(count_of(n))};
}

std::size_t bytes(int samples) {
  return static_cast<std::size_t>(samples) * sizeof(float);
}

// Moves the last N - hop of N values to the front.
void advance(float* values, const stft_state& s) {
  std::memmove(values, values + s.hop, bytes(s.frame_len - s.hop));
}

// The same, with zeros behind them.
void advance_and_clear(float* values, const stft_state& s) {
  advance(values, s);
  std::memset(values + (s.frame_len - s.hop), 0, bytes(s.hop));
}

// The time-domain frame of a spectrum. Samples that the transform does not reach are zero.
void inverse_frame(const stft_state& s, const zel_lcomplex* spectrum) {
  const int reached = s.frame_len < 2 ? 0 : s.frame_len & ~1;
  for (int i = reached; i < s.frame_len; ++i) s.frame[i] = 0.0f;
  zel_LifftCL(s.fft, s.frame, spectrum);
}

}  // namespace

void zel_stft_generate_win(int n, float* out) {
  if (n > 0) std::memcpy(out, p_win_tmp, bytes(n));
}

size_t zel_stft_query_mem(int N, int is_synthesis) {
  return measured(lay_out, N, is_synthesis != 0);
}

size_t zel_stft_query_scratch(int N) {
  return measured(lay_out_scratch, N);
}

stft_state* zel_stft_init(void* mem, void* scratch, const float* window, int N, int hop,
                          int is_synthesis) {
  MemoryWalk mem_walk(mem);
  MemoryWalk scratch_walk(scratch);
  const Layout layout = lay_out(mem_walk, N, is_synthesis != 0);
  const ScratchLayout scratch_layout = lay_out_scratch(scratch_walk, N);
  stft_state* state = layout.state;
  state->fft = zel_fft_init_r2c(N, layout.fft, scratch_layout.fft);
  state->window = window;
  state->frame_len = N;
  state->hop = hop;
  state->delay = N - hop;
  state->is_synthesis = is_synthesis != 0 ? 1 : 0;
  state->frame = scratch_layout.frame;
  if (state->is_synthesis) {
    state->ola = layout.history_or_ola;
    state->envelope = layout.envelope;
    for (int i = 0; i < N; ++i) state->envelope[i] = kInitialEnvelope;
  } else {
    state->history = layout.history_or_ola;
  }
  return state;
}

int zel_stft_analysis(stft_state* state, const float* samples_in, zel_lcomplex* spectrum_out) {
  const stft_state& s = *state;
  advance(s.history, s);
  std::memcpy(s.history + (s.frame_len - s.hop), samples_in, bytes(s.hop));
  kernels().spectral->multiply(s.history, s.window, s.frame, s.frame_len);
  zel_CLfftL(s.fft, spectrum_out, s.frame);
  return 0;
}

int zel_stft_synthesis_envelop(stft_state* state, const zel_lcomplex* spectrum_in,
                               float* samples_out) {
  const stft_state& s = *state;
  inverse_frame(s, spectrum_in);
  advance_and_clear(s.ola, s);
  advance_and_clear(s.envelope, s);
  kernels().spectral->overlap_add_envelope(s.frame, s.window, s.ola, s.envelope, s.frame_len);
  kernels().spectral->divide_or_zero(s.ola, s.envelope, samples_out, s.hop);
  return 0;
}

int zel_stft_synthesis(stft_state* state, const zel_lcomplex* spectrum_in, float* samples_out) {
  const stft_state& s = *state;
  inverse_frame(s, spectrum_in);
  advance_and_clear(s.ola, s);
  kernels().spectral->overlap_add(s.frame, s.window, s.ola, s.frame_len);
  std::memcpy(samples_out, s.ola, bytes(s.hop));
  return 0;
}

int zel_stft_reset(stft_state* state) {
  const stft_state& s = *state;
  if (s.is_synthesis) {
    std::memset(s.ola, 0, bytes(s.frame_len));
    std::memset(s.envelope, 0, bytes(s.frame_len));
  } else {
    std::memset(s.history, 0, bytes(s.frame_len));
  }
  return 0;
}

int zel_stft_get_delay(const stft_state* state) {
  return state->delay;
}

int zel_stft_destroy(stft_state* state) {
  if (state != nullptr) zel_fft_destroy_r2c(state->fft);
  return 0;
}

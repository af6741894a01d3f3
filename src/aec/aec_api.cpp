// The echo canceller: keeps what the loudspeaker played over the last frames, bin by bin, decides
// where there is enough of it to learn from, and runs the echo subtraction of both microphones.
//
// The energy of a bin over its history normalises the filters' steps and gates them: a bin adapts
// while its energy exceeds kMinRefEnergy. It is a running sum: the newest power is added and the
// one that leaves is taken off. What such a sum rounds away stays in it for good, so a loud second
// would hide a quiet one after it, or let a silent reference adapt. The powers are therefore added
// up afresh as well, and where the two differ by more than kMaxDrift the fresh sum takes over; a
// bin without any power has no energy. The same happens when powers that overflowed have left.
//
// Cost per frame: one move of each history (874 complex entries and as many powers), one addition
// per entry and a few operations per bin, besides the two subtractions.
#include <cmath>
#include <cstring>

#include "aec/aec_state.h"
#include "aec/echo_bands.h"
#include "common/geometry.h"

namespace {

constexpr float kMinRefEnergy = 0.001f;  // energy of a bin's history below which filters hold

// What a running sum may be off, relative to the sum: 2^-10 less what the fresh sum rounds itself.
constexpr float kMaxDrift = 0.00097f;

struct StaticLayout {
  aec_state* state;
  void* subtraction[2];
  aec_state fields;  // the buffers' places
};

StaticLayout lay_out_static(se::MemoryWalk& mem) {
  StaticLayout at = {};
  at.state = mem.record<aec_state>(se::kAecSlot);
  for (void*& subtraction : at.subtraction) subtraction = mem.nested(echo_subtraction_query_mem());
  at.fields.ref_energy = mem.buffer<float>(se::kEchoBins);
  at.fields.power_history_low = mem.buffer<float>(se::kLowBand.row_entries());
  at.fields.power_history_mid = mem.buffer<float>(se::kMidBand.row_entries());
  at.fields.power_history_high = mem.buffer<float>(se::kHighBand.row_entries());
  at.fields.ref_history_low = mem.buffer<zel_lcomplex>(se::kLowBand.row_entries());
  at.fields.ref_history_mid = mem.buffer<zel_lcomplex>(se::kMidBand.row_entries());
  at.fields.ref_history_high = mem.buffer<zel_lcomplex>(se::kHighBand.row_entries());
  return at;
}

struct ScratchLayout {
  int32_t* adapt_flags;
  float* ref_power;
};

ScratchLayout lay_out_scratch(se::MemoryWalk& scratch) {
  return {scratch.buffer<int32_t>(se::kEchoBins), scratch.buffer<float>(se::kNumBins)};
}

// Moves every row of `history` one entry towards its old end and puts the values of this frame in
// front. One move of the whole table does it: what crosses from a row's end into the next row lands
// on the front entry, which is written anyway.
template <class T>
void push_front(const se::EchoBandShape& band, const T* newest, T* history) {
  std::memmove(history + 1, history, (static_cast<size_t>(band.row_entries()) - 1) * sizeof(T));
  for (int bin = 0; bin < band.bins; ++bin) history[bin * band.taps] = newest[bin];
}

// The two ways in which a bin's energy takes in the newest power and drops the oldest.
float difference_first(float energy, float newest, float oldest) {
  return (newest - oldest) + energy;
}

float oldest_first(float energy, float newest, float oldest) {
  return newest + (energy - oldest);
}

using EnergyUpdate = float (*)(float energy, float newest, float oldest);

template <int Taps, EnergyUpdate Update>
void advance_band(const se::EchoBandShape& band, const zel_lcomplex* ref_spectrum,
                  zel_lcomplex* ref_history, float* power_history, aec_state* state) {
  const zel_lcomplex* ref = ref_spectrum + band.first;
  float* power = state->ref_power + band.first;
  float* energy = state->ref_energy + band.index();
  push_front(band, ref, ref_history);
  for (int bin = 0; bin < band.bins; ++bin) {
    power[bin] = ref[bin].re * ref[bin].re + ref[bin].im * ref[bin].im;
    const float* row = power_history + bin * Taps;
    float sum = power[bin];
    for (int t = 0; t < Taps - 1; ++t) sum += row[t];
    const float running = Update(energy[bin], power[bin], row[Taps - 1]);
    energy[bin] = std::fabs(running - sum) <= kMaxDrift * sum ? running : sum;
  }
  push_front(band, power, power_history);
}

}  // namespace

size_t aec_query_mem() {
  return se::measured(lay_out_static);
}

size_t aec_query_scratch() {
  return se::measured(lay_out_scratch);
}

aec_state* aec_init(void* mem, void* scratch) {
  se::MemoryWalk mem_walk(mem);
  se::MemoryWalk scratch_walk(scratch);
  const StaticLayout layout = lay_out_static(mem_walk);
  const ScratchLayout temporary = lay_out_scratch(scratch_walk);
  aec_state* const state = layout.state;
  *state = layout.fields;
  for (int mic = 0; mic < 2; ++mic) {
    state->subtraction[mic] = echo_subtraction_init(layout.subtraction[mic]);
  }
  state->ref_power = temporary.ref_power;
  state->adapt_flags = temporary.adapt_flags;
  return state;
}

void aec_process(aec_state* state, zel_lcomplex* const* mic_spectra, float* const* mic_powers,
                 const zel_lcomplex* ref_spectrum) {
  advance_band<se::kLowBand.taps, difference_first>(
      se::kLowBand, ref_spectrum, state->ref_history_low, state->power_history_low, state);
  advance_band<se::kMidBand.taps, difference_first>(
      se::kMidBand, ref_spectrum, state->ref_history_mid, state->power_history_mid, state);
  advance_band<se::kHighBand.taps, oldest_first>(
      se::kHighBand, ref_spectrum, state->ref_history_high, state->power_history_high, state);

  for (int i = 0; i < se::kEchoBins; ++i) {
    state->adapt_flags[i] = state->ref_energy[i] > kMinRefEnergy ? 1 : 0;
  }

  for (int mic = 0; mic < 2; ++mic) {
    echo_subtraction_process(state->subtraction[mic], mic_spectra[mic], mic_powers[mic],
                             state->ref_history_low, state->ref_history_mid,
                             state->ref_history_high, state->ref_energy, state->adapt_flags);
  }
}

// How the echo canceller divides the spectrum.
#pragma once

namespace se {

constexpr int kFirstEchoBin = 3;  // bins below pass unchanged: no loudspeaker plays them
constexpr int kEchoBins = 254;    // bins 3..256; arrays "per bin" are indexed by bin - 3

struct EchoBandShape {
  int first;  // bin
  int bins;
  int taps;  // frames of reference history, 10 ms each

  constexpr int index() const { return first - kFirstEchoBin; }
  constexpr int row_entries() const { return bins * taps; }
};

// Rooms reverberate longest at low frequencies, so those get the longest filters.
constexpr EchoBandShape kLowBand = {3, 29, 8};
constexpr EchoBandShape kMidBand = {32, 96, 4};
constexpr EchoBandShape kHighBand = {128, 129, 2};

static_assert(kLowBand.first + kLowBand.bins == kMidBand.first &&
                  kMidBand.first + kMidBand.bins == kHighBand.first &&
                  kHighBand.index() + kHighBand.bins == kEchoBins,
              "the bands follow one another");

}  // namespace se

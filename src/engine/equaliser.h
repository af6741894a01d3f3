// The twelve-band equaliser of the output spectrum.
#pragma once

#include "speechenhance/speechenhance.h"
#include "speechenhance/types.h"

namespace se {

constexpr int kNumPeakBands = 10;

// Applies the low shelf, the high shelf and the peak bands, in this order, each to the result of
// the one before it. `spectrum` holds 257 bins; bands reach outside it without effect there.
void equalise(zel_lcomplex* spectrum, const ShelfBand& low_shelf, const ShelfBand& high_shelf,
              const PeakBand (&peak)[kNumPeakBands]);

}  // namespace se

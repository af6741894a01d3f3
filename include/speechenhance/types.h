/* Types that every header of the library shares. */
#ifndef SPEECHENHANCE_TYPES_H
#define SPEECHENHANCE_TYPES_H

/* One complex value, real part first. Arrays of it are interleaved: re, im, re, im, ...
 *
 * A spectrum is an array of N/2 + 1 of them, the bins of an unscaled N-point transform of N real
 * samples; bin 0 is DC and bin N/2 the Nyquist frequency, both with imaginary part 0. The engine
 * works with N = 512 at 16 kHz: 257 bins, 31.25 Hz apart. A power spectrum is an array of as many
 * floats, re * re + im * im per bin. */
typedef struct zel_lcomplex {
  float re;
  float im;
} zel_lcomplex;

#endif

#!/usr/bin/env python3
"""Fits the equaliser of the preset `flat` and writes its bands into the file.

The denoiser's gain of a band of bins is divided by the width of the band and multiplied by 3 (from
bin 8 up), so that bands wider than 3 bins, which begin near 4.8 kHz, cannot pass a signal at full
level: a band of width w tops out at 3/w. The preset multiplies the inverse of that ceiling back in,
as well as ten triangular peak bands with whole-numbered centres and qualities can.

The fit is a least-squares one in decibels over all bins of the denoiser's bands: bands are added
one by one, each the best single addition, then each is refitted while the others stand, round
after round, until nothing improves.

usage: fit_flat_preset.py FILE.json        (needs NumPy; takes about half a minute)
"""

import json
import pathlib
import re
import sys

import numpy as np

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parents[1]))
from training.bands import BINS, band_start  # noqa: E402

HZ_PER_BIN = 31  # as the equaliser counts
BANDS = 10
GAINS_DB = np.arange(-6, 9.01, 0.1)


def wanted_db():
    """Per bin, what is missing to full level; bin 256 belongs to no band and wants nothing."""
    starts = band_start()
    wanted = np.zeros(BINS)
    for start, end in zip(starts, starts[1:]):
        wanted[start:end] = 20 * np.log10(max(1, (end - start) / 3))
    return wanted


def shape(center_hz, q):
    """The triangle of a peak band, 0 to 1, exactly as the engine lays it over the bins."""
    center = center_hz // HZ_PER_BIN
    width = center_hz // (HZ_PER_BIN * q)
    rise = width // 2
    fall = width - rise
    bins = np.arange(BINS)
    triangle = np.zeros(BINS)
    if rise > 0:
        side = (bins >= center - rise) & (bins < center)
        triangle[side] = 1 - (center - bins[side]) / rise
    if fall > 0:
        side = (bins >= center) & (bins < center + fall)
        triangle[side] = 1 - (bins[side] - center) / fall
    return triangle


def candidates(lowest_bin):
    """Every band whose centre lies in the treble, one per distinct pair of centre and width."""
    result = []
    for center in range(lowest_bin, BINS):
        center_hz = center * HZ_PER_BIN
        widths = set()
        for q in range(1, center + 1):
            width = center_hz // (HZ_PER_BIN * q)
            if width not in widths:
                widths.add(width)
                result.append((center_hz, q))
    return result


def response_db(triangle, gain_db):
    return 20 * np.log10(1 + (10 ** (gain_db / 20) - 1) * triangle)


class Fit:
    def __init__(self):
        self.used = slice(8, BINS - 1)
        self.wanted = wanted_db()[self.used]
        first = 8 + int(np.flatnonzero(self.wanted > 0)[0])
        self.candidates = candidates(first - 20)
        self.triangles = np.array([shape(*c)[self.used] for c in self.candidates])

    def best_band(self, residual):
        """The candidate and gain that leave the smallest sum of squares of the residual."""
        best = (float(residual @ residual), None, 0.0)
        for gain_db in GAINS_DB:
            left = residual - response_db(self.triangles, gain_db)
            errors = np.einsum("ij,ij->i", left, left)
            index = int(np.argmin(errors))
            if errors[index] < best[0] - 1e-9:
                best = (float(errors[index]), index, float(gain_db))
        return best

    def run(self):
        chosen = []
        responses = []
        for _ in range(BANDS):
            residual = self.wanted - sum(responses, np.zeros_like(self.wanted))
            _, index, gain_db = self.best_band(residual)
            chosen.append((index, gain_db))
            responses.append(response_db(self.triangles[index], gain_db))
        error = np.inf
        while True:
            for i in range(BANDS):
                others = sum(responses[:i] + responses[i + 1:], np.zeros_like(self.wanted))
                new_error, index, gain_db = self.best_band(self.wanted - others)
                chosen[i] = (index, gain_db)
                responses[i] = response_db(self.triangles[index], gain_db)
            if new_error > error - 1e-6:
                break
            error = new_error
        left = self.wanted - sum(responses)
        return [(*self.candidates[index], gain_db) for index, gain_db in chosen], left


def main():
    fit = Fit()
    bands, left = fit.run()
    treble = fit.wanted > 0
    peaks = ",\n".join(f'    {{"center_hz": {hz}, "gain_db": {gain_db:.3g}, "q": {q}}}'
                       for hz, q, gain_db in sorted(bands))
    path = pathlib.Path(sys.argv[1])
    text = re.sub(r"(?<=\[\n).*(?=\n *\])", peaks, path.read_text(), flags=re.S)
    json.loads(text)
    path.write_text(text)

    def summary(error):
        return f"rms {np.sqrt(np.mean(error ** 2)):.2f} dB, largest {np.max(np.abs(error)):.2f} dB"
    print("without equaliser, bins of the wide bands:", summary(fit.wanted[treble]))
    print("with it, bins of the wide bands:          ", summary(left[treble]))
    print("with it, all other bins:                  ", summary(left[~treble]))


if __name__ == "__main__":
    main()

"""The bands of the denoiser, from the same list that the library compiles.

expansion() gives the rule by which the library turns band values into gains, as a matrix, so that tools
can reason about gains without repeating the rule.
"""
import re
from pathlib import Path

import numpy as np

BINS = 257

_SOURCE = Path(__file__).resolve().parent.parent / "src" / "nn" / "band_start.def"


def band_start():
    """Start bins of the 128 bands (the last entry only closes band 126)."""
    numbers = re.sub(r"//.*", "", _SOURCE.read_text())
    return np.array([int(n) for n in re.findall(r"\d+", numbers)])


def expansion():
    """The matrix (BINS x bands) that maps band values to gains.

    Bin j of a band of width w mixes its own band's value with the next one's by the fraction j / w;
    the mix is divided by w. The last bin belongs to no band.
    """
    start = band_start()
    matrix = np.zeros((BINS, len(start)))
    for band, (first, end) in enumerate(zip(start[:-1], start[1:])):
        width = end - first
        for j in range(width):
            matrix[first + j, band] = (1 - j / width) / width
            matrix[first + j, band + 1] = (j / width) / width
    return matrix

"""Writes the neutral model: parameters that pass the signal through as well as the gain rule allows.

    python3 -m training.make_neutral_model FILE

It denoises nothing. All weights are zero, so the network's output is the sigmoid of the head's
biases, whatever the input. The biases are chosen so that without far-end signal the gain that the
engine applies comes as close to 1 as it can in the least-squares sense, over the bins that the engine
keeps:

    minimise  sum over bins of (make_up * (expansion @ value) - 1)^2   with 0 <= value <= 1

A bin of a band of width w gets a mix of two values divided by w, and the engine multiplies by its
make-up gain. Bands of width 1 therefore reach unity, where they touch wider ones not quite; bands wider
than the make-up gain top out at make_up / w. The problem is convex with one bound per value; coordinate
descent solves it.
"""
import sys

import numpy as np

from training.bands import BINS, expansion
from training.errors import reported_briefly
from training.library import make_up
from training.model_file import TABLES, write_model

LARGEST_BIAS = 12.0  # sigmoid(12) = 1 - 6e-6


def neutral_values():
    """The band values in 0..1."""
    matrix = make_up()[:, None] * expansion()
    target = np.ones(BINS)
    value = np.full(matrix.shape[1], 1 / 3)
    power = (matrix**2).sum(axis=0)
    for _ in range(2000):
        before = value.copy()
        for band in np.flatnonzero(power):
            residual = target - matrix @ value
            value[band] = np.clip(value[band] + matrix[:, band] @ residual / power[band], 0, 1)
        if np.abs(value - before).max() < 1e-9:
            break
    return value


def neutral_model():
    """All tables of the neutral model."""
    tables = {table.name: np.zeros(table.shape, table.dtype) for table in TABLES}
    for name, values in tables.items():
        if name.endswith("_scale"):
            values[:] = 1 / 127
        if name.endswith("_gamma_var"):
            values[:] = 1
    with np.errstate(divide="ignore"):
        value = neutral_values()
        bias = np.log(value / (1 - value))
    tables["fc2_bias"][:] = np.clip(bias, -LARGEST_BIAS, LARGEST_BIAS)
    return tables


def main(arguments):
    if len(arguments) != 1:
        print("usage: make_neutral_model.py FILE", file=sys.stderr)
        return 2
    with reported_briefly():
        checksum = write_model(arguments[0], "neutral", neutral_model())
    print(f"wrote the neutral model, checksum {checksum:08x}")
    return 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))

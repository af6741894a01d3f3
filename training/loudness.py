"""Loudness over Bark bands and how much of it is disturbed, as a measure and, being differentiable, as a
part of the loss.

Power spectra are summed to half-Bark bands (Traunmueller 1990), taken to specific loudness by Zwicker's
law above the threshold in quiet (Terhardt 1979), and compared as in Martin-Donas, Gomez, Gonzalez,
Peinado (2018), "A deep learning loss function based on the perceptual evaluation of the speech quality":
the symmetric disturbance is the difference less a quarter of the quieter of the two, which it masks; the
asymmetric one counts it again where sound was added, by how much louder the band became. Departures: no
equalisation of level or spectrum, since the engine is to keep both, and formulas in place of tables."""

import numpy as np
import torch

SPEECH_LEVEL = 79.0  # dB SPL of a talker whose mean bin power is 1
STEP = 0.5  # Bark
LAW = 0.23  # Zwicker's exponent
MASKED = 0.25
ADDED = 1.2  # exponent of the ratio of powers in the asymmetric disturbance
ADDED_FROM, ADDED_TO = 3.0, 12.0  # where that factor begins to count, and its limit
ADDED_FLOOR = 50.0  # of the powers, in the unit of the threshold
LOWEST_BIN = 4  # the engine removes those below


def bark(f: np.ndarray) -> np.ndarray:
    return 26.81 * f / (1960 + f) - 0.53


def threshold(f: np.ndarray) -> np.ndarray:
    """dB SPL that a tone needs to be heard in quiet."""
    k = np.maximum(f, 20.0) / 1000
    return 3.64 * k ** -0.8 - 6.5 * np.exp(-0.6 * (k - 3.3) ** 2) + 1e-3 * k ** 4


class Disturbance:
    """Compares magnitude spectra (..., frames, bins), normalised to a mean bin power of 1 for an active
    talker."""

    def __init__(self, bins: int, sample_rate: int, device="cpu"):
        width = sample_rate / 2 / (bins - 1)
        centres = np.arange(bins) * width
        low, high = np.maximum(centres - width / 2, 0), np.minimum(centres + width / 2, sample_rate / 2)
        # A fine grid inside every bin tells how much of it lies in which band.
        grid = low[:, None] + (high - low)[:, None] * (np.arange(32) + 0.5) / 32
        first = bark(np.array(centres[LOWEST_BIN] - width / 2))
        band = np.floor((bark(grid) - first) / STEP).astype(int)
        bands = band.max() + 1
        members = np.stack([(band == b).mean(1) for b in range(bands)], 1)
        members[:LOWEST_BIN] = 0
        edges = first + STEP * np.arange(bands + 1)
        middle = 1960 * (edges[:-1] + STEP / 2 + 0.53) / (26.81 - (edges[:-1] + STEP / 2 + 0.53))
        quiet = 10 ** (threshold(middle) / 10)
        tensor = lambda a: torch.from_numpy(np.asarray(a, np.float32)).to(device)
        self.members = tensor(members * 10 ** (SPEECH_LEVEL / 10) / bins)
        self.quiet = tensor(quiet)
        # Loudness of a band, relative to that of a level of 40 dB over all of them at 1 kHz.
        self.scale = tensor((quiet / 0.5) ** LAW / len(quiet) ** 0.5)

    def powers(self, magnitudes: torch.Tensor) -> torch.Tensor:
        return magnitudes.square() @ self.members

    def loudness(self, powers: torch.Tensor) -> torch.Tensor:
        above = (0.5 + 0.5 * powers / self.quiet).clamp_min(1.0)
        return self.scale * (above ** LAW - 1)

    def __call__(self, estimate: torch.Tensor, target: torch.Tensor):
        """Symmetric and asymmetric disturbance, (..., frames) each: root of the sum of squares, and sum
        over the root of the number of bands."""
        p, q = self.powers(estimate), self.powers(target)
        s, t = self.loudness(p), self.loudness(q)
        masked = MASKED * torch.minimum(s, t)
        apart = ((s - t).abs() - masked).clamp_min(0)
        added = (((p + ADDED_FLOOR) / (q + ADDED_FLOOR)) ** ADDED).clamp_max(ADDED_TO)
        added = torch.where(added < ADDED_FROM, torch.zeros_like(added), added)
        symmetric = torch.sqrt(apart.square().sum(-1) + 1e-8)
        return symmetric, (apart * added).sum(-1) / len(self.quiet) ** 0.5

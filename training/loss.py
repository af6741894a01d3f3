"""The training loss, taken on the spectrum after the pipeline's gain rule.

Per bin: compressed magnitude error, compressed complex error, and extra weight where speech was
attenuated (Ephrat et al. 2018; Braun and Tashev 2020 compare such losses). Since the applied gain is
real, |Y| and the angle between microphone and target are all that is needed. Per window: the
signal-to-error ratio in dB, and the correlation of third-octave envelopes that intelligibility
measures rest on (Taal et al. 2011). Where nobody talks: the gain itself, so that attenuation goes on
growing after the error has become inaudible.
"""

import dataclasses

import numpy as np
import torch

from training.gain_rule import GainRule
from training.library import SHAPE


@dataclasses.dataclass
class Weights:
    magnitude: float = 0.5
    complex: float = 0.5
    attenuated: float = 1.0  # extra on magnitude errors that take speech away
    ratio: float = 0.01  # per dB
    envelope: float = 0.3
    silence: float = 0.05


EXPONENT = 0.3
FLOOR = 2e-3  # of the gain, keeps the compressed gain's slope finite
SEGMENT = 38  # frames of an envelope segment, 384 ms


def bin_weights() -> np.ndarray:
    """1 up to 3 kHz, then falling as the bands of hearing widen."""
    f = np.arange(SHAPE.bins) * (SHAPE.sample_rate / SHAPE.frame)
    weights = np.minimum(1.0, 3000 / np.maximum(f, 1.0))
    weights[:4] = 0.0
    return (weights / weights.sum()).astype(np.float32)


def third_octaves() -> np.ndarray:
    """(bins, 15): which bins belong to the third-octave bands from 150 Hz up."""
    f = np.arange(SHAPE.bins) * (SHAPE.sample_rate / SHAPE.frame)
    centres = 150.0 * 2 ** (np.arange(15) / 3)
    low, high = centres * 2 ** (-1 / 6), centres * 2 ** (1 / 6)
    return ((f[:, None] >= low) & (f[:, None] < high)).astype(np.float32)


class Loss:
    def __init__(self, weights: Weights | None = None, device="cpu"):
        self.weights = weights or Weights()
        self.rule = GainRule(device)
        self.bins = torch.from_numpy(bin_weights()).to(device)
        self.octaves = torch.from_numpy(third_octaves()).to(device)

    def __call__(self, values, mixture, target, cosine, far_end):
        """values (B, T, bands); mixture, target (B, T, bins) magnitudes, normalised per scene;
        cosine (B, T, bins) of the angle between them; far_end (B, T) -> loss, parts by name."""
        w = self.weights
        gain = self.rule.applied(self.rule.raw(values), far_end)
        wanted = target * self.rule.ceiling(far_end)
        compressed_gain = (gain * gain + FLOOR ** 2) ** (EXPONENT / 2)
        y = mixture ** EXPONENT * compressed_gain
        s = wanted ** EXPONENT
        error = s - y
        squared = error * error
        missing = torch.relu(error) ** 2
        # |y e^ia - s e^ib|^2 = (y - s)^2 + 2 y s (1 - cos)
        complex_error = squared + 2 * y * s * (1 - cosine)
        per_bin = (w.magnitude * squared + w.complex * complex_error + w.attenuated * missing)
        spectral = (per_bin @ self.bins).mean()

        talk = wanted.square().mean(-1)  # (B, T)
        present = talk > 1e-5
        enhanced = mixture * gain
        noise_power = (enhanced.square() + wanted.square() -
                       2 * enhanced * wanted * cosine).sum((1, 2))
        talk_power = wanted.square().sum((1, 2))
        talking = talk_power > 1e-2 * wanted[0].numel()
        ratio = 10 * torch.log10(noise_power / (talk_power + 1e-3) + 3e-3)
        ratio = (ratio * talking).sum() / len(ratio)

        envelope = self._envelope_loss(enhanced, target, talking)
        silent = (compressed_gain @ self.bins * ~present).mean()
        parts = {"spectral": spectral, "ratio": ratio, "envelope": envelope, "silence": silent}
        total = spectral + w.ratio * ratio + w.envelope * envelope + w.silence * silent
        return total, parts

    def _envelope_loss(self, enhanced, target, talking):
        """1 - mean correlation of third-octave envelopes over segments of 384 ms."""
        x = torch.sqrt(enhanced.square() @ self.octaves + 1e-4)
        s = torch.sqrt(target.square() @ self.octaves + 1e-4)
        x, s = (e.unfold(1, SEGMENT, SEGMENT // 2) for e in (x, s))  # (B, n, bands, SEGMENT)
        weight = (s.square().mean(-1) > 3e-3).float() * talking[:, None, None]
        x, s = (e - e.mean(-1, keepdim=True) for e in (x, s))
        correlation = (x * s).sum(-1) / torch.sqrt(x.square().sum(-1) * s.square().sum(-1) + 1e-6)
        return ((1 - correlation) * weight).sum() / weight.numel()

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
    attenuated: float = 4.0  # extra on magnitude errors that take speech away
    ratio: float = 0.035  # per dB
    envelope: float = 1.8
    silence: float = 0.1


EXPONENT = 0.3
FLOOR = 2e-3  # of the gain, keeps the compressed gain's slope finite
AUDIBLE = 1e-5  # power of a third octave, against 1 for the mean bin of a talker
HOLDS_SPEECH = 0.1 ** EXPONENT  # of the mixture, for a bin that the far-end gate should not close
SEGMENT = 38  # frames of an envelope segment, 380 ms


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


class _SpectralError(torch.autograd.Function):
    """Weighted error of the compressed spectra as a function of the applied gain.

    The derivative is formed along with the value, in place: training on small machines spends its
    time moving these arrays through memory."""

    @staticmethod
    def forward(ctx, gain, mixture, wanted, cosine, bins, w):
        """gain and cosine (B, T, bins); mixture and wanted compressed magnitudes; bins (bins,)."""
        squared = torch.mul(gain, gain).add_(FLOOR ** 2)
        y = squared.pow(EXPONENT / 2).mul_(mixture)
        error = wanted - y
        turned = (1 - cosine).mul_(wanted)  # y * turned = half of |Y - S|^2 - (|Y| - |S|)^2
        per_bin = error.square().mul_(w.magnitude + w.complex)
        per_bin.addcmul_(y, turned, value=2 * w.complex)
        slope = turned.mul_(2 * w.complex).add_(error, alpha=-2 * (w.magnitude + w.complex))
        missing = error.clamp_min_(0)
        per_bin.addcmul_(missing, missing, value=w.attenuated)
        slope.add_(missing, alpha=-2 * w.attenuated)
        # d y / d gain = EXPONENT * gain * y / (gain^2 + floor^2)
        slope.mul_(y).mul_(gain).div_(squared).mul_(bins * (EXPONENT / gain[..., 0].numel()))
        ctx.save_for_backward(slope)
        return (per_bin @ bins).mean()

    @staticmethod
    def backward(ctx, grad):
        return ctx.saved_tensors[0] * grad, None, None, None, None, None


class Loss:
    def __init__(self, weights: Weights | None = None, device="cpu"):
        self.weights = weights or Weights()
        self.rule = GainRule(device)
        self.bins = torch.from_numpy(bin_weights()).to(device)
        self.octaves = torch.from_numpy(third_octaves()).to(device)

    def __call__(self, values, mixture, target, cosine, far_end):
        """values (B, T, bands); mixture, target (B, T, bins) compressed magnitudes, normalised per
        scene; cosine (B, T, bins) of the angle between them; far_end (B, T) -> loss, parts."""
        w = self.weights
        gain = self.rule.applied(self.rule.raw(values), far_end, target > HOLDS_SPEECH * mixture)
        wanted = target * self.rule.ceiling(far_end) ** EXPONENT
        spectral = _SpectralError.apply(gain, mixture, wanted, cosine, self.bins, w)

        with torch.no_grad():
            full = target ** (1 / EXPONENT)
            aim = full * self.rule.ceiling(far_end)
            loud = mixture ** (1 / EXPONENT)
            present = aim.square().mean(-1) > 1e-5  # (B, T)
            talk_power = aim.square().sum((1, 2))
            talking = talk_power > 1e-2 * aim[0].numel()
            towards = aim * cosine * 2
        enhanced = loud * gain
        noise_power = (enhanced * (enhanced - towards)).sum((1, 2)) + talk_power
        ratio = 10 * torch.log10(noise_power.clamp_min(0) / (talk_power + 1e-3) + 3e-3)
        ratio = (ratio * talking).sum() / len(ratio)
        envelope = self._envelope_loss(enhanced, full, talking)
        silent = (torch.sqrt(gain @ self.bins + 1e-3) * ~present).mean()
        parts = {"spectral": spectral, "ratio": ratio, "envelope": envelope, "silence": silent}
        total = spectral + w.ratio * ratio + w.envelope * envelope + w.silence * silent
        return total, parts

    def _envelope_loss(self, enhanced, target, talking):
        """1 - mean correlation of third-octave envelopes over segments of 380 ms."""
        x = torch.sqrt(enhanced.square() @ self.octaves + AUDIBLE)
        s = torch.sqrt(target.square() @ self.octaves + AUDIBLE)
        x, s = (e.unfold(1, SEGMENT, SEGMENT // 2) for e in (x, s))  # (B, n, bands, SEGMENT)
        weight = (s.square().mean(-1) > 10 * AUDIBLE).float() * talking[:, None, None]
        x, s = (e - e.mean(-1, keepdim=True) for e in (x, s))
        correlation = (x * s).sum(-1) / torch.sqrt(
            (x.square().sum(-1) + AUDIBLE) * (s.square().sum(-1) + AUDIBLE))
        return ((1 - correlation) * weight).sum() / weight.numel()

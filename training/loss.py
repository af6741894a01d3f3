"""The training loss, taken on the spectrum after the pipeline's gain rule.

Per bin: compressed magnitude error, compressed complex error, and extra weight where speech was
attenuated (Ephrat et al. 2018; Braun and Tashev 2020 compare such losses). Since the applied gain is
real, |Y| and the angle between microphone and target are all that is needed. Per window: the
signal-to-error ratio in dB, the correlation of third-octave envelopes that intelligibility
measures rest on (Taal et al. 2011), and the disturbance of loudness that quality rests on. Where
nobody talks: the gain itself, so that attenuation goes on growing after the error has become inaudible.
"""

import dataclasses
from typing import NamedTuple

import numpy as np
import torch

from training import accelerate
from training.gain_rule import LEAK, GainRule
from training.library import RULE, SHAPE
from training.loudness import Disturbance
from training.quick_loss import QuickLoss


@dataclasses.dataclass
class Weights:
    magnitude: float = 0.5
    complex: float = 0.5
    attenuated: float = 4.0  # extra on magnitude errors that take speech away
    ratio: float = 0.035  # per dB
    envelope: float = 1.8
    silence: float = 0.1
    loudness: float = 0.0  # disturbance of loudness over Bark bands (training/loudness.py), symmetric
    added: float = 0.0  # the asymmetric one, of what was added
    taken: float = 0.0  # further weight like `attenuated` in windows with more noise than speech
    leak: float = LEAK  # of the far-end gate


EXPONENT = 0.3
FLOOR = 2e-3  # of the gain, keeps the compressed gain's slope finite
AUDIBLE = 1e-5  # power of a third octave, against 1 for the mean bin of a talker
HOLDS_SPEECH = 0.1 ** EXPONENT  # of the mixture, for a bin that the far-end gate should not close
SEGMENT = 38  # frames of an envelope segment, 380 ms


def bin_weights() -> np.ndarray:
    """1 up to 3 kHz, then falling as the bands of hearing widen."""
    f = np.arange(SHAPE.bins) * (SHAPE.sample_rate / SHAPE.frame)
    weights = np.minimum(1.0, 3000 / np.maximum(f, 1.0))
    weights[:RULE.first_kept_bin] = 0.0
    return (weights / weights.sum()).astype(np.float32)


def third_octaves() -> np.ndarray:
    """(bins, 15): which bins belong to the third-octave bands from 150 Hz up."""
    f = np.arange(SHAPE.bins) * (SHAPE.sample_rate / SHAPE.frame)
    centres = 150.0 * 2 ** (np.arange(15) / 3)
    low, high = centres * 2 ** (-1 / 6), centres * 2 ** (1 / 6)
    return ((f[:, None] >= low) & (f[:, None] < high)).astype(np.float32)


class _SpectralError(torch.autograd.Function):
    """Weighted error of each frame's compressed spectra (B, T) as a function of the applied gain.

    The derivative is formed along with the value, in place: training on small machines spends its
    time moving these arrays through memory."""

    @staticmethod
    def forward(ctx, gain, mixture, wanted, cosine, bins, w, attenuated):
        """gain and cosine (B, T, bins); mixture and wanted compressed magnitudes; bins (bins,);
        attenuated (B, 1, 1), the weight of speech that is taken away."""
        squared = torch.mul(gain, gain).add_(FLOOR ** 2)
        y = squared.pow(EXPONENT / 2).mul_(mixture)
        error = wanted - y
        turned = (1 - cosine).mul_(wanted)  # y * turned = half of |Y - S|^2 - (|Y| - |S|)^2
        per_bin = error.square().mul_(w.magnitude + w.complex)
        per_bin.addcmul_(y, turned, value=2 * w.complex)
        slope = turned.mul_(2 * w.complex).add_(error, alpha=-2 * (w.magnitude + w.complex))
        missing = error.clamp_min_(0)
        weighted = missing * attenuated
        per_bin.addcmul_(missing, weighted)
        slope.add_(weighted, alpha=-2)
        # d y / d gain = EXPONENT * gain * y / (gain^2 + floor^2)
        slope.mul_(y).mul_(gain).div_(squared).mul_(bins * EXPONENT)
        ctx.save_for_backward(slope)
        return per_bin @ bins

    @staticmethod
    def backward(ctx, grad):
        return ctx.saved_tensors[0] * grad.unsqueeze(-1), None, None, None, None, None, None


class Aims(NamedTuple):
    """What the parts of the loss need of a window whatever the gain is."""

    loud: torch.Tensor  # (B, T, bins) magnitude of the mixture
    full: torch.Tensor  # (B, T, bins) magnitude of the target
    towards: torch.Tensor  # (B, T, bins) twice the aim's component along the mixture
    aimed: torch.Tensor  # (B, T) power of the aim: the target as far as the gain rule can reach it
    noise: torch.Tensor  # (B, T) power of the mixture's difference from the aim, less `aimed`
    octaves: torch.Tensor  # (B, T, 15) power of the target


class Sums(NamedTuple):
    """What they need of it after the gain."""

    spectral: torch.Tensor  # (B, T) weighted error of the compressed spectra
    error: torch.Tensor  # (B, T) power of the difference from the aim, less `aimed`
    openness: torch.Tensor  # (B, T) weighted gain
    octaves: torch.Tensor  # (B, T, 15) power


class Loss:
    def __init__(self, weights: Weights | None = None, device="cpu", path: str | None = None):
        """`path` of accelerate.py, by default its choice."""
        self.weights = weights or Weights()
        self.rule = GainRule(device, self.weights.leak)
        self.disturbance = Disturbance(SHAPE.bins, SHAPE.sample_rate, device)
        self.bins = torch.from_numpy(bin_weights()).to(device)
        self.octaves = torch.from_numpy(third_octaves()).to(device)
        path = accelerate.vector_path(path or accelerate.choose_path())
        self.over_bins = self  # whose gain(), aims() and sums() are taken
        if torch.device(device).type == "cpu" and path != "plain":
            self.over_bins = QuickLoss(path, self.rule, self.weights, self.bins, self.octaves,
                                       EXPONENT, FLOOR, HOLDS_SPEECH)

    def __call__(self, values, mixture, target, cosine, far_end):
        """values (B, T, bands); mixture, target (B, T, bins) compressed magnitudes, normalised per
        scene; cosine (B, T, bins) of the angle between them; far_end (B, T) -> loss, parts."""
        w = self.weights
        gain = self.over_bins.gain(values, mixture, target, far_end)
        with torch.no_grad():
            aims = Aims(*self.over_bins.aims(mixture, target, cosine, far_end))
            present = aims.aimed > 1e-5 * mixture.shape[-1]
            talk_power = aims.aimed.sum(1)
            talking = talk_power > 1e-2 * mixture[0].numel()
            noisy = talking & (aims.noise.sum(1) > 0)  # more noise than speech
            attenuated = w.attenuated + w.taken * noisy
        sums = Sums(*self.over_bins.sums(gain, mixture, target, cosine, far_end, aims, attenuated))
        noise_power = sums.error.sum(1) + talk_power
        ratio = 10 * torch.log10(noise_power.clamp_min(0) / (talk_power + 1e-3) + 3e-3)
        parts = {"spectral": sums.spectral.mean(), "ratio": (ratio * talking).sum() / len(ratio),
                 "envelope": self._envelope_loss(sums.octaves, aims.octaves, talking),
                 "silence": (torch.sqrt(sums.openness + 1e-3) * ~present).mean()}
        if w.loudness or w.added:
            disturbed = self.disturbance(aims.loud * gain, aims.full)
            parts |= {"loudness": disturbed[0].mean(), "added": disturbed[1].mean()}
        total = sum(getattr(w, name, 1.0) * part for name, part in parts.items())
        return total, parts

    def gain(self, values, mixture, target, far_end):
        """The applied gains (B, T, bins)."""
        return self.rule.applied(self.rule.raw(values), far_end, target > HOLDS_SPEECH * mixture)

    def aims(self, mixture, target, cosine, far_end) -> Aims:
        loud, full = mixture ** (1 / EXPONENT), target ** (1 / EXPONENT)
        aim = full * self.rule.ceiling(far_end)
        towards = 2 * aim * cosine
        return Aims(loud, full, towards, aim.square().sum(-1), (loud * (loud - towards)).sum(-1),
                    full.square() @ self.octaves)

    def sums(self, gain, mixture, target, cosine, far_end, aims, attenuated) -> Sums:
        """`attenuated` (B,): the weight of speech that is taken away."""
        wanted = target * self.rule.ceiling(far_end) ** EXPONENT
        spectral = _SpectralError.apply(gain, mixture, wanted, cosine, self.bins, self.weights,
                                        attenuated[:, None, None])
        enhanced = aims.loud * gain
        return Sums(spectral, (enhanced * (enhanced - aims.towards)).sum(-1), gain @ self.bins,
                    enhanced.square() @ self.octaves)

    @staticmethod
    def _envelope_loss(octaves, target_octaves, talking):
        """1 - mean correlation of third-octave envelopes over segments of 380 ms."""
        x, s = torch.sqrt(octaves + AUDIBLE), torch.sqrt(target_octaves + AUDIBLE)
        x, s = (e.unfold(1, SEGMENT, SEGMENT // 2) for e in (x, s))  # (B, n, bands, SEGMENT)
        weight = (s.square().mean(-1) > 10 * AUDIBLE).float() * talking[:, None, None]
        x, s = (e - e.mean(-1, keepdim=True) for e in (x, s))
        correlation = (x * s).sum(-1) / torch.sqrt(
            (x.square().sum(-1) + AUDIBLE) * (s.square().sum(-1) + AUDIBLE))
        return ((1 - correlation) * weight).sum() / weight.numel()

"""Scores of enhanced speech. Signals are float arrays at 16 kHz, aligned and equally long."""

import numpy as np
import scipy.fft
import scipy.signal
import torch

from training import library
from training.library import SHAPE
from training.loudness import LOWEST_BIN, Disturbance

DISTURBANCE = Disturbance(SHAPE.bins, SHAPE.sample_rate)


def decibels(ratio: float) -> float:
    return float(10 * np.log10(max(ratio, 1e-12)))


def si_sdr(estimate: np.ndarray, target: np.ndarray) -> float:
    """Scale-invariant signal-to-distortion ratio in dB (Le Roux et al. 2019)."""
    target = target.astype(np.float64)
    estimate = estimate.astype(np.float64)
    scaled = target * (np.dot(estimate, target) / (np.dot(target, target) + 1e-12))
    return decibels(np.sum(scaled ** 2) / (np.sum((estimate - scaled) ** 2) + 1e-12))


def reachable(target: np.ndarray, ceiling: np.ndarray) -> np.ndarray:
    """The target through analysis, the highest gain per bin that the rule permits, and synthesis;
    aligned with the target. `ceiling` is (bins,)."""
    delay = SHAPE.frame - SHAPE.hop
    padded = np.concatenate([target, np.zeros(-(-delay // SHAPE.hop) * SHAPE.hop + SHAPE.hop)])
    spectra = library.analyse(padded)
    return library.synthesise(spectra * ceiling)[delay:delay + len(target)]


def without_bass(signal: np.ndarray) -> np.ndarray:
    """The signal without the bins that the engine removes by design, those below 125 Hz."""
    return reachable(signal, (np.arange(SHAPE.bins) >= LOWEST_BIN).astype(np.float32))


def intelligibility(enhanced: np.ndarray, clean: np.ndarray) -> tuple[float, float]:
    """STOI (Taal, Hendriks, Heusdens, Jensen 2011) and ESTOI (Jensen, Taal 2016). Their lowest band begins
    at 133 Hz."""
    rate, frame, fft, bands, segment, floor_db = 10000, 256, 512, 15, 30, 40
    clean = scipy.signal.resample_poly(clean, rate, SHAPE.sample_rate).astype(np.float64)
    enhanced = scipy.signal.resample_poly(enhanced, rate, SHAPE.sample_rate).astype(np.float64)
    window = np.hanning(frame + 2)[1:-1]
    x, y = (np.lib.stride_tricks.sliding_window_view(s, frame)[::frame // 2] * window
            for s in (clean, enhanced))
    energy = 20 * np.log10(np.linalg.norm(x, axis=1) + 1e-12)
    loud = energy > energy.max() - floor_db

    def rebuilt(frames):
        out = np.zeros((len(frames) + 1, frame // 2))
        out[:-1] += frames[:, :frame // 2]
        out[1:] += frames[:, frame // 2:]
        return out.reshape(-1)

    frequencies = np.arange(fft // 2 + 1) * rate / fft
    centres = 150.0 * 2.0 ** (np.arange(bands) / 3)
    nearest = lambda f: np.argmin((frequencies - f) ** 2)
    matrix = np.zeros((fft // 2 + 1, bands))
    for i, c in enumerate(centres):
        matrix[nearest(c * 2 ** (-1 / 6)):nearest(c * 2 ** (1 / 6)), i] = 1

    def envelopes(frames):
        s = rebuilt(frames)
        pieces = np.lib.stride_tricks.sliding_window_view(s, frame)[::frame // 2] * window
        return np.sqrt(np.abs(np.fft.rfft(pieces, fft)) ** 2 @ matrix)

    x, y = envelopes(x[loud]), envelopes(y[loud])
    if len(x) < segment:
        return float("nan"), float("nan")
    x, y = (np.lib.stride_tricks.sliding_window_view(e, segment, axis=0) for e in (x, y))

    def unit(e, axis):
        e = e - e.mean(axis, keepdims=True)
        return e / (np.linalg.norm(e, axis=axis, keepdims=True) + 1e-12)

    scaled = y * (np.linalg.norm(x, axis=-1, keepdims=True) /
                  (np.linalg.norm(y, axis=-1, keepdims=True) + 1e-12))
    limited = np.minimum(scaled, x * (1 + 10 ** (15 / 20)))
    rows = [unit(e, -1) for e in (x, y)]
    return (float((unit(x, -1) * unit(limited, -1)).sum(-1).mean()),
            float((unit(rows[0], 1) * unit(rows[1], 1)).sum(1).mean()))


def stoi(enhanced: np.ndarray, clean: np.ndarray) -> float:
    return intelligibility(enhanced, clean)[0]


def _frames(signal: np.ndarray) -> np.ndarray:
    return np.lib.stride_tricks.sliding_window_view(signal, SHAPE.frame)[::SHAPE.frame // 2]


def active_frames(clean: np.ndarray) -> np.ndarray:
    """Which frames of `_frames` carry speech: within 35 dB of the loudest 5 percent."""
    power = np.mean(_frames(clean).astype(np.float64) ** 2, 1)
    return power > np.quantile(power, 0.95) * 10 ** -3.5


def segmental_snr(enhanced: np.ndarray, clean: np.ndarray) -> float:
    """Mean over active frames of the frame's SNR, limited to -10..35 dB (Hansen, Pellom 1998)."""
    active = active_frames(clean)
    c, e = _frames(clean)[active], _frames(enhanced)[active]
    snr = 10 * np.log10((np.sum(c ** 2, 1) + 1e-12) / (np.sum((c - e) ** 2, 1) + 1e-12))
    return float(np.clip(snr, -10, 35).mean())


def weighted_segmental_snr(enhanced: np.ndarray, clean: np.ndarray) -> float:
    """Frequency-weighted segmental SNR in dB over Bark bands, weights the clean magnitude to the power of
    0.2, limited to -10..35 dB (Tribolet et al. 1978, Hu and Loizou 2008)."""
    active = active_frames(clean)
    window = np.hanning(SHAPE.frame)
    members = DISTURBANCE.members.numpy() > 0
    c, e = (np.abs(np.fft.rfft(_frames(s)[active] * window)) @ members for s in (clean, enhanced))
    snr = 20 * np.log10((c + 1e-9) / (np.abs(c - e) + 1e-9))
    weights = c ** 0.2
    return float(((np.clip(snr, -10, 35) * weights).sum(1) / (weights.sum(1) + 1e-12)).mean())


def bark_disturbance(enhanced: np.ndarray, clean: np.ndarray) -> tuple[float, float]:
    """Symmetric and asymmetric disturbance of loudness (training/loudness.py), means over all frames, both
    signals being as loud where the clean one is active."""
    active = np.repeat(active_frames(clean), SHAPE.frame // 2)
    level = lambda s: np.sqrt(np.mean(s[:len(active)][active[:len(s)]].astype(np.float64) ** 2)) + 1e-9
    spectra = [torch.from_numpy(np.abs(library.analyse(s.astype(np.float32))) / np.float32(
        level(s) * np.sqrt(0.375 * SHAPE.frame))) for s in (enhanced, clean)]
    return tuple(float(d.mean()) for d in DISTURBANCE(*spectra))


def log_spectral_distance(enhanced: np.ndarray, clean: np.ndarray) -> float:
    """Rms over bins, mean over active frames, of the level difference in dB; 50 dB range."""
    active = active_frames(clean)
    window = np.hanning(SHAPE.frame)
    c, e = (np.abs(np.fft.rfft(_frames(s)[active] * window)) ** 2 for s in (clean, enhanced))
    floor = c.max() * 1e-5
    difference = 10 * np.log10((c + floor) / (e + floor))
    return float(np.sqrt(np.mean(difference ** 2, 1)).mean())


BANDS_HZ = ((125, 500), (500, 1000), (1000, 2000), (2000, 4000), (4000, 8000), (125, 5000))


def attenuation(enhanced: np.ndarray, clean: np.ndarray) -> dict[tuple[int, int], float]:
    """How much quieter active speech became, in dB per band of BANDS_HZ: the ratio of the energies
    over all active frames."""
    active = active_frames(clean)
    window = np.hanning(SHAPE.frame)
    c, e = (np.abs(np.fft.rfft(_frames(s)[active] * window)) ** 2 for s in (clean, enhanced))
    f = np.arange(c.shape[1]) * SHAPE.sample_rate / SHAPE.frame
    result = {}
    for low, high in BANDS_HZ:
        inside = (f >= low) & (f < high)
        result[low, high] = decibels(c[:, inside].sum() / (e[:, inside].sum() + 1e-12))
    return result


SILENT_DB = 60.0


def level_drop(output: np.ndarray, source: np.ndarray) -> float:
    """dB between the mean powers of two signals; counted up to 60 dB, so that a scene that became
    perfectly silent does not outweigh one that did not."""
    return min(SILENT_DB, decibels(np.mean(source.astype(np.float64) ** 2) /
                                   (np.mean(output.astype(np.float64) ** 2) + 1e-14)))

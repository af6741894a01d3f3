"""Scores of enhanced speech. Signals are float arrays at 16 kHz, aligned and equally long."""

import numpy as np
import scipy.fft
import scipy.signal

from training import library
from training.library import SHAPE


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


def stoi(enhanced: np.ndarray, clean: np.ndarray) -> float:
    """Short-time objective intelligibility (Taal, Hendriks, Heusdens, Jensen 2011)."""
    rate, frame, fft, bands, segment, floor_db = 10000, 256, 512, 15, 30, 40
    clean = scipy.signal.resample_poly(clean, rate, SHAPE.sample_rate).astype(np.float64)
    enhanced = scipy.signal.resample_poly(enhanced, rate, SHAPE.sample_rate).astype(np.float64)
    window = np.hanning(frame + 2)[1:-1]
    x, y = (np.lib.stride_tricks.sliding_window_view(s, frame)[::frame // 2] * window
            for s in (clean, enhanced))
    energy = 20 * np.log10(np.linalg.norm(x, axis=1) + 1e-12)
    loud = energy > energy.max() - floor_db

    def rebuilt(frames):
        out = np.zeros((len(frames) + 1) * frame // 2)
        for i, f in enumerate(frames):
            out[i * frame // 2:i * frame // 2 + frame] += f
        return out

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
        return float("nan")
    x, y = (np.lib.stride_tricks.sliding_window_view(e, segment, axis=0) for e in (x, y))
    y = y * (np.linalg.norm(x, axis=-1, keepdims=True) /
             (np.linalg.norm(y, axis=-1, keepdims=True) + 1e-12))
    y = np.minimum(y, x * (1 + 10 ** (15 / 20)))
    x = x - x.mean(-1, keepdims=True)
    y = y - y.mean(-1, keepdims=True)
    correlation = (x * y).sum(-1) / (np.linalg.norm(x, axis=-1) * np.linalg.norm(y, axis=-1) + 1e-12)
    return float(correlation.mean())


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

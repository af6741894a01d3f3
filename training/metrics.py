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


def _active_magnitudes(enhanced: np.ndarray, clean: np.ndarray) -> list[np.ndarray]:
    """Spectra of the active frames: of the clean signal, of the enhanced one."""
    active, window = active_frames(clean), np.hanning(SHAPE.frame)
    return [np.abs(np.fft.rfft(_frames(s)[active] * window)) for s in (clean, enhanced)]


def segmental_snr(enhanced: np.ndarray, clean: np.ndarray) -> float:
    """Mean over active frames of the frame's SNR, limited to -10..35 dB (Hansen, Pellom 1998)."""
    active = active_frames(clean)
    c, e = _frames(clean)[active], _frames(enhanced)[active]
    snr = 10 * np.log10((np.sum(c ** 2, 1) + 1e-12) / (np.sum((c - e) ** 2, 1) + 1e-12))
    return float(np.clip(snr, -10, 35).mean())


def weighted_segmental_snr(enhanced: np.ndarray, clean: np.ndarray) -> float:
    """Frequency-weighted segmental SNR in dB over Bark bands, weights the clean magnitude to the power of
    0.2, limited to -10..35 dB (Tribolet et al. 1978, Hu and Loizou 2008)."""
    members = DISTURBANCE.members.numpy() > 0
    c, e = (magnitudes @ members for magnitudes in _active_magnitudes(enhanced, clean))
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
    c, e = (magnitudes ** 2 for magnitudes in _active_magnitudes(enhanced, clean))
    floor = c.max() * 1e-5
    difference = 10 * np.log10((c + floor) / (e + floor))
    return float(np.sqrt(np.mean(difference ** 2, 1)).mean())


BANDS_HZ = ((125, 500), (500, 1000), (1000, 2000), (2000, 4000), (4000, 8000), (125, 5000))


def attenuation(enhanced: np.ndarray, clean: np.ndarray) -> dict[tuple[int, int], float]:
    """How much quieter active speech became, in dB per band of BANDS_HZ: the ratio of the energies
    over all active frames."""
    c, e = (magnitudes ** 2 for magnitudes in _active_magnitudes(enhanced, clean))
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


# --- words ---------------------------------------------------------------------------------------------

WORD_BANDS_HZ = BANDS_HZ[:4]  # those that intelligibility rests on
QUIET_WORD_DB = 25.0  # below the loudest frames: fainter islands are breath and tails
SHORTEST_WORD, LONGEST_WORD = 8, 60  # frames
CLOSURE = 5  # frames; shorter gaps are those of a plosive
LOST_DB = 12.0
BURIED_DB = 5.0


def _word_spectra(signal: np.ndarray) -> np.ndarray:
    """Spectra (frames, bins) above 125 Hz, weighted as the ear weighs low tones (6 dB an octave below 500 Hz)."""
    f = np.arange(SHAPE.bins) * SHAPE.sample_rate / SHAPE.frame
    return library.analyse(signal) * (f / np.hypot(f, 500.0)).astype(np.float32)


def _word_bins() -> list[slice]:
    step = SHAPE.sample_rate / SHAPE.frame
    return [slice(round(a / step), round(b / step)) for a, b in WORD_BANDS_HZ]


def _words(spectra: np.ndarray) -> list[slice]:
    """Frames of the words of clean speech: islands of energy; long ones are cut where they are faintest."""
    bins = _word_bins()
    energy = np.sum(np.abs(spectra[:, bins[0].start:bins[-1].stop]) ** 2, 1)
    energy = np.convolve(energy, np.full(CLOSURE, 1 / CLOSURE), "same")
    heard = energy > np.quantile(energy, 0.95) * 10 ** (-QUIET_WORD_DB / 10) + 1e-12
    edges = np.flatnonzero(np.diff(np.concatenate([[False], heard, [False]]).astype(int))).tolist()
    islands, pieces = [], []
    for begin, end in zip(edges[::2], edges[1::2]):
        if islands and begin - islands[-1][1] < CLOSURE:
            begin = islands.pop()[0]
        islands.append((begin, end))
    while islands:
        begin, end = islands.pop()
        if end - begin > LONGEST_WORD:
            inside = energy[begin + 2 * SHORTEST_WORD:end - 2 * SHORTEST_WORD]
            cut = begin + 2 * SHORTEST_WORD + int(np.argmin(inside))
            islands += [(begin, cut), (cut, end)]
        elif end - begin >= SHORTEST_WORD:
            pieces.append(slice(begin, end))
    return sorted(pieces, key=lambda piece: piece.start)


def _part_of(target: np.ndarray, output: np.ndarray) -> complex:
    """By what the target is to be multiplied to be the part of the output that goes with it."""
    return np.vdot(target, output) / (np.vdot(target, target).real + 1e-20)


def speech_gains(output: np.ndarray, clean: np.ndarray) -> np.ndarray:
    """What a processor does to the level of clean speech, a factor for each of WORD_BANDS_HZ."""
    o, c = (library.analyse(s.astype(np.float32)) for s in (output, clean))
    return np.array([np.abs(_part_of(c[:, b], o[:, b])) for b in _word_bins()])


def speech_level(output: np.ndarray, clean: np.ndarray) -> float:
    """The same over all of these bands: how many times louder a processor makes clean speech."""
    inside = slice(_word_bins()[0].start, _word_bins()[-1].stop)
    return float(np.abs(_part_of(*(_word_spectra(s.astype(np.float32))[:, inside] for s in (clean, output)))))


def missed_words(output: np.ndarray, target: np.ndarray, gains: np.ndarray | None = None
                 ) -> tuple[float, float]:
    """Shares of the target's words, 0 to 1, that a listener misses in the output: (lost, lost or buried).

    Words are islands of the target's energy of 80 to 600 ms, between 125 Hz and 4 kHz. Of the output counts
    what goes with the target: per word and band the part that correlates with it. `gains` are the processor's
    for clean speech (`speech_gains`), which are taken out, so that neither a louder output nor an equaliser
    finds or loses words. A word is lost if that part is more than 12 dB weaker than the word, next to words
    that kept their level; it is buried if what else the output holds meanwhile is 5 dB stronger than that part,
    near the level at which people understand half of what is said in steady noise. Both are needed: noise mixed
    back in finds lost words and buries others. (nan, nan) without words."""
    gains = np.ones(len(WORD_BANDS_HZ)) if gains is None else gains
    x, y = _word_spectra(target), _word_spectra(output.astype(np.float32))
    words = _words(x)
    lost = missed = 0
    for word in words:
        wanted = kept = rest = 0.0
        for gain, band in zip(gains, _word_bins()):
            t, o = x[word, band], y[word, band] / (gain + 1e-6)
            part = t * _part_of(t, o)
            wanted += np.vdot(t, t).real
            kept += np.vdot(part, part).real
            rest += np.vdot(o - part, o - part).real
        gone = kept < wanted * 10 ** (-LOST_DB / 10)
        lost += gone
        missed += gone or rest > kept * 10 ** (BURIED_DB / 10)
    return (lost / len(words), missed / len(words)) if words else (float("nan"), float("nan"))

"""Room impulse responses for two microphones: measured ones, and statistical ones.

A statistical response is a direct sound, a handful of early reflections and an exponentially decaying tail
whose coherence between the microphones is that of a diffuse field, sinc(2 f d / c) (Cook et al.
1955); Habets (2007) describes the construction. Statistical rather than image-method responses:
they cost a tenth and a network that only sees band magnitudes cannot tell them apart.
"""

import dataclasses

import numpy as np
import scipy.fft

SPEED_OF_SOUND = 343.0  # m/s
DIRECT_AT = 24  # sample of the direct sound at microphone 1: room for the fractional delays
_SINC_HALF = 12


_DIRECT_ENDS = DIRECT_AT + 40  # 2.5 ms after the direct sound of a measured response


class MeasuredRoom:
    """Responses that were measured in one room, from several places to the same microphones."""

    def __init__(self, responses: list[tuple[float, np.ndarray]]):
        """(distance in m, (channels, n) with the direct sound of the last channel at DIRECT_AT)."""
        self.responses = responses
        channels = responses[0][1].shape[0]
        self.spacing = 0.05 if channels == 2 else 0.0
        self.length = max(r.shape[1] for _, r in responses)

    def response(self, rng: np.random.Generator, sample_rate: int, distance: float) -> np.ndarray:
        """(2, length): one of the places, the reverberation as loud against the direct sound as it
        is at `distance` in the direction of that place."""
        measured, response = self.responses[rng.integers(len(self.responses))]
        late = np.float32(np.clip(distance / measured, 0.05, 2.0))
        out = np.zeros((2, self.length), np.float32)
        out[:, :response.shape[1]] = response
        ramp = np.linspace(1, late, 16, dtype=np.float32)
        out[:, _DIRECT_ENDS:_DIRECT_ENDS + 16] *= ramp
        out[:, _DIRECT_ENDS + 16:] *= late
        return out


@dataclasses.dataclass(frozen=True)
class StatisticalRoom:
    """What every source in one scene shares."""

    t60: float  # s; 0 is an anechoic room
    spacing: float  # m between the microphones; 0 for one signal on both inputs
    length: int  # samples of a response
    critical: float  # m at which direct and reverberant sound are equally loud

    @staticmethod
    def draw(rng: np.random.Generator, sample_rate: int, dry: bool = False) -> "StatisticalRoom":
        t60 = 0.0 if rng.random() < 0.12 or dry else rng.uniform(0.1, 0.7)
        spacing = 0.0 if rng.random() < 0.35 else rng.uniform(0.02, 0.15)
        return StatisticalRoom(t60, spacing, int(min(0.75 * t60, 0.45) * sample_rate) + 1024,
                               rng.uniform(0.6, 2.0))

    def response(self, rng: np.random.Generator, sample_rate: int, distance: float) -> np.ndarray:
        """(2, length) float32, unit direct sound at microphone 1."""
        ratio = np.clip(20 * np.log10(self.critical / distance), -10, 18)
        return _draw_response(rng, self, sample_rate, ratio)


def _tap(response: np.ndarray, position: float, amplitude: float) -> None:
    """Adds a windowed-sinc pulse at a fractional position."""
    centre = int(np.floor(position))
    n = np.arange(max(0, centre - _SINC_HALF + 1), min(len(response), centre + _SINC_HALF + 1))
    x = n - position
    response[n] += amplitude * np.sinc(x) * (0.5 + 0.5 * np.cos(np.pi * x / (_SINC_HALF + 1)))


def _draw_response(rng: np.random.Generator, room: StatisticalRoom, sample_rate: int,
                   direct_to_reverberant: float) -> np.ndarray:
    response = np.zeros((2, room.length))
    max_lag = room.spacing / SPEED_OF_SOUND * sample_rate
    _tap(response[1], DIRECT_AT, 1.0)
    _tap(response[0], DIRECT_AT + rng.uniform(-max_lag, max_lag), 10 ** (rng.normal(0, 0.7) / 20))
    if room.t60 > 0:
        decay = 3 * np.log(10) / (room.t60 * sample_rate)  # per sample, of the amplitude
        late = np.zeros((2, room.length))
        for _ in range(rng.integers(4, 12)):
            delay = rng.uniform(0.8e-3, 45e-3) * sample_rate
            gain = rng.choice([-1, 1]) * rng.uniform(0.3, 1.0) * np.exp(-decay * delay)
            _tap(late[1], DIRECT_AT + delay, gain)
            _tap(late[0], DIRECT_AT + delay + rng.uniform(-max_lag, max_lag), gain)
        early_energy = np.sum(late[1] ** 2) + 1e-9
        tail = _diffuse_pair(rng, room, sample_rate)
        n = np.arange(room.length - DIRECT_AT)
        build_up = 1 - np.exp(-n / (0.008 * sample_rate))
        tail[:, DIRECT_AT:] *= build_up * np.exp(-decay * n)
        tail[:, :DIRECT_AT] = 0
        tail *= np.sqrt(early_energy * rng.uniform(0.7, 3.0) / np.sum(tail[1] ** 2))
        late += tail
        late *= 10 ** (-direct_to_reverberant / 20) / np.sqrt(np.sum(late[1] ** 2))
        response += late
    if room.spacing == 0:
        response[0] = response[1]
    return response.astype(np.float32)


def _diffuse_pair(rng: np.random.Generator, room: StatisticalRoom, sample_rate: int) -> np.ndarray:
    return diffuse(rng.standard_normal((2, room.length), dtype=np.float32), room.spacing, sample_rate)


def diffuse(independent: np.ndarray, spacing: float, sample_rate: int) -> np.ndarray:
    """Two independent signals (2, n) -> two with the coherence of a diffuse field."""
    n = scipy.fft.next_fast_len(independent.shape[1], real=True)
    spectra = scipy.fft.rfft(independent, n)
    return scipy.fft.irfft(diffuse_spectra(spectra, n, spacing, sample_rate), n)[
        :, :independent.shape[1]]


def diffuse_spectra(spectra: np.ndarray, n: int, spacing: float, sample_rate: int) -> np.ndarray:
    frequency = np.arange(spectra.shape[1], dtype=np.float32) * np.float32(sample_rate / n)
    coherence = np.sinc(2 * frequency * np.float32(spacing / SPEED_OF_SOUND))
    second = coherence * spectra[0] + np.sqrt(1 - coherence ** 2) * spectra[1]
    return np.stack([second, spectra[0]])


def early_part(response: np.ndarray, sample_rate: int, milliseconds: float) -> np.ndarray:
    """Direct sound and the reflections of the first `milliseconds`, faded out over 4 ms."""
    end = DIRECT_AT + int(milliseconds * 1e-3 * sample_rate)
    fade = int(4e-3 * sample_rate)
    window = np.zeros(len(response), np.float32)
    window[:end] = 1
    ramp = 0.5 + 0.5 * np.cos(np.pi * np.arange(fade) / fade)
    window[end:end + fade] = ramp[:len(window[end:end + fade])]
    return response * window

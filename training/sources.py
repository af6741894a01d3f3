"""Sounds that scenes are mixed from: running speech of a talker, noises of a group, and what devices meet
that few recordings hold. One channel, no room; speech at an active level of about 1.0 rms, noise at
1.0 rms."""

import numpy as np
import scipy.fft
import scipy.signal

from training import material
from training.audio import Clip, Material, active_level

A_WORD = 1.2  # s; clips up to here are words, to be strung together
LITTLE = 4.0  # s; who has said less is followed by another talker of the collection


def rms(x: np.ndarray) -> float:
    return float(np.sqrt(np.mean(np.square(x)))) if x.size else 0.0


def normalised(x: np.ndarray) -> np.ndarray:
    return x * np.float32(1 / (rms(x) + 1e-9))


def decibels_to_gain(decibels) -> np.float32:
    return np.float32(10 ** (decibels / 20))


class Sources:
    """Draws from one side of the split; `vary` plays noises at other speeds and colours."""

    def __init__(self, material_: Material, rate: int, rng: np.random.Generator, vary: bool = True):
        self.material, self.rate, self.rng, self.vary = material_, rate, rng, vary
        self.talkers = list(material_.talkers)
        self.talker_probabilities = material_.talker_probabilities()
        self.groups = list(material_.noises)
        weights = np.array([material.NOISE_GROUPS.get(g, (0.02,))[0] for g in self.groups])
        self.group_probabilities = weights / weights.sum()

    # --- speech --------------------------------------------------------------------------------

    def draw_talker(self, collection: str | None = None) -> tuple[str, str]:
        """Key of `material.talkers`."""
        while True:
            talker = self.talkers[self.rng.choice(len(self.talkers), p=self.talker_probabilities)]
            if collection in (None, talker[0]):
                return talker

    def speech(self, n: int, talker: tuple[str, str] | None = None, busy: float | None = None) -> np.ndarray:
        """n samples of running speech: clips in random order, words close together, between the others
        pauses of `busy` seconds on average."""
        rng = self.rng
        talker = talker or self.draw_talker()
        pace = rng.choice([0.1, 0.5, 1.2], p=[0.5, 0.3, 0.2]) if busy is None else busy
        stretch = rng.uniform(0.87, 1.15) if rng.random() < 0.5 else 1.0
        out = np.zeros(n, np.float32)
        at = int(rng.exponential(0.5 * pace + 0.1) * self.rate)
        gain, queue, said = 1.0, [], None
        while at < n:
            if not queue:
                if said is not None and said < LITTLE * self.rate:
                    talker = self.draw_talker(talker[0])
                clips = self.material.talkers[talker]
                queue, said = [clips[i] for i in rng.permutation(len(clips))], 0
            clip = queue.pop()
            samples = self._excerpt(clip, n - at, stretch)
            said += len(samples)
            if gain == 1.0 or rng.random() < 0.3:
                gain = 10 ** (rng.normal(0, 1.5) / 20)
            out[at:at + len(samples)] = samples * np.float32(gain / clip.level)
            word = clip.ends - clip.begins < A_WORD * self.rate and rng.random() < 0.8
            pause = 0.02 + rng.exponential(0.08) if word else rng.exponential(pace)
            at += len(samples) + int(pause * self.rate)
        return out

    def _excerpt(self, clip: Clip, room: int, stretch: float) -> np.ndarray:
        """From the beginning of a clip, or from inside a long one, as much as there is room for."""
        samples = self.material.samples(clip, audible=True)
        spare = len(samples) - 3 * self.rate
        if spare > 0 and self.rng.random() < 0.5:
            samples = samples[int(self.rng.integers(spare)):]
        samples = samples[:int(room * stretch) + 1]
        if stretch != 1.0:
            samples = self.stretched(samples, stretch)
        samples = samples[:room].astype(np.float32)
        fade = min(160, len(samples) // 2)
        if fade:
            ramp = np.linspace(0, 1, fade, dtype=np.float32)
            samples[:fade] *= ramp
            samples[-fade:] *= ramp[::-1]
        return samples

    def whispered(self, speech: np.ndarray) -> np.ndarray:
        """The same words without a voice: noise with the envelope of the speech."""
        size, hop = 512, 256
        padded = np.pad(speech, (hop, size + hop - len(speech) % hop))
        window = np.sin(np.pi * (np.arange(size) + 0.5) / size).astype(np.float32)
        frames = np.lib.stride_tricks.sliding_window_view(padded, size)[::hop] * window
        power = np.abs(scipy.fft.rfft(frames)) ** 2
        smooth = np.cumsum(np.pad(power, ((0, 0), (6, 4))), 1)
        envelope = np.sqrt(np.maximum(smooth[:, 10:] - smooth[:, :-10], 0) / 10)
        f = np.arange(envelope.shape[1]) * np.float32(self.rate / size)
        breath = scipy.fft.rfft(self.rng.standard_normal(frames.shape, dtype=np.float32) * window)
        frames = scipy.fft.irfft(breath * envelope * (f / np.sqrt(f ** 2 + 600.0 ** 2))) * window
        out = np.zeros((len(frames) + 1) * hop, np.float32)
        out[:-hop] += frames[:, :hop].reshape(-1)
        out[hop:] += frames[:, hop:].reshape(-1)
        out = out[hop:hop + len(speech)]
        return out * np.float32(1 / (active_level(out, self.rate) + 1e-9))

    def shouted(self, speech: np.ndarray) -> np.ndarray:
        """The same words with the spectrum of a raised voice, a little compressed."""
        spectrum = scipy.fft.rfft(speech)
        f = np.linspace(0, self.rate / 2, len(spectrum), dtype=np.float32)
        tilt = np.clip(f / 500, 0.3, 6.0) ** np.float32(self.rng.uniform(0.3, 0.7))
        out = np.tanh(scipy.fft.irfft(spectrum * tilt, len(speech)).astype(np.float32))
        return out * np.float32(1 / (active_level(out, self.rate) + 1e-9))

    # --- noise ---------------------------------------------------------------------------------

    def draw_noise(self, group: str | None = None) -> Clip:
        """A clip of a group, else by the weights of the groups: a first word of names, then a clip."""
        rng = self.rng
        if group not in self.material.noises:
            group = self.groups[rng.choice(len(self.groups), p=self.group_probabilities)]
        kinds = list(self.material.noises[group].values())
        share = np.array([sum(c.length for c in kind) for kind in kinds]) ** 0.5
        kind = kinds[rng.choice(len(kinds), p=share / share.sum())]
        return kind[rng.integers(len(kind))]

    def real_noise(self, n: int, clip: Clip | None = None) -> np.ndarray:
        """One of the noises; in training most often at another speed and colour, sometimes backwards."""
        rng = self.rng
        samples = self.material.samples(clip or self.draw_noise())
        stretch = rng.uniform(0.7, 1.4) if self.vary and rng.random() < 0.7 else 1.0
        length = int(n * stretch)
        start = rng.integers(max(1, len(samples) - length))
        out = samples[start:start + length].astype(np.float32)
        if stretch != 1.0:
            out = self.stretched(out, stretch, spread=10.0)
            if rng.random() < 0.4:
                out = out[::-1]
        pause = int(rng.uniform(0, 2) * self.rate) if len(samples) < 2 * self.rate else 0
        fade = min(self.rate // 20, len(out) // 3, len(samples) // 3)
        ramp = np.linspace(0, 1, fade, dtype=np.float32)
        while len(out) < n:  # a short one repeats, overlapping itself, an event after a pause
            if pause:
                out = np.concatenate([out, np.zeros(int(rng.uniform(0, pause)) + 1, np.float32), samples])
            else:
                joint = out[-fade:] * (1 - ramp) + samples[:fade] * ramp
                out = np.concatenate([out[:-fade], joint, samples[fade:]])
        return normalised(out[:n])

    def synthetic_noise(self, n: int) -> np.ndarray:
        """Coloured noise, steady, modulated or in bursts, with or without hum."""
        rng = self.rng
        out = rng.standard_normal(n, dtype=np.float32)
        spectrum = scipy.fft.rfft(out, scipy.fft.next_fast_len(n, real=True))
        tilt = rng.uniform(-1.0, 0.2)  # of the amplitude over frequency, as an exponent
        f = np.arange(len(spectrum), dtype=np.float32) * (self.rate / 2 / len(spectrum))
        shape = np.maximum(f, 40.0) ** np.float32(tilt) * self.equaliser(f, 8.0)
        out = normalised(scipy.fft.irfft(spectrum * shape)[:n].astype(np.float32))
        t = np.arange(n, dtype=np.float32) / self.rate
        if rng.random() < 0.4:
            rate, depth = rng.uniform(0.3, 8), rng.uniform(0.3, 1.0)
            out *= 1 + np.float32(depth) * np.sin(2 * np.pi * np.float32(rate) * t + rng.uniform(0, 6))
        elif rng.random() < 0.4:  # strikes and rustles, at random or in a beat
            period, decay = rng.uniform(0.08, 1.5), rng.uniform(0.004, 0.2)
            gaps = rng.exponential(period, n) if rng.random() < 0.6 else np.full(n, period)
            times = (np.cumsum(gaps) * self.rate).astype(int)
            strikes = np.zeros(n, np.float32)
            strikes[times[times < n]] = rng.uniform(0.2, 1.0, np.count_nonzero(times < n))
            fall = np.exp(-1 / (decay * self.rate))
            out *= scipy.signal.lfilter([1.0], [1.0, -fall], strikes).astype(np.float32) + np.float32(
                rng.choice([0.0, 0.02, 0.1]))
        if rng.random() < 0.3:
            mains = rng.choice([50.0, 60.0, rng.uniform(80, 400)])
            hum = np.zeros(n, np.float32)
            for k in range(1, rng.integers(2, 12)):
                if k * mains < 0.45 * self.rate:
                    phase = np.float32(2 * np.pi * k * mains) * t + np.float32(rng.uniform(0, 6))
                    hum += np.float32(rng.uniform(0.1, 1) / k ** rng.uniform(0.3, 1.2)) * np.sin(phase)
            out += normalised(hum) * np.float32(10 ** (rng.uniform(-10, 10) / 20))
        return normalised(out)

    def babble(self, n: int) -> np.ndarray:
        return normalised(sum(self.speech(n, busy=0.2) * np.float32(self.rng.uniform(0.4, 1.0))
                              for _ in range(self.rng.integers(3, 7))))

    def voices_behind(self, n: int) -> np.ndarray:
        """One or two people who talk to somebody else."""
        return normalised(sum(self.speech(n) for _ in range(self.rng.integers(1, 3))))

    def cafe(self, n: int) -> np.ndarray:
        """People, crockery and the room's own noise."""
        rng = self.rng
        crockery = self.real_noise(n, self.draw_noise("handling")) * np.float32(rng.uniform(0.2, 0.8))
        room = self.real_noise(n, self.draw_noise("people")) * np.float32(rng.uniform(0.3, 1.0))
        return normalised(self.babble(n) + crockery + room)

    def television(self, n: int) -> np.ndarray:
        """Speech over other sounds from a small loudspeaker, compressed as broadcasts are."""
        rng = self.rng
        mix = self.speech(n, busy=0.3) + self.real_noise(n) * np.float32(rng.uniform(0, 0.6))
        spectrum = scipy.fft.rfft(np.tanh(mix))
        f = np.linspace(0, self.rate / 2, len(spectrum), dtype=np.float32)
        shape = f / np.sqrt(f ** 2 + np.float32(rng.uniform(80, 300)) ** 2) * self.device(f)
        return normalised(scipy.fft.irfft(spectrum * shape, n).astype(np.float32))

    def handling_noise(self, n: int) -> np.ndarray:
        """The device is touched: thumps through the case and rubbing."""
        rng = self.rng
        out = np.zeros(n + self.rate, np.float32)
        at = 0
        while at < n:
            seconds = rng.uniform(0.05, 0.2) if rng.random() < 0.6 else rng.uniform(0.15, 0.9)
            t = np.arange(int(seconds * self.rate), dtype=np.float32) / self.rate
            if seconds < 0.2:
                event = np.sin(2 * np.pi * np.float32(rng.uniform(40, 250)) * t + rng.uniform(0, 6))
                event += rng.standard_normal(len(t)) * np.exp(-t / 0.002) * rng.uniform(0, 0.5)
                event *= np.exp(-t / np.float32(rng.uniform(0.008, 0.05)))
            else:
                spectrum = scipy.fft.rfft(rng.standard_normal(len(t), dtype=np.float32))
                f = np.linspace(0, self.rate / 2, len(spectrum), dtype=np.float32)
                spectrum[0] = 0
                spectrum[1:] /= ((1 + (f / np.float32(rng.uniform(200, 2500))) ** 2)[1:] /
                                 (f[1:] / (f[1:] + 60)))
                event = scipy.fft.irfft(spectrum, len(t)) * np.sin(np.pi * t / seconds)
                event = normalised(event * (1 + np.sin(2 * np.pi * rng.uniform(3, 25) * t))) * 0.3
            out[at:at + len(t)] += event.astype(np.float32) * decibels_to_gain(rng.uniform(-15, 0))
            at += int(rng.exponential(0.5) * self.rate) + 400
        return normalised(out[:n])

    # --- colour --------------------------------------------------------------------------------

    def equaliser(self, f: np.ndarray, spread: float) -> np.ndarray:
        """Random smooth gain over frequency: points an octave apart, `spread` dB either way."""
        points = np.log2(np.maximum(f, 50.0) / 50.0)
        gains = self.rng.uniform(-spread, spread, 9)
        coarse = np.linspace(0, 8, 9)
        return (10 ** (np.interp(points, coarse, gains) / 20)).astype(np.float32)

    def device(self, f: np.ndarray) -> np.ndarray:
        """What a measured microphone or, for want of better, loudspeaker does to a sound."""
        devices = self.material.devices
        if not devices:
            return self.equaliser(f, 4.0)
        response = devices[self.rng.integers(len(devices))]
        grid = np.linspace(0, self.rate / 2, len(response))
        return (10 ** (np.interp(f, grid, response) / 20)).astype(np.float32)

    def stretched(self, samples: np.ndarray, stretch: float, spread: float = 0.0) -> np.ndarray:
        """Played about `stretch` times as fast, as a quick length of the transform allows, under a random
        equaliser of up to `spread` dB."""
        padded = scipy.fft.next_fast_len(len(samples), real=True)
        spectrum = scipy.fft.rfft(samples, padded)
        m = 2 * scipy.fft.next_fast_len(int(np.ceil(padded / stretch / 2)))
        bins = np.zeros(m // 2 + 1, spectrum.dtype)
        keep = min(len(bins), len(spectrum))
        bins[:keep] = spectrum[:keep]
        if spread:
            bins *= self.equaliser(np.linspace(0, self.rate / 2, len(bins), dtype=np.float32), spread)
        return scipy.fft.irfft(bins, m)[:int(len(samples) / stretch)] * np.float32(m / padded)

"""Mixes one scene: two microphones, the loudspeaker's signal, and what the talker sounded like.

A scene is drawn in two steps. `draw_plan` decides what happens (who talks when, which noises, is
there a loudspeaker, how loud); `Mixer.scene` makes the sound, with every convolution done as one
product over the whole scene. The target is the talker's direct sound with the first 40 ms of
reflections at microphone 1, the microphone that the engine enhances.
"""

import dataclasses

import numpy as np
import scipy.fft
import scipy.signal

from training import rooms
from training.audio import Clip, ClipLibrary

EARLY_MS = 40.0
FOLDER_WEIGHTS = {"commands": 0.33, "keywords": 0.22, "community": 0.08, "german": 0.27,
                  "dutch": 0.10}
OTHER_FOLDER = 0.2  # weight of a collection that is not listed


@dataclasses.dataclass
class Plan:
    """What a scene contains. Levels in dB; `snr` and `echo` are relative to the talker at
    microphone 1, or to nothing (and then `level` is theirs) when nobody talks."""

    talks: bool
    noise: str  # "none", "real", "synthetic", "babble", "mixed"
    far_end: bool
    snr: float
    echo: float  # level of the echo over the talker's; -inf: the loudspeaker is not heard
    level: float  # dBFS of the active talker, of the noise or the echo when there is none
    clip: bool
    dead_microphone: bool
    digital_silence: bool
    path_change: bool
    begins: float = 0.0  # share of the scene that passes before the talker may start
    bandwidth: float = np.inf  # Hz; recordings at 8 kHz or from a narrow codec hold nothing above
    dry: bool = False  # no room at all
    mild_loudspeaker: bool = False  # little distortion, always the same amount


@dataclasses.dataclass
class Scene:
    microphones: np.ndarray  # (2, n) float32, full scale 1.0
    reference: np.ndarray  # (n,)
    target: np.ndarray  # (n,) zero where nobody talks
    plan: Plan


def draw_plan(rng: np.random.Generator) -> Plan:
    far_end = rng.random() < 0.5
    echo = -np.inf
    if far_end:
        kind = rng.choice(["far", "double", "unheard"], p=[0.28, 0.64, 0.08])
        talks = kind != "far"
        if kind != "unheard":
            echo = rng.uniform(-18, 18)
        noise = rng.choice(["none", "real", "synthetic"], p=[0.4, 0.4, 0.2])
        snr = rng.uniform(5, 45)
    else:
        kind = rng.choice(["noisy", "nearly clean", "noise", "clean"], p=[0.47, 0.24, 0.24, 0.05])
        talks = kind != "noise"
        noise = rng.choice(["real", "mixed", "synthetic", "babble"], p=[0.58, 0.17, 0.15, 0.10])
        snr = rng.uniform(25, 50) if kind == "nearly clean" else rng.uniform(-8, 30)
        if kind == "noisy" and rng.random() < 0.4:
            snr = rng.uniform(-8, 10)
        if kind == "clean":
            noise = "none"
    level = rng.uniform(-55, -10) if talks else rng.uniform(-65, -15)
    # Often enough that noise or echo before the first words is not taken for the talker.
    begins = rng.uniform(0.2, 0.8) if rng.random() < 0.3 else 0.0
    bandwidth = np.inf
    if rng.random() < 0.15:
        bandwidth = rng.choice([3400.0, 3900.0, rng.uniform(3000, 7500)])
    return Plan(talks, str(noise), far_end, float(snr), float(echo), float(level),
                clip=rng.random() < 0.04, dead_microphone=rng.random() < 0.03,
                digital_silence=rng.random() < 0.05, path_change=rng.random() < 0.2,
                begins=float(begins), bandwidth=float(bandwidth))


class Mixer:
    """Draws and renders scenes from one side of the split; one generator per process."""

    def __init__(self, library: ClipLibrary, sample_rate: int, seed, vary_noise: bool = True):
        self.library = library
        self.vary_noise = vary_noise
        self.rate = sample_rate
        self.rng = np.random.default_rng(seed)
        self.levels: dict[str, float] = {}
        self.folders = list(library.talkers)
        weights = np.array([FOLDER_WEIGHTS.get(f, OTHER_FOLDER) for f in self.folders])
        self.folder_weights = weights / weights.sum()

    # --- sources -------------------------------------------------------------------------------

    def speech(self, n: int, busy: float | None = None) -> np.ndarray:
        """n samples of one talker: clips joined with pauses, active level about 1.0 rms."""
        rng = self.rng
        folder = self.folders[rng.choice(len(self.folders), p=self.folder_weights)]
        talkers = list(self.library.talkers[folder].values())
        clips = talkers[rng.integers(len(talkers))]
        pace = rng.choice([0.1, 0.5, 1.2], p=[0.5, 0.3, 0.2]) if busy is None else busy
        stretch = rng.uniform(0.87, 1.15) if rng.random() < 0.5 else 1.0
        out = np.zeros(n, np.float32)
        at = int(rng.exponential(0.5 * pace + 0.1) * self.rate)
        gain = 1.0
        while at < n:
            clip = clips[rng.integers(len(clips))]
            samples = self._excerpt(clip, n - at, stretch)
            level = self._level(clip)
            if level > 0:
                if gain == 1.0 or rng.random() < 0.3:
                    gain = 10 ** (rng.normal(0, 1.5) / 20)
                out[at:at + len(samples)] = samples * (gain / level)
            at += len(samples) + int(rng.exponential(pace) * self.rate)
        return out

    def _level(self, clip: Clip) -> float:
        """Active level of the whole clip: what fits into a scene may end before the first word."""
        if clip.name not in self.levels:
            self.levels[clip.name] = active_level(self.library.samples(clip), self.rate)
        return self.levels[clip.name]

    def _excerpt(self, clip: Clip, room: int, stretch: float) -> np.ndarray:
        samples = self.library.samples(clip)[:int(room * stretch) + 1]
        if stretch != 1.0:
            samples = self._stretched(samples, stretch)
        samples = samples[:room].astype(np.float32)
        fade = min(160, len(samples))
        samples[-fade:] *= np.linspace(1, 0, fade, dtype=np.float32)
        return samples

    def _stretched(self, samples: np.ndarray, stretch: float, spread: float = 0.0) -> np.ndarray:
        """Played `stretch` times as fast, under a random equaliser of up to `spread` dB."""
        padded = scipy.fft.next_fast_len(len(samples), real=True)
        spectrum = scipy.fft.rfft(samples, padded)
        m = int(round(padded / stretch / 2)) * 2
        bins = np.zeros(m // 2 + 1, spectrum.dtype)
        keep = min(len(bins), len(spectrum))
        bins[:keep] = spectrum[:keep]
        if spread:
            bins *= self._equaliser(np.linspace(0, self.rate / 2, len(bins), dtype=np.float32), spread)
        return scipy.fft.irfft(bins, m)[:int(len(samples) / stretch)] * np.float32(m / padded)

    def real_noise(self, n: int) -> np.ndarray:
        """One of the noises; in training most often at another speed and colour, sometimes backwards,
        for they are few."""
        rng = self.rng
        samples = self.library.samples(self.library.noises[rng.integers(len(self.library.noises))])
        stretch = rng.uniform(0.7, 1.4) if self.vary_noise and rng.random() < 0.7 else 1.0
        length = int(n * stretch)
        start = rng.integers(max(1, len(samples) - length))
        out = samples[start:start + length].astype(np.float32)
        if stretch != 1.0:
            out = self._stretched(out, stretch, spread=10.0)
            if rng.random() < 0.4:
                out = out[::-1]
        while len(out) < n:  # a short clip repeats, overlapping itself by 50 ms
            fade = self.rate // 20
            ramp = np.linspace(0, 1, fade, dtype=np.float32)
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
        shape = np.maximum(f, 40.0) ** np.float32(tilt) * self._equaliser(f, 8.0)
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

    def loudspeaker_sound(self, n: int) -> np.ndarray:
        """What a loudspeaker plays: mostly another talker."""
        return self.speech(n) if self.rng.random() < 0.8 else self.real_noise(n)

    def _equaliser(self, f: np.ndarray, spread: float) -> np.ndarray:
        """Random smooth gain over frequency: points an octave apart, `spread` dB either way."""
        points = np.log2(np.maximum(f, 50.0) / 50.0)
        gains = self.rng.uniform(-spread, spread, 9)
        coarse = np.linspace(0, 8, 9)
        return (10 ** (np.interp(points, coarse, gains) / 20)).astype(np.float32)

    # --- the scene -----------------------------------------------------------------------------

    def scene(self, n: int, plan: Plan | None = None) -> Scene:
        plan = plan or draw_plan(self.rng)
        rng = self.rng
        room = rooms.Room.draw(rng, self.rate, plan.dry)
        size = scipy.fft.next_fast_len(n + room.length, real=True)
        f = np.arange(size // 2 + 1, dtype=np.float32) * np.float32(self.rate / size)

        def spectrum(signal):
            return scipy.fft.rfft(signal, size)

        def at_microphones(source, near):
            response = rooms.draw_response(rng, room, self.rate, near)
            return spectrum(source) * spectrum(response), response

        silence = np.zeros((2, size // 2 + 1), np.complex64)
        talker, target = silence, silence[0]
        if plan.talks:
            source = np.zeros(n, np.float32)
            start = int(plan.begins * n)
            source[start:] = self.speech(n - start)
            if active_level(source, self.rate) < 0.3:  # the scene ends before the first word
                source[:] = 0
            voice = self._equaliser(f, 4.0) if rng.random() < 0.5 else 1.0
            talker, response = at_microphones(source, near=True)
            target = spectrum(source) * spectrum(rooms.early_part(response[1], self.rate, EARLY_MS))
            talker, target = talker * voice, target * voice
        noise = silence if plan.noise == "none" else self._noise(n, plan, room, spectrum,
                                                                 at_microphones)
        reference = np.zeros(n, np.float32)
        echo = np.zeros((2, n), np.float32)
        if plan.far_end:
            reference, echo = self._loudspeaker(n, plan, room, f, size, spectrum)
        elif rng.random() < 0.1:  # the noise floor of a line that plays nothing
            reference = rng.standard_normal(n, dtype=np.float32) * np.float32(
                10 ** (rng.uniform(-100, -75) / 20))

        pickup = self._equaliser(f, 5.0) if rng.random() < 0.5 else np.ones_like(f)
        if rng.random() < 0.3:  # DC blocker or small microphone
            corner = rng.uniform(30, 180)
            pickup = pickup * (f / np.sqrt(f ** 2 + corner ** 2)).astype(np.float32)
        pickup = pickup * (f < plan.bandwidth)
        parts = scipy.fft.irfft(np.concatenate([talker, target[None], noise]) * pickup, size)[:, :n]
        talker, target, noise = parts[:2], parts[2], parts[3:]

        talker_level = active_level(talker[1], self.rate)
        noise_level, echo_level = rms(noise[1]), active_level(echo[1], self.rate)
        anchor = talker_level if talker_level > 0 else 1.0
        if noise_level > 0:
            wanted = anchor * 10 ** (-plan.snr / 20) if plan.talks else 1.0
            if plan.far_end and not plan.talks:
                wanted = 10 ** (-plan.snr / 20)
            noise = noise * np.float32(wanted / noise_level)
        if echo_level > 0:
            wanted = anchor * 10 ** (plan.echo / 20) if plan.talks else 1.0
            echo = echo * np.float32(wanted / echo_level)
        scale = np.float32(10 ** (plan.level / 20) / anchor)
        microphones = (talker + noise + echo) * scale
        target = target * scale
        self._finish(microphones, target, plan, room)
        return Scene(microphones.astype(np.float32), reference.astype(np.float32),
                     target.astype(np.float32), plan)

    def _noise(self, n, plan, room, spectrum, at_microphones):
        rng = self.rng
        kinds = {"real": ["real"], "synthetic": ["synthetic"], "babble": ["babble"],
                 "mixed": list(rng.choice(["real", "synthetic", "babble"], 2, p=[0.6, 0.25, 0.15]))}
        make = {"real": self.real_noise, "synthetic": self.synthetic_noise, "babble": self.babble}
        total = 0
        for kind in kinds[plan.noise]:
            if rng.random() < 0.5:
                both, _ = at_microphones(make[kind](n), near=False)
            else:
                first = spectrum(make[kind](n))
                if room.spacing == 0:
                    both = np.stack([first, first])
                else:  # the same ambience from elsewhere in time is independent of itself
                    shift = rng.integers(self.rate // 2, n)
                    turn = np.exp(-2j * np.pi * shift / (2 * (len(first) - 1)) *
                                  np.arange(len(first))).astype(np.complex64)
                    both = rooms.diffuse_spectra(np.stack([first, first * turn]),
                                                 2 * (len(first) - 1), room.spacing, self.rate)
            total = total + both * np.float32(10 ** (rng.uniform(-6, 0) / 20))
        return total

    def _loudspeaker(self, n, plan, room, f, size, spectrum):
        """The reference and its echo at both microphones (at any level; the caller scales)."""
        rng = self.rng
        reference = self.loudspeaker_sound(n)
        if np.isfinite(plan.bandwidth) and rng.random() < 0.7:
            reference = scipy.fft.irfft(spectrum(reference) * (f < plan.bandwidth), size)[:n]
        start = int(rng.choice([0, rng.uniform(0, 0.4)], p=[0.7, 0.3]) * n)
        reference[:start] = 0
        if rng.random() < 0.25:
            reference[int(rng.uniform(0.5, 0.9) * n):] = 0
        reference *= np.float32(10 ** (rng.uniform(-38, -12) / 20))
        np.clip(reference, -1, 1, out=reference)
        if not np.isfinite(plan.echo):
            return reference, np.zeros((2, n), np.float32)
        drive = np.float32(rng.uniform(0.3, 4.0) if rng.random() < 0.7 else 0.01)
        if plan.mild_loudspeaker:
            drive = np.float32(1.0)
        peak = np.abs(reference).max() + 1e-9
        driven = reference / peak * drive
        played = (np.tanh(driven) + np.float32(rng.uniform(0, 0.05)) * driven ** 2) / drive * peak
        box = self._equaliser(f, 4.0) * (f / np.sqrt(f ** 2 + rng.uniform(80, 350) ** 2))
        box = box * (f < plan.bandwidth)
        delay = int(rng.uniform(0, 0.06) * self.rate)
        turn = np.exp(-2j * np.pi * delay / size * np.arange(len(f))).astype(np.complex64)
        source = spectrum(played) * (box * turn).astype(np.complex64)
        paths = 2 if plan.path_change else 1
        echoes = [scipy.fft.irfft(source * spectrum(
            rooms.draw_response(rng, room, self.rate, near=True)), size)[:, :n]
            for _ in range(paths)]
        if paths == 2:
            change, fade = int(rng.uniform(0.3, 0.8) * n), self.rate // 50
            ramp = np.clip((np.arange(n) - change) / fade, 0, 1).astype(np.float32)
            echoes = [echoes[0] * (1 - ramp) + echoes[1] * ramp]
        return reference, echoes[0]

    def _finish(self, microphones, target, plan, room):
        """What the hardware adds, in place."""
        rng = self.rng
        n = microphones.shape[1]
        if plan.clip:
            limit = np.quantile(np.abs(microphones), rng.uniform(0.985, 0.9995)) + 1e-6
            np.clip(microphones, -limit, limit, out=microphones)
        if np.isinf(plan.bandwidth) and (plan.noise != "none" or plan.far_end or
                                         rng.random() < 0.7):
            floor = 10 ** (rng.uniform(-100, -72) / 20)
            own = rng.standard_normal((2, n), dtype=np.float32) * np.float32(floor)
            microphones += own[:1] if room.spacing == 0 else own
        if plan.digital_silence:
            a, b = np.sort(rng.integers(0, n, 2))
            microphones[:, a:b] = 0
            target[a:b] = 0
        if room.spacing == 0:
            microphones[0] = microphones[1]
        else:
            microphones[0] *= np.float32(10 ** (rng.normal(0, 1.5) / 20))
        if plan.dead_microphone:
            microphones[0] = 0
        np.clip(microphones, -1, 1, out=microphones)


def rms(x: np.ndarray) -> float:
    return float(np.sqrt(np.mean(np.square(x)))) if x.size else 0.0


def normalised(x: np.ndarray) -> np.ndarray:
    return x * np.float32(1 / (rms(x) + 1e-9))


def active_level(x: np.ndarray, rate: int) -> float:
    """rms over the 20 ms frames within 30 dB of the loudest 1 percent; 0 for silence."""
    frame = rate // 50
    if len(x) < frame:
        return rms(x)
    frames = x[:len(x) // frame * frame].reshape(-1, frame)
    power = np.einsum("ij,ij->i", frames, frames) / frame
    loud = np.quantile(power, 0.99)
    if loud <= 1e-14:
        return rms(x)
    return float(np.sqrt(power[power > loud * 1e-3].mean()))

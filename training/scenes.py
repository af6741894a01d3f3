"""Mixes one scene: two microphones, the loudspeaker's signal, and what the talker sounded like.

A scene is drawn in two steps. `draw_plan` decides what happens (who talks when, which noises, is
there a loudspeaker, how loud); `Mixer.scene` makes the sound, with every convolution done as one
product over the whole scene. The target is the talker's direct sound with the first 40 ms of
reflections at microphone 1, the microphone that the engine enhances.
"""

import dataclasses

import numpy as np
import scipy.fft

from training import rooms
from training.audio import Material, active_level
from training.sources import Sources, decibels_to_gain, rms

EARLY_MS = 40.0
NOISE_EASE = 15.0  # dB that noise and echo are lower where scenes are easiest
MEASURED_ROOMS = 0.4  # share of the scenes
DEVICES = 0.25  # recorded through a measured microphone
TALKER_DISTANCES = 0.3, 4.0  # m
NOISE_DISTANCES = 0.8, 5.0
LOUDSPEAKER_DISTANCES = 0.1, 1.5
ECHO_DELAY = 0.08  # s at most, before the way from the loudspeaker to the microphones
STRONG_DRIVE = 1.5  # of a loudspeaker from which on its distortion counts as strong

# What noise is made of, and how often: (with a talker, without). Voices that nobody is to hear are left
# out where nobody else talks: nothing would tell them from a talker.
NOISES = {
    "real": (0.46, 0.56), "mixed": (0.16, 0.14), "synthetic": (0.11, 0.15), "babble": (0.06, 0.07),
    "cafe": (0.06, 0.05), "behind": (0.05, 0.0), "television": (0.06, 0.0), "handling": (0.04, 0.03),
}


@dataclasses.dataclass
class Plan:
    """What a scene contains. Levels in dB; `snr` and `echo` are relative to the talker at
    microphone 1, or to nothing (and then `level` is theirs) when nobody talks."""

    talks: bool
    noise: str  # "none" or a key of NOISES
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
    effort: str = "normal"  # or "whisper", "shout"
    overlap: bool = False  # the talker begins while the far end says its last words
    group: str = ""  # of the real noise; empty: any
    distance: float | None = None  # of the talker in m; None: any of TALKER_DISTANCES


@dataclasses.dataclass
class Scene:
    microphones: np.ndarray  # (2, n) float32, full scale 1.0
    reference: np.ndarray  # (n,)
    target: np.ndarray  # (n,) zero where nobody talks
    plan: Plan
    facts: dict = dataclasses.field(default_factory=dict)  # who, where, which noise, how far away

    def after_silence(self, samples: int) -> "Scene":
        """The same scene in a stream that opened with digital silence."""
        later = lambda signal: np.pad(signal, [(0, 0)] * (signal.ndim - 1) + [(samples, 0)])
        return dataclasses.replace(self, microphones=later(self.microphones), reference=later(self.reference),
                                   target=later(self.target))


def draw_plan(rng: np.random.Generator, ease: float = 0.0) -> Plan:
    """`ease` from 0 to 1 takes noise and echo down, for a run that begins with easy scenes."""
    far_end = rng.random() < 0.4
    echo = -np.inf
    if far_end:
        kind = rng.choice(["far", "double", "unheard"], p=[0.28, 0.64, 0.08])
        talks = kind != "far"
        if kind != "unheard":
            echo = rng.uniform(-18, 18)
        noise = rng.choice(["none", "real", "synthetic"], p=[0.4, 0.4, 0.2])
        snr = rng.uniform(5, 45)
    else:
        kind = rng.choice(["noisy", "nearly clean", "noise", "clean"], p=[0.6, 0.16, 0.19, 0.05])
        talks = kind != "noise"
        noise = rng.choice(list(NOISES), p=[p[0 if talks else 1] for p in NOISES.values()])
        snr = rng.uniform(25, 50) if kind == "nearly clean" else rng.uniform(-8, 30)
        if kind == "noisy" and rng.random() < 0.6:
            snr = rng.uniform(-8, 10)
        if kind == "noisy" and noise in ("behind", "television"):
            snr = rng.uniform(2, 25)  # as loud as the talker, nothing tells which is which
        if kind == "clean":
            noise = "none"
    level = rng.uniform(-55, -10) if talks else rng.uniform(-65, -15)
    effort = rng.choice(["normal", "whisper", "shout"], p=[0.93, 0.03, 0.04]) if talks else "normal"
    if effort == "whisper":
        level, snr = rng.uniform(-58, -35), max(snr, rng.uniform(0, 15))
    elif effort == "shout":
        level = rng.uniform(-25, -8)
    # Often enough that noise or echo before the first words is not taken for the talker.
    begins = rng.uniform(0.2, 0.8) if rng.random() < 0.3 else 0.0
    overlap = far_end and talks and rng.random() < 0.2
    if overlap:
        begins = rng.uniform(0.25, 0.7)
    snr, echo = snr + NOISE_EASE * ease, echo - NOISE_EASE * ease
    bandwidth = np.inf
    if rng.random() < 0.15:
        bandwidth = rng.choice([3400.0, 3900.0, rng.uniform(3000, 7500)])
    return Plan(talks, str(noise), far_end, float(snr), float(echo), float(level),
                clip=rng.random() < 0.04, dead_microphone=rng.random() < 0.03,
                digital_silence=rng.random() < 0.12, path_change=rng.random() < 0.2,
                begins=float(begins), bandwidth=float(bandwidth), effort=str(effort), overlap=overlap)


class Mixer:
    """Draws and renders scenes from one side of the split; one generator per process."""

    def __init__(self, material: Material, sample_rate: int, seed, vary_noise: bool = True,
                 equaliser: float = 5.0):
        """`equaliser`: dB that talkers and microphones are coloured by, either way."""
        self.equaliser = equaliser
        self.material, self.rate = material, sample_rate
        self.rng = np.random.default_rng(seed)
        self.sources = Sources(material, sample_rate, self.rng, vary_noise)
        self.rooms = {name: rooms.MeasuredRoom(r) for name, r in material.rooms.items()}
        self.room_probabilities = material.room_probabilities()

    def reseed(self, seed) -> None:
        """From here on draws as a mixer of this seed would."""
        self.rng = self.sources.rng = np.random.default_rng(seed)

    def draw_room(self, dry: bool, facts: dict):
        rng = self.rng
        if not dry and self.rooms and rng.random() < MEASURED_ROOMS:
            facts["room"] = str(rng.choice(list(self.rooms), p=self.room_probabilities))
            return self.rooms[facts["room"]]
        facts["room"] = "dry" if dry else "statistical"
        return rooms.StatisticalRoom.draw(rng, self.rate, dry)

    def distance(self, limits: tuple[float, float]) -> float:
        return float(np.exp(self.rng.uniform(*np.log(limits))))

    def talk(self, n: int, plan: Plan, facts: dict) -> np.ndarray:
        """The talker before any room."""
        source = np.zeros(n, np.float32)
        start = int(plan.begins * n)
        talker = self.sources.draw_talker()
        facts["collection"], facts["talker"] = talker
        source[start:] = self.sources.speech(n - start, talker)
        if active_level(source, self.rate) < 0.3:  # the scene ends before the first word
            return np.zeros(n, np.float32)
        if plan.effort == "whisper":
            return self.sources.whispered(source)
        if plan.effort == "shout":
            return self.sources.shouted(source)
        return source

    def loudspeaker_sound(self, n: int) -> np.ndarray:
        """What a loudspeaker plays: mostly another talker."""
        return self.sources.speech(n) if self.rng.random() < 0.8 else self.sources.real_noise(n)

    # --- the scene -----------------------------------------------------------------------------

    def scene(self, n: int, plan: Plan | None = None) -> Scene:
        plan = plan or draw_plan(self.rng)
        rng, facts = self.rng, {}
        room = self.draw_room(plan.dry, facts)
        size = scipy.fft.next_fast_len(n + room.length, real=True)
        f = np.arange(size // 2 + 1, dtype=np.float32) * np.float32(self.rate / size)

        def spectrum(signal):
            return scipy.fft.rfft(signal, size)

        def at_microphones(source, distance):
            response = room.response(rng, self.rate, distance)
            return spectrum(source) * spectrum(response), response

        silence = np.zeros((2, size // 2 + 1), np.complex64)
        talker, target = silence, silence[0]
        if plan.talks:
            source = self.talk(n, plan, facts)
            facts["distance"] = plan.distance or self.distance(TALKER_DISTANCES)
            voice = self.sources.equaliser(f, self.equaliser) if rng.random() < 0.5 else 1.0
            talker, response = at_microphones(source, facts["distance"])
            target = spectrum(source) * spectrum(rooms.early_part(response[1], self.rate, EARLY_MS))
            talker, target = talker * voice, target * voice
        noise = silence if plan.noise == "none" else self._noise(n, plan, room, spectrum,
                                                                 at_microphones, facts)
        reference = np.zeros(n, np.float32)
        echo = np.zeros((2, n), np.float32)
        if plan.far_end:
            reference, echo = self._loudspeaker(n, plan, room, f, size, spectrum, facts)
        elif rng.random() < 0.1:  # the noise floor of a line that plays nothing
            reference = rng.standard_normal(n, dtype=np.float32) * decibels_to_gain(
                rng.uniform(-100, -75))

        pickup = self._pickup(f) * (f < plan.bandwidth)
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
        self._finish(microphones, reference, target, plan, room)
        return Scene(microphones.astype(np.float32), reference.astype(np.float32),
                     target.astype(np.float32), plan, facts)

    def _pickup(self, f: np.ndarray) -> np.ndarray:
        """What the microphones do to everything they hear."""
        rng = self.rng
        if rng.random() < DEVICES:
            return self.sources.device(f)
        pickup = self.sources.equaliser(f, self.equaliser) if rng.random() < 0.5 else np.ones_like(f)
        if rng.random() < 0.3:  # DC blocker or small microphone
            corner = rng.uniform(30, 180)
            pickup = pickup * (f / np.sqrt(f ** 2 + corner ** 2)).astype(np.float32)
        return pickup

    def _noise(self, n, plan, room, spectrum, at_microphones, facts):
        rng, sources = self.rng, self.sources
        make = {"synthetic": sources.synthetic_noise, "babble": sources.babble, "cafe": sources.cafe,
                "behind": sources.voices_behind, "television": sources.television,
                "handling": sources.handling_noise}
        kinds = [plan.noise]
        if plan.noise == "mixed":
            kinds = list(rng.choice(["real", "synthetic", "babble"], 2, p=[0.7, 0.2, 0.1]))
        total = 0
        for kind in kinds:
            if kind == "real":
                clip = sources.draw_noise(plan.group)
                facts["noise"] = clip.name
                sound = sources.real_noise(n, clip)
            else:
                sound = make[kind](n)
            if kind in ("behind", "television") or (kind != "handling" and rng.random() < 0.5):
                both, _ = at_microphones(sound, self.distance(NOISE_DISTANCES))
            else:
                first = spectrum(sound)
                if room.spacing == 0 or kind == "handling":
                    both = np.stack([first, first])
                else:  # the same ambience from elsewhere in time is independent of itself
                    shift = rng.integers(self.rate // 2, n)
                    turn = np.exp(-2j * np.pi * shift / (2 * (len(first) - 1)) *
                                  np.arange(len(first))).astype(np.complex64)
                    both = rooms.diffuse_spectra(np.stack([first, first * turn]),
                                                 2 * (len(first) - 1), room.spacing, self.rate)
            total = total + both * decibels_to_gain(rng.uniform(-6, 0))
        return total

    def _loudspeaker(self, n, plan, room, f, size, spectrum, facts):
        """The reference and its echo at both microphones (at any level; the caller scales)."""
        rng = self.rng
        reference = self.loudspeaker_sound(n)
        if np.isfinite(plan.bandwidth) and rng.random() < 0.7:
            reference = scipy.fft.irfft(spectrum(reference) * (f < plan.bandwidth), size)[:n]
        start = 0 if plan.overlap else int(rng.choice([0, rng.uniform(0, 0.4)], p=[0.7, 0.3]) * n)
        reference[:start] = 0
        if plan.overlap:
            reference[int((plan.begins + rng.uniform(0, 0.15)) * n):] = 0
        elif rng.random() < 0.25:
            reference[int(rng.uniform(0.5, 0.9) * n):] = 0
        reference *= decibels_to_gain(rng.uniform(-38, -12))
        np.clip(reference, -1, 1, out=reference)
        if not np.isfinite(plan.echo):
            return reference, np.zeros((2, n), np.float32)
        drive = np.float32(rng.uniform(0.3, 4.0) if rng.random() < 0.7 else 0.01)
        if plan.mild_loudspeaker:
            drive = np.float32(1.0)
        facts["loudspeaker"] = "strongly distorted" if drive >= STRONG_DRIVE else "mildly distorted"
        peak = np.abs(reference).max() + 1e-9
        driven = reference / peak * drive
        played = (np.tanh(driven) + np.float32(rng.uniform(0, 0.05)) * driven ** 2) / drive * peak
        case = self.sources.device(f) if rng.random() < 0.5 else self.sources.equaliser(f, 4.0)
        case = case * (f / np.sqrt(f ** 2 + rng.uniform(80, 350) ** 2)) * (f < plan.bandwidth)
        delay = int(rng.uniform(0, ECHO_DELAY) * self.rate)
        turn = np.exp(-2j * np.pi * delay / size * np.arange(len(f))).astype(np.complex64)
        source = spectrum(played) * (case * turn).astype(np.complex64)
        paths = 2 if plan.path_change else 1
        echoes = [scipy.fft.irfft(source * spectrum(room.response(
            rng, self.rate, self.distance(LOUDSPEAKER_DISTANCES))), size)[:, :n] for _ in range(paths)]
        if paths == 2:
            change, fade = int(rng.uniform(0.3, 0.8) * n), self.rate // 50
            ramp = np.clip((np.arange(n) - change) / fade, 0, 1).astype(np.float32)
            echoes = [echoes[0] * (1 - ramp) + echoes[1] * ramp]
        return reference, echoes[0]

    def _finish(self, microphones, reference, target, plan, room):
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
            if rng.random() < 0.6:  # hosts open a stream before anything is on the line
                a = 0
                reference[:b] = 0
            microphones[:, a:b] = 0
            target[a:b] = 0
        if room.spacing == 0:
            microphones[0] = microphones[1]
        else:
            microphones[0] *= np.float32(10 ** (rng.normal(0, 1.5) / 20))
        if plan.dead_microphone:
            microphones[0] = 0
        np.clip(microphones, -1, 1, out=microphones)

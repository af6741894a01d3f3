"""The audio that scenes are mixed from, decoded once.

A cache is `samples.s16` (all clips end to end, 16-bit, 16 kHz, memory-mapped by every process that
renders scenes), `clips.json` (where each clip lies, who speaks, on which side of the split it is),
`responses.npz` (measured rooms and devices) and `report.txt` (what was taken and what was not).
"""

import concurrent.futures
import contextlib
import dataclasses
import json
import os
import re
from collections import Counter
from pathlib import Path

import numpy as np

from training import material
from training.errors import TrainingError
from training.rooms import DIRECT_AT
from training.whole_files import replacing

AUDIO_SUFFIXES = {".opus", ".ogg", ".wav", ".flac"}
SHORTEST = 0.2  # s
CLIPPED = 0.02  # share of samples at full scale
AUDIBLE_DB = 40  # where a clip begins and ends: below its active level
LONGEST_RESPONSE = 0.65  # s
DIRECT_WITHIN = 41  # samples from the start of a file
DEVICE_BINS = 257


@dataclasses.dataclass(frozen=True)
class Clip:
    name: str  # path below the audio folder
    collection: str
    talker: str  # empty for noise
    side: str  # one of material.SIDES
    offset: int  # samples into the cache
    length: int
    level: float = 0.0  # rms of its active frames
    begins: int = 0  # first sample that can be heard
    ends: int = 0  # one past the last


def active_level(x: np.ndarray, rate: int) -> float:
    """rms over the 20 ms frames within 30 dB of the loudest 1 percent; 0 for silence."""
    frame = rate // 50
    if len(x) < frame:
        return float(np.sqrt(np.mean(np.square(x)))) if x.size else 0.0
    frames = x[:len(x) // frame * frame].reshape(-1, frame)
    power = np.einsum("ij,ij->i", frames, frames) / frame
    loud = np.quantile(power, 0.99)
    if loud <= 1e-14:
        return float(np.sqrt(np.mean(np.square(x))))
    return float(np.sqrt(power[power > loud * 1e-3].mean()))


class Refused(Exception):
    """Why a file is left out."""


def read(path: Path, rate: int) -> np.ndarray:
    """Samples (channels, n) of a file at `rate` Hz, float32 in +-1."""
    import soundfile

    try:
        samples, file_rate = soundfile.read(path, dtype="float32", always_2d=True)
    except (RuntimeError, OSError) as error:
        raise Refused("cannot be decoded") from error
    samples = samples.T
    if file_rate != rate:
        import scipy.signal

        common = np.gcd(file_rate, rate)
        samples = scipy.signal.resample_poly(samples, rate // common, file_rate // common, axis=1)
    if not np.isfinite(samples).all():
        raise Refused("holds values that are not finite")
    return samples.astype(np.float32)


def read_clip(path: Path, rate: int) -> tuple[np.ndarray, float, int, int]:
    """16-bit samples of a file's first channel, active level, and where sound begins and ends."""
    samples = read(path, rate)[0]
    if len(samples) < SHORTEST * rate:
        raise Refused(f"shorter than {SHORTEST} s")
    level = active_level(samples, rate)
    if level < 1e-4:
        raise Refused("silent")
    if np.mean(np.abs(samples) > 0.999) > CLIPPED:
        raise Refused("clipped")
    frame = rate // 100
    power = np.mean(samples[:len(samples) // frame * frame].reshape(-1, frame) ** 2, 1)
    heard = np.flatnonzero(power > level ** 2 * 10 ** (-AUDIBLE_DB / 10))
    begins, ends = (heard[0] * frame, (heard[-1] + 1) * frame) if len(heard) else (0, len(samples))
    return (np.clip(np.round(samples * 32768), -32768, 32767).astype(np.int16), level, int(begins),
            int(ends))


def read_room(path: Path, rate: int) -> np.ndarray:
    """A response (channels, n) with its direct sound, in the last channel, at DIRECT_AT and 1."""
    response = read(path, rate)
    direct = int(np.argmax(np.abs(response[-1, :DIRECT_WITHIN])))
    if not abs(response[-1, direct]) > 0:
        raise Refused("silent where the direct sound should be")
    response = np.pad(response, ((0, 0), (DIRECT_AT, 0)))[:, direct:]
    response = response[:2, :int(LONGEST_RESPONSE * rate)] / response[-1, DIRECT_AT]
    fade = min(160, response.shape[1] // 4)
    response[:, -fade:] *= np.linspace(1, 0, fade, dtype=np.float32)
    return response


def read_device(path: Path, rate: int) -> np.ndarray:
    """What a device does to a sound: dB at DEVICE_BINS frequencies up to half the rate, smoothed over
    a sixth of an octave each way, 0 on average from 500 Hz to 2 kHz, between -30 and 15."""
    response = read(path, rate)[0]
    power = np.abs(np.fft.rfft(response, 8192)) ** 2
    f = np.fft.rfftfreq(8192, 1 / rate)
    total = np.concatenate([[0.0], np.cumsum(power)])
    centres = np.linspace(0, rate / 2, DEVICE_BINS)
    low = np.searchsorted(f, centres * 2 ** (-1 / 6))
    high = np.maximum(np.searchsorted(f, centres * 2 ** (1 / 6)), low + 4).clip(max=len(power))
    smooth = 10 * np.log10((total[high] - total[low]) / (high - low) + 1e-12)
    smooth -= smooth[(centres > 500) & (centres < 2000)].mean()
    return np.clip(smooth, -30, 15).astype(np.float32)


READERS = {"speech": read_clip, "noise": read_clip, "rooms": read_room, "devices": read_device}


def _try(job):
    path, kind, rate = job
    try:
        return READERS[kind](path, rate)
    except Refused as reason:
        return str(reason)


@dataclasses.dataclass(frozen=True)
class Source:
    """A file to take."""

    path: Path
    kind: str  # key of READERS
    collection: str  # "" for files directly in noise/ and devices/
    talker: str
    side: str


def sources(audio: Path, leave_out=(), train_on_all: bool = False) -> tuple[list[Source], Counter]:
    """Every file below `audio` with its side, and how many were left out for which reason."""
    found, refused = [], Counter()
    for kind in READERS:
        for path in sorted((audio / kind).rglob("*")):
            if path.suffix.lower() not in AUDIO_SUFFIXES:
                continue
            collection = "/".join(path.relative_to(audio / kind).parts[:-1])
            full = f"{kind}/{collection}" if collection else kind
            if collection in leave_out or full in leave_out:
                refused[full, "left out by --leave-out"] += 1
                continue
            talker, identity = "", path.stem
            if kind == "speech":
                identity = talker = material.talker_of(collection, path.stem)
            elif kind == "noise":
                why = material.refusal_of_noise(collection, path.stem)
                if why:
                    refused[full, why] += 1
                    continue
                identity = material.recording_of(collection, path.stem)
            elif kind == "rooms":
                identity = re.sub("-[lr]$", "", path.stem)
            side = material.side_of(full, identity)
            if kind == "rooms" and material.room_of(collection, path.stem) in material.FAR_ROOMS:
                side = "far"
            found.append(Source(path, kind, collection, talker, "train" if train_on_all else side))
    return found, refused


def build_cache(audio: Path, cache: Path, rate: int, leave_out=(), train_on_all: bool = False,
                progress=print) -> None:
    """Decodes `audio`/{speech,noise,rooms,devices} into `cache`; leaves an older cache alone when
    anything is wrong."""
    wanted, refused = sources(audio, leave_out, train_on_all)
    for kind in ("speech", "noise"):
        if not any(s.kind == kind for s in wanted):
            raise TrainingError(f"no audio files below {audio / kind}")
    cache.mkdir(parents=True, exist_ok=True)
    names = ("samples.s16", "clips.json", "responses.npz", "report.txt")
    clips, responses, offset = [], {}, 0
    with contextlib.ExitStack() as whole:
        parts = {name: whole.enter_context(replacing(cache / name)) for name in names}
        with open(parts["samples.s16"], "wb") as out, \
                concurrent.futures.ProcessPoolExecutor(min(2, os.cpu_count() or 1)) as pool:
            jobs = ((s.path, s.kind, rate) for s in wanted)
            for source, result in zip(wanted, pool.map(_try, jobs, chunksize=64)):
                name = str(source.path.relative_to(audio))
                full = f"{source.kind}/{source.collection}" if source.collection else source.kind
                if isinstance(result, str):
                    refused[full, f"{result} ({source.path.name})"] += 1
                elif source.kind in ("speech", "noise"):
                    samples, level, begins, ends = result
                    clips.append(Clip(name, full, source.talker, source.side, offset, len(samples),
                                      round(level, 6), begins, ends))
                    samples.tofile(out)
                    offset += len(samples)
                else:
                    responses[f"{source.side}/{name}"] = result
        for kind in ("speech", "noise"):
            if not any(c.collection.startswith(kind) for c in clips):
                raise TrainingError(f"no usable sound below {audio / kind}: " + "; ".join(
                    reason for _, reason in list(refused)[:3]))
        report = report_lines(clips, responses, refused, rate)
        np.savez(parts["responses.npz"], **responses)
        parts["clips.json"].write_text(json.dumps([dataclasses.asdict(c) for c in clips]))
        parts["report.txt"].write_text("\n".join(report) + "\n")
    for line in report:
        progress(line)


def report_lines(clips, responses, refused: Counter, rate: int) -> list[str]:
    """Minutes, talkers and share of scenes per collection and side; what was refused and why."""
    lines = [f"{'collection':34}{'weight':>7}" + "".join(f"{side + ' min':>11}{'talkers':>8}"
                                                         for side in material.SIDES)]
    for collection in sorted({c.collection for c in clips}):
        cells = ""
        for side in material.SIDES:
            here = [c for c in clips if c.collection == collection and c.side == side]
            minutes = sum(c.length for c in here) / rate / 60
            talkers = len({c.talker for c in here if c.talker}) or ""
            cells += f"{minutes:11.1f}{talkers:>8}"
        weight = material.SPEECH_WEIGHTS.get(collection.removeprefix("speech/"), ("", ""))[0]
        lines.append(f"{collection:34}{weight:>7}{cells}")
    for collection in sorted({k.split("/", 1)[1].rpartition("/")[0] for k in responses}):
        count = Counter(k.split("/")[0] for k in responses if k.split("/", 1)[1].rpartition("/")[0] ==
                        collection)
        lines.append(f"{collection}: " + ", ".join(f"{count[s]} {s}" for s in material.SIDES))
    lines += [f"refused {count} of {collection}: {reason}"
              for (collection, reason), count in sorted(refused.items())]
    return lines


class Material:
    """What scenes of one side are made of."""

    def __init__(self, cache: Path, side: str):
        try:
            clips = [Clip(**c) for c in json.loads((cache / "clips.json").read_text())]
            self._samples = np.memmap(cache / "samples.s16", np.int16, "r")
            with np.load(cache / "responses.npz") as file:
                responses = {k.split("/", 1)[1]: file[k] for k in file.files if k.startswith(side + "/")}
        except (OSError, ValueError, TypeError) as error:
            raise TrainingError(f"no audio cache in {cache} ({error}); run training.prepare") from error
        if clips and clips[-1].offset + clips[-1].length != len(self._samples):
            raise TrainingError(f"the audio cache in {cache} is torn; run training.prepare again")
        self.talkers: dict[tuple[str, str], list[Clip]] = {}  # (collection, talker) -> clips
        self.noises: dict[str, dict[str, list[Clip]]] = {}  # group -> first word of the name -> clips
        for clip in (c for c in clips if c.side == side):
            stem = Path(clip.name).stem
            if clip.talker:
                self.talkers.setdefault((clip.collection.removeprefix("speech/"), clip.talker),
                                        []).append(clip)
            else:
                self.noises.setdefault(material.noise_group(stem), {}).setdefault(
                    stem.split("-")[0], []).append(clip)
        if not self.noises or not self.talkers:
            raise TrainingError(f"the audio cache in {cache} has no clips on the side {side!r}")
        self.rooms: dict[str, list[tuple[float, np.ndarray]]] = {}  # name -> distance, response
        self.devices: list[np.ndarray] = []  # dB, DEVICE_BINS each
        for name, response in responses.items():
            kind, _, rest = name.partition("/")
            if kind == "devices":
                self.devices.append(response)
                continue
            collection, stem = str(Path(rest).parent), Path(rest).stem
            self.rooms.setdefault(material.room_of(collection, stem), []).append(
                (material.distance_of(collection, stem), response))

    def samples(self, clip: Clip, audible: bool = False) -> np.ndarray:
        """All of a clip, or only from where it can be heard to where it can be heard."""
        begins, ends = (clip.begins, clip.ends) if audible else (0, clip.length)
        return self._samples[clip.offset + begins:clip.offset + ends] * np.float32(1 / 32768)

    def talker_probabilities(self) -> np.ndarray:
        """How often each of `talkers` is drawn."""
        weights = np.zeros(len(self.talkers))
        collections = np.array([collection for collection, _ in self.talkers])
        share = np.array([sum(c.length for c in clips) for clips in self.talkers.values()]) ** 0.5
        for collection in np.unique(collections):
            here = collections == collection
            weight = material.SPEECH_WEIGHTS.get(collection, (material.OTHER_WEIGHT,))[0]
            weights[here] = weight * share[here] / share[here].sum()
        return _limited(weights / weights.sum(), material.MOST_OF_A_TALKER)

    def room_probabilities(self) -> np.ndarray:
        """How often each of `rooms` is drawn: a collection by the square root of its responses, its rooms
        alike, so that a house of many rooms is not most of what is heard."""
        collections = [name.split("/")[0] for name in self.rooms]
        responses = Counter()
        for collection, measured in zip(collections, self.rooms.values()):
            responses[collection] += len(measured)
        weights = np.array([responses[c] ** 0.5 / collections.count(c) for c in collections])
        return weights / weights.sum()


def _limited(probabilities: np.ndarray, most: float) -> np.ndarray:
    """None above `most` (or above equal shares, where there are few), the rest raised in proportion."""
    most = max(most, 1 / len(probabilities))
    limited = np.zeros(len(probabilities), bool)
    while True:
        p = np.where(limited, most, 0.0)
        rest = probabilities * ~limited
        if rest.sum() > 0:
            p += rest * (1 - p.sum()) / rest.sum()
        over = (p > most * (1 + 1e-9)) & ~limited
        if not over.any():
            return p / p.sum()
        limited |= over

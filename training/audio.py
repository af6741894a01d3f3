"""The audio that scenes are mixed from: decoded once into one file of 16-bit samples.

The cache is two files: `samples.npy` (all clips end to end, int16, 16 kHz, memory-mapped by every
process that renders scenes) and `clips.json` (where each clip lies and who speaks in it).

Held-out rule. A *talker* is a run of 25 consecutive clips of one folder, since neighbouring clips
come from one speaker in the collections used; a *noise* is a file. Whatever has
crc32(name) % 5 == 0 is held out: training never reads it, evaluation reads nothing else.
"""

import dataclasses
import json
import os
import re
import zlib
from pathlib import Path

import numpy as np

from training.errors import TrainingError

CLIPS_PER_TALKER = 25
HELD_OUT_OF = 5
AUDIO_SUFFIXES = {".opus", ".ogg", ".wav", ".flac"}


@dataclasses.dataclass(frozen=True)
class Clip:
    name: str  # path below the audio folder
    talker: str  # empty for noise
    offset: int  # samples into the cache
    length: int
    held_out: bool


def is_held_out(name: str) -> bool:
    return zlib.crc32(name.encode()) % HELD_OUT_OF == 0


def talker_of(folder: str, stem: str) -> str:
    """Name of the talker of a clip: folder, series (keyword) and the run of 25 it belongs to; a clip
    without a running number is a talker of its own."""
    numbered = re.fullmatch(r"(?:(.*)-)?(\d+)", stem)
    if not numbered:
        return f"{folder}/{stem}"
    return f"{folder}/{numbered[1] or ''}{int(numbered[2]) // CLIPS_PER_TALKER}"


def read_mono(path: Path, rate: int) -> np.ndarray:
    """Samples of a file at `rate` Hz, first channel, float32 in +-1."""
    import soundfile

    try:
        samples, file_rate = soundfile.read(path, dtype="float32", always_2d=True)
    except (RuntimeError, OSError) as error:
        raise TrainingError(f"cannot decode {path}: {error}") from error
    samples = samples[:, 0]
    if file_rate != rate:
        import scipy.signal

        common = np.gcd(file_rate, rate)
        samples = scipy.signal.resample_poly(samples, rate // common, file_rate // common)
    if len(samples) < rate // 4 or not np.isfinite(samples).all() or not np.any(samples):
        raise TrainingError(f"{path} holds no usable sound (shorter than 0.25 s, silent or broken)")
    return samples.astype(np.float32)


def build_cache(audio: Path, cache: Path, rate: int, progress=print) -> None:
    """Decodes `audio`/speech/*/ and `audio`/noise/ into `cache`; leaves an older cache alone when
    anything is wrong."""
    groups = [(folder, "speech") for folder in sorted((audio / "speech").glob("*/"))]
    groups.append((audio / "noise", "noise"))
    clips, blocks, offset = [], [], 0
    for folder, kind in groups:
        files = sorted(f for f in folder.glob("*") if f.suffix.lower() in AUDIO_SUFFIXES)
        if not files:
            raise TrainingError(f"no audio files in {folder}; expected {audio}/speech/*/ and "
                                f"{audio}/noise/")
        for path in files:
            samples = read_mono(path, rate)
            name = str(path.relative_to(audio))
            talker = talker_of(folder.name, path.stem) if kind == "speech" else ""
            clips.append(Clip(name, talker, offset, len(samples), is_held_out(talker or name)))
            blocks.append(np.clip(np.round(samples * 32768), -32768, 32767).astype(np.int16))
            offset += len(samples)
        progress(f"{folder.relative_to(audio)}: {len(files)} clips")
    cache.mkdir(parents=True, exist_ok=True)
    samples, index = cache / "samples.tmp.npy", cache / "clips.tmp.json"
    try:
        np.save(samples, np.concatenate(blocks))
        index.write_text(json.dumps([dataclasses.asdict(c) for c in clips]))
        os.replace(samples, cache / "samples.npy")
        os.replace(index, cache / "clips.json")
    finally:
        samples.unlink(missing_ok=True)
        index.unlink(missing_ok=True)


class ClipLibrary:
    """Clips of one side of the split, by folder and talker."""

    def __init__(self, cache: Path, held_out: bool):
        try:
            clips = [Clip(**c) for c in json.loads((cache / "clips.json").read_text())]
            self._samples = np.load(cache / "samples.npy", mmap_mode="r")
        except (OSError, ValueError, TypeError) as error:
            raise TrainingError(f"no audio cache in {cache} ({error}); run training.prepare") from error
        if clips and clips[-1].offset + clips[-1].length != len(self._samples):
            raise TrainingError(f"the audio cache in {cache} is torn; run training.prepare again")
        side = [c for c in clips if c.held_out == held_out]
        self.noises = [c for c in side if not c.talker]
        self.talkers: dict[str, dict[str, list[Clip]]] = {}  # folder -> talker -> clips
        for clip in (c for c in side if c.talker):
            folder = clip.talker.split("/")[0]
            self.talkers.setdefault(folder, {}).setdefault(clip.talker, []).append(clip)
        if not self.noises or not self.talkers:
            raise TrainingError(f"the audio cache in {cache} has no clips on this side of the split")

    def samples(self, clip: Clip) -> np.ndarray:
        return self._samples[clip.offset:clip.offset + clip.length] * np.float32(1 / 32768)

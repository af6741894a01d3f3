"""Streams of training windows: scenes through the library's front end, cut into windows of T frames
whose recurrent state is carried from one window to the next (truncated back-propagation)."""

import dataclasses

import numpy as np
import torch
import torch.multiprocessing as mp

from training import library, scenes
from training.audio import active_level
from training.bands import band_start
from training.errors import TrainingError
from training.gain_rule import FAR_END_ENERGY
from training.library import SHAPE
from training.loss import EXPONENT
from training.sources import rms


BAND_START = band_start()


@dataclasses.dataclass
class Example:
    """A scene as the network and the loss see it. Frame t of the magnitudes belongs to features
    t .. t + 2 * lookahead."""

    features: np.ndarray  # (frames + 2 * lookahead, channels, bands)
    mixture: np.ndarray  # (frames, bins) compressed magnitude of microphone 1, echo-reduced
    target: np.ndarray  # (frames, bins) the same of the target
    cosine: np.ndarray  # (frames, bins) of the angle between the two
    far_end: np.ndarray  # (frames,) bool, the rule that the pipeline applies to the frame


def make_example(scene: scenes.Scene) -> Example:
    front = library.front_end(scene.microphones[0], scene.microphones[1], scene.reference)
    spectra, features = front.microphones[:, 1], front.features
    lag = SHAPE.lookahead
    frames = len(spectra) - lag
    padded = np.concatenate([np.zeros((lag, *features.shape[1:]), np.float32), features])
    target = library.analyse(scene.target)[:frames]
    level = active_level(scene.target, SHAPE.sample_rate)
    if level <= 1e-7:
        level = rms(scene.microphones[1])
    # Mean bin power of white noise of 1.0 rms under the squared window.
    scale = np.float32(1 / (max(level, 1e-6) * np.sqrt(0.375 * SHAPE.frame)))
    mixture = spectra[:frames] * scale
    target = target * scale
    magnitude, wanted = np.abs(mixture), np.abs(target)
    cosine = (mixture.real * target.real + mixture.imag * target.imag) / (
        magnitude * wanted + np.float32(1e-9))
    exponent = np.float32(EXPONENT)
    return Example(padded, magnitude ** exponent, wanted ** exponent, cosine, front.energy[lag:] > FAR_END_ENERGY)


class Streams:
    """`batch` endless streams. Once the pool is full, about `reuse` of the scenes are ones seen
    before, at a new level and with another microphone response."""

    KEEP_STATE = 0.5  # of the scene changes happen in a running engine

    def __init__(self, mixer: scenes.Mixer, batch: int, window: int, reuse: float = 0.5,
                 pool: int = 700, draw_plan=scenes.draw_plan, curriculum: tuple[float, float] = (0, 0)):
        """`curriculum`: windows per stream until scenes are as hard as they get, and how many of them
        the run has seen."""
        self.mixer, self.window, self.reuse, self.pool_size = mixer, window, reuse, pool
        self.rng = mixer.rng
        self.draw_plan = draw_plan
        self.easy_windows, self.windows = curriculum
        self.pool: list[Example] = []
        self.current = [self._next() for _ in range(batch)]
        # Streams start at different places so that their scenes do not all change at once.
        self.position = [int(self.rng.integers(len(e.mixture) // window)) for e in self.current]

    def _next(self) -> Example:
        if len(self.pool) == self.pool_size and self.rng.random() < self.reuse:
            return self._varied(self.pool[self.rng.integers(len(self.pool))])
        windows = int(self.rng.integers(3, 7))
        samples = (windows * self.window + SHAPE.lookahead) * SHAPE.hop
        example = make_example(self.mixer.scene(samples, self.draw_plan(self.rng, self.ease())))
        if len(self.pool) < self.pool_size:
            self.pool.append(example)
        else:
            self.pool[self.rng.integers(self.pool_size)] = example
        return example

    def ease(self) -> float:
        return max(0.0, 1 - self.windows / self.easy_windows) if self.easy_windows else 0.0

    def _varied(self, example: Example) -> Example:
        """Features are square roots of magnitudes; the normalised spectra follow the response only."""
        level = self.rng.uniform(-10, 4)
        points = np.linspace(0, SHAPE.bins, 9)
        response = np.interp(np.arange(SHAPE.bins), points, self.rng.uniform(-4, 4, len(points)))
        features = example.features.copy()
        features[:, :2] *= (10 ** ((level + response[BAND_START]) / 40)).astype(np.float32)
        change = (10 ** (response * EXPONENT / 20)).astype(np.float32)
        return dataclasses.replace(example, features=features, mixture=example.mixture * change,
                                   target=example.target * change)

    def next_windows(self):
        """(features, mixture, target, cosine, far_end) tensors and the streams (batch,) whose
        recurrent state starts anew."""
        self.windows += 1
        fresh = np.zeros(len(self.current), bool)
        parts = []
        for i, example in enumerate(self.current):
            at = self.position[i] * self.window
            if at + self.window > len(example.mixture):
                example = self.current[i] = self._next()
                self.position[i] = at = 0
                fresh[i] = self.rng.random() >= self.KEEP_STATE
            frames = slice(at, at + self.window)
            parts.append((example.features[at:at + self.window + 2 * SHAPE.lookahead],
                          example.mixture[frames], example.target[frames], example.cosine[frames],
                          example.far_end[frames]))
            self.position[i] += 1
        tensors = [torch.from_numpy(np.stack(arrays)) for arrays in zip(*parts)]
        return tensors, torch.from_numpy(fresh)


class Renderers:
    """The same from processes of their own, for a machine whose training device is not its CPU: each
    renders its share of the streams a few windows ahead."""

    AHEAD = 3  # windows per process

    def __init__(self, make_streams, processes: int, batch: int):
        """`make_streams(number, batch)` -> Streams; called in the new process, so it must be a
        function of a module."""
        if batch % processes:
            raise TrainingError(f"{batch} streams do not divide among {processes} renderers")
        context = mp.get_context("spawn")
        self.queues = [context.Queue(self.AHEAD) for _ in range(processes)]
        for number, queue in enumerate(self.queues):
            context.Process(target=_render, daemon=True,
                            args=(queue, make_streams, number, batch // processes)).start()

    def next_windows(self):
        parts = [queue.get(timeout=300) for queue in self.queues]
        tensors = [torch.cat(arrays) for arrays in zip(*(p[0] for p in parts))]
        return tensors, torch.cat([p[1] for p in parts])


def _render(queue, make_streams, number: int, batch: int) -> None:
    torch.set_num_threads(1)
    streams = make_streams(number, batch)
    while True:
        queue.put(streams.next_windows())

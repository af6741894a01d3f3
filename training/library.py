"""The library through its C interface: shapes, front end, network and engine.

The helper `libse_training` (training/native) is found through SE_TRAINING_LIBRARY, otherwise in
build/training/native next to this package.
"""

import ctypes
import json
import os
from pathlib import Path
from types import SimpleNamespace

import numpy as np

from training.errors import TrainingError


def _load() -> ctypes.CDLL:
    default = Path(__file__).parents[1] / "build" / "training" / "native" / "libse_training.so"
    path = Path(os.environ.get("SE_TRAINING_LIBRARY", default))
    try:
        return ctypes.CDLL(str(path))
    except OSError as error:
        raise SystemExit(f"error: cannot load {path} ({error}); build it with "
                         "cmake -B build -DSE_BUILD_TRAINING=ON && cmake --build build") from error


_native = _load()
_native.se_training_shape.restype = ctypes.c_char_p
SHAPE = json.loads(_native.se_training_shape(), object_hook=lambda d: SimpleNamespace(**d))


def _floats(array: np.ndarray) -> ctypes.c_void_p:
    assert array.flags.c_contiguous
    return ctypes.c_void_p(array.ctypes.data)


def _frames(*signals: np.ndarray) -> tuple[list[np.ndarray], int]:
    frames = len(signals[0]) // SHAPE.hop
    if frames == 0 or any(s.ndim != 1 or len(s) != len(signals[0]) for s in signals):
        raise TrainingError("signals must be one-dimensional, equally long and a frame or more")
    return [np.ascontiguousarray(s[:frames * SHAPE.hop], np.float32) for s in signals], frames


def analyse(samples: np.ndarray) -> np.ndarray:
    """Spectra (frames, bins) of a signal at full scale 1.0."""
    (samples,), frames = _frames(samples)
    spectra = np.empty((frames, SHAPE.bins), np.complex64)
    _native.se_training_analyse(_floats(samples), frames, _floats(spectra))
    return spectra


def synthesise(spectra: np.ndarray) -> np.ndarray:
    """Signal of spectra (frames, bins), later than the analysed one by `SHAPE.frame - SHAPE.hop`."""
    spectra = np.ascontiguousarray(spectra, np.complex64)
    samples = np.empty(len(spectra) * SHAPE.hop, np.float32)
    _native.se_training_synthesise(_floats(spectra), len(spectra), _floats(samples))
    return samples


def front_end(mic0: np.ndarray, mic1: np.ndarray, reference: np.ndarray):
    """Echo-reduced microphone-1 spectra (frames, bins), reference energy (frames,) and network
    features (frames, channels, bands), as the engine computes them from its start."""
    signals, frames = _frames(mic0, mic1, reference)
    spectra = np.empty((frames, SHAPE.bins), np.complex64)
    energy = np.empty(frames, np.float32)
    features = np.empty((frames, SHAPE.channels, SHAPE.bands), np.float32)
    _native.se_training_front_end(*map(_floats, signals), frames, _floats(spectra), _floats(energy),
                                  _floats(features))
    return spectra, energy, features

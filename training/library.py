"""The library through its C interface: shapes, front end, network and engine.

The helper `libse_training` (training/native) is found through SE_TRAINING_LIBRARY, otherwise in
build/training/native next to this package.
"""

import ctypes
import dataclasses
import json
import os
import warnings
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


# Loading the library sets flush-to-zero, which numpy remarks on.
warnings.filterwarnings("ignore", message="The value of the smallest subnormal")
native = _load()
native.se_training_shape.restype = ctypes.c_char_p
for _function in (native.se_training_network, native.se_training_engine):
    _function.restype = ctypes.c_char_p
native.se_training_network.argtypes = [ctypes.c_char_p, ctypes.c_long, ctypes.c_void_p,
                                       ctypes.c_int, ctypes.c_void_p]
native.se_training_engine.argtypes = [ctypes.c_char_p, ctypes.c_long, ctypes.c_void_p,
                                       ctypes.c_void_p, ctypes.c_void_p, ctypes.c_int, ctypes.c_int,
                                       ctypes.c_int, ctypes.c_char_p, ctypes.c_void_p]
SHAPE = json.loads(native.se_training_shape(), object_hook=lambda d: SimpleNamespace(**d))
RULE = SHAPE.rule  # the numbers of the gain rule


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
    native.se_training_analyse(_floats(samples), frames, _floats(spectra))
    return spectra


def synthesise(spectra: np.ndarray) -> np.ndarray:
    """Signal of spectra (frames, bins), later than the analysed one by `SHAPE.frame - SHAPE.hop`."""
    spectra = np.ascontiguousarray(spectra, np.complex64)
    samples = np.empty(len(spectra) * SHAPE.hop, np.float32)
    native.se_training_synthesise(_floats(spectra), len(spectra), _floats(samples))
    return samples


def tanh(x: np.ndarray) -> np.ndarray:
    """The library's tanh; numpy's differs in the last place, which can turn a rounding of Q11."""
    y = np.array(x, np.float32)
    native.se_training_tanh(_floats(y), y.size)
    return y


@dataclasses.dataclass
class FrontEnd:
    """What the engine hands to the network and to the gain rule, from its start on."""

    microphones: np.ndarray  # (frames, 2, bins) complex64, echo-reduced
    reference: np.ndarray  # (frames, bins) complex64
    energy: np.ndarray  # (frames,) of the reference spectrum
    features: np.ndarray  # (frames, channels, bands)


def front_end(mic0: np.ndarray, mic1: np.ndarray, reference: np.ndarray) -> FrontEnd:
    signals, frames = _frames(mic0, mic1, reference)
    result = FrontEnd(np.empty((frames, 2, SHAPE.bins), np.complex64),
                      np.empty((frames, SHAPE.bins), np.complex64), np.empty(frames, np.float32),
                      np.empty((frames, SHAPE.channels, SHAPE.bands), np.float32))
    native.se_training_front_end(*map(_floats, signals), frames, _floats(result.microphones),
                                  _floats(result.reference), _floats(result.energy),
                                  _floats(result.features))
    return result


def network_gains(model: bytes | None, front: FrontEnd) -> np.ndarray:
    """Gains (frames, bins) of the library's denoiser before reshaping; `model` is a model file's
    contents, None the compiled-in one. Row t belongs to frame t - lookahead; earlier ones are 0."""
    frames = len(front.energy)
    gains = np.zeros((frames, SHAPE.bins), np.float32)
    _check(native.se_training_network(model, len(model or b""), _floats(front.features), frames,
                                       _floats(gains)))
    return gains


def applied_gains(gains: np.ndarray, front: FrontEnd) -> np.ndarray:
    """What the library's gain rule makes of `network_gains`."""
    applied = gains.copy()
    native.se_training_gain_rule(_floats(applied), _floats(front.energy), len(applied))
    return applied


def engine(model: bytes | None, mic0, mic1, reference, nn_only: bool = True, use_ns: bool = False,
           config: bytes | None = None) -> np.ndarray:
    """The whole engine over a scene; its output as it comes, delay included."""
    signals, frames = _frames(mic0, mic1, reference)
    out = np.empty(frames * SHAPE.hop, np.float32)
    _check(native.se_training_engine(model, len(model or b""), *map(_floats, signals), frames,
                                      nn_only, use_ns, config, _floats(out)))
    return out


def make_up() -> np.ndarray:
    """What the gain rule multiplies each bin's gain by."""
    factor = np.full(SHAPE.bins, float(RULE.make_up))
    factor[:RULE.first_full_bin] = RULE.low_make_up
    factor[:RULE.first_kept_bin] = 0.0
    return factor


def _check(message: bytes | None) -> None:
    if message:
        raise TrainingError(f"the library refuses the model: {message.decode()}")

"""What can be put between microphones and listener: the engine with some model, the network in
PyTorch, and the alternatives to compare with.

A processor is called with a scene and returns microphone 1 enhanced, aligned with the input. Its
delay and what it does to the level of clean speech are measured once, on speech."""

import ctypes
import json
import os
import struct
from pathlib import Path

import numpy as np
import scipy.signal
import torch

from training import conditions, library, make_neutral_model, metrics, model_file
from training.errors import TrainingError
from training.gain_rule import FAR_END_ENERGY, GainRule
from training.library import SHAPE
from training.scenes import Scene

MAX_DELAY = 3200  # samples
PEERS = ("SpeexDSP", "WebRTC audio processing")


class Processor:
    def __init__(self, name: str, function, evened: bool = False):
        """`function(scene, echo)` -> output; `echo` says whether the scene has far-end signal. `evened`: the
        output is taken at the level at which clean speech comes out as it went in."""
        self.name, self._function, self._delay = name, function, 0
        self._evened, self._level = evened, np.float32(1)
        self.speech_gains = np.ones(len(metrics.WORD_BANDS_HZ))

    def measure(self, scene: Scene) -> None:
        self._delay, self._level = 0, np.float32(1)
        output = self(scene)
        correlation = scipy.signal.correlate(output, scene.microphones[1], method="fft")
        zero = len(output) - 1
        self._delay = int(np.argmax(correlation[zero:zero + MAX_DELAY]))
        if self._evened:
            self._level = np.float32(metrics.speech_level(self(scene), scene.microphones[1]))
        self.speech_gains = metrics.speech_gains(self(scene), scene.microphones[1])

    def __call__(self, scene: Scene) -> np.ndarray:
        pad = np.zeros(self._delay + -self._delay % SHAPE.hop, np.float32)
        microphones = np.stack([np.concatenate([m, pad]) for m in scene.microphones])
        padded = Scene(microphones, np.concatenate([scene.reference, pad]), scene.target, scene.plan)
        output = self._function(padded, bool(np.any(scene.reference)))
        return output[self._delay:][:len(scene.reference)] / self._level


def unprocessed() -> Processor:
    return Processor("unprocessed", lambda scene, echo: scene.microphones[1])


def engine(name: str, model: bytes | None, evened: bool = False, **mode) -> Processor:
    return Processor(name, lambda scene, echo: library.engine(model, *scene.microphones,
                                                              scene.reference, **mode), evened)


def preset_files(given: list[Path] | None) -> list[Path]:
    """Preset files, and those of folders by name."""
    return [file for path in given or [] for file in (sorted(path.glob("*.json")) if path.is_dir() else [path])]


def settings_of(path: Path) -> dict:
    try:
        return json.loads(path.read_text())
    except (OSError, ValueError) as error:
        raise TrainingError(f"cannot read the preset {path}: {error}") from error


def preset(path: Path, model: bytes | None, evened: bool = False) -> Processor:
    """The engine with one of the tool's preset files."""
    return with_settings(f"preset {path.stem}", settings_of(path), model, evened)


def with_settings(name: str, settings: dict, model: bytes | None, evened: bool = False) -> Processor:
    """The engine with what a preset file says."""
    limiter = settings.get("limiter")
    shelves = [settings.get(name) for name in ("low_shelf", "high_shelf")]
    peaks = [(p["center_hz"], p["gain_db"], p["q"]) for p in settings.get("peaks", [])]
    peaks += [(0, 0.0, 0)] * (10 - len(peaks))
    # NnProcessConfig: 43 fields of 32 bits.
    config = struct.pack("<iiiffii", settings.get("residual_db", 30),
                         settings.get("ns_residual_db", 40), limiter is not None,
                         limiter["ceiling"] if limiter else 0, limiter["gain_db"] if limiter else 0,
                         0, 0)
    for shelf in shelves:
        config += struct.pack("<iff", shelf is not None, *((shelf["freq_hz"], shelf["atten_db"])
                                                           if shelf else (0, 0)))
    config += b"".join(struct.pack("<ifi", *peak) for peak in peaks)
    mode = settings.get("mode", "denoise")
    return engine(name, model, evened, nn_only=mode == "denoise",
                  use_ns=mode == "suppress", config=config)


def _by_band_values(name: str, band_values) -> Processor:
    """The engine's path with `band_values(scene, spectra of microphone 1, front end, far end)` as the network."""
    rule, lag = GainRule(), SHAPE.lookahead

    def run(scene, echo):
        front = library.front_end(*scene.microphones, scene.reference)
        mixture = front.microphones[:-lag, 1]
        far_end = torch.from_numpy(front.energy[lag:] > FAR_END_ENERGY)
        values = band_values(scene, mixture, front, far_end)
        gain = rule.applied(rule.raw(values), far_end).numpy()
        return library.synthesise(np.concatenate([np.zeros((lag, SHAPE.bins)), mixture * gain]))

    return Processor(name, run)


def network(name: str, net, quantised: bool = True) -> Processor:
    """The engine's path with the network in PyTorch, with or without its rounding."""
    def band_values(scene, mixture, front, far_end):
        with torch.no_grad():
            net.set_quantised(quantised)
            values = net.whole_scene(torch.from_numpy(front.features))
            net.set_quantised(True)
        return values

    return _by_band_values(name, band_values)


def ideal() -> Processor:
    """What no network can surpass by much: per band the gain closest to the target in the sense of
    least squares, as far as the gain rule can apply it."""
    rule = GainRule()
    members = (rule.expansion.T.numpy() > 0).astype(np.float32)  # (bins, bands)

    def band_values(scene, mixture, front, far_end):
        target = np.pad(scene.target, (0, len(scene.reference) - len(scene.target)))
        target = library.analyse(target)[:len(mixture)]
        energy = (np.abs(mixture) ** 2) @ members
        wanted = ((mixture.conj() * target).real @ members) / (energy + 1e-20)
        return rule.values(torch.from_numpy(wanted.clip(0, 1)), far_end)

    return _by_band_values("ideal gains", band_values)


def written(tables: dict, folder: Path, name: str) -> bytes:
    path = folder / f"{name}.bin"
    model_file.write_model(path, name, tables)
    return path.read_bytes()


def neutral(folder: Path) -> Processor:
    return engine("neutral model", written(make_neutral_model.neutral_model(), folder, "neutral"))


def classical(folder: Path) -> Processor:
    """The noise estimator and suppressor alone: closed gains, the delayed microphone in full."""
    tables = make_neutral_model.neutral_model()
    tables["fc2_bias"] = np.full_like(tables["fc2_bias"], -80.0)
    config = np.zeros(43, np.int32)
    config[1] = 10  # ns_residual_db: a mix level of 1
    model = written(tables, folder, "closed")
    # The mix carries the pipeline's make-up gain of 3.
    return Processor("classical suppressor", lambda scene, echo: library.engine(
        model, *scene.microphones, scene.reference, nn_only=False, use_ns=True,
        config=config.tobytes()) / np.float32(3))


def peers() -> list[Processor]:
    default = Path(__file__).parents[1] / "build" / "training" / "native" / "libse_peers.so"
    try:
        native = ctypes.CDLL(os.environ.get("SE_PEERS_LIBRARY", str(default)))
    except OSError as error:
        raise TrainingError(f"cannot load the peers ({error}); install libspeexdsp-dev and "
                            "libwebrtc-audio-processing-dev and build with SE_BUILD_TRAINING=ON, or "
                            "use --no-peers") from error

    def processor(name, function):
        def run(scene, echo):
            mic = np.ascontiguousarray(scene.microphones[1], np.float32)
            ref = np.ascontiguousarray(scene.reference, np.float32)
            out = np.zeros_like(mic)
            pointers = [ctypes.c_void_p(a.ctypes.data) for a in (mic, ref, out)]
            if function(*pointers[:2], len(mic) // SHAPE.hop, int(echo), pointers[2]):
                raise TrainingError(f"{name} cannot be set up")
            return out
        return Processor(name, run)

    functions = native.se_peer_speexdsp, native.se_peer_webrtc
    return [processor(name, function) for name, function in zip(PEERS, functions)]


def measure(processors: list[Processor], cache: Path) -> None:
    """Delays and gains of speech, on clean speech; before any of them is called."""
    clean = next(c for c in conditions.CONDITIONS if c.name == "clean")
    scene = conditions.held_out_scenes(cache, clean, 1)[0]
    for processor in processors:
        processor.measure(scene)

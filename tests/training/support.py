"""What the tests of the training package share: data that they synthesise, a network, what they need installed.
Exit status 77: PyTorch or another module is missing.

    SE_TRAINING_LIBRARY=build/training/native/libse_training.so python3 tests/training/model_test.py
"""

import sys
import tempfile
import unittest
from pathlib import Path

ROOT = Path(__file__).parents[2]
sys.path.insert(0, str(ROOT))

try:
    import numpy as np
    import soundfile
    import torch
except ImportError as error:
    print(f"skipped: {error}; install python3-torch, python3-numpy, python3-scipy, python3-soundfile")
    sys.exit(77)

from training import audio, export, library, network
from training.library import SHAPE

RATE = SHAPE.sample_rate
torch.set_num_threads(1)


def voice(rng, seconds: float) -> np.ndarray:
    """Syllables of gliding harmonics."""
    t = np.arange(int(seconds * RATE)) / RATE
    pitch = rng.uniform(90, 240) * (1 + 0.1 * np.sin(2 * np.pi * rng.uniform(0.5, 2) * t))
    phase = 2 * np.pi * np.cumsum(pitch) / RATE
    tone = sum(np.sin(k * phase) / k for k in range(1, 15))
    return 0.1 * tone * np.clip(np.sin(2 * np.pi * rng.uniform(2, 4) * t), 0, 1)


def make_audio_folder(folder: Path) -> None:
    """Ninety talkers, one of whom says most, another in words; noises, rooms, a device; some on every side
    of the split, and some to refuse."""
    rng = np.random.default_rng(1)

    def write(name, samples):
        path = folder / f"{name}.wav"
        path.parent.mkdir(parents=True, exist_ok=True)
        soundfile.write(path, samples, RATE)

    for i in range(12):
        write(f"speech/german/{i:04}", voice(rng, 3.0))
        write(f"speech/gcompris/de_word-{i}", voice(rng, 0.5))
    for talker in range(88):
        write(f"speech/librispeech_resemblyzer/en_ls{talker}-0", voice(rng, 1.0))
    write("speech/emodb/de_emo03-a", voice(rng, 2.0))
    write("speech/emodb/de_emo03-b", voice(rng, 0.1))
    for i in range(12):
        write(f"noise/things-hum-{i}x", rng.standard_normal(3 * RATE) * 0.05)
        write(f"noise/esc50/keyboard-1-{i}-a", rng.standard_normal(RATE // 2) * 0.05)
        write(f"noise/esc50/keyboard-1-{i}-b", rng.standard_normal(RATE // 2) * 0.05)
    write("noise/esc50/crying-1-9-a", rng.standard_normal(RATE) * 0.05)
    for wall in ("000", "100"):
        for angle in range(0, 360, 30):
            response = rng.standard_normal((RATE // 4, 2)) * np.exp(-np.arange(RATE // 4) / 400)[:, None] / 8
            response[30:32] = np.eye(2)[::-1] * 0.5
            write(f"rooms/r3vival-lab/absorptive-{wall}-s{angle:03}-200-r1", response)
    write("devices/tin", np.sin(np.arange(300) * 0.8) * np.exp(-np.arange(300) / 20))


def some_network(seed: int) -> network.Denoiser:
    """A network whose activations and gains spread over their ranges."""
    torch.manual_seed(seed)
    net = network.Denoiser()
    front = library.front_end(*(export.golden_scene(200).astype(np.float32) / 32768))
    net.calibrate(torch.from_numpy(front.features)[None])
    with torch.no_grad():
        for pair in (net.gru1, net.gru2):
            for p in pair.parameters():
                p.mul_(1.5)
        net.head.weight.mul_(4)
    net.constrain()
    return net.eval()


class WithData(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.folder = tempfile.TemporaryDirectory()
        cls.path = Path(cls.folder.name)
        make_audio_folder(cls.path / "audio")
        cls.cache = cls.path / "cache"
        cls.report = []
        audio.build_cache(cls.path / "audio", cls.cache, RATE, progress=cls.report.append)

    @classmethod
    def tearDownClass(cls):
        cls.folder.cleanup()

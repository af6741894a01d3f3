"""python3 -m training.export --checkpoint FILE [--scores FOLDER]

Writes the model file that the library compiles in, from a checkpoint's averaged weights, the golden
vectors that the library's tests run, and with --scores the model card. Before anything is replaced,
the library runs the new model and must agree with a plain computation from its tables."""

import argparse
import struct
from pathlib import Path

import numpy as np

from training import checkpoint, library, model_file, reference
from training.errors import TrainingError, reported_briefly
from training.library import SHAPE
from training.model_tables import model_tables
from training.whole_files import replacing

ROOT = Path(__file__).parents[1]
TOLERANCE = 1e-4  # of a gain, between the library and the plain computation
CHECK_FRAMES = 500
GOLDEN_FRAMES = 300
GOLDEN_HEADER = struct.Struct("<8sIII")  # magic, frames, checksum of the model, first frame scored


def golden_scene(frames: int) -> np.ndarray:
    """(3, samples) int16, both microphones and the reference: gliding harmonics with syllables, noise
    bursts, echo of a second voice; the same on every machine (no random library is involved)."""
    n = np.arange(frames * SHAPE.hop)
    t = n / SHAPE.sample_rate

    def voice(pitch, syllables):
        phase = 2 * np.pi * np.cumsum(pitch * (1 + 0.2 * np.sin(2 * np.pi * 0.7 * t))) / SHAPE.sample_rate
        tone = sum(np.sin(k * phase) / k for k in range(1, 20))
        return tone * np.clip(np.sin(2 * np.pi * syllables * t), 0, 1) * 0.1

    state = (n.astype(np.uint64) * 6364136223846793005 + 1442695040888963407) >> np.uint64(33)
    noise = (state % np.uint64(65536)).astype(np.float64) / 32768 - 1
    near = voice(130, 2.3) * (t % 3 < 2)
    far = voice(210, 1.7) * ((t > 1) & (t < 2.2))
    echo = np.concatenate([np.zeros(300), far[:-300]]) * 0.4
    hiss = noise * 0.02 * (1 + np.sign(np.sin(2 * np.pi * 0.4 * t)))
    microphones = [np.concatenate([np.zeros(d), near])[:len(n)] + echo + hiss for d in (2, 0)]
    return np.clip(np.round(np.stack([*microphones, far]) * 32768), -32768, 32767).astype(np.int16)


def check(model: Path, scene: np.ndarray) -> tuple[np.ndarray, float]:
    """Gains of the library for a scene, and their largest difference to the plain computation."""
    front = library.front_end(*(scene.astype(np.float32) / 32768))
    gains = library.network_gains(model.read_bytes(), front)
    expected = reference.raw_gains(model_file.read_model(model).tables, front.features)
    return gains, float(np.abs(gains[SHAPE.lookahead:] - expected).max())


def export(network, model_path: Path, golden_path: Path | None, name: str) -> tuple[int, float]:
    """Writes model and golden vectors; returns the model's checksum and the largest difference."""
    with replacing(model_path) as candidate:
        checksum = model_file.write_model(candidate, name, model_tables(network))
        _, difference = check(candidate, golden_scene(CHECK_FRAMES))
        if not difference <= TOLERANCE:
            raise TrainingError(f"the library's gains differ by {difference:.2g} from the "
                                f"plain computation's (at most {TOLERANCE}); {model_path} is left as it was")
        if golden_path:
            scene = golden_scene(GOLDEN_FRAMES)
            gains, _ = check(candidate, scene)
            with replacing(golden_path) as part:
                part.write_bytes(
                    GOLDEN_HEADER.pack(b"SEGOLDEN", GOLDEN_FRAMES, checksum, SHAPE.lookahead) +
                    scene.tobytes() + gains.astype("<f4").tobytes())
    return checksum, difference


def main() -> None:
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("--checkpoint", type=Path, required=True)
    parser.add_argument("--model", type=Path, default=ROOT / "models" / "denoiser.bin")
    parser.add_argument("--golden", type=Path, default=ROOT / "tests" / "data" / "golden_denoiser.bin")
    parser.add_argument("--scores", type=Path, help="folder of training.evaluate's results for the "
                        "card; without it no card is written")
    parser.add_argument("--name", default="", help="kept in the file; default: hours of training audio")
    arguments = parser.parse_args()
    with reported_briefly():
        network = checkpoint.load_average(arguments.checkpoint)
        counters = checkpoint.load(arguments.checkpoint)[2]
        name = arguments.name or f"{checkpoint.hours_of_audio(counters['frames']):.0f} h of training"
        if arguments.scores:
            from training import card  # here, so that an export needs no matplotlib

            text = card.draft(arguments.scores, name, arguments.checkpoint)
        arguments.golden.parent.mkdir(parents=True, exist_ok=True)
        checksum, difference = export(network, arguments.model, arguments.golden, name)
        if arguments.scores:
            card.write(arguments.model.parent / "README.md", text, checksum)
        print(f"{arguments.model}: {name}, checksum {checksum:08x}; library and plain computation differ by "
              f"at most {difference:.1e} over {CHECK_FRAMES} frames")


if __name__ == "__main__":
    main()

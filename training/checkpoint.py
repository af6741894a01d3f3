"""Checkpoints: float weights, their moving average and counters in one .npz file (about 8 MB).

A file is written beside the old one and renamed over it, so that a broken run never costs a good
checkpoint. Reading checks every name and shape against the network."""

import json
import zipfile
from pathlib import Path

import numpy as np
import torch

from training.errors import TrainingError
from training.library import SHAPE
from training.network import Denoiser
from training.whole_files import replacing

UNREADABLE = (OSError, EOFError, KeyError, ValueError, zipfile.BadZipFile)
FORMAT = "speechenhance denoiser checkpoint 1"


def save(path: Path, weights: dict, average: dict, counters: dict) -> None:
    arrays = {f"weights/{k}": v.cpu().numpy() for k, v in weights.items()}
    arrays |= {f"average/{k}": v.cpu().numpy() for k, v in average.items()}
    for name, array in arrays.items():
        if not np.isfinite(array).all():
            raise TrainingError(f"{name} is not finite; {path} is left as it was")
    path.parent.mkdir(parents=True, exist_ok=True)
    with replacing(path) as part, open(part, "wb") as file:
        np.savez(file, meta=json.dumps({"format": FORMAT, **counters}), **arrays)


def load(path: Path) -> tuple[dict, dict, dict]:
    """Weights, moving average and counters of a checkpoint."""
    try:
        with np.load(path) as file:
            arrays = {k: file[k] for k in file.files}
        counters = json.loads(str(arrays.pop("meta")))
    except UNREADABLE as error:
        raise TrainingError(f"{path} is not a readable checkpoint: {error}") from error
    if counters.pop("format", None) != FORMAT:
        raise TrainingError(f"{path} has another format than {FORMAT!r}")
    states = [{k[len(part):]: torch.from_numpy(v) for k, v in arrays.items() if k.startswith(part)}
              for part in ("weights/", "average/")]
    for state in states:
        check_layout(path, state)
    return states[0], states[1], counters


def is_checkpoint(path: Path) -> bool:
    """Whether a file, which must be readable, is one of `save` (rather than master weights)."""
    try:
        with np.load(path) as file:
            return "meta" in file.files
    except UNREADABLE as error:
        raise TrainingError(f"{path} is not a readable checkpoint: {error}") from error


def hours_of_audio(frames: int) -> float:
    return frames * SHAPE.hop / SHAPE.sample_rate / 3600


def check_layout(path: Path, state: dict) -> None:
    expected = {k: tuple(v.shape) for k, v in Denoiser().state_dict().items()}
    found = {k: tuple(v.shape) for k, v in state.items()}
    for name in sorted(expected.keys() | found.keys()):
        if expected.get(name) != found.get(name):
            raise TrainingError(f"{path} belongs to another network: {name} is {found.get(name)}, "
                                f"expected {expected.get(name)}")


def load_average(path: Path) -> Denoiser:
    """The network to evaluate or export."""
    network = Denoiser()
    network.load_state_dict(load(path)[1])
    return network.eval()


def import_masters(path: Path) -> dict:
    """State of a network from plain master weights: convN, bnN (running statistics), gruN_M, fc."""
    state = {}
    try:
        with np.load(path) as file:
            for i, conv in enumerate(Denoiser().convs):
                shape = conv.shape
                state[f"convs.{i}.weight"] = file[f"conv{i + 1}.weight"]
                state[f"convs.{i}.bias"] = file[f"conv{i + 1}.bias"]
                for ours, theirs in (("gamma", "weight"), ("beta", "bias"),
                                     ("mean", "running_mean"), ("var", "running_var")):
                    by_position = file[f"bn{i + 1}.{theirs}"].reshape(shape.out_width, -1)
                    state[f"convs.{i}.{ours}"] = by_position.T[:, None, :]
            for pair in ("gru1", "gru2"):
                for part in ("weight_ih", "weight_hh", "bias_ih", "bias_hh"):
                    state[f"{pair}.{part}"] = np.stack([file[f"{pair}_{n}.{part}"] for n in (1, 2)])
            for part in ("weight", "bias"):
                state[f"head.{part}"] = file[f"fc.{part}"]
    except UNREADABLE as error:
        raise TrainingError(f"{path} does not hold master weights: {error}") from error
    state = {k: torch.from_numpy(np.ascontiguousarray(v, np.float32)) for k, v in state.items()}
    check_layout(path, state)
    return state

"""python3 -m training.evaluate --cache FOLDER --far [--quick] (--model | --checkpoint) [NAME=]FILE ...
python3 -m training.evaluate --cache FOLDER (--model FILE | --checkpoint FILE) [--out FOLDER]

With --far, scores on recordings from elsewhere beside those on other talkers of the trained collections
(training/validation.py), for as many models and checkpoints as are given. Decisions rest on these.

Otherwise the conditions of a release, which the card shows.
Scores on held-out talkers and noises (the rule is in training/material.py). With --model, through the
engine itself and beside the alternatives; with --checkpoint, a quick look through the network in
PyTorch. Writes scores.json, scores.md and plots to --out."""

import argparse
import dataclasses
import json
import tempfile
import time
from collections.abc import Callable
from pathlib import Path

import numpy as np
import torch

from training import checkpoint, conditions, metrics, processors, validation
from training.conditions import CONDITIONS
from training.errors import TrainingError, reported_briefly
from training.gain_rule import GainRule
from training.library import SHAPE

TAIL = SHAPE.sample_rate // 10  # samples at the end of a scene that are not scored


def score(condition, scene, output) -> dict[str, float]:
    start, end = int(condition.first_second * SHAPE.sample_rate), len(output) - TAIL
    mic, out, target = (s[start:end] for s in (scene.microphones[1], output, scene.target))
    if not condition.plan.talks:
        row = {"drop": metrics.level_drop(out, mic)}
        if condition.plan.far_end:
            second = SHAPE.sample_rate
            row["drop, first second"] = metrics.level_drop(output[:second],
                                                           scene.microphones[1][:second])
        return row
    if not np.any(target):
        return {}
    ceiling = GainRule().ceiling(torch.tensor(condition.plan.far_end)).numpy()
    aim = metrics.reachable(scene.target, ceiling)[start:end]
    row = {"si-sdr": metrics.si_sdr(out, aim),
           "si-sdr gain": metrics.si_sdr(out, aim) - metrics.si_sdr(mic, aim),
           "stoi": metrics.stoi(out, target),
           "stoi gain": metrics.stoi(out, target) - metrics.stoi(mic, target),
           "lsd": metrics.log_spectral_distance(out, target),
           "segsnr": metrics.segmental_snr(out, target)}
    if condition.plan.begins:
        before = slice(SHAPE.sample_rate, int(condition.plan.begins * len(output)))
        row["drop before"] = metrics.level_drop(output[before], scene.microphones[1][before])
    if condition.name.startswith("clean"):
        row |= {f"attenuation {a}-{b} Hz": v
                for (a, b), v in metrics.attenuation(out, target).items()}
    return row


def scores(processor, scenes: dict) -> tuple[dict, dict]:
    """Means over the scenes and their standard errors, by condition and score."""
    means, errors = {}, {}
    for condition in CONDITIONS:
        rows = [score(condition, scene, processor(scene)) for scene in scenes[condition.name]]
        columns = {k: np.array([row.get(k, np.nan) for row in rows])
                   for k in dict.fromkeys(k for row in rows for k in row)}
        means[condition.name] = {k: round(float(np.nanmean(v)), 3) for k, v in columns.items()}
        errors[condition.name] = {
            k: round(float(np.nanstd(v, ddof=1) / np.sqrt(np.isfinite(v).sum())), 3)
            for k, v in columns.items() if np.isfinite(v).sum() > 1}
    return means, errors


@dataclasses.dataclass(frozen=True)
class Target:
    """A row that a release is judged by. `reached` takes the engine's value and the better peer's."""

    what: str
    condition: str
    key: str
    digits: int
    reached: Callable[[float, float], bool]
    by: str = "engine"


TARGETS = (
    Target("SI-SDR gain at 0 dB SNR: at least 8 dB, 3 dB above the peers", "snr 0", "si-sdr gain", 1,
           lambda value, peer: value >= max(8, peer + 3)),
    *(Target(f"STOI gain at {snr} dB SNR: at least {wanted}, above the peers", f"snr {snr}",
             "stoi gain", 3, lambda value, peer, wanted=wanted: value >= wanted and value > peer)
      for snr, wanted in ((-5, 0.03), (0, 0.04), (5, 0.03))),
    Target("noise only, after 1 s: at least 25 dB down", "noise only", "drop", 1,
           lambda value, peer: value >= 25),
    Target("clean speech, attenuation below 5 kHz: at most 1 dB", "clean", "attenuation 125-5000 Hz",
           2, lambda value, peer: value <= 1),
    Target("clean speech, SI-SDR with the flat preset: at least 15 dB", "clean", "si-sdr", 1,
           lambda value, peer: value >= 15, by="preset flat"),
    Target("far end only, after 2 s: at least 40 dB down", "far end only", "drop", 1,
           lambda value, peer: value >= 40),
    Target("double talk at 0 dB, STOI gain: at least 0.10", "double talk", "stoi gain", 3,
           lambda value, peer: value >= 0.10),
)


def targets(results: dict, errors: dict) -> list[tuple[str, str, dict[str, str], bool]]:
    """What, measured, the peers' values, whether reached. `errors` are the engine's."""
    peers = {name: results[name] for name in processors.PEERS if name in results}
    rows = []
    for t in TARGETS:
        by = t.by if t.by in results else "engine"
        value = results[by][t.condition][t.key]
        error = errors.get(t.condition, {}).get(t.key) if by == "engine" else None
        theirs = {name: row[t.condition][t.key] for name, row in peers.items()}
        rows.append((t.what,
                     f"{value:.{t.digits}f}" + (f" ± {error:.{t.digits}f}" if error is not None else ""),
                     {name: f"{v:.{t.digits}f}" for name, v in theirs.items()},
                     t.reached(value, max(theirs.values(), default=-np.inf))))
    if "float network" in results:
        lost = (results["float network"]["snr 0"]["si-sdr"] - results["engine"]["snr 0"]["si-sdr"])
        rows.append(("int8 engine against float network: at most 0.2 dB SI-SDR lost", f"{lost:.2f}",
                     {name: "" for name in peers}, lost <= 0.2))
    return rows


def targets_table(results: dict, errors: dict) -> list[str]:
    rows = targets(results, errors)
    peers = list(rows[0][2])
    return validation.markdown(["target", "measured", *peers, "reached"],
                               [[what, value, *theirs.values(), "yes" if ok else "**no**"]
                                for what, value, theirs, ok in rows])


def as_markdown(results: dict, errors: dict, count: int) -> str:
    lines = targets_table(results, errors)
    for condition in CONDITIONS:
        keys = list(next(iter(results.values()))[condition.name])
        lines += [f"{condition.name} ({count} scenes)", "", *validation.markdown(["", *keys], [
            [name, *(f"{row[condition.name].get(k, float('nan')):.3g}" for k in keys)]
            for name, row in results.items()])]
    return "\n".join(lines)


def pictures(results: dict, processor, scenes: dict, folder: Path) -> None:
    from training import plots  # here, so that scores need no matplotlib

    plots.scores(results, folder / "scores.png")
    rows = []
    for name in ("snr 0", "double talk", "clean, quiet"):
        scene = scenes[name][0]
        rows.append((name, {"microphone": scene.microphones[1], "enhanced": processor(scene),
                            "target": scene.target}))
    plots.spectrograms(rows, folder / "scenes.png")


def lineup(arguments, folder: Path) -> list:
    if arguments.checkpoint and not arguments.model:
        return [processors.network("engine", checkpoint.load_average(arguments.checkpoint))]
    model = arguments.model.read_bytes()
    result = [processors.engine("engine", model)]
    if arguments.checkpoint:
        result.append(processors.network("float network",
                                         checkpoint.load_average(arguments.checkpoint), False))
    result += [processors.preset(path, model)
               for path in processors.preset_files(arguments.presets)]
    if not arguments.only_engine:
        result += [processors.unprocessed(), processors.ideal(), processors.neutral(folder),
                   processors.classical(folder)]
        if not arguments.no_peers:
            result += processors.peers()
    return result


def main() -> None:
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("--cache", type=Path, required=True)
    parser.add_argument("--far", action="store_true", help="far and near scores side by side")
    parser.add_argument("--quick", action="store_true", help="with --far: a third of the scenes")
    parser.add_argument("--times", type=int, default=1, help="with --far: this many times as many scenes")
    parser.add_argument("--model", action="append", help="model file; with --far as many as you like")
    parser.add_argument("--checkpoint", action="append", help="the same for checkpoints")
    parser.add_argument("--count", type=int, default=12, help="scenes per condition")
    parser.add_argument("--presets", type=Path, nargs="+", help="preset files, or folders of them, to score as well")
    parser.add_argument("--only-engine", action="store_true")
    parser.add_argument("--no-peers", action="store_true")
    parser.add_argument("--out", type=Path)
    arguments = parser.parse_args()
    torch.set_num_threads(1)
    with reported_briefly(), tempfile.TemporaryDirectory() as folder:
        if arguments.far:
            validation.run(arguments)
            return
        if not arguments.model and not arguments.checkpoint:
            raise TrainingError("give --model, --checkpoint or both")
        for option in ("model", "checkpoint"):
            given = getattr(arguments, option)
            if given and len(given) > 1:
                raise TrainingError(f"more than one --{option} can only be compared with --far")
            setattr(arguments, option, Path(given[0]) if given else None)
        if arguments.presets and not arguments.model:
            raise TrainingError("--presets runs the engine: give --model as well")
        if arguments.count < 1:
            raise TrainingError("--count must be at least 1")
        scenes = {c.name: conditions.held_out_scenes(arguments.cache, c, arguments.count)
                  for c in CONDITIONS}
        line = lineup(arguments, Path(folder))
        processors.measure(line, arguments.cache)
        results, errors = {}, {}
        for p in line:
            results[p.name], errors[p.name] = scores(p, scenes)
        errors = errors["engine"]
        if arguments.out:
            arguments.out.mkdir(parents=True, exist_ok=True)
            (arguments.out / "scores.json").write_text(json.dumps(
                {"scenes per condition": arguments.count, "standard errors of the engine": errors,
                 "processors": results}, indent=1) + "\n")
            (arguments.out / "scores.md").write_text(as_markdown(results, errors, arguments.count))
            pictures(results, line[0], scenes, arguments.out)
        if arguments.checkpoint:
            print(time.strftime("%H:%M:%S"), checkpoint.load(arguments.checkpoint)[2])
        for what, value, _, reached in targets(results, errors):
            print(f"{'ok  ' if reached else 'MISS'} {what}: {value}")
        for name, row in results["engine"].items():
            print(f"{name:13}", json.dumps(row))


if __name__ == "__main__":
    main()

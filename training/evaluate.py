"""python3 -m training.evaluate --cache FOLDER (--model FILE | --checkpoint FILE) [--out FOLDER]

Scores on held-out talkers and noises (the rule is in training/audio.py). With --model, through the
engine itself and beside the alternatives; with --checkpoint, a quick look through the network in
PyTorch. Writes scores.json, scores.md and plots to --out."""

import argparse
import json
import tempfile
import time
from pathlib import Path

import numpy as np
import torch

from training import checkpoint, conditions, metrics, processors
from training.conditions import CONDITIONS, SNRS
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


def targets(results: dict, errors: dict) -> list[tuple[str, str, bool]]:
    """The rows that a release is judged by: what, measured, reached. `errors` are the engine's."""
    ours = results["engine"]
    peers = [results[n] for n in ("SpeexDSP", "WebRTC audio processing") if n in results]
    rows = []

    def add(what, value, text, reached):
        rows.append((what, text.format(value), bool(reached)))

    def spread(condition, key, digits):
        error = errors.get(condition, {}).get(key)
        return "" if error is None else f" ± {error:.{digits}f}"

    def best_peer(snr, key, digits):
        best = max((p[f"snr {snr}"][key] for p in peers), default=-np.inf)
        return best, f"; better peer {best:+.{digits}f}" if peers else ""

    gain = ours["snr 0"]["si-sdr gain"]
    best, note = best_peer(0, "si-sdr gain", 1)
    add("SI-SDR gain at 0 dB SNR: at least 8 dB, 3 dB above the peers", gain,
        "{:.1f}" + spread("snr 0", "si-sdr gain", 1) + " dB" + note,
        gain >= 8 and gain >= best + 3)
    for snr, wanted in ((-5, 0.03), (0, 0.04), (5, 0.03)):
        value = ours[f"snr {snr}"]["stoi gain"]
        best, note = best_peer(snr, "stoi gain", 3)
        add(f"STOI gain at {snr} dB SNR: at least {wanted}, above the peers", value,
            "{:+.3f}" + spread(f"snr {snr}", "stoi gain", 3) + note, value >= wanted and value > best)
    value = ours["noise only"]["drop"]
    add("noise-only attenuation after 1 s: at least 25 dB", value,
        "{:.1f}" + spread("noise only", "drop", 1) + " dB", value >= 25)
    value = ours["clean"]["attenuation 125-5000 Hz"]
    add("clean speech, attenuation below 5 kHz: at most 1 dB", value, "{:.2f} dB", value <= 1)
    value = results.get("preset flat", ours)["clean"]["si-sdr"]
    add("clean speech, SI-SDR with the flat preset: at least 15 dB", value, "{:.1f} dB", value >= 15)
    value = ours["far end only"]["drop"]
    add("far end only, after 2 s: at least 40 dB down", value,
        "{:.1f}" + spread("far end only", "drop", 1) + " dB", value >= 40)
    value = ours["double talk"]["stoi gain"]
    add("double talk at 0 dB, STOI gain: at least 0.10", value,
        "{:+.3f}" + spread("double talk", "stoi gain", 3), value >= 0.10)
    if "float network" in results:
        value = results["float network"]["snr 0"]["si-sdr"] - ours["snr 0"]["si-sdr"]
        add("int8 engine against float network: at most 0.2 dB SI-SDR lost", value, "{:.2f} dB",
            value <= 0.2)
    return rows


def targets_table(results: dict, errors: dict) -> list[str]:
    return ["| target | measured | reached |", "|---|---|---|",
            *(f"| {what} | {value} | {'yes' if ok else '**no**'} |"
              for what, value, ok in targets(results, errors))]


def as_markdown(results: dict, errors: dict, count: int) -> str:
    lines = targets_table(results, errors)
    for condition in CONDITIONS:
        keys = list(next(iter(results.values()))[condition.name])
        lines += ["", f"{condition.name} ({count} scenes)", "",
                  "| | " + " | ".join(keys) + " |", "|---|" + "---|" * len(keys)]
        lines += [f"| {name} | " + " | ".join(f"{row[condition.name].get(k, float('nan')):.3g}"
                                              for k in keys) + " |"
                  for name, row in results.items()]
    return "\n".join(lines) + "\n"


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
               for path in sorted(arguments.presets.glob("*.json") if arguments.presets else [])]
    if not arguments.only_engine:
        result += [processors.unprocessed(), processors.ideal(), processors.neutral(folder),
                   processors.classical(folder)]
        if not arguments.no_peers:
            result += processors.peers()
    return result


def main() -> None:
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("--cache", type=Path, required=True)
    parser.add_argument("--model", type=Path)
    parser.add_argument("--checkpoint", type=Path)
    parser.add_argument("--count", type=int, default=12, help="scenes per condition")
    parser.add_argument("--presets", type=Path, help="folder of the tool's presets to score as well")
    parser.add_argument("--only-engine", action="store_true")
    parser.add_argument("--no-peers", action="store_true")
    parser.add_argument("--out", type=Path)
    arguments = parser.parse_args()
    torch.set_num_threads(1)
    with reported_briefly(), tempfile.TemporaryDirectory() as folder:
        if not arguments.model and not arguments.checkpoint:
            raise TrainingError("give --model, --checkpoint or both")
        scenes = {c.name: conditions.held_out_scenes(arguments.cache, c, arguments.count)
                  for c in CONDITIONS}
        line = lineup(arguments, Path(folder))
        processors.measure_delays(line, arguments.cache)
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
        for what, value, reached in targets(results, errors):
            print(f"{'ok  ' if reached else 'MISS'} {what}: {value}")
        for name, row in results["engine"].items():
            print(f"{name:13}", json.dumps(row))


if __name__ == "__main__":
    main()

"""python3 -m training.quick --cache FOLDER --checkpoint FILE [--count N]

A minute's look at how training goes: the quantised network in PyTorch on held-out scenes."""

import argparse
import json
import time
from pathlib import Path

import numpy as np
import torch

from training import checkpoint, conditions, library, metrics
from training.gain_rule import FAR_END_ENERGY, QUIET_SUM, GainRule
from training.library import SHAPE


class NetworkProcessor:
    """The path of the engine around a network in PyTorch."""

    def __init__(self, network):
        self.network, self.rule = network, GainRule()
        self.quiet_share = 0.0  # of the last scene's frames, by the quiet detector

    def __call__(self, microphones, reference):
        front = library.front_end(*microphones, reference)
        spectra, features = front.microphones[:, 1], front.features
        lag = SHAPE.lookahead
        with torch.no_grad():
            values, _ = self.network(torch.from_numpy(features)[None],
                                     self.network.initial_state(1), from_start=True)
            raw = self.rule.raw(values)
            far_end = torch.from_numpy(front.energy[lag:] > FAR_END_ENERGY)[None]
            gain = self.rule.applied(raw, far_end)[0].numpy()
        self.quiet_share = float((raw[0, :, :128].sum(-1) < QUIET_SUM).float().mean())
        delay = SHAPE.frame - SHAPE.hop
        out = library.synthesise(spectra[:len(gain)] * gain)[delay:]
        return np.concatenate([out, np.zeros(len(reference) - len(out), np.float32)])


def summary(processor, cache, count: int) -> dict:
    ceiling = GainRule().ceiling(torch.tensor([False, True])).numpy()
    result = {}
    for condition in conditions.CONDITIONS:
        rows = []
        for scene in conditions.held_out_scenes(cache, condition, count):
            out = processor(scene.microphones, scene.reference)
            start = int(condition.first_second * SHAPE.sample_rate)
            end = len(out) - SHAPE.sample_rate // 10
            mic, out, target = scene.microphones[1][start:end], out[start:end], scene.target[start:end]
            row = {}
            if condition.plan.talks and np.any(target):
                aim = metrics.reachable(scene.target, ceiling[0])[start:end]
                row = {"si-sdr+": metrics.si_sdr(out, aim) - metrics.si_sdr(mic, aim),
                       "stoi": metrics.stoi(out, target),
                       "stoi+": metrics.stoi(out, target) - metrics.stoi(mic, target)}
                if condition.name.startswith("clean"):
                    row |= {f"att {a}-{b}": v
                            for (a, b), v in metrics.attenuation(out, target).items()}
                    row["si-sdr"] = metrics.si_sdr(out, aim)
            elif not condition.plan.talks:
                row = {"drop": metrics.level_drop(out, mic)}
                if not condition.plan.far_end:
                    row["quiet"] = processor.quiet_share
            rows.append(row)
        keys = {k for r in rows for k in r}
        result[condition.name] = {k: round(float(np.nanmean([r[k] for r in rows if k in r])), 3)
                                  for k in sorted(keys)}
    return result


def main() -> None:
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("--cache", type=Path, required=True)
    parser.add_argument("--checkpoint", type=Path, required=True)
    parser.add_argument("--count", type=int, default=5)
    arguments = parser.parse_args()
    torch.set_num_threads(1)
    network = checkpoint.load_average(arguments.checkpoint)
    print(time.strftime("%H:%M:%S"), checkpoint.load(arguments.checkpoint)[2])
    for name, row in summary(NetworkProcessor(network), arguments.cache, arguments.count).items():
        print(f"{name:14}", json.dumps(row))


if __name__ == "__main__":
    main()

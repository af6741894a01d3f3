"""python3 -m training.bench_step [--rounds N] [PATH ...]

Times whole training steps (network, loss, gradients, optimiser; no scenes) on one thread over random
input, on every path that this CPU has or on those named. The paths take turns, and each is printed
with its ratio to PyTorch's in the same round: median, and quartiles over the rounds."""

import argparse
import statistics
import time

import torch

from training import accelerate
from training.library import SHAPE
from training.loss import Loss
from training.network import Denoiser
from training.optimiser import Optimiser
from training.train import keep_memory

BATCH, WINDOW = 16, 128  # what training.train takes by default
PARTS = ("forward", "loss", "backward", "optimiser")


class Step:
    def __init__(self, path: str):
        torch.manual_seed(1)
        self.network = Denoiser().train()
        self.network.path = path
        self.loss = Loss(path=path)
        self.features = torch.rand(BATCH, WINDOW + 2 * SHAPE.lookahead, SHAPE.channels, SHAPE.bands)
        self.network.calibrate(self.features)
        self.mixture, share, self.cosine = torch.rand(3, BATCH, WINDOW, SHAPE.bins)
        self.target = self.mixture * share
        self.far_end = torch.rand(BATCH, WINDOW) < 0.3
        self.fresh = torch.arange(BATCH) % 5 == 0
        self.optimiser = Optimiser(self.network)

    def run(self) -> list[float]:
        """Seconds that the CPU worked for each part: others may share it."""
        times = [time.process_time()]
        tick = lambda: times.append(time.process_time())
        values, _ = self.network(self.features, self.network.initial_state(BATCH), self.fresh)
        tick()
        cut = values.detach().requires_grad_()
        loss, _ = self.loss(cut, self.mixture, self.target, self.cosine, self.far_end)
        loss.backward()
        tick()
        values.backward(cut.grad)
        tick()
        torch.nn.utils.clip_grad_norm_(self.network.parameters(), 1.0)
        self.optimiser.step(1e-4)
        self.network.constrain()
        tick()
        return [b - a for a, b in zip(times, times[1:])]


def main() -> None:
    parser = argparse.ArgumentParser(description=__doc__,
                                     formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--rounds", type=int, default=8)
    parser.add_argument("paths", nargs="*", metavar="PATH", help=", ".join(accelerate.paths()))
    arguments = parser.parse_args()
    torch.set_num_threads(1)
    keep_memory()
    for path in arguments.paths:
        if path not in accelerate.paths():
            parser.error(f"this CPU has {', '.join(accelerate.paths())}, not {path}")
    steps = {path: Step(path)
             for path in dict.fromkeys([*(arguments.paths or accelerate.paths()), "plain"])}
    times = {path: [] for path in steps}
    for round_ in range(arguments.rounds + 1):
        for path, step in steps.items():
            parts = step.run()
            if round_:  # the first one warms up
                times[path].append(parts)
    print(f"{'path':8}{'frames/s':>9}  {'ratio to plain':22}" + "".join(f"{p + ' ms':>14}" for p in PARTS))
    plain = [sum(parts) for parts in times["plain"]]
    for path, rounds in times.items():
        totals = [sum(parts) for parts in rounds]
        ratios = sorted(p / t for p, t in zip(plain, totals))
        low, high = ratios[len(ratios) // 4], ratios[-1 - len(ratios) // 4]
        shown = f"{statistics.median(ratios):.2f} ({low:.2f} .. {high:.2f})"
        print(f"{path:8}{BATCH * WINDOW / statistics.median(totals):9.0f}  {shown:22}" +
              "".join(f"{1e3 * statistics.median(column):14.1f}" for column in zip(*rounds)))


if __name__ == "__main__":
    main()

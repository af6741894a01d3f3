"""python3 -m training.train --cache FOLDER --checkpoint FILE --minutes N [options]

Trains for N minutes and leaves a checkpoint behind, from which the next run goes on. Several
processes of one thread each train on their own scenes and average their weights every few steps:
that uses small machines far better than several threads in one process."""

import argparse
import ctypes
import dataclasses
import json
import math
import time
from pathlib import Path

import torch
import torch.multiprocessing as mp

from training import checkpoint
from training.audio import Library
from training.errors import TrainingError, reported_briefly
from training.library import SHAPE
from training.loss import SEGMENT, Loss, Weights
from training.network import Denoiser
from training.scenes import Mixer
from training.streams import Streams

GRADIENT_LIMIT = 1.0
NORMALISATION_RATE = 3.0  # learning rate of the normalisation scales over the others'
WARM_UP_STEPS = 50


def parse() -> argparse.Namespace:
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("--cache", type=Path, required=True, help="written by training.prepare")
    parser.add_argument("--checkpoint", type=Path, required=True, help="continued if it exists")
    parser.add_argument("--start-from", type=Path, help="master weights to start a new run from")
    parser.add_argument("--minutes", type=float, required=True)
    parser.add_argument("--rate", type=float, default=1e-3, help="learning rate")
    parser.add_argument("--final-rate", type=float, default=None,
                        help="rate at the end, reached along a cosine (default: constant)")
    parser.add_argument("--batch", type=int, default=16, help="streams per process")
    parser.add_argument("--window", type=int, default=128, help="frames per step")
    parser.add_argument("--processes", type=int, default=2)
    parser.add_argument("--average-every", type=int, default=8, help="steps between averaging")
    parser.add_argument("--reuse", type=float, default=0.5, help="share of scenes seen before")
    parser.add_argument("--save-every", type=float, default=120, help="seconds")
    parser.add_argument("--device", default="cpu", help="cpu or cuda")
    parser.add_argument("--seed", type=int, default=None, help="default: goes on from the checkpoint")
    for field in dataclasses.fields(Weights):
        parser.add_argument(f"--{field.name}", type=float, default=field.default,
                            help="weight of this part of the loss")
    return parser.parse_args()


def starting_point(arguments) -> tuple[dict, dict, dict]:
    if arguments.checkpoint.exists():
        return checkpoint.load(arguments.checkpoint)
    counters = {"steps": 0, "frames": 0, "seconds": 0.0}
    if arguments.start_from:
        weights = checkpoint.import_masters(arguments.start_from)
        return weights, {k: v.clone() for k, v in weights.items()}, counters
    torch.manual_seed(arguments.seed or 0)
    network = Denoiser()
    streams = Streams(Mixer(Library(arguments.cache, False), SHAPE.sample_rate, 0), 16, 128)
    network.calibrate(torch.cat([streams.next_windows()[0][0] for _ in range(4)]))
    weights = network.state_dict()
    return weights, {k: v.clone() for k, v in weights.items()}, counters


class Averager:
    """Averages the parameters of all processes through shared memory."""

    def __init__(self, processes: int, size: int):
        self.rows = torch.zeros(processes, size).share_memory_()
        self.barrier = mp.get_context("spawn").Barrier(processes)

    def __call__(self, rank: int, parameters: list[torch.Tensor]) -> None:
        self.rows[rank] = torch.cat([p.detach().cpu().reshape(-1) for p in parameters])
        self.barrier.wait(timeout=300)
        mean, at = self.rows.mean(0), 0
        with torch.no_grad():
            for p in parameters:
                p.copy_(mean[at:at + p.numel()].reshape(p.shape))
                at += p.numel()
        self.barrier.wait(timeout=300)


def learning_rate(arguments, elapsed: float, steps: int) -> float:
    rate = arguments.rate
    if arguments.final_rate is not None:
        progress = min(1.0, elapsed / (60 * arguments.minutes))
        rate = arguments.final_rate + (rate - arguments.final_rate) * (
            0.5 + 0.5 * math.cos(math.pi * progress))
    return rate * min(1.0, (steps + 1) / WARM_UP_STEPS)


def keep_memory() -> None:
    """Tells glibc to reuse large blocks instead of mapping fresh pages for each tensor: a fifth
    less time per step."""
    try:
        libc = ctypes.CDLL("libc.so.6")
    except OSError:
        return
    trim_threshold, mmap_threshold = -1, -3
    libc.mallopt(trim_threshold, 2 ** 31 - 1)
    libc.mallopt(mmap_threshold, 2 ** 30)


def run(rank: int, arguments, start, averager: Averager | None) -> None:
    torch.set_num_threads(1)
    keep_memory()
    weights, average, counters = start
    device = torch.device(arguments.device)
    network = Denoiser().to(device)
    network.load_state_dict(weights)
    average = {k: v.to(device) for k, v in average.items()}
    loss_function = Loss(Weights(**{f.name: getattr(arguments, f.name)
                                    for f in dataclasses.fields(Weights)}), device)
    scales = [p for n, p in network.named_parameters() if "gamma" in n or "beta" in n]
    rest = [p for n, p in network.named_parameters() if "gamma" not in n and "beta" not in n]
    optimiser = torch.optim.Adam([{"params": rest, "factor": 1.0},
                                  {"params": scales, "factor": NORMALISATION_RATE}], lr=0.0,
                                 betas=(0.9, 0.98))
    seed = arguments.seed if arguments.seed is not None else counters["steps"]
    mixer = Mixer(Library(arguments.cache, False), SHAPE.sample_rate, [seed, rank])
    streams = Streams(mixer, arguments.batch, arguments.window, arguments.reuse)
    state = network.initial_state(arguments.batch).to(device)
    parameters = list(network.parameters())
    started = saved = reported = time.monotonic()
    sums: dict[str, float] = {}
    steps = 0
    while True:
        now = time.monotonic()
        done = torch.tensor(float(now - started > 60 * arguments.minutes))
        tensors, fresh = streams.next_windows()
        features, mixture, target, cosine, far_end = (t.to(device) for t in tensors)
        state[:, :, fresh.to(device)] = 0
        values, state = network(features, state)
        loss, parts = loss_function(values, mixture, target, cosine, far_end)
        if not torch.isfinite(loss):
            raise TrainingError(f"the loss became {loss.item()} after {steps} steps; "
                                f"{arguments.checkpoint} holds the last good state")
        for group in optimiser.param_groups:
            group["lr"] = learning_rate(arguments, now - started, steps) * group["factor"]
        optimiser.zero_grad()
        loss.backward()
        torch.nn.utils.clip_grad_norm_(parameters, GRADIENT_LIMIT)
        optimiser.step()
        network.constrain()
        steps += 1
        for name, value in {"loss": loss, **parts}.items():
            sums[name] = sums.get(name, 0.0) + value.item()
        if steps % arguments.average_every:
            continue
        if averager:
            averager(rank, parameters)
        if rank == 0:
            # The average follows over about 300 steps, faster at the start of a run.
            keep = min(0.997, 1 - 1 / (2 + steps / 4)) ** arguments.average_every
            with torch.no_grad():
                for name, value in network.state_dict().items():
                    average[name].lerp_(value, 1 - keep)
        if rank == 0 and (now - saved > arguments.save_every or done):
            totals = {"steps": counters["steps"] + steps,
                      "frames": counters["frames"] + steps * arguments.batch * arguments.window *
                      arguments.processes,
                      "seconds": counters["seconds"] + now - started}
            checkpoint.save(arguments.checkpoint, network.state_dict(), average, totals)
            count = steps - getattr(run, "reported_steps", 0)
            run.reported_steps = steps
            rate = count * arguments.batch * arguments.window / (now - reported)
            line = {"time": time.strftime("%H:%M:%S"), **totals,
                    "hours_of_audio": round(totals["frames"] / 360000, 2),
                    "frames_per_second_and_process": round(rate),
                    **{k: round(v / count, 5) for k, v in sums.items()}}
            print(json.dumps(line), flush=True)
            with open(arguments.checkpoint.with_suffix(".log"), "a") as log:
                log.write(json.dumps(line) + "\n")
            saved = reported = now
            sums = {}
        if averager:  # all processes leave in the same round: the one whose clock decides is rank 0
            averager.rows[0, 0] = done if rank == 0 else averager.rows[0, 0]
            averager.barrier.wait(timeout=300)
            done = averager.rows[0, 0].clone()
            averager.barrier.wait(timeout=300)
        if done:
            return


def main() -> None:
    arguments = parse()
    with reported_briefly():
        if arguments.window < SEGMENT:
            raise TrainingError(f"--window must be at least {SEGMENT} frames")
        start = starting_point(arguments)
        if arguments.device != "cpu" and not torch.cuda.is_available():
            raise TrainingError("no CUDA device; use --device cpu")
        size = sum(p.numel() for p in Denoiser().parameters())
        if arguments.processes == 1:
            run(0, arguments, start, None)
        else:
            averager = Averager(arguments.processes, size)
            mp.spawn(run, (arguments, start, averager), arguments.processes)


if __name__ == "__main__":
    main()

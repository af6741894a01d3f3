"""python3 -m training.train --cache FOLDER --checkpoint FILE (--hours N | --minutes N) [options]

Trains and leaves a checkpoint behind, from which the same command goes on. A run is as long as
--hours of mixed audio say, in however many calls and on however many machines, and so is the fall of
its learning rate; --minutes ends a call, and where no hours are given the rate falls over those. Several
processes of one thread each train on their own scenes and average their weights every few steps:
that uses small machines far better than several threads in one process."""

import argparse
import ctypes
import dataclasses
import functools
import json
import math
import os
import shutil
import time
from pathlib import Path

import torch
import torch.multiprocessing as mp

from training import checkpoint
from training.audio import Material
from training.errors import TrainingError, reported_briefly
from training.library import SHAPE
from training.loss import SEGMENT, Loss, Weights
from training.network import Denoiser
from training.optimiser import Optimiser
from training.scenes import Mixer
from training.streams import Renderers, Streams

GRADIENT_LIMIT = 1.0
WARM_UP_STEPS = 50


def parse() -> argparse.Namespace:
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("--cache", type=Path, required=True, help="written by training.prepare")
    parser.add_argument("--checkpoint", type=Path, required=True, help="continued if it exists")
    parser.add_argument("--start-from", type=Path,
                        help="checkpoint or master weights that a new run begins with")
    parser.add_argument("--hours", type=float, help="of mixed audio in the run, all calls together")
    parser.add_argument("--minutes", type=float, help="of this call")
    parser.add_argument("--keep-every", type=float, default=None, metavar="HOURS",
                        help="leave a numbered copy of the checkpoint behind, to trace learning")
    parser.add_argument("--rate", type=float, default=1e-3, help="learning rate")
    parser.add_argument("--final-rate", type=float, default=None,
                        help="rate at the end, reached along a cosine (default: constant)")
    parser.add_argument("--batch", type=int, default=16, help="streams per process")
    parser.add_argument("--window", type=int, default=128, help="frames per step")
    parser.add_argument("--processes", type=int, default=2)
    parser.add_argument("--renderers", type=int, default=0,
                        help="processes that render scenes (with --device cuda: about the CPU's cores)")
    parser.add_argument("--average-every", type=int, default=8, help="steps between averaging")
    parser.add_argument("--reuse", type=float, default=0.5, help="share of scenes seen before")
    parser.add_argument("--curriculum", type=float, default=0.0, metavar="HOURS",
                        help="of the run in which noise and echo rise to what they are to be")
    parser.add_argument("--equaliser", type=float, default=5.0,
                        help="dB, either way, that talkers and microphones are coloured by")
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
        if checkpoint.is_checkpoint(arguments.start_from):
            weights, average, counters = checkpoint.load(arguments.start_from)
            return weights, average, {**counters, "run began": counters["frames"]}
        weights = checkpoint.import_masters(arguments.start_from)
        counters["warm start"] = True
        return weights, {k: v.clone() for k, v in weights.items()}, counters
    torch.manual_seed(arguments.seed or 0)
    network = Denoiser()
    streams = open_streams(arguments, [0], 0.0, 0.0, 0, 16)
    network.calibrate(torch.cat([streams.next_windows()[0][0] for _ in range(4)]))
    weights = network.state_dict()
    return weights, {k: v.clone() for k, v in weights.items()}, counters


class Team:
    """Processes that train together: averages their parameters through shared memory."""

    PATIENCE = 1800  # seconds to wait for the others: the machine may have better things to do

    def __init__(self, processes: int, size: int):
        self.rows = torch.zeros(processes, size).share_memory_()
        self.finished = torch.zeros(1).share_memory_()
        self.barrier = mp.get_context("spawn").Barrier(processes)

    def average(self, rank: int, parameters: list[torch.Tensor], finished: bool) -> bool:
        """Returns whether rank 0 has finished, the same answer in every process."""
        self.rows[rank] = torch.cat([p.detach().cpu().reshape(-1) for p in parameters])
        if rank == 0:
            self.finished[0] = float(finished)
        self.barrier.wait(timeout=self.PATIENCE)
        mean, at = self.rows.mean(0), 0
        with torch.no_grad():
            for p in parameters:
                p.copy_(mean[at:at + p.numel()].reshape(p.shape))
                at += p.numel()
        finished = bool(self.finished[0])
        self.barrier.wait(timeout=self.PATIENCE)
        return finished


def learning_rate(arguments, progress: float, steps: int) -> float:
    """`progress` through the run, 0 to 1; the first steps of every call warm up the optimiser."""
    rate = arguments.rate
    if arguments.final_rate is not None:
        rate = arguments.final_rate + (rate - arguments.final_rate) * (
            0.5 + 0.5 * math.cos(math.pi * min(1.0, progress)))
    return rate * min(1.0, (steps + 1) / WARM_UP_STEPS)


def open_streams(arguments, seed: list[int], reuse: float, began: float, number: int,
                 batch: int) -> Streams:
    """`began`: hours that the run has seen."""
    mixer = Mixer(Material(arguments.cache, "train"), SHAPE.sample_rate, [*seed, number],
                  equaliser=arguments.equaliser)
    per_hour = 3600 * SHAPE.sample_rate / (
        SHAPE.hop * arguments.batch * arguments.window * arguments.processes)
    return Streams(mixer, batch, arguments.window, reuse,
                   curriculum=(arguments.curriculum * per_hour, began * per_hour))


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


class Trainer:
    """One process: its network, optimiser and streams."""

    def __init__(self, rank: int, arguments, start):
        weights, average, self.counters = start
        self.rank, self.arguments = rank, arguments
        self.steps = self.reported_steps = 0
        self.device = torch.device(arguments.device)
        self.network = Denoiser().to(self.device)
        self.network.load_state_dict(weights)
        self.average = {k: v.to(self.device) for k, v in average.items()}
        self.loss = Loss(Weights(**{f.name: getattr(arguments, f.name)
                                    for f in dataclasses.fields(Weights)}), self.device)
        self.parameters = list(self.network.parameters())
        self.optimiser = Optimiser(self.network)
        self.rate = 0.0
        seed = arguments.seed if arguments.seed is not None else self.counters["steps"]
        make_streams = functools.partial(open_streams, arguments, [seed, rank], arguments.reuse,
                                         self.hours())
        self.streams = (Renderers(make_streams, arguments.renderers, arguments.batch)
                        if arguments.renderers else make_streams(0, arguments.batch))
        self.state = self.network.initial_state(arguments.batch).to(self.device)
        self.kept = (checkpoint.hours_of_audio(self.counters["frames"]) // arguments.keep_every
                     if arguments.keep_every else 0)
        self.sums: dict[str, float] = {}
        self.started = self.reported = time.monotonic()

    def frames(self) -> int:
        """Frames that the run has seen, those of the checkpoint it began with included."""
        arguments = self.arguments
        return (self.counters["frames"] +
                self.steps * arguments.batch * arguments.window * arguments.processes)

    def progress(self) -> float:
        """Share of the run, or of this call where the run has no length, that is over."""
        called = time.monotonic() - self.started
        if self.arguments.hours is None:
            return called / (60 * self.arguments.minutes)
        return self.hours() / self.arguments.hours

    def hours(self) -> float:
        """Of audio in this run so far."""
        return checkpoint.hours_of_audio(self.frames() - self.counters.get("run began", 0))

    def finished(self) -> bool:
        called = time.monotonic() - self.started
        return self.progress() >= 1 or (self.arguments.minutes is not None and
                                        called > 60 * self.arguments.minutes)

    def step(self) -> None:
        tensors, fresh = self.streams.next_windows()
        features, mixture, target, cosine, far_end = (t.to(self.device) for t in tensors)
        fresh = fresh.to(self.device)
        self.state[:, :, fresh] = 0
        values, self.state = self.network(features, self.state, fresh)
        loss, parts = self.loss(values, mixture, target, cosine, far_end)
        if not torch.isfinite(loss):
            raise TrainingError(f"the loss became {loss.item()} after {self.steps} steps; "
                                f"{self.arguments.checkpoint} holds the last good state")
        loss.backward()
        torch.nn.utils.clip_grad_norm_(self.parameters, GRADIENT_LIMIT)
        self.rate = learning_rate(self.arguments, self.progress(), self.steps)
        self.optimiser.step(self.rate)
        self.network.constrain()
        self.steps += 1
        for name, value in {"loss": loss, **parts}.items():
            self.sums[name] = self.sums.get(name, 0.0) + value.item()

    def follow(self, steps: int) -> None:
        """Moves the averaged weights, which are the ones to evaluate and export; they look back over
        about 300 steps, over fewer at the start of a run."""
        keep = min(0.997, 1 - 1 / (2 + self.steps / 4)) ** steps
        with torch.no_grad():
            for name, value in self.network.state_dict().items():
                self.average[name].lerp_(value, 1 - keep)

    def save(self) -> None:
        """Leaves a checkpoint and a line of progress behind."""
        arguments, now = self.arguments, time.monotonic()
        frames = arguments.batch * arguments.window
        totals = {**self.counters, "steps": self.counters["steps"] + self.steps,
                  "frames": self.frames(),
                  "seconds": self.counters["seconds"] + now - self.started}
        hours = checkpoint.hours_of_audio(totals["frames"])
        checkpoint.save(arguments.checkpoint, self.network.state_dict(), self.average, totals)
        if arguments.keep_every and hours // arguments.keep_every > self.kept:
            self.kept = hours // arguments.keep_every
            shutil.copyfile(arguments.checkpoint, arguments.checkpoint.with_stem(
                f"{arguments.checkpoint.stem}-{hours:05.0f}h"))
        count = self.steps - self.reported_steps
        line = {"time": time.strftime("%H:%M:%S"), **totals,
                "hours_of_audio": round(hours, 2), "rate": self.rate,
                "frames_per_second_and_process": round(count * frames / (now - self.reported)),
                **{k: round(v / count, 5) for k, v in self.sums.items()},
                "weights": dataclasses.asdict(self.loss.weights)}
        print(json.dumps(line), flush=True)
        with open(arguments.checkpoint.with_suffix(".log"), "a") as log:
            log.write(json.dumps(line) + "\n")
        self.reported, self.reported_steps, self.sums = now, self.steps, {}


def run(rank: int, arguments, start, team: Team | None) -> None:
    torch.set_num_threads(1)
    keep_memory()
    trainer = Trainer(rank, arguments, start)
    parent, finished = os.getppid(), False
    while not finished:
        if team and os.getppid() != parent:
            return  # whoever stopped the main process may have started the next run already
        for _ in range(arguments.average_every):
            trainer.step()
        finished = trainer.finished()
        if team:
            finished = team.average(rank, trainer.parameters, finished)
        if rank == 0:
            trainer.follow(arguments.average_every)
            if finished or time.monotonic() - trainer.reported > arguments.save_every:
                trainer.save()


def main() -> None:
    arguments = parse()
    with reported_briefly():
        if arguments.window < SEGMENT:
            raise TrainingError(f"--window must be at least {SEGMENT} frames")
        for name in ("batch", "processes", "average_every"):
            if getattr(arguments, name) < 1:
                raise TrainingError(f"--{name.replace('_', '-')} must be at least 1")
        if arguments.hours is None and arguments.minutes is None:
            raise TrainingError("give --hours, --minutes or both")
        if arguments.device != "cpu" and not torch.cuda.is_available():
            raise TrainingError("no CUDA device; use --device cpu")
        start = starting_point(arguments)
        if arguments.processes == 1:
            run(0, arguments, start, None)
            return
        team = Team(arguments.processes, sum(p.numel() for p in Denoiser().parameters()))
        try:
            mp.spawn(run, (arguments, start, team), arguments.processes)
        except (mp.ProcessRaisedException, mp.ProcessExitedException) as error:
            raise TrainingError(str(error).strip().splitlines()[-1]) from error


if __name__ == "__main__":
    main()

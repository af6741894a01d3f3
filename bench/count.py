#!/usr/bin/python3
"""Counts instructions per frame and compares the output of all variants and architectures.

    count.py [--frames N] [--steps N] OUTPUT.json NATIVE_BUILD [--armhf BUILD] [--aarch64 BUILD]

On x86-64 Callgrind counts, which knows instructions up to AVX2; variants beyond run N frames in single
steps, which is slow. For ARM a plugin of qemu-user counts. The JSON holds, by architecture and variant:
instructions per frame of every contender, on x86-64 the share of every stage, for ARM the functions that
cost most, and a hash of the output; besides, what a frame touches of its engine's own memory.
"""

import argparse
import json
import os
import re
import subprocess
import tempfile
from pathlib import Path

from count_instructions import instructions_per_frame

OURS = ("denoise", "full", "rfft512")
PEERS = ("speexdsp", "webrtc", "fftw3f")
CALLGRIND_KNOWS = ("scalar", "avx2")

# Stages of a frame and the functions whose inclusive cost they are. The layers lie inside the denoiser's
# functions; what is left of these is its rest.
STAGES = {
    "transforms": ("zel_stft_analysis", "zel_stft_synthesis_envelop"),
    "echo canceller": ("aec_process",),
    "convolution layers": ("conv2d_process",),
    "GRU layers": ("gru_process",),
    "noise suppression": ("noise_estimate_process", "noise_suppress_process"),
    "equaliser": ("se::equalise",),
    "limiter": ("limiter_process_float",),
}
DENOISER = ("se::nn::make_features", "se::nn::run_network", "se::nn::gains_from_bands")
REST_OF_DENOISER = "features, head, expansion"
REST = "copies, mix, gains"


def environment(variant):
    return {**os.environ, "SPEECHENHANCE_KERNELS": variant}


def driver(build):
    return str(Path(build) / "bench" / "frame_driver")


def callgrind(build, variant, contender, frames):
    """Instructions in all and inclusive by function, per frame."""
    with tempfile.TemporaryDirectory() as folder:
        out = Path(folder) / "callgrind.out"
        subprocess.run(
            ["valgrind", "--tool=callgrind", "--toggle-collect=counted_frame", f"--callgrind-out-file={out}",
             driver(build), str(frames), contender],
            env=environment(variant), check=True, capture_output=True)
        text = subprocess.run(["callgrind_annotate", "--inclusive=yes", "--threshold=100", "--auto=no", str(out)],
                              check=True, capture_output=True, text=True).stdout
    total, by_function = None, {}
    for line in text.splitlines():
        match = re.match(r"\s*([\d,]+) \([^)]*\)\s+(.*)", line)
        if not match:
            continue
        count, place = int(match[1].replace(",", "")) / frames, match[2]
        if place.startswith("PROGRAM TOTALS"):
            total = count
        else:
            # FILE:FUNCTION(ARGUMENTS) [OBJECT]; the file is ??? without debug information.
            name = re.sub(r" \[[^\]]*\]$", "", place).split(":", 1)[-1]
            name = name.removeprefix("se::(anonymous namespace)::").split("(")[0]
            by_function[name] = by_function.get(name, 0) + count
    return total, by_function


def bytes_of_an_engine(build):
    """Bytes that a frame fetches when engines take turns in a cache that keeps the weights, which all of them
    read, but not the engines: in lines of 64 bytes, what a frame touches of its engine's own."""
    engines, frames = 32, 96
    caches = ("--I1=32768,8,64", "--D1=32768,8,64", "--LL=2097152,16,64")
    variant = next(v for v in reversed(variants([driver(build)])) if v in CALLGRIND_KNOWS)
    with tempfile.TemporaryDirectory() as folder:
        out = Path(folder) / "callgrind.out"
        subprocess.run(["valgrind", "--tool=callgrind", "--cache-sim=yes", *caches, "--toggle-collect=counted_frame",
                        f"--callgrind-out-file={out}", driver(build), str(frames), "full", str(engines)],
                       env=environment(variant), check=True, capture_output=True)
        lines = dict(line.split(": ", 1) for line in out.read_text().splitlines() if ": " in line)
    events = dict(zip(lines["events"].split(), map(int, lines["totals"].split())))
    return 64 * (events["DLmr"] + events["DLmw"]) / frames


def shares(total, by_function):
    stages = {stage: sum(by_function.get(name, 0) for name in names) for stage, names in STAGES.items()}
    inside = stages["convolution layers"] + stages["GRU layers"]
    stages[REST_OF_DENOISER] = sum(by_function[name] for name in DENOISER) - inside
    stages[REST] = total - sum(stages.values())
    return stages


def output_hashes(command, variant, frames):
    """The hash of every contender's output."""
    hashes = {}
    for contender in OURS:
        ran, hashes[contender] = subprocess.run([*command, str(frames), contender], env=environment(variant),
                                                check=True, capture_output=True, text=True).stdout.split()
        assert ran == variant
    return hashes


def variants(command):
    """The kernel variants that run there, the plain one first."""
    return subprocess.run([*command, "variants"], check=True, capture_output=True, text=True).stdout.split()[::-1]


def single_steps(build, variant, contender, frames):
    """Instructions per frame."""
    command = [str(Path(build) / "bench" / "step_frames"), str(frames), contender]
    return float(subprocess.run(command, env=environment(variant), check=True, capture_output=True,
                                text=True).stdout.split()[1])


def count_native(build, frames, steps):
    result = {}
    for variant in variants([driver(build)]):
        entry = {"hash": output_hashes([driver(build)], variant, frames)}
        if variant in CALLGRIND_KNOWS:
            counted = {contender: callgrind(build, variant, contender, frames) for contender in OURS}
            entry["instructions"] = {contender: total for contender, (total, _) in counted.items()}
            entry["shares"] = shares(*counted["full"])
        elif steps:
            entry["instructions"] = {contender: single_steps(build, variant, contender, steps) for contender in OURS}
        result[variant] = entry
    result["peers"] = {"instructions": {p: callgrind(build, "", p, frames)[0] for p in PEERS}}
    return result


def count_emulated(qemu, build, frames):
    result = {}
    for variant in variants([*qemu.split(), driver(build)]):
        entry = {"hash": output_hashes([*qemu.split(), driver(build)], variant, frames), "instructions": {},
                 "functions": {}}
        os.environ["SPEECHENHANCE_KERNELS"] = variant  # handed on to the emulated program
        for contender in OURS:
            by_function = instructions_per_frame(qemu, driver(build), [contender], 100, 200)
            entry["instructions"][contender] = sum(by_function.values())
            entry["functions"][contender] = dict(by_function.most_common(12))
        result[variant] = entry
    return result


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--frames", type=int, default=300)
    parser.add_argument("--steps", type=int, default=3, help="0: none")
    parser.add_argument("--armhf")
    parser.add_argument("--aarch64")
    parser.add_argument("output", type=Path)
    parser.add_argument("native")
    args = parser.parse_args()
    result = {"frames": args.frames, "x86-64": count_native(args.native, args.frames, args.steps),
              "bytes_of_an_engine": bytes_of_an_engine(args.native)}
    if args.armhf:
        result["armv7"] = count_emulated("qemu-arm", args.armhf, args.frames)
    if args.aarch64:
        result["aarch64"] = count_emulated("qemu-aarch64 -cpu max", args.aarch64, args.frames)
    args.output.write_text(json.dumps(result, indent=1) + "\n")


main()

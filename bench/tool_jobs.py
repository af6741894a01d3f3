#!/usr/bin/python3
"""Times the tool over a folder of recordings, one and two at a time.

    tool_jobs.py TOOL OUTPUT.json [--files N] [--seconds S] [--repeat R]

The recordings, harmonic tones under a syllable envelope in noise, are synthesised.
"""

import argparse
import json
import resource
import subprocess
import tempfile
import time
import wave
from pathlib import Path

import numpy as np

RATE = 16000


def write_recording(path, seconds, seed):
    random = np.random.default_rng(seed)
    t = np.arange(seconds * RATE) / RATE
    pitch = 2 * np.pi * np.cumsum(120 + 20 * seed + 30 * np.sin(2 * np.pi * 0.7 * t)) / RATE
    voice = sum(np.sin(k * pitch) / k for k in range(1, 20)) * np.maximum(0, np.sin(2 * np.pi * 2.5 * t))
    channels = [0.1 * voice + 0.02 * random.standard_normal(len(t)) for _ in range(2)]
    samples = np.clip(np.stack(channels, axis=-1) * 32767, -32768, 32767).astype("<i2")
    with wave.open(str(path), "wb") as file:
        file.setnchannels(2)
        file.setsampwidth(2)
        file.setframerate(RATE)
        file.writeframes(samples.tobytes())


def cpu_of_children():
    usage = resource.getrusage(resource.RUSAGE_CHILDREN)
    return usage.ru_utime + usage.ru_stime


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("tool")
    parser.add_argument("output", type=Path)
    parser.add_argument("--files", type=int, default=8)
    parser.add_argument("--seconds", type=int, default=60)
    parser.add_argument("--repeat", type=int, default=5)
    args = parser.parse_args()
    runs = {1: [], 2: []}
    with tempfile.TemporaryDirectory() as name:
        source = Path(name, "noisy")
        source.mkdir()
        for i in range(args.files):
            write_recording(source / f"{i}.wav", args.seconds, i)
        for _ in range(args.repeat):
            for jobs, results in runs.items():
                start, used = time.monotonic(), cpu_of_children()
                subprocess.run([args.tool, "--quiet", str(source), "-o", str(Path(name, f"clean-{jobs}")),
                                "--jobs", str(jobs)], check=True, stdout=subprocess.DEVNULL)
                results.append({"wall_s": time.monotonic() - start, "cpu_s": cpu_of_children() - used})
    args.output.write_text(json.dumps(
        {"audio_s": args.files * args.seconds, "files": args.files, "runs": runs}, indent=1) + "\n")


if __name__ == "__main__":
    main()

#!/usr/bin/env python3
"""Instructions per frame of a program for ARM, counted under qemu-user.

    count_instructions.py [--qemu qemu-arm] [--from 100] [--to 300] [--json FILE] PROGRAM [ARG ...]

runs `PROGRAM FROM ARG ...` and `PROGRAM TO ARG ...` with the plugin count_instructions.c (compiled
on first use, next to the counts, in a temporary folder) and prints the difference per frame: in all
and for every function that makes up at least a thousandth. Start-up, and whatever else both runs do,
cancels. PROGRAM takes the number of frames as its first argument (frame_driver.cpp is such a program)
and should be linked statically and not stripped; the environment, SPEECHENHANCE_KERNELS for one, is
passed on.
"""
import argparse
import collections
import json
import os
import pathlib
import subprocess
import sys
import tempfile

PLUGIN_SOURCE = pathlib.Path(__file__).with_name("count_instructions.c")


def counts_of_run(qemu, plugin, folder, command):
    """Instructions by function of one run."""
    out = folder / "counts.txt"
    subprocess.run([*qemu.split(), "-plugin", f"{plugin},out={out}", *command],
                   check=True, stdout=subprocess.DEVNULL)
    counts = collections.Counter()
    for line in out.read_text().splitlines():
        count, name = line.split(" ", 1)
        counts[name] += int(count)
    return counts


def demangled(names):
    done = subprocess.run(["c++filt"], input="\n".join(names), text=True, check=True,
                          capture_output=True)
    return done.stdout.splitlines()


def instructions_per_frame(qemu, program, arguments, first, last):
    """Instructions per frame by function."""
    with tempfile.TemporaryDirectory() as name:
        folder = pathlib.Path(name)
        plugin = folder / "count_instructions.so"
        subprocess.run([os.environ.get("CC", "cc"), "-O2", "-shared", "-fPIC", "-o", plugin,
                        PLUGIN_SOURCE], check=True)
        short, long = (counts_of_run(qemu, plugin, folder, [program, str(n), *arguments])
                       for n in (first, last))
    long.subtract(short)
    frames = last - first
    names = list(long)
    by_function = collections.Counter()
    for mangled, plain in zip(names, demangled(names)):
        by_function[plain] += long[mangled] / frames
    return by_function


def main():
    parser = argparse.ArgumentParser(description=__doc__,
                                     formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--qemu", default="qemu-arm", help="emulator and its options")
    parser.add_argument("--from", dest="first", type=int, default=100, metavar="N")
    parser.add_argument("--to", dest="last", type=int, default=300, metavar="N")
    parser.add_argument("--json", type=pathlib.Path, help="also write the counts there")
    parser.add_argument("program")
    parser.add_argument("arguments", nargs="*")
    args = parser.parse_args()
    if not 0 <= args.first < args.last:
        parser.error("--from must be less than --to")

    by_function = instructions_per_frame(args.qemu, args.program, args.arguments, args.first,
                                         args.last)
    total = sum(by_function.values())
    print(f"{total:12.0f}  instructions per frame")
    for name, count in by_function.most_common():
        if count >= total / 1000:
            print(f"{count:12.0f}  {100 * count / total:5.1f} %  {name}")
    if args.json:
        args.json.write_text(json.dumps({"total": total, "functions": dict(by_function)}, indent=1))


if __name__ == "__main__":
    try:
        main()
    except subprocess.CalledProcessError as error:
        sys.exit(f"count_instructions.py: {error}")

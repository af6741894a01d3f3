#!/usr/bin/python3
"""Measures what `speech-enhance batch` costs beyond decoding, engine and encoding.

    tool_overhead.py TOOL FILES_ALONE OUTPUT.json [--rounds N] [--instructions]

Every round runs the tool with one worker and the preset plain, and files_alone, which does nothing else with the same
recordings, one after the other, over files of 1 s and over files of 10 min, and compares their CPU time, which other
work on the machine touches less than the clock. Their outputs have to be equal. Instructions are those outside the kernel, of
the parent and the worker, by Callgrind over files of 1 s. The memory is the biggest process of a batch of one
recording of an hour.
"""

import argparse
import contextlib
import filecmp
import json
import os
import re
import shutil
import subprocess
import tempfile
import time
import wave
from pathlib import Path

from tool_jobs import write_recording

SETS = {"1 s": (200, 1), "10 min": (1, 600)}  # files and seconds of each
COUNTED_FILES = 40


def run(*command):
    """CPU seconds of a command and what it starts."""
    process = subprocess.Popen(command, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
    _, status, usage = os.wait4(process.pid, 0)
    process.returncode = os.waitstatus_to_exitcode(status)
    if process.returncode != 0:
        raise SystemExit(f"tool_overhead.py: {command[0]} failed with {process.returncode}")
    return usage.ru_utime + usage.ru_stime


def biggest_process(*command):
    """Bytes resident at most in a command's process or one of its children. The kernel's own maximum, which
    rusage has, begins with that of this program."""
    process = subprocess.Popen(command, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
    top = Path("/proc", str(process.pid))
    most = 0
    while process.poll() is None:
        with contextlib.suppress(OSError):
            for pid in [process.pid, *(top / "task" / str(process.pid) / "children").read_text().split()]:
                peak = re.search(r"VmHWM:\s*(\d+) kB", Path("/proc", str(pid), "status").read_text())
                most = max(most, int(peak[1]) * 1024 if peak else 0)
        time.sleep(0.05)
    if process.returncode != 0:
        raise SystemExit(f"tool_overhead.py: {command[0]} failed with {process.returncode}")
    return most


def repeat_recording(source, target, times):
    with wave.open(str(source), "rb") as file:
        parameters, frames = file.getparams(), file.readframes(file.getnframes())
    with wave.open(str(target), "wb") as file:
        file.setparams(parameters._replace(nframes=parameters.nframes * times))
        for _ in range(times):
            file.writeframesraw(frames)


def write_set(folder, files, seconds):
    folder.mkdir()
    for i in range(files):
        path = folder / f"{i:04}.wav"
        write_recording(path, min(seconds, 60), i)
        if seconds > 60:
            minute = path.rename(folder.parent / "minute.wav")
            repeat_recording(minute, path, seconds // 60)
    return sorted(folder.glob("*.wav"))


class Contenders:
    def __init__(self, tool, alone, folder, files):
        self.tool, self.alone, self.folder, self.files = tool, alone, folder, files
        self.manifest = folder / "manifest.jsonl"
        self.manifest.write_text("".join(json.dumps({"path": str(p), "out": p.name}) + "\n" for p in files))

    def commands(self):
        """Into new folders: where many files were deleted lately, a file system takes longer to find room."""
        out = Path(tempfile.mkdtemp(dir=self.folder))
        tool_out, alone_out = out / "tool", out / "alone"
        alone_out.mkdir()
        return ([self.tool, "batch", self.manifest, "--out", tool_out, "--jobs", "1", "--quiet",
                 "--preset", "plain"],
                [self.alone, alone_out, "wav", *self.files], tool_out, alone_out)


def compare_times(contenders, rounds):
    results = []
    for _ in range(rounds):
        tool, alone, tool_out, alone_out = contenders.commands()
        results.append({"tool_cpu_s": run(*tool), "alone_cpu_s": run(*alone)})
        for path in contenders.files:
            if not filecmp.cmp(tool_out / path.name, alone_out / path.name, shallow=False):
                raise SystemExit(f"tool_overhead.py: outputs differ: {path.name}")
    return results


def count(command, folder):
    out = folder / "callgrind"
    out.mkdir()
    subprocess.run(["valgrind", "--tool=callgrind", f"--callgrind-out-file={out}/%p", *command], check=True,
                   capture_output=True)
    instructions = sum(int(re.search(r"^(?:totals|summary): (\d+)", path.read_text(), re.M)[1])
                       for path in out.iterdir())
    shutil.rmtree(out)
    return instructions


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("tool")
    parser.add_argument("alone")
    parser.add_argument("output", type=Path)
    parser.add_argument("--rounds", type=int, default=11)
    parser.add_argument("--instructions", action="store_true")
    args = parser.parse_args()
    report = {"sets": {}}
    with tempfile.TemporaryDirectory() as name:
        for label, (files, seconds) in SETS.items():
            folder = Path(name, label.replace(" ", "-"))
            folder.mkdir()
            paths = write_set(folder / "noisy", files, seconds)
            entry = {"files": files, "audio_s": files * seconds,
                     "rounds": compare_times(Contenders(args.tool, args.alone, folder, paths), args.rounds)}
            if args.instructions and files >= COUNTED_FILES:
                tool, alone, _, _ = Contenders(args.tool, args.alone, folder, paths[:COUNTED_FILES]).commands()
                entry["instructions"] = {"tool": count(tool, folder), "alone": count(alone, folder)}
            report["sets"][label] = entry
            shutil.rmtree(folder)
        hour = Path(name, "hour")
        hour.mkdir()
        paths = write_set(hour / "noisy", 1, 3600)
        tool, _, _, _ = Contenders(args.tool, args.alone, hour, paths).commands()
        report["hour"] = {"max_rss_bytes": biggest_process(*tool)}
    args.output.write_text(json.dumps(report, indent=1) + "\n")


main()

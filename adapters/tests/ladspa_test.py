"""The LADSPA plugin in sox, against the program.

usage: ladspa_test.py SPEECH-ENHANCE LADSPA-FOLDER

Exits with 77 (skipped) where sox is not installed.
"""

import os
import subprocess
import sys
import tempfile
from pathlib import Path

import numpy as np
import soundfile
from scipy.signal import resample_poly

from against_tool import ENGINE_RATE, aligned, by_tool, level_db, read_scene, skip_without

LATENCY = {ENGINE_RATE: 1327, 44100: 4009}
CALL = 3  # the preset's number


def by_sox(folder, rate, sound, preset, amount):
    soundfile.write(folder / "in.wav", sound, rate, "FLOAT")
    result = subprocess.run(["sox", "-D", folder / "in.wav", "-e", "float", "-b", "32", folder / "out.wav", "ladspa",
                             "speechenhance", "speechenhance", str(preset), str(amount), "0"], capture_output=True, text=True)
    assert result.returncode == 0, result.stderr
    return soundfile.read(folder / "out.wav", dtype="float32")[0]


def test_against_the_program(program, folder, mic, rate, least_db):
    """How far what differs from the program's result lies below it, voice and noise alone."""
    latency = LATENCY[rate]
    tools = by_tool(program, folder, mic, np.zeros_like(mic), rate, "call")
    ours, lag = aligned(by_sox(folder, rate, mic, CALL, 1), tools)
    assert lag == latency, f"{lag} samples late"
    inside = slice(rate // 10, len(mic) - latency - rate // 10)
    below = level_db(tools[inside]) - level_db(ours[inside] - tools[inside])
    print(f"{rate} Hz: differs by {-below:.1f} dB")
    assert below > least_db
    untouched, lag = aligned(by_sox(folder, rate, mic, CALL, 0), mic)
    assert lag == latency, f"{lag} samples late"
    assert level_db(mic[inside]) - level_db(untouched[inside] - mic[inside]) > 30


def main():
    program, plugins = sys.argv[1:]
    skip_without("sox")
    os.environ["LADSPA_PATH"] = plugins
    with tempfile.TemporaryDirectory() as name:
        folder = Path(name)
        mic, _ = read_scene(44100)
        test_against_the_program(program, folder, mic, 44100, 35)
        at_16k = resample_poly(mic, 160, 441).astype(np.float32)
        test_against_the_program(program, folder, at_16k, ENGINE_RATE, 70)
        try:  # a rate that the engine does not have
            by_sox(folder, 4000, np.zeros(4000, np.float32), CALL, 1)
        except AssertionError as refused:
            print(str(refused).strip())
        else:
            raise SystemExit("a stream of 4 kHz was not refused")


if __name__ == "__main__":
    main()

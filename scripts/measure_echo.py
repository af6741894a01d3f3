"""Measures how far the tool takes down the echo of a loudspeaker when nobody talks in the room.

usage: measure_echo.py SPEECH-ENHANCE

Twenty seconds of a far-end voice, mildly distorted by the loudspeaker, in the room of the demo, with white
noise 40 dB below the echo, independent at each microphone. Prints the level of microphone 1 over the level of
the output, in dB, for the first second of echo and for the time from ten seconds on.
"""

import shutil
import subprocess
import sys
import tempfile
import wave
from pathlib import Path

import numpy as np
from scipy.signal import fftconvolve

from make_scene import FAR_TEXT, LOUDSPEAKER, MICS, RATE, level, room_response, say, write

SECONDS = 20


def read(path):
    with wave.open(str(path)) as reader:
        return np.frombuffer(reader.readframes(reader.getnframes()), "<i2") / 32768


def main():
    if len(sys.argv) != 2:
        sys.exit(__doc__)
    if shutil.which(sys.argv[1]) is None:
        sys.exit(f"measure_echo.py: {sys.argv[1]} is not a program")
    far = np.resize(say(FAR_TEXT, "en-us+f3", 160), SECONDS * RATE)
    played = np.tanh(1.2 * far) / 1.2
    random = np.random.default_rng(1)
    echo = [fftconvolve(played, room_response(LOUDSPEAKER, mic))[: len(far)] for mic in MICS]
    scale = 0.1 / level(echo[1])
    mics = [scale * e + 0.001 * random.standard_normal(len(far)) for e in echo]
    with tempfile.TemporaryDirectory() as folder:
        mic, ref, out = (Path(folder) / name for name in ("mic.wav", "ref.wav", "out.wav"))
        write(mic, mics)
        write(ref, [0.5 * far])
        if subprocess.run([sys.argv[1], mic, "--ref", ref, "-o", out, "--preset", "plain"]).returncode != 0:
            sys.exit(f"measure_echo.py: {sys.argv[1]} failed")
        before, after = read(mic)[1::2], read(out)
    for name, part in (("first second", slice(0, RATE)), ("from 10 s on", slice(10 * RATE, None))):
        quietest = 1e-6  # below what 16 bits hold
        reduction = 20 * np.log10(level(before[part]) / max(level(after[part]), quietest))
        print(f"echo reduction, {name}: {reduction:.1f} dB")


main()

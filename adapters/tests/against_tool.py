"""What a host makes of a scene, held against what the program speech-enhance makes of it.

The scene is the start of the demo's, in the folder that SPEECHENHANCE_SCENE names: 0.5 to 6.5 s hold the loudspeaker
alone, 7 to 12 s the talker alone. A host is given 3 s to find the delay, which the program knows from the start.
"""

import json
import os
import shutil
import subprocess
from pathlib import Path

import numpy as np
import soundfile
from scipy.signal import resample_poly

ENGINE_RATE = 16000
SECONDS, ECHO, VOICE = 12.5, (3.5, 6.5), (7.5, 12)


def skip_without(*programs):
    """Ends the test as skipped unless these are installed, and the voices of which the scene is made."""
    if missing := [name for name in (*programs, "espeak-ng") if shutil.which(name) is None]:
        print(f"not installed: {' '.join(missing)}")
        raise SystemExit(77)


def read_scene(rate):
    """(frames,) float32 of the second microphone and of the reference, at `rate`."""
    folder = Path(os.environ["SPEECHENHANCE_SCENE"])
    signals = [soundfile.read(folder / name, dtype="float32", always_2d=True)[0][:, -1] for name in ("mic.wav", "ref.wav")]
    return [resample_poly(signal[:int(SECONDS * ENGINE_RATE)], rate // 100, ENGINE_RATE // 100).astype(np.float32)
            for signal in signals]


def by_tool(program, folder, mic, reference, rate, preset):
    """What the program makes of it, at `rate`."""
    for file, signal in (("tool-mic.wav", mic), ("tool-ref.wav", reference)):
        soundfile.write(folder / file, signal, rate, "FLOAT")
    subprocess.run([program, folder / "tool-mic.wav", "--ref", folder / "tool-ref.wav", "--preset", preset, "--float",
                    "-o", folder / "tool.wav"], check=True)
    return resample_poly(soundfile.read(folder / "tool.wav", dtype="float32")[0], rate // 100, ENGINE_RATE // 100)


def aligned(signal, target):
    """`signal` moved so that it fits `target` best, with its length, and by how many samples it came later."""
    size = 1 << (len(signal) + len(target)).bit_length()
    lag = int(np.argmax(np.fft.irfft(np.fft.rfft(signal, size) * np.fft.rfft(target, size).conj())))
    lag = lag - size if lag > size // 2 else lag
    moved = np.zeros(len(target), np.float32)
    span = signal[max(0, lag):max(0, len(target) + lag)]
    moved[max(0, -lag):max(0, -lag) + len(span)] = span
    return moved, lag


def level_db(signal):
    return 10 * np.log10(np.mean(np.square(signal)) + 1e-12)


def compare(host, tool, mic, rate):
    """Fails unless the echo that the host leaves is at most 6 dB above the program's and the voice is the same."""
    host, lag = aligned(host, tool)
    echo, voice = (slice(int(start * rate), int(end * rate)) for start, end in (ECHO, VOICE))
    correlation = float(np.corrcoef(host[voice], tool[voice])[0, 1])
    figures = {"later by, ms": 1000 * lag / rate, "echo, dB": level_db(mic[echo]), "left, dB": level_db(host[echo]),
               "left by the program, dB": level_db(tool[echo]), "correlation of the voices": correlation}
    print(json.dumps({name: round(value, 3) for name, value in figures.items()}))
    assert level_db(host[echo]) < level_db(tool[echo]) + 6
    assert level_db(host[echo]) < level_db(mic[echo]) - 20
    assert correlation > 0.95

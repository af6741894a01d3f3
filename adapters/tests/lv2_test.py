"""The LV2 plugin in lilv's hosts, against the program.

usage: lv2_test.py SPEECH-ENHANCE LV2-FOLDER

Exits with 77 (skipped) where the hosts are not installed.
"""

import os
import subprocess
import sys
import tempfile
from pathlib import Path

import numpy as np
import soundfile
from scipy.signal import resample_poly

from against_tool import ENGINE_RATE, aligned, by_tool, compare, level_db, read_scene, skip_without

URI = "urn:speechenhance:voice"
RATE = 48000
LATENCY = 1327  # samples at 16 kHz
PRESETS = ["plain", "recording", "flat", "call", "natural", "steady", "recognition"]
CALL = 3


def run(*command):
    result = subprocess.run([str(word) for word in command], capture_output=True, text=True)
    assert result.returncode == 0, f"{command}: {result.stdout}{result.stderr}"
    return result.stdout + result.stderr


def apply_plugin(folder, rate, mic, mic_2, reference, **controls):
    soundfile.write(folder / "in.wav", np.stack([mic, mic_2, reference], 1), rate, "FLOAT")
    settings = [word for name, value in controls.items() for word in ("-c", name, value)]
    run("lv2apply", "-i", folder / "in.wav", "-o", folder / "out.wav", *settings, URI)
    return soundfile.read(folder / "out.wav", dtype="float32")[0]


def test_description(bundle):
    assert "Found 0 errors" in run("lv2_validate", bundle / "manifest.ttl", bundle / "speechenhance.ttl")
    told = run("lv2info", URI)
    assert all(f'{number} = "{name}"' in told for number, name in enumerate(PRESETS)), told
    assert "reported by port 4" in told, told


def test_samples(program, folder, scene):
    """At 16 kHz, without the latency, the program's samples: with a second microphone, without one, and whichever
    the preset; nothing at all done at an amount of 0."""
    mic, reference = (resample_poly(signal[6 * RATE:10 * RATE], 1, RATE // ENGINE_RATE).astype(np.float32) for signal in scene)
    mic_2 = (0.7 * np.roll(mic, 3) + np.random.default_rng(1).normal(0, 1e-3, len(mic))).astype(np.float32)
    silence = np.zeros_like(mic)
    soundfile.write(folder / "ref.wav", reference, ENGINE_RATE, "FLOAT")
    for number, second in ((1, mic_2), (3, silence)):
        ours = apply_plugin(folder, ENGINE_RATE, mic, second, reference, preset=number, follow_delay=0, delay=0)
        heard = mic if second is silence else np.stack([mic_2, mic], 1)
        soundfile.write(folder / "mic.wav", heard, ENGINE_RATE, "FLOAT")
        run(program, folder / "mic.wav", "--ref", folder / "ref.wav", "--delay", 0, "--preset", PRESETS[number],
            "--float", "-o", folder / "tool.wav")
        tools = soundfile.read(folder / "tool.wav", dtype="float32")[0]
        assert np.abs(tools).max() > 0.003
        assert np.array_equal(ours[LATENCY:], tools[:-LATENCY]), f"{PRESETS[number]} differs"
    bypassed = apply_plugin(folder, ENGINE_RATE, mic, mic_2, reference, amount=0)
    assert np.allclose(bypassed[LATENCY:], mic[:-LATENCY], atol=1e-6)


def test_delays(program, folder, scene):
    """At another rate: as the program where the reference is in time, and where the echo comes too late for the
    canceller alone, little of it left, quickly with the delay set and by and by with the delay found."""
    mic, reference = scene
    silence = np.zeros_like(mic)
    tools = by_tool(program, folder, mic, reference, RATE, "call")
    compare(apply_plugin(folder, RATE, mic, silence, reference, preset=CALL), tools, mic, RATE)
    delay_ms = 100
    late = np.pad(mic, (delay_ms * RATE // 1000, 0))[:len(mic)]
    for start, least_db, controls in ((3, 30, {"follow_delay": 0, "delay": delay_ms}), (5, 15, {})):
        ours, _ = aligned(apply_plugin(folder, RATE, late, silence, reference, preset=CALL, **controls), tools)
        echo = slice(start * RATE, int(6.5 * RATE))
        print(f"{controls}: {level_db(mic[echo]):.1f} dB of echo, {level_db(ours[echo]):.1f} dB left")
        assert level_db(ours[echo]) < level_db(mic[echo]) - least_db


def main():
    program, plugins = sys.argv[1:]
    skip_without("lv2_validate", "lv2apply", "lv2info")
    os.environ["LV2_PATH"] = f"{plugins}:/usr/lib/lv2"
    test_description(Path(plugins) / "speechenhance.lv2")
    with tempfile.TemporaryDirectory() as name:
        scene = read_scene(RATE)
        test_samples(program, Path(name), scene)
        test_delays(program, Path(name), scene)


if __name__ == "__main__":
    main()

"""The Python package over the built library.

environment: SPEECHENHANCE_LIBRARY and PYTHONPATH unless a wheel is installed; SPEECHENHANCE_TOOL, the program
whose results it has to give.
"""

import concurrent.futures
import dataclasses
import os
import subprocess
import threading
import time

import numpy as np
import pytest
import soundfile

import speechenhance
from speechenhance import Enhancer, Limiter, Peak, Settings, Shelf, enhance

RATE = 16000


def scene(seconds, rate=RATE, channels=2, seed=1):
    """Microphones (frames, channels) with bursts of harmonics, hiss and an echo, and the reference, float32."""
    random = np.random.default_rng(seed)
    time_s = np.arange(int(seconds * rate)) / rate
    voice = sum(np.sin(2 * np.pi * f * time_s) / f for f in range(140, 3000, 140)) * 20
    voice *= np.maximum(0, np.sin(2 * np.pi * 1.3 * time_s))
    reference = 0.2 * random.standard_normal(len(time_s)) * (time_s < seconds / 2)
    echo = 0.5 * np.concatenate([np.zeros(rate // 100), reference])[:len(time_s)]
    hiss = 0.02 * random.standard_normal((len(time_s), channels))
    mics = (0.1 * voice + echo)[:, np.newaxis] + hiss
    return mics.astype(np.float32), reference.astype(np.float32)


def by_tool(folder, mic, reference, preset):
    """What speech-enhance makes of the samples, in their type."""
    subtype = "PCM_16" if mic.dtype == np.int16 else "FLOAT"
    command = [os.environ["SPEECHENHANCE_TOOL"], folder / "mic.wav", "-o", folder / "out.wav", "--preset", preset]
    soundfile.write(folder / "mic.wav", mic, RATE, subtype)
    if reference is not None:
        soundfile.write(folder / "ref.wav", reference, RATE, subtype)
        command += ["--ref", folder / "ref.wav"]
    if mic.dtype != np.int16:
        command.append("--float")
    subprocess.run(command, check=True, stdout=subprocess.DEVNULL)
    return soundfile.read(folder / "out.wav", dtype=str(mic.dtype))[0]


@pytest.mark.skipif("SPEECHENHANCE_TOOL" not in os.environ, reason="SPEECHENHANCE_TOOL names no program")
@pytest.mark.parametrize("preset,channels,with_reference,integers", [
    ("recording", 1, False, True), ("call", 2, True, False), ("steady", 2, False, False), ("plain", 1, True, True)])
def test_gives_the_programs_bits(tmp_path, preset, channels, with_reference, integers):
    mic, reference = scene(3.0, channels=channels)
    if integers:
        mic, reference = (np.round(x * 8000).astype(np.int16) for x in (mic, reference))
    reference = reference if with_reference else None
    ours = enhance(mic[:, 0] if channels == 1 else mic, RATE, reference, preset)
    np.testing.assert_array_equal(ours, by_tool(tmp_path, mic, reference, preset))
    assert ours.dtype == mic.dtype and np.any(ours)


@pytest.mark.parametrize("rate,dtype", [(48000, np.float64), (44100, np.int16), (8000, np.float32)])
def test_blocks_of_any_length_give_what_one_call_gives(rate, dtype):
    mic, reference = scene(1.5, rate)
    if dtype == np.int16:
        mic, reference = mic * 8000, reference * 8000
    mic, reference = mic.astype(dtype), reference.astype(dtype)
    whole = enhance(mic, rate, reference)
    random, pieces, at = np.random.default_rng(2), [], 0
    with Enhancer(rate, 2, 1) as enhancer:
        while at < len(mic):
            end = at + int(random.choice([0, 1, 7, 160, 480, 4999]))
            pieces.append(enhancer.process(mic[at:end], reference[at:end]))
            at = end
        pieces.append(enhancer.flush())
        streamed = np.concatenate(pieces)[enhancer.latency:]
        assert streamed.dtype == whole.dtype == dtype and np.any(whole)
        np.testing.assert_array_equal(streamed, whole)
        again = np.concatenate([enhancer.process(mic, reference), enhancer.flush()])[enhancer.latency:]
    np.testing.assert_array_equal(again, whole)


def test_arrays_as_users_have_them():
    mic, reference = scene(0.5)
    expected = enhance(mic, RATE, reference)
    wide = np.repeat(mic, 3, axis=1)[:, ::3][::1]  # not contiguous
    np.testing.assert_array_equal(enhance(np.asfortranarray(wide), RATE, reference[:, np.newaxis]), expected)
    np.testing.assert_array_equal(enhance(mic, RATE, np.append(reference, np.ones(99, np.float32))), expected)
    assert len(enhance(mic[:0], RATE)) == 0
    broken = mic.copy()
    broken[1000:1100] = np.nan
    assert np.isfinite(enhance(broken, RATE)).all()


def test_numbers_near_zero_survive():
    tiny = np.float32(1e-40)
    with Enhancer(RATE) as enhancer:
        enhancer.process(scene(0.1, channels=1)[0])
        assert tiny * np.float32(0.5) > 0


def test_other_threads_run_meanwhile():
    mic = scene(60.0, channels=1)[0]
    beats = []

    def beat():
        while not done.is_set():
            beats.append(time.monotonic())
            time.sleep(0.001)

    done = threading.Event()
    with concurrent.futures.ThreadPoolExecutor(2) as pool, Enhancer(RATE) as enhancer:
        watcher = pool.submit(beat)
        start = time.monotonic()
        enhancer.process(mic)
        end = time.monotonic()
        done.set()
        watcher.result()
    # With the lock held the watcher would wait from the call's start to its end.
    assert max(np.diff([start, *(b for b in beats if start < b < end), end])) < 0.7 * (end - start)


def test_settings():
    for name, description in speechenhance.presets().items():
        settings = Settings.preset(name)
        assert settings == Settings.from_native(settings.to_native()) and description
    own = Settings("mix", 0.5, 20, 30, Limiter(0.5, 3.0), Shelf(300, 6), Shelf(7000, 12), (Peak(1000, 3, 2),))
    assert own == Settings.from_native(own.to_native())
    mic = scene(0.3, channels=1)[0]
    bypass = enhance(mic, RATE, preset=dataclasses.replace(own, amount=0.0, limiter=None))
    np.testing.assert_allclose(bypass, mic[:, 0], atol=1e-6)
    with Enhancer(RATE, 1, 1, own, delay=30) as enhancer:
        enhancer.process(mic, mic)
        enhancer.set("plain")
        status = enhancer.status
        assert status.delay_found and status.delay_ms == 30 and status.mic_db > -60


@pytest.mark.parametrize("error,words,call", [
    (ValueError, "rate", lambda: Enhancer(4000)),
    (ValueError, "channel", lambda: Enhancer(RATE, 3)),
    (ValueError, "delay", lambda: Enhancer(RATE, 1, 1, delay=900)),
    (ValueError, "milliseconds", lambda: Enhancer(RATE, 1, 1, delay="soon")),
    (ValueError, "plain, recording", lambda: enhance(np.zeros(99), RATE, preset="loud")),
    (ValueError, "denoise, mix", lambda: enhance(np.zeros(99), RATE, preset=Settings("loud"))),
    (ValueError, "residual", lambda: Settings(residual_db=500).to_native()),
    (ValueError, "at most 10", lambda: Settings(peaks=(Peak(500, 1, 1),) * 11).to_native()),
    (ValueError, "transpose", lambda: enhance(np.zeros((2, 999)), RATE)),
    (ValueError, "dimensions", lambda: enhance(np.zeros((9, 1, 1)), RATE)),
    (TypeError, "convert it", lambda: enhance(np.zeros(99, np.int32), RATE)),
    (ValueError, "made for 1", lambda: Enhancer(RATE).process(np.zeros((99, 2)))),
    (ValueError, "without a reference", lambda: Enhancer(RATE).process(np.zeros(9), np.zeros(9))),
    (ValueError, "reference 8", lambda: Enhancer(RATE, 1, 1).process(np.zeros(9), np.zeros(8))),
])
def test_says_what_is_wrong(error, words, call):
    with pytest.raises(error, match=words):
        call()


def test_is_closed_after_use():
    with Enhancer(RATE) as enhancer:
        pass
    with pytest.raises(ValueError, match="closed"):
        enhancer.process(np.zeros(9))
    enhancer.close()

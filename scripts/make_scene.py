"""Makes the demo's sound: a talker in a small room, heard by two microphones beside a loudspeaker.

usage: make_scene.py FOLDER

Writes mic.wav (two microphones, 16 kHz), ref.wav (what the loudspeaker plays) and voice.wav (the talker
alone at microphone 1, for comparison). Voices come from espeak-ng; the room is a shoebox whose reflections
are computed with the image method (Allen and Berkley, 1979); the noise is a ventilator with a hum, synthesised.
"""

import subprocess
import sys
import tempfile
import wave
from pathlib import Path

import numpy as np
from scipy.signal import fftconvolve, lfilter, resample_poly

RATE = 16000
SPEED_OF_SOUND = 343.0  # m/s
ROOM = np.array([4.2, 3.6, 2.5])  # m
REFLECTION = 0.72  # of every wall, in pressure: T60 near 0.20 s
MICS = np.array([[2.00, 1.80, 0.80], [2.06, 1.80, 0.80]])
TALKER = np.array([2.70, 2.75, 1.30])
LOUDSPEAKER = np.array([2.03, 1.70, 0.75])
VENTILATOR = np.array([0.40, 0.60, 2.20])
SNR_DB = 8.0
ECHO_DB = 0.0  # loudspeaker's echo against the talker, at microphone 1

NEAR_TEXT = (
    "Good morning. This recording was made in a small room, with a ventilator in the corner, "
    "and somebody talking on the loudspeaker right beside the microphones. "
    "What you should hear in the end is this voice, and nothing else."
)
FAR_TEXT = (
    "Hello from the other end of the line. I keep talking, so that the canceller has something to do. "
    "Now I will be quiet for a moment. And here I am again, talking over you."
)


def say(text, voice, speed):
    """Speech from espeak-ng at 16 kHz, mono, peak 1."""
    with tempfile.NamedTemporaryFile(suffix=".wav") as file:
        subprocess.run(["espeak-ng", "-v", voice, "-s", str(speed), "-w", file.name, text], check=True)
        with wave.open(file.name) as reader:
            rate = reader.getframerate()
            samples = np.frombuffer(reader.readframes(reader.getnframes()), "<i2").astype(float)
    speech = resample_poly(samples, RATE, rate)
    return speech / np.max(np.abs(speech))


def room_response(source, mic, seconds=0.3, order=10):
    """Impulse response from source to mic."""
    response = np.zeros(int(seconds * RATE))
    images = np.arange(-order, order + 1)
    for flip in np.ndindex(2, 2, 2):
        flip = np.array(flip)
        for n in np.ndindex(len(images), len(images), len(images)):
            shift = images[list(n)]
            reflections = np.sum(np.abs(shift - flip) + np.abs(shift))
            distance = np.linalg.norm((1 - 2 * flip) * source + 2 * shift * ROOM - mic)
            delay = distance / SPEED_OF_SOUND * RATE
            whole = int(delay)
            if whole + 1 < len(response):
                gain = REFLECTION**reflections / (4 * np.pi * distance)
                response[whole] += gain * (1 - (delay - whole))
                response[whole + 1] += gain * (delay - whole)
    return response


def level(signal):
    return np.sqrt(np.mean(signal**2))


def at(signal, start, length):
    """`signal` placed `start` seconds into `length` samples of silence."""
    placed = np.zeros(length)
    first = int(start * RATE)
    part = signal[: length - first]
    placed[first : first + len(part)] = part
    return placed


def write(path, channels):
    samples = np.clip(np.round(np.stack(channels, axis=-1) * 32767), -32768, 32767).astype("<i2")
    with wave.open(str(path), "wb") as writer:
        writer.setnchannels(samples.shape[1])
        writer.setsampwidth(2)
        writer.setframerate(RATE)
        writer.writeframes(samples.tobytes())


def main():
    if len(sys.argv) != 2:
        sys.exit(__doc__)
    folder = Path(sys.argv[1])
    if not folder.is_dir():
        sys.exit(f"make_scene.py: {folder} is not a folder")
    random = np.random.default_rng(1)

    near = say(NEAR_TEXT, "en-gb", 150)
    far = say(FAR_TEXT, "en-us+f3", 160)
    length = int((len(near) / RATE + 9.0) * RATE)
    # The far end talks alone, then falls silent while the talker starts, then talks over.
    near = at(near, 7.0, length)
    far = at(far[: 6 * RATE], 0.5, length) + at(far[-5 * RATE :], 12.0, length)
    played = np.tanh(1.2 * far) / 1.2  # a small loudspeaker near its limit

    wind = lfilter([1.0], [1.0, -0.97], random.standard_normal(length)) + 0.2 * random.standard_normal(length)
    hum = sum(np.sin(2 * np.pi * 50 * k * np.arange(length) / RATE) / k for k in (1, 2, 3, 6))
    noise = wind / level(wind) + 0.3 * hum / level(hum)

    def heard(source, position):
        return [fftconvolve(source, room_response(position, mic))[:length] for mic in MICS]

    voice, echo, fan = heard(near, TALKER), heard(played, LOUDSPEAKER), heard(noise, VENTILATOR)
    active = near != 0
    voice_level = level(voice[1][active])
    echo_gain = voice_level / level(echo[1][far != 0]) * 10 ** (ECHO_DB / 20)
    fan_gain = voice_level / level(fan[1]) * 10 ** (-SNR_DB / 20)
    mics = [v + echo_gain * e + fan_gain * f for v, e, f in zip(voice, echo, fan)]
    scale = 0.5 / np.max(np.abs(mics))

    write(folder / "mic.wav", [scale * m for m in mics])
    write(folder / "ref.wav", [0.5 * far])
    write(folder / "voice.wav", [scale * voice[1]])


if __name__ == "__main__":
    main()

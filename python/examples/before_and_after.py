"""Enhances a recording and draws both. Cells as notebooks have them: open it in Jupyter or Spyder, or run it.

usage: before_and_after.py NOISY.wav CLEAN.wav PICTURE.png [REFERENCE.wav]
"""

# %% The recording
import sys

import matplotlib
import numpy as np
import soundfile

import speechenhance

matplotlib.use("Agg")
import matplotlib.pyplot as plt  # noqa: E402

noisy, clean, picture = sys.argv[1:4]
mic, rate = soundfile.read(noisy, dtype="float32")
reference = soundfile.read(sys.argv[4], dtype="float32")[0] if len(sys.argv) > 4 else None

# %% One call
out = speechenhance.enhance(mic, rate, reference)
soundfile.write(clean, out, rate)

# %% The same as it would arrive from a sound card, 20 ms at a time
channels = 1 if mic.ndim == 1 else mic.shape[1]
references = 0 if reference is None else 1 if reference.ndim == 1 else reference.shape[1]
block = rate // 50
with speechenhance.Enhancer(rate, channels, references) as enhancer:
    blocks = []
    for at in range(0, len(mic), block):
        played = None if reference is None else reference[at:at + block]
        if played is not None and len(played) < len(mic[at:at + block]):
            played = None  # the loudspeaker has stopped
        blocks.append(enhancer.process(mic[at:at + block], played))
    blocks.append(enhancer.flush())
    streamed = np.concatenate(blocks)[enhancer.latency:]
    print(f"latency {enhancer.latency / rate * 1000:.1f} ms, largest difference from one call "
          f"{np.abs(streamed - out).max():.1g}")

# %% Both pictures
heard = mic if mic.ndim == 1 else mic[:, -1]
figure, axes = plt.subplots(2, 1, sharex=True, figsize=(10, 6), layout="constrained")
for axis, sound, title in zip(axes, (heard, out), (noisy, clean)):
    axis.specgram(sound + 1e-9, NFFT=512, Fs=rate, noverlap=384, vmin=-150, vmax=-50, cmap="magma")
    axis.set(title=title, ylabel="Hz", ylim=(0, 8000))
axes[1].set_xlabel("s")
figure.savefig(picture, dpi=100)

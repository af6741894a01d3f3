"""Clean voices from noisy rooms: echo cancellation, a neural denoiser, equaliser and limiter.

>>> import soundfile, speechenhance
>>> mic, rate = soundfile.read("noisy.wav")
>>> soundfile.write("clean.wav", speechenhance.enhance(mic, rate), rate)

`enhance()` does a whole recording, `Enhancer` a stream of blocks of any length. Both take NumPy arrays of one
or two channels at any rate from 8 to 192 kHz. What they give at 16 kHz is, bit for bit, what the program
`speech-enhance` gives.
"""

from speechenhance._enhancer import Enhancer, enhance
from speechenhance._library import version
from speechenhance._settings import Limiter, Peak, Settings, Shelf, Status, presets

__version__ = version()
__all__ = ["Enhancer", "Limiter", "Peak", "Settings", "Shelf", "Status", "enhance", "presets"]

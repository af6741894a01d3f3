"""Streams and whole recordings."""

import ctypes
from types import TracebackType
from typing import Any, Optional, Type, Union

import numpy as np
import numpy.typing as npt

from speechenhance._library import DELAY_AUTO, StreamStatus, check, library
from speechenhance._settings import Settings, Status

Samples = npt.NDArray[Any]  # float32, float64 or int16
Delay = Union[float, str]

_FULL_SCALE = np.float32(32768)
_LONGEST_CALL = 2 ** 24  # frames


def _planar(samples: Samples, name: str, channels: Optional[int] = None) -> npt.NDArray[np.float32]:
    """(channels, frames) of float32 in full scale 1 from an array as users have it."""
    samples = np.asarray(samples)
    if samples.dtype not in (np.float32, np.float64, np.int16):
        raise TypeError(f"{name} holds {samples.dtype}; convert it to float32, float64 or int16")
    if samples.ndim not in (1, 2):
        raise ValueError(f"{name} has {samples.ndim} dimensions; give (frames,) or (frames, channels)")
    if samples.ndim == 2 and samples.shape[1] not in (1, 2):
        hint = "; transpose it" if samples.shape[0] in (1, 2) else ""
        raise ValueError(f"{name} has the shape {samples.shape}; give (frames,) or (frames, 1 or 2){hint}")
    columns = samples if samples.ndim == 2 else samples[:, np.newaxis]
    if channels is not None and columns.shape[1] != channels:
        raise ValueError(f"{name} has {columns.shape[1]} channels, the stream was made for {channels}")
    planar = np.ascontiguousarray(columns.T, dtype=np.float32)
    return planar / _FULL_SCALE if samples.dtype == np.int16 else planar


def _as(dtype: "np.dtype[Any]", samples: npt.NDArray[np.float32]) -> Samples:
    """As the program writes them: 16-bit samples are clipped, then cut off towards zero."""
    if dtype != np.int16:
        return samples.astype(dtype, copy=False)
    return np.clip(samples * _FULL_SCALE, -_FULL_SCALE, _FULL_SCALE - 1).astype(np.int16)


def _pointers(planar: npt.NDArray[np.float32], start: int) -> "ctypes.Array[ctypes.c_void_p]":
    addresses = [row[start:].ctypes.data for row in planar]
    return (ctypes.c_void_p * len(addresses))(*addresses)


class Enhancer:
    """A stream of sound: one talker's microphones in, one clean voice out, in blocks of any length.

    >>> with Enhancer(48000, preset="call", reference_channels=1) as enhancer:
    ...     for mic, playback in blocks:
    ...         play(enhancer.process(mic, playback))
    ...     play(enhancer.flush())

    What comes out is `latency` samples behind what goes in. How the sound is cut into blocks changes no bit
    of it. An instance belongs to one thread at a time, except that `set`, `status` and `latency` may be used while
    another processes; the interpreter's lock is released meanwhile. Instances are independent of each other.

    Parameters
    ----------
    rate : samples per second, 8000 to 192000. Nothing above 8 kHz passes.
    mic_channels : 1 or 2. Of two microphones the second is the one that is enhanced.
    reference_channels : 0 (no echo is cancelled), 1 or 2 (averaged): what the loudspeaker plays.
    preset : a name from `presets()`, or `Settings`.
    delay : by how many ms the echo reaches the microphones' input later than the reference reaches its own,
        -500 to 500, or "auto": found and followed.

    Raises ValueError for what is outside these ranges, MemoryError.
    """

    def __init__(self, rate: int, mic_channels: int = 1, reference_channels: int = 0,
                 preset: Union[str, Settings] = "recording", delay: Delay = "auto") -> None:
        self._stream = ctypes.c_void_p()
        self._dtype: "np.dtype[Any]" = np.dtype(np.float32)
        self._mic_channels, self._reference_channels = mic_channels, reference_channels
        native = _settings(preset).to_native()
        if isinstance(delay, str) and delay != "auto":
            raise ValueError(f'the delay is {delay!r}; give milliseconds or "auto"')
        milliseconds = DELAY_AUTO if delay == "auto" else round(float(delay))
        check(library.se_stream_create(int(rate), mic_channels, reference_channels, milliseconds,
                                       ctypes.byref(self._stream)))
        check(library.se_stream_set_settings(self._stream, ctypes.byref(native)))

    def process(self, mic: Samples, reference: Optional[Samples] = None) -> Samples:
        """Enhances a block.

        `mic` is (frames,) or (frames, mic_channels) of float32, float64 (full scale 1) or int16; `reference`
        likewise with as many frames, or None for silence. Returns (frames,) of mic's type, mono. NaN counts as
        silence, what lies beyond 16 times full scale as that. Raises TypeError and ValueError for other types and
        shapes.
        """
        self._check_open()
        mics = _planar(mic, "mic", self._mic_channels)
        references = None
        if reference is not None:
            if self._reference_channels == 0:
                raise ValueError("the stream was made without a reference; set reference_channels")
            references = _planar(reference, "reference", self._reference_channels)
            if references.shape[1] != mics.shape[1]:
                raise ValueError(f"mic has {mics.shape[1]} frames, reference {references.shape[1]}")
        self._dtype = np.asarray(mic).dtype
        out = np.empty(mics.shape[1], np.float32)
        for start in range(0, len(out), _LONGEST_CALL):
            library.se_stream_process(
                self._stream, _pointers(mics, start),
                None if references is None else _pointers(references, start), out[start:].ctypes.data,
                min(_LONGEST_CALL, len(out) - start))
        return _as(self._dtype, out)

    def flush(self) -> Samples:
        """The last `latency` samples of what has gone in, of the last block's type; the stream then starts
        anew."""
        rest = self.process(np.zeros((self.latency, self._mic_channels), self._dtype))
        library.se_stream_reset(self._stream)
        return rest

    @property
    def latency(self) -> int:
        """By how many samples the output lags the input, the same from the first block to the last."""
        self._check_open()
        return int(library.se_stream_latency(self._stream))

    @property
    def status(self) -> Status:
        """Levels, echo reduction and the delay that was found."""
        self._check_open()
        native = StreamStatus()
        library.se_stream_get_status(self._stream, ctypes.byref(native))
        return Status(native.mic_db, native.ref_db, native.out_db, native.echo_reduction_db, native.delay_ms,
                      native.delay_confidence, bool(native.delay_found))

    def set(self, preset: Union[str, Settings]) -> None:
        """Changes preset or settings from the next 10 ms on."""
        self._check_open()
        native = _settings(preset).to_native()
        check(library.se_stream_set_settings(self._stream, ctypes.byref(native)))

    def close(self) -> None:
        """Releases the stream's memory. Nothing but `close` may be called afterwards."""
        stream, self._stream = self._stream, ctypes.c_void_p()
        library.se_stream_destroy(stream)

    def __enter__(self) -> "Enhancer":
        return self

    def __exit__(self, kind: Optional[Type[BaseException]], error: Optional[BaseException],
                 trace: Optional[TracebackType]) -> None:
        self.close()

    def __del__(self) -> None:
        if getattr(self, "_stream", None):
            self.close()

    def _check_open(self) -> None:
        if not self._stream:
            raise ValueError("the enhancer is closed; make a new one")


def enhance(mic: Samples, rate: int, reference: Optional[Samples] = None, preset: Union[str, Settings] = "recording",
            delay: Delay = "auto") -> Samples:
    """Enhances a whole recording.

    Parameters
    ----------
    mic : (frames,) or (frames, 1 or 2), float32 or float64 of full scale 1, or int16. Of two microphones the
        second is the one that is enhanced.
    rate : samples per second, 8000 to 192000.
    reference : what the loudspeaker played meanwhile, likewise; a shorter one is followed by silence, of a longer
        one the end is ignored.
    preset, delay : as of `Enhancer`.

    Returns (frames,) of mic's type, aligned with it to the sample. Raises ValueError and TypeError as `Enhancer`.
    """
    mics = _planar(mic, "mic").T
    references = None if reference is None else _resized(_planar(reference, "reference").T, len(mics))
    channels = 0 if references is None else references.shape[1]
    with Enhancer(rate, mics.shape[1], channels, preset, delay) as enhancer:
        out = np.concatenate([enhancer.process(mics, references), enhancer.flush()])[enhancer.latency:]
    return _as(np.asarray(mic).dtype, out)


def _resized(samples: npt.NDArray[np.float32], frames: int) -> npt.NDArray[np.float32]:
    return np.pad(samples[:frames], ((0, max(0, frames - len(samples))), (0, 0)))


def _settings(preset: Union[str, Settings]) -> Settings:
    return Settings.preset(preset) if isinstance(preset, str) else preset

"""The shared library's functions, as <speechenhance/stream.h> declares them."""

import ctypes
import os
from pathlib import Path

MAX_PEAKS = 10
DELAY_AUTO = 2 ** 31 - 1
NO_MEMORY = -1


class ShelfBand(ctypes.Structure):
    _fields_ = [("enable", ctypes.c_int32), ("freq_hz", ctypes.c_float), ("atten_db", ctypes.c_float)]


class PeakBand(ctypes.Structure):
    _fields_ = [("center_hz", ctypes.c_int32), ("gain_db", ctypes.c_float), ("q", ctypes.c_int32)]


class EngineConfig(ctypes.Structure):
    _fields_ = [("residual_db", ctypes.c_int32), ("ns_residual_db", ctypes.c_int32),
                ("limiter_enable", ctypes.c_int32), ("limiter_max_gain", ctypes.c_float),
                ("limiter_level_db", ctypes.c_float), ("reserved_a", ctypes.c_int32),
                ("reserved_b", ctypes.c_int32), ("low_shelf", ShelfBand), ("high_shelf", ShelfBand),
                ("peak", PeakBand * MAX_PEAKS)]


class StreamSettings(ctypes.Structure):
    _fields_ = [("mode", ctypes.c_int32), ("amount", ctypes.c_float), ("engine", EngineConfig)]


class StreamStatus(ctypes.Structure):
    _fields_ = [("mic_db", ctypes.c_float), ("ref_db", ctypes.c_float), ("out_db", ctypes.c_float),
                ("echo_reduction_db", ctypes.c_float), ("delay_ms", ctypes.c_float),
                ("delay_confidence", ctypes.c_float), ("delay_found", ctypes.c_int32),
                ("reserved", ctypes.c_int32 * 9)]


def _load() -> ctypes.CDLL:
    """The library that SPEECHENHANCE_LIBRARY names, the one in this package, or the system's."""
    inside = Path(__file__).parent / "libspeechenhance-stream.so"
    name = os.environ.get("SPEECHENHANCE_LIBRARY")
    if not name:
        name = str(inside) if inside.exists() else "libspeechenhance-stream.so.1"
    try:
        return ctypes.CDLL(name)
    except OSError as error:
        raise ImportError(f"libspeechenhance-stream cannot be loaded: {error}; install the wheel of this "
                          "platform or Debian's libspeechenhance-stream1") from error


library = _load()


def _declare(name: str, result: object, *arguments: object) -> None:
    function = getattr(library, name)
    function.restype, function.argtypes = result, arguments


_signals = ctypes.POINTER(ctypes.c_void_p)
_declare("se_stream_error_text", ctypes.c_char_p, ctypes.c_int32)
_declare("se_stream_version", ctypes.c_char_p)
_declare("se_stream_create", ctypes.c_int32, ctypes.c_int32, ctypes.c_int32, ctypes.c_int32, ctypes.c_int32,
         ctypes.POINTER(ctypes.c_void_p))
_declare("se_stream_destroy", None, ctypes.c_void_p)
_declare("se_stream_latency", ctypes.c_int32, ctypes.c_void_p)
_declare("se_stream_process", None, ctypes.c_void_p, _signals, _signals, ctypes.c_void_p, ctypes.c_int32)
_declare("se_stream_reset", None, ctypes.c_void_p)
_declare("se_stream_preset_name", ctypes.c_char_p, ctypes.c_int32)
_declare("se_stream_preset_description", ctypes.c_char_p, ctypes.c_int32)
_declare("se_stream_get_preset", ctypes.c_int32, ctypes.c_char_p, ctypes.POINTER(StreamSettings))
_declare("se_stream_check_settings", ctypes.c_int32, ctypes.POINTER(StreamSettings))
_declare("se_stream_set_settings", ctypes.c_int32, ctypes.c_void_p, ctypes.POINTER(StreamSettings))
_declare("se_stream_get_status", None, ctypes.c_void_p, ctypes.POINTER(StreamStatus))


def version() -> str:
    """The library's version, for example "1.0.0"."""
    text: bytes = library.se_stream_version()
    return text.decode()


def check(result: int) -> None:
    """Raises what the library reports; 0 is success."""
    if result == 0:
        return
    text: str = library.se_stream_error_text(result).decode()
    raise (MemoryError if result == NO_MEMORY else ValueError)(text)

"""What is done to the sound, and what a stream tells about itself."""

import ctypes
import dataclasses
from typing import Dict, Optional, Tuple

from speechenhance._library import MAX_PEAKS, ShelfBand, StreamSettings, check, library

_MODES = ("denoise", "mix", "suppress")


@dataclasses.dataclass(frozen=True)
class Shelf:
    """Turns down everything beyond a corner frequency."""

    freq_hz: float  # low shelf 279 to 8000, high shelf 0 to 7718
    atten_db: float  # 0 to 120


@dataclasses.dataclass(frozen=True)
class Peak:
    """A triangle in linear gain around a centre, `center_hz / q` wide."""

    center_hz: int  # 31 to 7966
    gain_db: float  # -60 to 40
    q: int  # 1 to center_hz / 31


@dataclasses.dataclass(frozen=True)
class Limiter:
    """Keeps peaks below a ceiling."""

    ceiling: float  # 0.01 to 1, full scale being 1
    gain_db: float = 0.0  # make-up gain ahead of it, 0 to 60


@dataclasses.dataclass(frozen=True)
class Settings:
    """All settings of a stream; start from a preset and replace what should differ:

    >>> dataclasses.replace(Settings.preset("recording"), limiter=None)
    """

    mode: str = "denoise"  # "denoise", "mix" (unprocessed sound added), "suppress" (added, then suppressed)
    amount: float = 1.0  # 1: the enhanced sound, 0: the microphone's, between: both mixed
    residual_db: int = 30  # how far down the unprocessed sound is mixed in ("mix"), 0 to 120
    ns_residual_db: int = 40  # the same ahead of the suppressor ("suppress"), 10 to 130
    limiter: Optional[Limiter] = None
    low_shelf: Optional[Shelf] = None
    high_shelf: Optional[Shelf] = None
    peaks: Tuple[Peak, ...] = ()  # at most ten

    @staticmethod
    def preset(name: str) -> "Settings":
        """The settings of a preset. Raises ValueError for a name that `presets()` does not have."""
        native = StreamSettings()
        if library.se_stream_get_preset(name.encode(), ctypes.byref(native)) != 0:
            raise ValueError(f"no preset {name!r}; there are {', '.join(presets())}")
        return Settings.from_native(native)

    @staticmethod
    def from_native(native: StreamSettings) -> "Settings":
        """The settings in the library's record, which holds them as 32-bit numbers."""
        engine = native.engine

        def shelf(band: ShelfBand) -> Optional[Shelf]:
            return Shelf(band.freq_hz, band.atten_db) if band.enable else None

        return Settings(
            _MODES[native.mode], native.amount, engine.residual_db, engine.ns_residual_db,
            Limiter(engine.limiter_max_gain, engine.limiter_level_db) if engine.limiter_enable else None,
            shelf(engine.low_shelf), shelf(engine.high_shelf),
            tuple(Peak(p.center_hz, p.gain_db, p.q) for p in engine.peak if p.q > 0))

    def to_native(self) -> StreamSettings:
        """The library's record. Raises ValueError for what is outside its range."""
        if self.mode not in _MODES:
            raise ValueError(f"no mode {self.mode!r}; there are {', '.join(_MODES)}")
        if len(self.peaks) > MAX_PEAKS:
            raise ValueError(f"{len(self.peaks)} peaks; at most {MAX_PEAKS} are possible")
        native = StreamSettings(_MODES.index(self.mode), self.amount)
        engine = native.engine
        engine.residual_db, engine.ns_residual_db = self.residual_db, self.ns_residual_db
        if self.limiter is not None:
            engine.limiter_enable = 1
            engine.limiter_max_gain, engine.limiter_level_db = self.limiter.ceiling, self.limiter.gain_db
        if self.low_shelf is not None:
            engine.low_shelf = ShelfBand(1, self.low_shelf.freq_hz, self.low_shelf.atten_db)
        if self.high_shelf is not None:
            engine.high_shelf = ShelfBand(1, self.high_shelf.freq_hz, self.high_shelf.atten_db)
        for band, peak in zip(engine.peak, self.peaks):
            if peak.q < 1:
                raise ValueError(f"the peak at {peak.center_hz} Hz has a q of {peak.q}; 1 is the widest")
            band.center_hz, band.gain_db, band.q = peak.center_hz, peak.gain_db, peak.q
        check(library.se_stream_check_settings(ctypes.byref(native)))
        return native


@dataclasses.dataclass(frozen=True)
class Status:
    """What goes on in a stream. Levels are rms over about 100 ms in dB of a constant 1, -150 for silence."""

    mic_db: float
    ref_db: float
    out_db: float
    echo_reduction_db: float  # over the last seconds in which the loudspeaker played; 0 until it has
    delay_ms: float  # of the echo behind the reference: found, or set; 0 until one is found
    delay_confidence: float  # 0 to 1; from 0.5 on the delay is relied on; 1 if it is set
    delay_found: bool


def presets() -> Dict[str, str]:
    """Names of the presets and what each is for, "plain" first."""
    found: Dict[str, str] = {}
    while (name := library.se_stream_preset_name(len(found))) is not None:
        found[name.decode()] = library.se_stream_preset_description(len(found)).decode()
    return found

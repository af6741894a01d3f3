"""The denoiser computed from a model file's tables in plain numpy, step by step as the engine does:
exact integer sums, single-precision arithmetic around them. Slow; for checking exports."""

import numpy as np

from training import library
from training.bands import expansion
from training.library import SHAPE

f32 = np.float32
Q10, Q11 = f32(1024), f32(2048)


def to_fixed(x: np.ndarray, scale: np.float32) -> np.ndarray:
    """int16 values, rounded half away from zero, as float64 so that products of them are exact."""
    v = x * scale
    return np.clip(np.trunc(v + np.where(v < 0, f32(-0.5), f32(0.5))), -32768, 32767).astype(np.float64)


def fma(a, b, c) -> np.ndarray:
    return (a.astype(np.float64) * np.float64(b) + c).astype(f32)


def sigmoid(x: np.ndarray) -> np.ndarray:
    return f32(0.5) * (library.tanh(f32(0.5) * x) + f32(1))


def convolve(tables: dict, number: int, frames: np.ndarray) -> np.ndarray:
    """(T, positions, channels) -> normalised (T - 1, positions', channels'), one frame later."""
    shape = SHAPE.convs[number - 1]
    q = to_fixed(np.clip(frames, -32, f32(32 - 1 / 1024)), Q10)
    q = np.pad(q, ((1, 0), (shape.freq_pad, shape.freq_pad), (0, 0)))
    steps = len(frames) - 1
    x = np.arange(shape.out_width)[:, None] * shape.freq_stride + np.arange(shape.kernel_freq)
    taps = np.stack([q[t:t + steps][:, x] for t in range(shape.kernel_time)], 2)
    kernel = tables[f"conv{number}_kernel"].astype(np.float64)
    patches = taps.reshape(steps, shape.out_width, -1)
    sums = (patches @ kernel[:, :patches.shape[-1]].T).astype(f32)
    out = sums * (tables[f"conv{number}_kernel_scale"] * f32(1 / 1024)) + tables[f"conv{number}_bias"]
    out = fma(out, tables[f"bn{number}_bn_gamma_var"], tables[f"bn{number}_bn_gmb"])
    return np.clip(out, f32(0), f32(6))


def gru(tables: dict, name: str, x: np.ndarray) -> np.ndarray:
    """(T, inputs) -> (T, hidden), from a zero state."""
    w_ih, w_hh = (tables[f"{name}_weight_{p}"].astype(np.float64) for p in ("ih", "hh"))
    b_ih, b_hh = (tables[f"{name}_bias_{p}"].reshape(3, -1) for p in ("ih", "hh"))
    unit = f32(2 ** -19)
    sums_in = (to_fixed(x, Q11) @ w_ih.T).astype(f32).reshape(len(x), 3, -1)
    state = np.zeros(SHAPE.hidden)
    out = np.empty((len(x), SHAPE.hidden), f32)
    for t in range(len(x)):
        rec = (w_hh @ state).astype(f32).reshape(3, -1)
        r, z = (sigmoid(fma(rec[i], unit, sums_in[t, i] * unit + b_ih[i]) + b_hh[i]) for i in (0, 1))
        n = (rec[2] * unit + b_hh[2]) * r
        n = library.tanh(fma(sums_in[t, 2], unit, n) + b_ih[2])
        out[t] = fma(state.astype(f32), z * f32(2 ** -11), (f32(1) - z) * n)
        state = to_fixed(out[t], Q11)
    return out


def raw_gains(tables: dict, features: np.ndarray) -> np.ndarray:
    """Features (frames, channels, bands) from the start of a stream -> gains (frames - lookahead,
    bins) before reshaping; row t belongs to frame t."""
    x = features.transpose(0, 2, 1).astype(f32)
    for number in range(1, len(SHAPE.convs) + 1):
        x = convolve(tables, number, x)
    half = x.shape[1] // 2
    low, high = (x[:, part].transpose(0, 2, 1).reshape(len(x), -1)
                 for part in (slice(0, half), slice(half, None)))
    joined = np.concatenate([gru(tables, "gru1_1", low), gru(tables, "gru1_2", high)], 1)
    flat = np.concatenate([gru(tables, "gru2_1", joined[:, 0::2]),
                           gru(tables, "gru2_2", joined[:, 1::2])], 1)
    sums = (to_fixed(flat, Q11) @ tables["fc2_weight"].astype(np.float64).T).astype(f32)
    values = sigmoid(sums * (tables["fc2_weight_scale"] * f32(1 / 2048)) + tables["fc2_bias"])
    return (values @ expansion().T).astype(f32)

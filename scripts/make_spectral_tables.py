#!/usr/bin/env python3
"""Writes the constant tables of the spectral transforms as C++ source, to src/spectral/.

  hann_window_table.cpp  p_win_tmp, the periodic Hann window of 512 values
  fft512_tables.cpp      twiddles of the 512-point real transform

All values have six decimals. The twiddles are the formulas, rounded. The window is not quite: its
history is that of single-precision arithmetic, and models and levels are tuned to its sums. Four
figures fix it: the stored values sum to 255.999994 and their squares to 191.999994,
w[67] is 0.159699, and 20 entries differ in the last digit from the formula rounded exactly.
Evaluating 0.5 - 0.5 cos(x) with x, and then the result, rounded to single precision before the
rounding to six decimals gives 16 such entries and that sum; four more, of those whose exact values
lie closest to a rounding tie, complete it: two up and two down, which keeps the sum, chosen with
the least total distance from their ties such that the squares sum to 191.999994 both for the
decimals and for the stored single-precision values.
"""
import itertools
import math
import pathlib
import struct

N = 512
OUT = pathlib.Path(__file__).resolve().parent.parent / "src" / "spectral"


def single(x):
    return struct.unpack("f", struct.pack("f", x))[0]


def micro(x):
    return round(x * 1e6)


def prints_as(values, decimals):
    return f"{math.fsum(values):.6f}" == decimals


def hann_window():
    """The 512 values in millionths."""
    exact = [0.5 - 0.5 * math.cos(2 * math.pi * n / N) for n in range(N)]
    window = [micro(single(0.5 - 0.5 * math.cos(single(2 * math.pi * n / N)))) for n in range(N)]
    off = {n for n in range(N) if window[n] != micro(exact[n])}
    assert len(off) == 16 and window[67] == 159699 and sum(window) == 255999994

    def tie_distance(n):
        return abs(exact[n] * 1e6 - math.floor(exact[n] * 1e6) - 0.5)

    # The other neighbour of the exact value, as +1 or -1 millionth.
    def step(n):
        return 1 if exact[n] * 1e6 > window[n] else -1

    def fits(chosen):
        if sum(step(n) for n in chosen) != 0:
            return False
        new = [w + step(n) if n in chosen else w for n, w in enumerate(window)]
        squares = [(w / 1e6) ** 2 for w in new]
        stored = [single(w / 1e6) for w in new]
        return (
            prints_as(squares, "191.999994")
            and prints_as([s * s for s in stored], "191.999994")
            and prints_as(stored, "255.999994")
        )

    closest = sorted((n for n in range(N) if n not in off), key=lambda n: (tie_distance(n), n))[:24]
    four = min(
        filter(fits, itertools.combinations(closest, 4)),
        key=lambda c: (sum(map(tie_distance, c)), c),
    )
    for n in four:
        window[n] += step(n)
    assert sum(w != micro(x) for w, x in zip(window, exact)) == 20
    return window


def twiddles():
    """Stage twiddles of 256 complex points in four radix-4 stages, as complex numbers."""
    table = []
    for fstride, mstride in ((16, 4), (4, 16), (1, 64)):
        for k in (1, 2, 3):
            for j in range(mstride):
                phase = -2 * math.pi * fstride * j * k / 256
                table.append(complex(math.cos(phase), math.sin(phase)))
    return table + [0j] * 4


def super_twiddles():
    phases = [-math.pi * ((i + 1) / 256 + 0.5) for i in range(128)]
    return [complex(math.cos(p), math.sin(p)) for p in phases]


def array(name, size, millionths):
    lines = [f"const float {name}[{size}] = {{"]
    texts = [f"{m / 1e6:.6f}f" for m in millionths]
    for i in range(0, len(texts), 8):
        lines.append("    " + ", ".join(texts[i : i + 8]) + ",")
    return "\n".join(lines + ["};", ""])


def write(name, comment, body):
    text = f"// {comment} Made by scripts/make_spectral_tables.py.\n// clang-format off\n{body}"
    (OUT / name).write_text(text)


def main():
    write(
        "hann_window_table.cpp",
        "The periodic Hann window.",
        '#include "speechenhance/zel_stft.h"\n\n' + array("p_win_tmp", N, hann_window()),
    )
    parts = []
    for name, table in (("kFft512Twiddle", twiddles()), ("kFft512SuperTwiddle", super_twiddles())):
        # Adding 0 turns a rounded -0 into 0.
        parts.append(array(name + "Re", name + "s", [micro(t.real) + 0 for t in table]))
        parts.append(array(name + "Im", name + "s", [micro(t.imag) + 0 for t in table]))
    write(
        "fft512_tables.cpp",
        "Twiddles of the 512-point real transform.",
        '#include "spectral/fft512_tables.h"\n\nnamespace se {\n\n'
        + "\n".join(parts)
        + "\n}  // namespace se\n",
    )


if __name__ == "__main__":
    main()

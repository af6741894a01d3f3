"""Pictures for the model card: scores over SNR, learning curve, spectrograms."""

import json
from pathlib import Path

import matplotlib

matplotlib.use("Agg")
import matplotlib.pyplot as plt
import numpy as np

from training.conditions import SNRS
from training.library import SHAPE, analyse

PANELS = (("si-sdr gain", "SI-SDR gain (dB)"), ("stoi gain", "STOI gain"),
          ("lsd", "log-spectral distance (dB)"), ("segsnr", "segmental SNR (dB)"))


def scores(results: dict, path: Path) -> None:
    figure, axes = plt.subplots(2, 2, figsize=(9, 6.5), sharex=True)
    for axis, (key, title) in zip(axes.flat, PANELS):
        for name, row in results.items():
            # The float network lies on the engine's curve; presets are for the table.
            if name != "float network" and not name.startswith("preset"):
                axis.plot(SNRS, [row[f"snr {s}"][key] for s in SNRS], marker="o", markersize=3,
                          linewidth=2.5 if name == "engine" else 1,
                          linestyle="--" if name == "ideal gains" else "-", label=name)
        axis.set_title(title, fontsize=10)
        axis.grid(alpha=0.3)
    for axis in axes[1]:
        axis.set_xlabel("input SNR (dB)")
    figure.legend(*axes[0, 0].get_legend_handles_labels(), loc="lower center", ncol=4, fontsize=8)
    _finish(figure, path, bottom=0.07)


def learning(log: Path, path: Path) -> None:
    """The parts of the loss over hours of audio; a change of their weights shows as a step."""
    lines = [json.loads(line) for line in log.read_text().splitlines()]
    hours = [line["hours_of_audio"] for line in lines]
    names = [n for n in ("spectral", "ratio", "envelope", "silence") if n in lines[-1]]
    figure, axes = plt.subplots(1, len(names), figsize=(11, 2.8))
    for axis, name in zip(axes, names):
        values = np.array([line[name] for line in lines])
        axis.plot(hours, values, alpha=0.3)
        width = min(9, len(values))
        smooth = np.convolve(np.pad(values, width // 2, mode="edge"), np.ones(width) / width, "valid")
        axis.plot(hours, smooth[:len(hours)], color="C0")
        axis.set_title(name, fontsize=10)
        axis.set_xlabel("hours of mixed audio")
        axis.grid(alpha=0.3)
    _finish(figure, path)


def spectrograms(rows: list[tuple[str, dict[str, np.ndarray]]], path: Path) -> None:
    """One row per scene, one column per signal."""
    columns = list(rows[0][1])
    figure, axes = plt.subplots(len(rows), len(columns), figsize=(11, 2.2 * len(rows)),
                                sharex=True, sharey=True, squeeze=False)
    for axis_row, (title, signals) in zip(axes, rows):
        top = 20 * np.log10(max(np.abs(analyse(s)).max() for s in signals.values()) + 1e-9)
        for axis, name in zip(axis_row, columns):
            level = 20 * np.log10(np.abs(analyse(signals[name])).T + 1e-9)
            axis.imshow(level, origin="lower", aspect="auto", vmin=top - 80, vmax=top,
                        cmap="magma", extent=(0, level.shape[1] * SHAPE.hop / SHAPE.sample_rate, 0,
                                              SHAPE.sample_rate / 2000))
            axis.set_title(f"{title}: {name}", fontsize=8)
        axis_row[0].set_ylabel("kHz", fontsize=8)
    for axis in axes[-1]:
        axis.set_xlabel("s", fontsize=8)
    _finish(figure, path)


def _finish(figure, path: Path, bottom: float = 0.0) -> None:
    figure.tight_layout(rect=(0, bottom, 1, 1))
    figure.savefig(path, dpi=85)
    plt.close(figure)

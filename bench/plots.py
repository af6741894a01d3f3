"""The benchmark's plots, as SVG files."""

import matplotlib

matplotlib.use("Agg")
matplotlib.rcParams.update({
    "svg.hashsalt": "speechenhance",
    "svg.fonttype": "none",
    "font.family": "sans-serif",
    "font.size": 10,
    "axes.spines.top": False,
    "axes.spines.right": False,
    "figure.constrained_layout.use": True,
})

import matplotlib.pyplot as plt  # noqa: E402

OURS, OTHERS = "#1f6f8b", "#b9b4a7"
STAGES = ("#1f6f8b", "#67a9a0", "#d1603d", "#e0a458", "#6a4c93", "#a05195", "#444444", "#8a8578", "#c9c4b8")
ONE_THREAD, ALL_CORES = "#1f6f8b", "#d1603d"


def save(figure, path):
    figure.savefig(path, metadata={"Date": None, "Creator": None})
    plt.close(figure)


def bars(path, title, unit, entries):
    """entries: (label, value, lower quartile, upper quartile, is it ours)."""
    figure, axes = plt.subplots(figsize=(7.5, 0.6 + 0.38 * len(entries)))
    for y, (_, value, low, high, ours) in enumerate(reversed(entries)):
        axes.barh(y, value, color=OURS if ours else OTHERS, height=0.66,
                  xerr=[[max(0, value - low)], [max(0, high - value)]], error_kw={"ecolor": "#444444", "capsize": 3})
        axes.text(high, y, f"  {value:,.0f}", va="center")
    axes.set_yticks(range(len(entries)), [label for label, *_ in reversed(entries)])
    axes.tick_params(axis="y", length=0)
    axes.set_xlim(0, 1.12 * max(high for _, _, _, high, _ in entries))
    axes.set_xlabel(unit)
    axes.set_title(title, loc="left")
    save(figure, path)


def stages(path, title, columns):
    """columns: {label: {stage: instructions}}."""
    names = list(next(iter(columns.values())))
    height = 1.75 + 0.4 * len(columns)
    figure, axes = plt.subplots(figsize=(7.5, height), constrained_layout=False)
    figure.subplots_adjust(left=0.09, right=0.98, top=1 - 0.3 / height, bottom=1.3 / height)
    for y, shares in enumerate(reversed(columns.values())):
        left = 0
        total = sum(shares.values())
        for name, colour in zip(names, STAGES):
            width = 100 * shares[name] / total
            axes.barh(y, width, left=left, color=colour, height=0.66, label=name if y == 0 else None)
            if width >= 4:
                axes.text(left + width / 2, y, f"{width:.0f}", ha="center", va="center", color="white")
            left += width
    axes.set_yticks(range(len(columns)), list(reversed(columns)))
    axes.tick_params(axis="y", length=0)
    axes.set_xlim(0, 100)
    axes.set_xlabel("% of the instructions of a frame")
    axes.set_title(title, loc="left")
    figure.legend(loc="lower center", ncol=3, frameon=False)
    save(figure, path)


def scale(path, title, series):
    """series: {threads: [(engines, median, lower quartile, upper quartile)]}, microseconds per frame."""
    figure, axes = plt.subplots(figsize=(7.5, 3.4))
    for threads, points in series.items():
        engines, median, low, high = zip(*points)
        colour = ONE_THREAD if threads == 1 else ALL_CORES
        axes.fill_between(engines, low, high, color=colour, alpha=0.2, linewidth=0)
        axes.plot(engines, median, "o-", color=colour, markersize=4,
                  label=f"{threads} thread{'s' if threads > 1 else ''}")
    axes.set_xscale("log", base=2)
    ticks = [engines for engines, *_ in next(iter(series.values()))]
    axes.set_xticks(ticks, ticks)
    axes.set_ylim(bottom=0)
    axes.set_xlabel("engines in the process")
    axes.set_ylabel("CPU time per frame, µs")
    axes.set_title(title, loc="left")
    axes.legend(frameon=False)
    save(figure, path)

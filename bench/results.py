"""What a bench left in its folder, as the report's sections take it: engine.json (Google Benchmark), kernels.txt
(kernels_bench), counts.json, scale.json, jobs.json, overhead.json, sizes.json, tanh.json and machine.json."""

import json
import re
import statistics

FRAME_US = 10_000


class Spread:
    """Median and quartiles of repeated measurements."""

    def __init__(self, values):
        self.median = statistics.median(values)
        self.low, _, self.high = statistics.quantiles(values, n=4, method="inclusive")

    def text(self, digits=1):
        return f"{self.median:.{digits}f} ({self.low:.{digits}f} – {self.high:.{digits}f})"


class Results:
    def __init__(self, folder):
        def load(name):
            return json.loads((folder / name).read_text())

        self.times = {}  # microseconds, by "contender/variant"
        repetitions = {}
        self.stream_bytes = 0
        for run in load("engine.json")["benchmarks"]:
            if run["run_type"] == "iteration":
                repetitions.setdefault(run["run_name"], []).append(run["cpu_time"] / 1000)
                self.stream_bytes = int(run.get("bytes", self.stream_bytes))
        for name, values in repetitions.items():
            self.times[name] = Spread(values)
        self.repetitions = max(map(len, repetitions.values()))
        self.kernels = {}  # nanoseconds by kernel and variant
        for line in (folder / "kernels.txt").read_text().splitlines():
            times = re.findall(r"(\w+) +([\d.]+) ns", line)
            if times:
                name = line[: line.index(times[0][0] + " ")].strip()
                self.kernels[name] = {variant: float(time) for variant, time in times}
        self.counts = load("counts.json")
        scale = load("scale.json")
        self.scale = [entry for entry in scale if entry["frames_per_turn"] == 1]
        self.turns = [entry for entry in scale if entry["threads"] == 1 and
                      entry["engines"] == max(other["engines"] for other in scale)]
        self.jobs = load("jobs.json")
        self.overhead = load("overhead.json")
        self.sizes = load("sizes.json")
        self.tanh = load("tanh.json")
        self.machine = load("machine.json")
        # Best first, as the library lists them.
        self.variants = [v for v in reversed(self.counts["x86-64"]) if f"full/{v}" in self.times]
        streams = [name for name in self.times if name.startswith("stream/")]
        # By kind of multiply-add ("bytes", "int16"), the fastest pass.
        self.limits = {kind: min((n for n in streams if n.startswith(f"stream/{kind}_")),
                                 key=lambda name: self.times[name].median) for kind in ("bytes", "int16")}

    def instructions(self, architecture, variant, contender):
        return self.counts.get(architecture, {}).get(variant, {}).get("instructions", {}).get(contender)

    def bare(self, variant):
        """Products of the GRU layers and the head, and of the convolutions; None where they were not measured."""
        names = [f"products/{kind}_{variant}" for kind in ("dense", "convolutions")]
        return [self.times[name].median for name in names] if names[0] in self.times else None

    def ratio(self, a, b):
        return self.times[a].median / self.times[b].median


def streams_at_most(r):
    """How many streams one core and all cores hold, by the CPU time of the most engines measured."""
    most = max(entry["engines"] for entry in r.scale)
    return [int(entry["threads"] * FRAME_US / entry["cpu_us"]["median"])
            for entry in sorted(r.scale, key=lambda entry: entry["threads"]) if entry["engines"] == most]


def growth(by_threads):
    """How many times as much all cores do as one, from the entries of one number of engines."""
    cores = max(by_threads)
    return cores * by_threads[1]["cpu_us"]["median"] / by_threads[cores]["cpu_us"]["median"]


def overheads(entry):
    return [run["tool_cpu_s"] / run["alone_cpu_s"] for run in entry["rounds"]]

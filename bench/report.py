#!/usr/bin/python3
"""Writes the benchmark's results as a document with plots and prints its table of targets.

    report.py RESULTS_FOLDER DOCUMENT.md

The plots go into a folder named like the document.
"""

import json
import statistics
import sys
from pathlib import Path

import plots
from results import FRAME_US, Results, Spread, growth, overheads, streams_at_most
from sizes import short_name
from targets import LABELS, STREAMING_TARGETS, number, quotient, targets

MARKS = {True: "met", False: "**missed**", None: "not measured"}

# Products of one frame: for every layer the multiply-adds, and whether its weights serve once (GRU, head)
# or at every position along frequency (convolutions).
CONVOLUTIONS = ((64, 8, 48), (32, 16, 72), (16, 32, 144), (16, 64, 288), (16, 16, 576))
CONV_PRODUCTS = sum(positions * channels * row for positions, channels, row in CONVOLUTIONS)
DENSE_PRODUCTS = 2 * 600 * (128 + 200) + 2 * 600 * (200 + 200) + 400 * 128
# Instructions for 16 weights by 16-bit values: loads, widening, multiply-adds, sums. A widened weight of a
# convolution is used again; AVX2 multiplies two parts of GRU activations as bytes.
LEAST = {"avx2": (2.5, 2), "neon": (6.5, 4.5)}


def real_transform_flops(n):
    """Additions and multiplications of the split-radix transform of n real values, the least that is known
    to within a few percent (Sorensen et al. 1987)."""
    return 2 * n * (n.bit_length() - 1) - 4 * n + 6


def table(header, rows):
    lines = ["| " + " | ".join(header) + " |", "|" + "|".join(["---"] + ["---:"] * (len(header) - 1)) + "|"]
    return lines + ["| " + " | ".join(str(cell) for cell in row) + " |" for row in rows]


def section_targets(r):
    rows = [(*row[:3], MARKS[row[3]]) for row in targets(r)]
    return table(("", "target", "measured", ""), rows)


def section_frame(r, folder):
    lines = ["## One frame of 10 ms", "",
             "Time of the thread's CPU in µs: median and quartiles over repetitions that run in random order, so that "
             "a busy machine slows all contenders alike. Instructions: Callgrind, which knows x86 up to AVX2, and "
             "single steps of the CPU beyond. Every frame is new: a synthetic talker in noise at two microphones, with a "
             "second talker on the loudspeaker.",
             ""]
    rows, entries = [], []
    for variant in r.variants:
        for contender in ("denoise", "full"):
            time = r.times[f"{contender}/{variant}"]
            rows.append((f"{LABELS[contender]}, {variant}", time.text(), f"{FRAME_US / time.median:,.0f} ×",
                         number(r.instructions("x86-64", variant, contender))))
            if contender == "full":
                entries.append((f"speechenhance, {variant}", time.median, time.low, time.high, True))
    for peer in ("speexdsp", "webrtc"):
        time = r.times[f"{peer}/debian"]
        rows.append((LABELS[peer], time.text(), f"{FRAME_US / time.median:,.0f} ×",
                     number(r.instructions("x86-64", "peers", peer))))
        entries.append((LABELS[peer], time.median, time.low, time.high, False))
    lines += table(("", "µs", "real time", "instructions"), rows)
    plots.bars(folder / "frame-time.svg", "One frame of 10 ms, everything on", "µs on one core", entries)
    lines += ["", f"![Time per frame]({folder.name}/frame-time.svg)", "",
              "SpeexDSP runs its echo canceller with a tail of 128 ms and the preprocessor with denoising and residual "
              "echo suppression; WebRTC echo cancellation and noise suppression at the level “high”; both as Debian "
              "packages them, on microphone 1 of the same sound. speechenhance processes both microphones.", "",
              "speechenhance with everything on over them:", ""]
    rows = []
    for variant in r.variants:
        ours = r.instructions("x86-64", variant, "full")
        ratios = [f"{quotient(ours, r.instructions('x86-64', 'peers', p)):.2f}" if ours else "–"
                  for p in ("speexdsp", "webrtc")]
        rows.append((variant, *(f"{r.ratio(f'full/{variant}', f'{p}/debian'):.2f}" for p in ("speexdsp", "webrtc")),
                     *ratios))
    return lines + table(("", "time / SpeexDSP", "time / WebRTC", "instructions / SpeexDSP", "instructions / WebRTC"),
                         rows)


def section_stages(r, folder):
    columns = {v: entry["shares"] for v, entry in r.counts["x86-64"].items() if "shares" in entry}
    plots.stages(folder / "stages.svg", "Where the instructions go, x86-64", columns)
    lines = ["## Where the instructions go", "", f"![Share per stage]({folder.name}/stages.svg)", "",
             "Instructions per frame with everything on:", ""]
    names = list(next(iter(columns.values())))
    rows = [(name, *(f"{number(c[name])} ({100 * c[name] / sum(c.values()):.1f} %)" for c in columns.values()))
            for name in names]
    lines += table(("x86-64", *columns), rows)
    lines += ["", f"One frame takes {CONV_PRODUCTS + DENSE_PRODUCTS:,} products of an 8-bit weight and a 16-bit value: "
              f"{DENSE_PRODUCTS:,} in the GRU layers and the head, whose weights serve once, and {CONV_PRODUCTS:,} in "
              "the convolutions, whose weights serve at every position. The least number of instructions that does "
              "these products exactly (weights loaded, widened or multiplied as bytes, sums added) beside what a frame takes:",
              ""]
    rows = []
    for architecture, variant in (("x86-64", "avx2"), ("armv7", "neon")):
        dense, conv = LEAST[variant]
        least = (DENSE_PRODUCTS * dense + CONV_PRODUCTS * conv) / 16
        count = r.instructions(architecture, variant, "full")
        rows.append((f"{architecture}, {variant}", number(least), number(count),
                     f"{quotient(count, least):.2f}" if count else "–"))
    lines += table(("", "products alone", "whole frame", "ratio"), rows)
    lines += ["", "On ARM, counted by a plugin of qemu-user (times under an emulator would mean nothing):", ""]
    rows = []
    for architecture in ("armv7", "aarch64"):
        for variant, entry in r.counts.get(architecture, {}).items():
            rows.append((f"{architecture}, {variant}", *(number(entry["instructions"][c])
                                                         for c in ("denoise", "full", "rfft512"))))
    lines += table(("", "denoised path only", "everything on", "512-point transform and back"), rows)
    neon = r.counts.get("armv7", {}).get("neon")
    if neon:
        lines += ["", "The functions that take most on ARMv7 with NEON, everything on:", ""]
        rows = [(f"`{short_name(name)}`", number(count)) for name, count in list(neon["functions"]["full"].items())[:10]]
        lines += table(("", "instructions"), rows)
    return lines


def section_kernels(r):
    others = [v for v in r.variants if v != "scalar"]
    lines = ["## Kernels", "", "Every kernel at the sizes of the engine, fastest of some repetitions in ns, and the gain "
             "over the scalar variant. Compilers turn some scalar kernels into SSE2 by themselves.", ""]
    rows = [(name, f"{times['scalar']:.1f}", *(cell for v in others for cell in (
        f"{times[v]:.1f}", f"{times['scalar'] / times[v]:.2f} ×"))) for name, times in r.kernels.items()]
    return lines + table(("", "scalar", *(cell for v in others for cell in (v, "gain"))), rows)


def section_transform(r):
    flops = 2 * real_transform_flops(512) + 512
    lines = ["## The 512-point real transform", "",
             "Forward and inverse, against FFTW3 in single precision with measured plans. The least arithmetic is that "
             f"of the split-radix transform, {real_transform_flops(512):,} operations each way, and 512 to scale: "
             f"{flops:,}.", ""]
    rows = []
    for name, kind, variant in [(f"rfft512/{v}", "speechenhance", v) for v in r.variants] + [
            ("fftw3f/debian", "FFTW3", "peers")]:
        count = r.instructions("x86-64", variant, "rfft512" if variant != "peers" else "fftw3f")
        lanes = 4 if variant == "scalar" else 8  # SSE2, AVX; no transform here uses wider vectors
        rows.append((f"{kind}, {variant}" if variant != "peers" else kind, r.times[name].text(3),
                     f"{r.ratio(name, 'fftw3f/debian'):.2f}", number(count),
                     f"{count / flops:.2f}" if count else "–", f"{count * lanes / flops:.2f}" if count else "–"))
    return lines + table(("", "µs", "time / FFTW3", "instructions", "per least operation",
                          "… in full vectors"), rows)


def section_limit(r):
    lines = ["## Against the limit of the machine", "",
             f"The denoiser reads {r.stream_bytes:,} bytes of weights per frame. The time to do nothing but stream them "
             "once through a multiply-add, the table cold in the first-level cache and warm behind it:", ""]
    rows = []
    for name, time in sorted(r.times.items()):
        if name.startswith("stream/"):
            ratios = [f"{r.times[f'full/{v}'].median / time.median:.2f}" for v in r.variants]
            rows.append((name.split("/")[1], time.text(2), f"{r.stream_bytes / time.median / 1000:.0f}", *ratios))
    lines += table(("multiply-add", "µs", "GB/s", *(f"{v} frame / limit" for v in r.variants)), rows)
    rows, product_kernels = [], {}
    for variant in r.variants:
        def time(kernel):
            return r.kernels[kernel][variant] / 1000
        parts = [2 * time("product 600 x 128") + 6 * time("product 600 x 200") + time("product 128 x 400"),
                 sum(time(f"convolve {i + 1}") for i in range(len(CONVOLUTIONS))),
                 8 * time("sigmoid 200") + 4 * time("tanh 200"),
                 2 * r.times[f"rfft512/{variant}"].median,
                 2 * sum(time(f"subtract_{band}") for band in ("8, 29 bins", "4, 96 bins", "2, 129 bins"))]
        product_kernels[variant] = parts[0] + parts[1]
        frame = r.times[f"full/{variant}"].median
        rows.append((variant, *(f"{part:.1f}" for part in (*parts, frame - sum(parts), frame))))
    lines += ["", "What a frame takes, by the times of the kernels alone, in µs:", ""]
    lines += table(("", "GRU and head", "convolutions", "tanh, sigmoid", "four transforms", "echo filters",
                    "everything else", "frame"), rows)
    products = CONV_PRODUCTS + DENSE_PRODUCTS
    alone = products / r.stream_bytes * r.times[r.limits["int16"]].median
    per_weight = products / r.stream_bytes
    lines += ["", "`bytes` multiplies the weights as they lie, by 8-bit values: the plain limit. `int16` widens "
                    "them to 16 bits first. An exact product of an 8-bit weight and a 16-bit activation costs two "
                    "multiply-adds of bytes, or one of 16 bits at half the width. The convolutions use their weights at "
                    f"many positions, so that a frame takes {per_weight:.2f} products per weight: at the rate of `int16` "
                    f"{alone:.1f} µs for the products alone."]
    return lines + bare_products(r, product_kernels)


def bare_products(r, product_kernels):
    """The denoiser's products alone, what they leave of a frame, and what the targets would leave."""
    bare = {v: r.bare(v) for v in r.variants if r.bare(v)}
    rows = []
    for variant, parts in bare.items():
        frame, least = r.times[f"full/{variant}"].median, sum(parts)
        rows.append((variant, *(f"{part:.1f}" for part in (*parts, least, product_kernels[variant], frame - least)),
                     f"{frame / least:.2f}"))
    if not rows:
        return []
    lines = ["", "The least for these products: as many exact multiply-adds as the variant does, over as many bytes of "
             "packed weights, with activations that stay in a register (`bench/bare_products*.cpp`), beside the times "
             "of the kernels, which also split and load activations, add up, scale and store. In µs:", ""]
    lines += table(("", "GRU and head, bare", "convolutions, bare", "together", "their kernels", "rest of the frame",
                    "frame / bare"), rows)
    best = r.variants[0]
    if best not in bare:
        return lines
    frame, least = r.times[f"full/{best}"].median, sum(bare[best])
    rows = []
    for kind, most in STREAMING_TARGETS:
        allowed = most * r.times[r.limits[kind]].median
        rows.append((f"{most} × {kind}", f"{allowed:.1f}", f"{least:.1f}", f"{allowed - least:.1f}",
                     f"{frame - least:.1f}", f"{least / r.times[r.limits[kind]].median:.2f}"))
    return lines + ["", f"What the targets leave {best} for all that is not a product, in µs, and the ratio of a frame "
                    "that were nothing but products:", "",
                    *table(("target", "frame at most", "bare products", "left for the rest", "rest of the frame today",
                            "products alone / streaming"), rows)]


def section_machines(r):
    """The last figures of every kind of machine, this one's brought up to date (bench/machines.json)."""
    path = Path(__file__).with_name("machines.json")
    machines = json.loads(path.read_text())
    most = max(entry["engines"] for entry in r.scale)
    best, has_avx2 = r.variants[0], "full/avx2" in r.times
    machines[r.machine["kind"]] = {
        "cpu": f"{r.machine['cpu']}, {r.machine['l2']} second-level cache",
        "note": "",
        "best": best,
        "frame_us": round(r.times[f"full/{best}"].median, 1),
        **{peer: round(r.ratio(f"full/{best}", f"{peer}/debian"), 2) for peer in ("speexdsp", "webrtc")},
        **{f"avx2_{peer}": round(r.ratio("full/avx2", f"{peer}/debian"), 2) if has_avx2 else None
           for peer in ("speexdsp", "webrtc")},
        **{kind: round(r.ratio(f"full/{best}", name), 2) for kind, name in r.limits.items()},
        "bare": round(r.times[f"full/{best}"].median / sum(r.bare(best)), 2) if r.bare(best) else None,
        "streams_per_core": streams_at_most(r)[0],
        "growth": round(growth({e["threads"]: e for e in r.scale if e["engines"] == most}), 2),
    }
    path.write_text(json.dumps(machines, indent=1) + "\n")
    rows = [(m["cpu"] + (f" ({m['note']})" if m["note"] else ""), m["best"], m["frame_us"],
             f"{m['speexdsp']} / {m['webrtc']}", f"{m['avx2_speexdsp']} / {m['avx2_webrtc']}",
             f"{m['int16']} / {m['bytes']}", m.get("bare") or "–", m["streams_per_core"], m["growth"]) for m in machines.values()]
    return ["## Kinds of machine", "",
            "The last figures of every kind on which this ran: time of a frame with everything on, by the best variant "
            "and by AVX2, over SpeexDSP and WebRTC; over streaming the weights as 16-bit values and as bytes; over the "
            "denoiser's products alone; streams "
            f"that one core holds with {most} engines in the process, and how many times as many all cores held.", "",
            *table(("", "variant", "µs", "over peers", "AVX2 over peers", "over streaming", "over bare products",
                    "streams per core", "growth"),
                   rows)]


def cache_limit(r):
    """Why many engines take longer: what a frame touches against the caches, and what fetching it costs."""
    own = r.counts["bytes_of_an_engine"]
    beside = [f"{int(max(0, size - r.stream_bytes) / own):,} beside the weights in {name} ({size / 2**20:.3g} MiB)"
              for name, size in r.machine["caches"].items() if name in ("L2", "L3")]
    quickest = min((e for e in r.scale if e["threads"] == 1), key=lambda e: e["cpu_us"]["median"])
    most = r.turns[0]
    slower = most["cpu_us"]["median"] - quickest["cpu_us"]["median"]
    lines = ["", f"All engines read one copy of the weights, {r.stream_bytes:,} bytes a frame. Of its engine's own memory "
             f"a frame touches {own:,.0f} bytes, in whole lines of 64 (counted with a simulated cache that keeps the "
             f"weights and not the engines). Engines that fit: {', '.join(beside) or 'unknown'}."]
    if slower > 0:
        lines[-1] += (f" A frame takes {slower:.1f} µs longer with {most['engines']} engines than with "
                      f"{quickest['engines']}: {own / slower / 1000:.1f} GB/s for what has to be fetched anew.")
    lines += ["", f"Handed several frames at a turn, an engine is fetched once for all of them. {most['engines']} engines, "
              "one thread, µs per frame:", ""]
    rows = [(entry["frames_per_turn"], 10 * entry["frames_per_turn"], f"{entry['cpu_us']['median']:.1f} "
             f"({entry['cpu_us']['q1']:.1f} – {entry['cpu_us']['q3']:.1f})", f"{FRAME_US / entry['cpu_us']['median']:,.0f}")
            for entry in r.turns]
    return lines + table(("frames at a turn", "ms of sound", "CPU", "streams per core"), rows)


def section_scale(r, folder):
    series, by_engines = {}, {}
    for entry in r.scale:
        cpu = [entry["cpu_us"][q] for q in ("median", "q1", "q3")]
        series.setdefault(entry["threads"], []).append((entry["engines"], *cpu))
        by_engines.setdefault(entry["engines"], {})[entry["threads"]] = entry
    cores = max(series)
    plots.scale(folder / "scale.svg", "Engines served round-robin, everything on", series)
    lines = ["## Many engines in one process", "",
             f"Served round-robin, one frame each, everything on, by one thread and by {cores}, one for every core. "
             "Every engine hears another part of the sound. CPU time per frame in µs (median and quartiles over rounds), "
             "and the wall-clock time per frame of the fastest round, which still waits where other work holds the "
             f"cores. Growth: how many times as much all cores do as one, by CPU time, so that other work on the "
             f"machine does not count; {cores} is ideal.", "",
             f"![Time per frame by number of engines]({folder.name}/scale.svg)", ""]
    rows = []
    for engines, entries in by_engines.items():
        cpu = [f"{e['cpu_us']['median']:.1f} ({e['cpu_us']['q1']:.1f} – {e['cpu_us']['q3']:.1f})"
               for e in (entries[1], entries[cores])]
        walls = [e["fastest_wall_us"] for e in (entries[1], entries[cores])]
        touched = r.stream_bytes + engines * r.counts["bytes_of_an_engine"]
        rows.append((engines, *cpu, *(f"{wall:.1f}" for wall in walls), f"{growth(entries):.2f}",
                     number(entries[1]["bytes_per_engine"]), f"{touched / 2**20:.1f}"))
    lines += table(("engines", "CPU, one thread", "CPU, all cores", "wall, one thread", "wall, all cores", "growth",
                    "bytes per engine", "MiB a round touches"), rows)
    one, everyone = streams_at_most(r)
    lines += ["", f"At the CPU time of {max(by_engines)} engines, one core that does nothing else holds {one:,} "
              f"streams in real time and all {cores} hold {everyone:,}."]
    lines += cache_limit(r)
    audio = r.jobs["audio_s"]
    lines += ["", f"The tool over a folder of {r.jobs['files']} recordings, {audio:,} s in all, fastest of "
              f"{len(r.jobs['runs']['1'])} runs. The files are independent processes; where `--jobs 2` gains little, "
              "other work held the second core.", ""]
    rows = []
    for jobs, runs in r.jobs["runs"].items():
        wall, cpu = (min(run[key] for run in runs) for key in ("wall_s", "cpu_s"))
        rows.append((f"`--jobs {jobs}`", f"{wall:.2f}", f"{audio / wall:,.0f} ×", f"{cpu:.2f}"))
    return lines + table(("", "wall, s", "real time", "CPU, s"), rows)


def section_batch(r):
    sets, hour = r.overhead["sets"], r.overhead["hour"]
    lines = ["## Many recordings", "",
             "`speech-enhance batch --jobs 1 --preset plain` over 16 kHz stereo WAV files, against a process that "
             "decodes, enhances and encodes the same files and nothing else (`bench/files_alone`); both write the same samples. CPU time of "
             f"pairs of runs, {len(next(iter(sets.values()))['rounds'])} of each, start of the processes included. Instructions "
             "outside the kernel: Callgrind, whose CPU lacks the instructions for checksums.", ""]
    rows = []
    for label, entry in sets.items():
        cpu = statistics.median(run["tool_cpu_s"] for run in entry["rounds"])
        counted = entry.get("instructions")
        rows.append((label, f"{entry['files'] / cpu:.2f}", f"{entry['audio_s'] / cpu:.0f}", Spread(overheads(entry)).text(2),
                     f"{counted['tool'] / counted['alone']:.2f}" if counted else "–"))
    lines += table(("files of", "files per second of a core", "hours of audio per core hour", "time / engine and codecs",
                    "instructions / engine and codecs"), rows)
    return lines + ["", f"A recording of an hour takes at most {number(hour['max_rss_bytes'])} bytes of resident memory in a "
                    "process, those of shared libraries included."]


def section_size(r):
    lines = ["## Size", "", "Bytes of the shared library and of one engine. The stack of `se_process` is measured by "
             "painting.", ""]
    columns = list(r.sizes)
    fields = (("code", lambda s: s["code"]), ("constants, with the model", lambda s: s["constants"]),
              ("writable data", lambda s: s["writable"]), ("static memory of an engine", lambda s: s["memory"]["static"]),
              ("scratch memory of an engine", lambda s: s["memory"]["scratch"]),
              ("stack, denoised path only", lambda s: s["memory"]["stack"]["denoise"]),
              ("stack, everything on", lambda s: s["memory"]["stack"]["full"]))
    lines += table(("", *columns), [(name, *(number(get(r.sizes[c])) for c in columns)) for name, get in fields])
    for title, get in (("Biggest functions", lambda s: s["symbols"]["code"]),
                       ("Biggest constants", lambda s: s["symbols"]["constants"]),
                       ("Functions with the biggest stack frames", lambda s: s["stack_frames"])):
        header = [cell for c in columns for cell in (c, "bytes")]
        rows = [[cell for name, size in row for cell in (f"`{name}`", number(size))]
                for row in zip(*(get(r.sizes[c]) for c in columns))]
        lines += ["", title + ":", ""] + table(header, rows)
    return lines


def section_same_bits(r):
    lines = ["## The same bits everywhere", "",
             f"Hash of the output of {r.counts['frames']} frames:", ""]
    rows = []
    for architecture in ("x86-64", "armv7", "aarch64"):
        for variant, entry in r.counts.get(architecture, {}).items():
            if "hash" in entry:
                rows.append((f"{architecture}, {variant}", *(f"`{entry['hash'][c]}`" for c in ("denoise", "full"))))
    lines += table(("", "denoised path only", "everything on"), rows)
    t = r.tanh
    different = ", ".join(f"{count} in {name}" for name, count in t["different"].items()) or "no other variant here"
    which = "every float" if t["step"] == 1 else f"every {t['step']}th float"
    lines += ["", f"tanh over {which} ({t['floats']:,} of them): at most {t['max_ulp']:.3f} units in the last place from "
              f"the true value, at {t['at']:.9g}. Results that differ from the scalar kernel's: {different}."]
    return lines


def main():
    if len(sys.argv) != 3:
        sys.exit(__doc__)
    r, document = Results(Path(sys.argv[1])), Path(sys.argv[2])
    folder = document.with_suffix("")
    folder.mkdir(parents=True, exist_ok=True)
    m = r.machine
    lines = ["# Performance", "",
             f"Written by `scripts/bench{m['options']}`; {r.repetitions} repetitions. Machine: {m['cpu']}, {m['cores']} "
             f"cores, {m['l2']} second-level cache; {m['os']}; {m['compiler']}, the flags of "
             f"a release build. The machine was shared: look at ratios before times.", ""]
    for part in (section_targets(r), section_frame(r, folder), section_stages(r, folder), section_transform(r), section_kernels(r),
                 section_limit(r), section_scale(r, folder), section_batch(r), section_machines(r),
                 section_size(r), section_same_bits(r)):
        lines += part + [""]
    document.write_text("\n".join(lines[:-1]) + "\n")

    print(f"{'':62} {'target':>12} {'measured':>12}")
    for what, target, measured, met in targets(r):
        print(f"{what.replace('`', ''):62} {target:>12} {measured!s:>12}  {MARKS[met].strip('*')}")
    print(f"all results: {document}")


main()

"""What the library is held to, and whether a bench found it so."""

import statistics

from results import overheads

LABELS = {"denoise": "denoised path only", "full": "everything on", "speexdsp": "SpeexDSP",
          "webrtc": "WebRTC audio processing", "fftw3f": "FFTW3"}
# Frame over streaming the weights, at most, by kind of multiply-add.
STREAMING_TARGETS = (("int16", 1.8), ("bytes", 4.0))


def number(value):
    return "–" if value is None else f"{value:,.0f}"


def quotient(a, b):
    return a / b if a and b else None


def targets(r):
    """(what, target, measured, met); not measured is None."""
    best = r.variants[0]
    peers = ("speexdsp", "webrtc")
    transform = min((f"rfft512/{v}" for v in r.variants), key=lambda name: r.times[name].median)
    stack = max(s["memory"]["stack"]["full"] for s in r.sizes.values())
    hashes = {entry["hash"]["full"] for architecture in ("x86-64", "armv7", "aarch64")
              for entry in r.counts.get(architecture, {}).values() if "hash" in entry}
    rows = []
    for variant, limits in (("avx512", (0.75, 0.90)), ("avx2", (1.00, 1.20))):
        for peer, limit in zip(peers, limits):
            ratio = r.ratio(f"full/{variant}", f"{peer}/debian") if f"full/{variant}" in r.times else None
            rows.append((f"time ({variant}) over {LABELS[peer]}", f"≤ {limit:.2f}", f"{ratio:.2f}" if ratio else "–",
                         ratio and ratio <= limit))
    for kind, most in STREAMING_TARGETS:
        ratio = r.ratio(f"full/{best}", r.limits[kind])
        rows.append((f"time ({best}) over streaming the weights, {kind}", f"≤ {most}", f"{ratio:.2f}", ratio <= most))
    for architecture, variant, most in (("x86-64", "avx2", 370_000), ("armv7", "neon", 800_000),
                                        ("aarch64", "neon", 760_000), ("aarch64", "dotprod", 500_000)):
        count = r.instructions(architecture, variant, "full")
        rows.append((f"instructions per frame, {architecture} {variant}", f"≤ {most:,}", number(count),
                     count and count <= most))
    for peer in peers:
        ratio = quotient(r.instructions("x86-64", "avx2", "full"), r.instructions("x86-64", "peers", peer))
        rows.append((f"instructions (avx2) over {LABELS[peer]}", "< 1", f"{ratio:.2f}" if ratio else "–",
                     ratio and ratio < 1))
    for architecture, variant, least in (("x86-64", "avx2", 5), ("armv7", "neon", 3)):
        gain = quotient(r.instructions(architecture, "scalar", "full"), r.instructions(architecture, variant, "full"))
        rows.append((f"scalar instructions over {variant.upper()}, {architecture}", f"≥ {least}",
                     f"{gain:.2f}" if gain else "–", gain and gain >= least))
    rows.append((f"512-point real transform ({transform.split('/')[1]}) over FFTW3, time", "≤ 1.0",
                 f"{r.ratio(transform, 'fftw3f/debian'):.2f}", r.ratio(transform, "fftw3f/debian") <= 1.0))
    for label, entry in r.overhead["sets"].items():
        ratio = statistics.median(overheads(entry))
        rows.append((f"CPU time of `batch` over engine and codecs, files of {label}", "≤ 1.15", f"{ratio:.2f}",
                     ratio <= 1.15))
    resident = r.overhead["hour"]["max_rss_bytes"]
    rows.append(("memory of a process of `batch`, an hour of audio, bytes", "< 16,777,216", number(resident),
                 resident < 1 << 24))
    rows.append(("stack of `se_process`, bytes", "≤ 24,576", number(stack), stack <= 24_576))
    rows.append(("output hashes over all variants and architectures", "1", len(hashes), len(hashes) == 1))
    return rows

"""Far and near scores side by side: how processors do on recordings from elsewhere, and on other talkers of
the collections that were trained on.

Every scene is drawn from a seed of its own, so that a quick look scores the first scenes of the full set. Rows are
kept in the cache, by the sound of the scene and by the processor: peers and older models are scored once."""

import dataclasses
import json
import tempfile
import zlib
from pathlib import Path

import numpy as np

from training import checkpoint, material, metrics, model_file, processors
from training.audio import Material
from training.conditions import SNRS, plan
from training.errors import TrainingError
from training.library import SHAPE
from training.model_tables import model_tables
from training.scenes import Mixer, Plan, Scene
from training.whole_files import replacing

SIDES = ("far", "near")
SECONDS = 6
SAVED_EVERY = 200  # scenes
FIRST_SECOND = 1.0  # scores start here; where nobody talks, after LATE seconds
LATE = 3.0
TAIL = SHAPE.sample_rate // 10
ROWS_VERSION = 2  # of what `score` returns; a new one makes kept rows worthless
DISTANCES = ((0.0, 0.7), (0.7, 1.7), (1.7, 9.0))  # m
NO_DIFFERENCE = 2.0  # standard errors

# Measures of the tables: key of a row, heading, digits, whether more is better.
MEASURES = (("stoi", "STOI", 3, True), ("estoi", "ESTOI", 3, True), ("si-sdr hp", "SI-SDR dB", 1, True),
            ("fwsegsnr hp", "fw. seg. SNR dB", 1, True), ("segsnr hp", "seg. SNR dB", 1, True),
            ("disturbance hp", "disturbance", 2, False), ("asymmetric hp", "asymmetric", 1, False),
            ("kept", "voice kept dB", 1, True), ("lost", "words lost %", 1, False),
            ("missed", "words missed %", 1, False))


@dataclasses.dataclass(frozen=True)
class Case:
    """A scene to be: `kind` is "noisy", "clean", "room", "noise", "echo", "late echo" (in a stream that opened
    with silence) or "double talk"."""

    kind: str
    group: str
    plan: Plan
    number: int  # among those of the same plan

    @property
    def seed(self) -> list[int]:
        return [30, self.number, zlib.crc32(repr((self.kind, self.group, self.plan)).encode())]

    @property
    def silence(self) -> int:
        """Samples of digital silence before anything is on the line."""
        return 3 * SHAPE.sample_rate if self.kind == "late echo" else 0


def cases(quick: bool, times: int = 1) -> list[Case]:
    """What there is to score; `times` as many of everything, the first ones being the same."""
    groups = list(material.NOISE_GROUPS)
    noisy = [Case("noisy", g, plan(group=g, snr=float(s)), i)
             for i in range(times * (1 if quick else 3)) for g in groups for s in SNRS]
    voices = [Case("noisy", "voices", plan(noise=noise, snr=float(s)), i)
              for i in range(times * (1 if quick else 2)) for noise in ("babble", "television") for s in SNRS[1:-1]]
    alone = [Case("noise", g, plan(talks=False, group=g, level=-38.0), i)
             for i in range(times * (1 if quick else 3)) for g in groups]
    clean = [Case(kind, "", plan(noise="none", dry=kind == "clean"), i)
             for kind in ("clean", "room") for i in range(times * (6 if quick else 18))]
    echo = [Case(kind, "", plan(talks=False, noise="none", far_end=True, echo=0.0, mild_loudspeaker=False,
                                path_change=i % 4 == 3), i)
            for kind in ("echo", "late echo") for i in range(times * (6 if quick else 16))]
    double = [Case("double talk", "", plan(far_end=True, echo=float(e), mild_loudspeaker=False,
                                           path_change=i % 4 == 3), i)
              for i in range(times * (2 if quick else 16)) for e in (-10, 0, 10)]
    return noisy + voices + alone + clean + echo + double


def score(case: Case, scene: Scene, output: np.ndarray, speech_gains: np.ndarray) -> dict[str, float]:
    rate, end = SHAPE.sample_rate, len(output) - TAIL
    if not case.plan.talks:
        late = slice(case.silence + int(LATE * rate), end)
        return {"drop": metrics.level_drop(output[late], scene.microphones[1][late]),
                "whole drop": metrics.level_drop(output[:end], scene.microphones[1][:end])}
    inside = slice(int(FIRST_SECOND * rate), end)
    out, target = output[inside], scene.target[inside]
    if not np.any(target):
        return {}
    stoi, estoi = metrics.intelligibility(out, target)
    lost, missed = metrics.missed_words(out, target, speech_gains)
    row = {"stoi": stoi, "estoi": estoi, "lost": 100 * lost, "missed": 100 * missed,
           "kept": metrics.decibels((np.dot(out, target) / np.dot(target, target)) ** 2)}
    # STOI begins above what the engine removes; the others are taken with the bass and without it.
    for ending, o, t in (("", out, target), (" hp", metrics.without_bass(out), metrics.without_bass(target))):
        symmetric, asymmetric = metrics.bark_disturbance(o, t)
        row |= {f"si-sdr{ending}": metrics.si_sdr(o, t), f"segsnr{ending}": metrics.segmental_snr(o, t),
                f"fwsegsnr{ending}": metrics.weighted_segmental_snr(o, t),
                f"disturbance{ending}": symmetric, f"asymmetric{ending}": asymmetric}
    return {k: round(float(v), 4) for k, v in row.items()}


class Scenes:
    """The scenes of one side, rendered when they are asked for."""

    def __init__(self, cache: Path, side: str, quick: bool, times: int = 1):
        self.side, self.cases = side, cases(quick, times)
        self.mixer = Mixer(Material(cache, side), SHAPE.sample_rate, 0, vary_noise=False)

    def __iter__(self):
        for case in self.cases:
            self.mixer.reseed(case.seed)
            scene = self.mixer.scene(SECONDS * SHAPE.sample_rate, case.plan)
            yield case, scene.after_silence(case.silence)


class Rows:
    """Rows that were computed before, in a file of the cache."""

    def __init__(self, path: Path):
        self.path = path
        try:
            kept = json.loads(path.read_text())
        except (OSError, ValueError):
            kept = {}
        self.rows = kept.get("rows", {}) if kept.get("version") == ROWS_VERSION else {}

    def of(self, processor: str) -> dict[str, dict]:
        return self.rows.setdefault(processor, {})

    def save(self) -> None:
        with replacing(self.path) as part:
            part.write_text(json.dumps({"version": ROWS_VERSION, "rows": self.rows}))


def sound_key(scene: Scene) -> str:
    crc = 0
    for signal in (scene.microphones, scene.reference, scene.target):
        crc = zlib.crc32(np.ascontiguousarray(signal), crc)
    return f"{crc:08x}"


def named(argument: str) -> tuple[str, Path]:
    """"NAME=FILE" or "FILE", which is then the name."""
    name, equals, file = argument.rpartition("=")
    return (name if equals else Path(file).stem), Path(file)


def lineup(arguments, folder: Path) -> dict[str, tuple[str, processors.Processor]]:
    """Name -> (key of kept rows, processor), the first being what the others are compared with."""
    result = {}
    for kind, option in (("model", arguments.model), ("checkpoint", arguments.checkpoint)):
        for name, path in map(named, option or []):
            if kind == "model":
                model = path.read_bytes()
                model_file.read_model(path)
            else:
                model = processors.written(model_tables(checkpoint.load_average(path)), folder, "model")
            result[name] = (f"model {zlib.crc32(model):08x}", processors.engine(name, model))
    for path in processors.preset_files(arguments.presets):  # of the last model
        processor = processors.preset(path, model, evened=True)
        result[processor.name] = (f"preset {zlib.crc32(path.read_bytes() + model):08x}", processor)
    result["unprocessed"] = ("unprocessed", processors.unprocessed())
    if not arguments.no_peers:
        result |= {p.name: (p.name, p) for p in (processors.ideal(), *processors.peers())}
    return result


def table(cache: Path, line: dict, quick: bool, progress, times: int = 1, sides=SIDES) -> list[dict]:
    """One dictionary per side, scene and processor: what it is, and its scores."""
    kept, result = Rows(cache / "rows.json"), []
    processors.measure([p for _, p in line.values()], cache)
    for side in sides:
        for count, (case, scene) in enumerate(Scenes(cache, side, quick, times)):
            if count % SAVED_EVERY == 0:
                kept.save()
            sound, facts = sound_key(scene), scene.facts
            about = {"side": side, "kind": case.kind, "group": case.group, "snr": case.plan.snr,
                     "echo": case.plan.echo if np.isfinite(case.plan.echo) else "",
                     "path": "changes" if case.plan.path_change else "stays",
                     "number": case.number, "sound": sound, **facts,
                     "sex": material.sex_of(facts.get("talker", "")),
                     "language": material.language_of(facts.get("collection", ""), facts.get("talker", ""))}
            for name, (key, processor) in line.items():
                rows = kept.of(key)
                if sound not in rows:
                    rows[sound] = score(case, scene, processor(scene), processor.speech_gains)
                result.append({"processor": name, **about, **rows[sound]})
        progress(f"{side}: {sum(r['side'] == side for r in result) // len(line)} scenes")
        kept.save()
    return result


# --- tables ------------------------------------------------------------------------------------------


def pick(rows: list[dict], **wanted) -> list[dict]:
    return [r for r in rows if all(r.get(k) == v for k, v in wanted.items())]


def mean(rows: list[dict], key: str) -> tuple[float, float, int]:
    """Mean, its standard error, and of how many."""
    values = np.array([r[key] for r in rows if np.isfinite(r.get(key, np.nan))])
    if len(values) == 0:
        return np.nan, np.nan, 0
    return float(values.mean()), float(values.std(ddof=1) / len(values) ** 0.5) if len(values) > 1 else np.nan, \
        len(values)


def difference(rows: list[dict], others: list[dict], key: str) -> tuple[float, float]:
    """Mean over the scenes that both have, of rows minus others, and its standard error."""
    theirs = {(r["side"], r["kind"], r["sound"]): r.get(key, np.nan) for r in others}
    paired = [{key: r.get(key, np.nan) - theirs.get((r["side"], r["kind"], r["sound"]), np.nan)} for r in rows]
    return mean(paired, key)[:2]


def said(value: float, error: float, digits: int) -> str:
    return "" if np.isnan(value) else f"{value:.{digits}f}" + (f" ± {error:.{digits}f}"
                                                               if np.isfinite(error) else "")


def judged(value: float, error: float, digits: int, more_is_better: bool) -> str:
    if np.isnan(value):
        return ""
    if not abs(value) > NO_DIFFERENCE * error:
        return f"{value:+.{digits}f} (no difference)"
    return f"{value:+.{digits}f} ({'better' if (value > 0) == more_is_better else '**worse**'})"


def markdown(heads: list[str], lines: list[list[str]]) -> list[str]:
    return ["| " + " | ".join(heads) + " |", "|" + "---|" * len(heads),
            *("| " + " | ".join(cells) + " |" for cells in lines), ""]


OTHERS = (("clean", "stoi", "clean STOI", 4, True), ("clean", "segsnr hp", "clean seg. SNR", 1, True),
          ("room", "stoi", "room STOI", 4, True), ("noise", "drop", "noise down, late", 1, True),
          ("echo", "drop", "echo down, late", 1, True),
          ("echo", "whole drop", "echo down, whole", 1, True),
          ("late echo", "drop", "late echo down", 1, True),
          ("double talk", "stoi", "double talk STOI", 3, True),
          ("double talk", "kept", "its voice kept", 1, True),
          ("double talk", "lost", "its words lost %", 1, False))


def summary(rows: list[dict], names: list[str], side: str) -> list[str]:
    heads = [f"{side}, noisy"] + [title for _, title, _, _ in MEASURES]
    lines = [[name] + [said(*mean(pick(rows, side=side, kind="noisy", processor=name), key)[:2], digits)
                       for key, _, digits, _ in MEASURES] for name in names]
    result = markdown(heads, lines)
    heads = [f"{side}, other"] + [title for _, _, title, _, _ in OTHERS]
    return result + markdown(heads, [
        [name] + [said(*mean(pick(rows, side=side, kind=kind, processor=name), key)[:2], digits)
                  for kind, key, _, digits, _ in OTHERS] for name in names])


def against_first(rows: list[dict], names: list[str], side: str) -> list[str]:
    first = pick(rows, side=side, processor=names[0])
    columns = [("noisy", *m) for m in MEASURES] + list(OTHERS)
    lines = []
    for kind, key, title, digits, more in columns:
        lines.append([f"{kind}: {title}"] + [
            judged(*difference(pick(rows, side=side, kind=kind, processor=n), pick(first, kind=kind), key),
                   digits, more) for n in names[1:]])
    return markdown([f"{side}, against {names[0]}"] + names[1:], lines)


# What scenes differ in: kind, key of a row, how it is said.
AXES = (*(("noisy", key, key.removesuffix(" of")) for key in ("snr", "group", "distance of", "sex", "language")),
        ("double talk", "echo", "echo over the talker in double talk"),
        ("double talk", "path", "path of the echo in double talk"),
        ("double talk", "loudspeaker", "loudspeaker in double talk"))
# What is shown of them: key of a row, heading, digits.
SHOWN = {"noisy": (("stoi", "STOI", 3), ("si-sdr hp", "SI-SDR", 1)),
         "double talk": (("stoi", "STOI", 3), ("kept", "voice kept", 1))}


def axes(rows: list[dict], names: list[str]) -> list[str]:
    """Two measures, far and near, by what the scenes differ in."""
    for r in rows:
        r["distance of"] = next((f"{a} to {b} m" for a, b in DISTANCES if a <= r.get("distance", -1) < b), "")
    result = []
    for kind, axis, title in AXES:
        values = sorted({r[axis] for r in rows if r["kind"] == kind and r.get(axis, "") != ""})
        lines = []
        for value in values:
            for side in SIDES:
                here = pick(rows, side=side, kind=kind, **{axis: value})
                count = len(pick(here, processor=names[0]))
                if count > 1:
                    lines.append([f"{value}, {side} ({count})"] + [
                        " / ".join(said(*mean(pick(here, processor=n), key)[:2], digits)
                                   for key, _, digits in SHOWN[kind]) for n in names])
        if lines:
            result += [f"{' / '.join(m[1] for m in SHOWN[kind])} by {title}", ""] + markdown([""] + names, lines)
    return result


def gains_by_cell(rows: list[dict], name: str) -> dict[str, list[float]]:
    """STOI gained over unprocessed, far: a list over SNRS for every group."""
    far = pick(rows, side="far", kind="noisy")
    result = {}
    for group in dict.fromkeys(r["group"] for r in far):
        result[group] = []
        for snr in SNRS:
            here = pick(far, group=group, snr=float(snr))
            result[group].append(difference(pick(here, processor=name),
                                            pick(here, processor="unprocessed"), "stoi")[0])
    return result


def cells(rows: list[dict], name: str) -> list[str]:
    said_as = lambda g: "" if np.isnan(g) else f"**{g:+.3f}**" if g < -0.005 else f"{g:+.3f}"
    return [f"STOI gained by {name}, far", ""] + markdown(
        [""] + [f"{s} dB" for s in SNRS],
        [[group, *map(said_as, gains)] for group, gains in gains_by_cell(rows, name).items()])


def gap(rows: list[dict], name: str) -> float:
    """STOI gained at 0 dB on the near side over that on the far side."""
    gains = []
    for side in ("near", "far"):
        here = pick(rows, side=side, kind="noisy", snr=0.0)
        gains.append(difference(pick(here, processor=name), pick(here, processor="unprocessed"), "stoi")[0])
    return gains[0] - gains[1]


def targets(rows: list[dict], name: str, old: str) -> list[str]:
    """What a model is to reach on the far side to replace another."""
    far = pick(rows, side="far")
    of = lambda processor, key, **wanted: mean(pick(far, processor=processor, **wanted), key)[0]
    noisy = {"kind": "noisy"}
    lines = [(f"STOI at {snr:.0f} dB: +0.040 over {old}",
              of(name, "stoi", snr=snr, **noisy) - of(old, "stoi", snr=snr, **noisy) - 0.04, 3)
             for snr in (0.0, 5.0)]
    lines += [("disturbance a fifth lower",
               0.8 - of(name, "disturbance hp", **noisy) / of(old, "disturbance hp", **noisy), 2),
              ("SI-SDR: +3 dB", of(name, "si-sdr hp", **noisy) - of(old, "si-sdr hp", **noisy) - 3, 1),
              ("near over far, STOI gained at 0 dB: half of what it was", gap(rows, old) / 2 - gap(rows, name), 3),
              ("clean STOI: 0.995", of(name, "stoi", kind="clean") - 0.995, 4),
              ("clean segmental SNR: as it was",
               of(name, "segsnr hp", kind="clean") - of(old, "segsnr hp", kind="clean"), 1),
              ("noise alone after 3 s: 30 dB down", of(name, "drop", kind="noise") - 30, 1),
              ("near voice in double talk: within 2.5 dB", of(name, "kept", kind="double talk") + 2.5, 1),
              ("echo alone after 3 s: 45 dB down", of(name, "drop", kind="echo") - 45, 1),
              ("echo alone, whole scene: 25 dB down", of(name, "whole drop", kind="echo") - 25, 1)]
    peer = of("SpeexDSP", "stoi", kind="double talk")
    if not np.isnan(peer):
        lines.append(("double talk STOI: ahead of SpeexDSP", of(name, "stoi", kind="double talk") - peer, 3))
    low = [gain for line in gains_by_cell(rows, name).values() for gain in line if gain < -0.005]
    lines.append(("cells below unprocessed by more than .005 in STOI: none", -len(low), 0))
    return markdown([f"far, {name} against {old}", "to spare", "reached"],
                    [[what, f"{spare:+.{digits}f}", "yes" if spare >= 0 else "**no**"]
                     for what, spare, digits in lines])


def worst(rows: list[dict], name: str, count: int = 10) -> list[dict]:
    """Far scenes in which a processor gains the least intelligibility over the microphone."""
    unprocessed = {r["sound"]: r["stoi"] for r in pick(rows, side="far", processor="unprocessed")
                   if r["kind"] in ("noisy", "clean", "double talk") and "stoi" in r}
    mine = [r for r in pick(rows, side="far", processor=name) if r["sound"] in unprocessed and "stoi" in r]
    return sorted(mine, key=lambda r: r["stoi"] - unprocessed[r["sound"]])[:count]


def write_sounds(cache: Path, chosen: list[dict], processor, quick: bool, times: int, folder: Path) -> None:
    import soundfile

    folder.mkdir(parents=True, exist_ok=True)
    rank = {r["sound"]: i + 1 for i, r in enumerate(chosen)}
    for _, scene in Scenes(cache, "far", quick, times):
        number = rank.get(sound_key(scene))
        if number:
            for name, signal in (("microphone", scene.microphones[1]), ("enhanced", processor(scene)),
                                 ("target", scene.target)):
                loud = 0.7 / (np.abs(scene.microphones[1]).max() + 1e-9)
                soundfile.write(folder / f"{number:02}-{name}.wav", (signal * loud).clip(-1, 1),
                                SHAPE.sample_rate)


def worst_lines(chosen: list[dict], name: str) -> list[str]:
    return [f"Far scenes in which {name} gains least, with sounds in worst/", ""] + markdown(
        ["", "kind", "noise", "SNR", "talker", "room", "distance", "STOI"],
        [[f"{i + 1:02}", r["kind"], r.get("noise", r["group"]), f"{r['snr']:.0f}", r.get("talker", ""),
          r.get("room", ""), f"{r.get('distance', 0):.1f} m", f"{r['stoi']:.3f}"]
         for i, r in enumerate(chosen)])


def run(arguments, progress=print) -> None:
    if not (arguments.model or arguments.checkpoint):
        raise TrainingError("give --model or --checkpoint, as often as there are some to compare")
    with tempfile.TemporaryDirectory() as folder:
        line = lineup(arguments, Path(folder))
        rows = table(arguments.cache, line, arguments.quick, progress, arguments.times)
        names = list(line)
        candidate = names[len(arguments.model or []) + len(arguments.checkpoint or []) - 1]
        chosen = worst(rows, candidate)
        text = targets(rows, candidate, names[0]) if candidate != names[0] else []
        for side in SIDES:
            text += summary(rows, names, side) + against_first(rows, names, side)
        text += cells(rows, candidate) + axes(rows, names) + worst_lines(chosen, candidate)
        if arguments.out:
            arguments.out.mkdir(parents=True, exist_ok=True)
            (arguments.out / "far.md").write_text("\n".join(text))
            (arguments.out / "far.json").write_text(json.dumps(rows) + "\n")
            write_sounds(arguments.cache, chosen, line[candidate][1], arguments.quick,
                         arguments.times, arguments.out / "worst")
    print("\n".join(text))

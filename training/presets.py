"""python3 -m training.presets --cache FOLDER --model FILE [--times N] [--into FILE.md] PRESETS ...

What presets give and cost: the engine with a model through every preset, and through the modes that they are chosen
from, on scenes of the far side (training/validation.py). PRESETS are files or folders of them. The tables take the
place of those in --into, between the lines "<!-- scores -->" and "<!-- /scores -->"."""

import argparse
import json
import zlib
from pathlib import Path

import torch

from training import processors, validation
from training.errors import TrainingError, reported_briefly
from training.whole_files import replacing

BEGIN, END = "<!-- scores -->\n", "<!-- /scores -->\n"
SIDE = "far"
LEVELS = (40, 30, 25, 20)  # residual_db of the mixes; the unprocessed sound is 9.5 dB louder than that
SUPPRESSED = (50, 40)  # ns_residual_db of the mixes ahead of the suppressor

# Kind of scene, measure, heading, digits.
COLUMNS = (
    ("noisy", "stoi", "STOI", 3), ("noisy", "estoi", "ESTOI", 3), ("noisy", "si-sdr hp", "SI-SDR, dB", 1),
    ("noisy", "disturbance hp", "disturbance", 2), ("noisy", "lost", "words lost, %", 1),
    ("noisy", "missed", "words missed, %", 1), ("noise", "drop", "noise alone down, dB", 0),
    ("echo", "drop", "echo alone down, dB", 0), ("double talk", "stoi", "double talk, STOI", 3),
    ("double talk", "lost", "its words lost, %", 1), ("clean", "stoi", "clean, STOI", 4))


def modes(flat: dict) -> dict[str, dict]:
    """Settings to choose from, by name; all with even treble."""
    peaks = {"peaks": flat["peaks"]}
    return {"denoised alone": {"mode": "denoise"} | peaks} | {
        f"mixed, {residual - 9.54:.0f} dB down": {"mode": "mix", "residual_db": residual} | peaks
        for residual in LEVELS} | {
        f"mixed, {residual - 19.54:.0f} dB down, suppressor": {"mode": "suppress", "ns_residual_db": residual} | peaks
        for residual in SUPPRESSED}


def lineup(model: bytes, settings: dict[str, dict]) -> dict[str, tuple[str, processors.Processor]]:
    """As of `validation.lineup`; kept rows go by what the settings are, not by their name."""
    result = {}
    for name, values in settings.items():
        sound = json.dumps({k: v for k, v in values.items() if k != "description"}, sort_keys=True)
        result[name] = (f"settings {zlib.crc32(sound.encode() + model):08x}",
                        processors.with_settings(name, values, model, evened=True))
    return result


def scores(rows: list[dict], names: list[str], head: str) -> list[str]:
    lines = []
    for name in names:
        mine = validation.pick(rows, processor=name)
        lines.append([name] + [f"{validation.mean(validation.pick(mine, kind=kind), key)[0]:z.{digits}f}"
                               for kind, key, _, digits in COLUMNS])
    return validation.markdown([head] + [c[2] for c in COLUMNS], lines)


def by_snr(rows: list[dict], names: list[str], head: str) -> list[str]:
    snrs = sorted({r["snr"] for r in rows if r["kind"] == "noisy"})
    cell = lambda name, snr: " / ".join(
        f"{validation.mean(validation.pick(rows, processor=name, kind='noisy', snr=snr), key)[0]:.{digits}f}"
        for key, digits in (("stoi", 3), ("missed", 1)))
    return validation.markdown([head] + [f"{snr:.0f} dB" for snr in snrs],
                               [[name] + [cell(name, snr) for snr in snrs] for name in names])


def judgement(rows: list[dict], names: list[str], first: str) -> list[str]:
    """Differences to the first, with whether there is one."""
    more = {key: better for key, _, _, better in validation.MEASURES} | {"drop": True}
    base = validation.pick(rows, processor=first)
    return validation.markdown([f"against {first}"] + [c[2] for c in COLUMNS], [[name] + [
        validation.judged(*validation.difference(validation.pick(rows, processor=name, kind=kind),
                                                 validation.pick(base, kind=kind), key), digits, more[key])
        for kind, key, _, digits in COLUMNS] for name in names if name != first])


def main() -> None:
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("presets", nargs="+", type=Path)
    parser.add_argument("--cache", type=Path, required=True)
    parser.add_argument("--model", type=Path, required=True)
    parser.add_argument("--times", type=int, default=4, help="how many times the full set of scenes")
    parser.add_argument("--into", type=Path)
    arguments = parser.parse_args()
    torch.set_num_threads(1)
    with reported_briefly():
        presets = {p.stem: processors.settings_of(p) for p in processors.preset_files(arguments.presets)}
        if "flat" not in presets:
            raise TrainingError("the presets must include flat.json, whose treble the modes are compared with")
        page = arguments.into.read_text() if arguments.into else f"{BEGIN}{END}"
        if page.count(BEGIN) != 1 or page.count(END) != 1:
            raise TrainingError(f"{arguments.into} has no place for the tables: {BEGIN.strip()} {END.strip()}")
        others = modes(presets["flat"])
        line = lineup(arguments.model.read_bytes(), presets | others)
        line["unprocessed"] = ("unprocessed", processors.unprocessed())
        rows = validation.table(arguments.cache, line, False, print, arguments.times, (SIDE,))
        seconds = validation.SECONDS * len({r["sound"] for r in rows if "stoi" in r})
        text = [f"Model `{zlib.crc32(arguments.model.read_bytes()):08x}`, {seconds / 3600:.1f} h of speech through "
                "each.", ""]
        text += scores(rows, [*presets, "unprocessed"], "preset") + scores(rows, [*others, "unprocessed"], "mode")
        text += ["STOI / words missed in %, by the level of the talker over the noise:", ""]
        text += by_snr(rows, [*presets, "unprocessed"], "preset")
        tables = "\n".join(text) + "\n"
        if arguments.into:
            before, rest = page.split(BEGIN)
            with replacing(arguments.into) as part:
                part.write_text(before + BEGIN + "\n" + tables + END + rest.split(END)[1])
        print(tables)
        print("\n".join(judgement(rows, [*others], "denoised alone") + judgement(rows, [*presets], "plain")))


if __name__ == "__main__":
    main()

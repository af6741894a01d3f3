#!/usr/bin/python3
"""Bytes of the library and of an engine.

    sizes.py OUTPUT.json ARCHITECTURE=BUILD[=EMULATOR] ...

By architecture: code, constants and writable data of the shared library with the symbols that weigh
most, static and scratch memory of an engine, and the stack of se_process() with the functions that
take most of it.
"""

import json
import re
import subprocess
import sys
from pathlib import Path

CODE = (".text", ".init", ".fini", ".plt", ".plt.got", ".plt.sec")
CONSTANTS = (".rodata", ".data.rel.ro", ".eh_frame", ".eh_frame_hdr", ".ARM.exidx", ".ARM.extab")
WRITABLE = (".data", ".bss", ".got", ".got.plt", ".init_array", ".fini_array")
MODEL = "se_model_file"  # the symbol over the whole model, beside one per table in it
TOP = 8


def output_of(*command):
    return subprocess.run(command, check=True, capture_output=True, text=True).stdout


def sections(library):
    sizes = {}
    for line in output_of("readelf", "-SW", library).splitlines():
        match = re.match(r"\s*\[\s*\d+\] (\S+)\s+\S+\s+[0-9a-f]+ [0-9a-f]+ ([0-9a-f]+)", line)
        if match:
            sizes[match[1]] = int(match[2], 16)
    return {
        "code": sum(sizes.get(name, 0) for name in CODE),
        "constants": sum(sizes.get(name, 0) for name in CONSTANTS),
        "writable": sum(sizes.get(name, 0) for name in WRITABLE),
    }


def short_name(demangled):
    """The name of a demangled function without parameters, result type and unnamed namespaces."""
    name = re.sub(r"^.*__vector\(\d+\) ", "", demangled)
    name = name.replace("(anonymous namespace)::", "").replace("{anonymous}::", "")
    name = name.split("(")[0]
    while re.match(r"[\w:]+[*&]* \w", name):
        name = name.split(" ", 1)[1]
    return name.lstrip("*&")


def biggest_symbols(library):
    """By kind the names and bytes of the biggest symbols; where several begin at one address, one of them."""
    kinds = {"t": "code", "w": "code", "r": "constants"}
    found = {"code": {}, "constants": {}}
    for line in output_of("nm", "-S", "-C", "--defined-only", library).splitlines():
        match = re.match(r"([0-9a-f]+) ([0-9a-f]+) (\w) (.*)", line)
        kind = match and kinds.get(match[3].lower())
        if kind and not (kind == "constants" and match[4].startswith("se_model_") and match[4] != MODEL):
            found[kind][match[1]] = (short_name(match[4]), int(match[2], 16))
    return {kind: sorted(symbols.values(), key=lambda symbol: -symbol[1])[:TOP] for kind, symbols in found.items()}


def engine_memory(program, emulator):
    lines = output_of(*([emulator] if emulator else []), program).splitlines()
    static, scratch = (int(re.search(r"mem: (\d+)", line)[1]) for line in lines[:2])
    return {"static": static, "scratch": scratch, "stack": json.loads(lines[-1])}


def stack_by_function(build):
    frames = []
    for file in Path(build, "src").rglob("*.su"):
        for line in file.read_text().splitlines():
            place, size, _ = line.split("\t")
            file_name, number, _, function = place.split(":", 3)
            name = short_name(function)
            frames.append((name if re.match(r"[A-Za-z_]", name) else f"{Path(file_name).name}:{number}", int(size)))
    return sorted(frames, key=lambda frame: -frame[1])[:TOP]


def main():
    if len(sys.argv) < 3:
        sys.exit(__doc__)
    result = {}
    for argument in sys.argv[2:]:
        architecture, build, *emulator = argument.split("=")
        library = str(Path(build, "src", "libspeechenhance.so"))
        result[architecture] = {
            **sections(library),
            "symbols": biggest_symbols(library),
            "memory": engine_memory(str(Path(build, "bench", "memory_use")), emulator[0] if emulator else None),
            "stack_frames": stack_by_function(build),
        }
    Path(sys.argv[1]).write_text(json.dumps(result, indent=1) + "\n")


if __name__ == "__main__":
    main()

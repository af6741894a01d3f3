#!/usr/bin/python3
"""Describes the machine and the build that a benchmark ran on.

    machine.py OUTPUT.json BUILD OPTIONS
"""

import json
import re
import subprocess
import sys
from pathlib import Path


def output_of(*command):
    return subprocess.run(command, check=True, capture_output=True, text=True).stdout


def main():
    if len(sys.argv) != 4:
        sys.exit(__doc__)
    output, build, options = sys.argv[1:]
    cpu = json.loads(output_of("lscpu", "--json"))["lscpu"]
    fields = {}

    def collect(entries):
        for entry in entries:
            fields[entry["field"].rstrip(":")] = entry["data"]
            collect(entry.get("children", []))

    collect(cpu)
    compiler = re.search(r"^CMAKE_CXX_COMPILER:\w+=(.*)$", Path(build, "CMakeCache.txt").read_text(), re.MULTILINE)[1]
    os_name = re.search(r'^PRETTY_NAME="(.*)"$', Path("/etc/os-release").read_text(), re.MULTILINE)[1]
    caches = json.loads(output_of("lscpu", "--json", "--bytes", "--caches=NAME,ONE-SIZE"))["caches"]
    caches = {cache["name"]: int(cache["one-size"]) for cache in caches}
    Path(output).write_text(json.dumps({
        "cpu": f"{fields['Model name']} (family {fields['CPU family']}, model {fields['Model']})",
        "kind": f"{fields['Vendor ID']} family {fields['CPU family']} model {fields['Model']}",
        "cores": fields["CPU(s)"],
        "l2": f"{caches['L2'] / 2**20:.3g} MiB" if "L2" in caches else "unknown",
        "caches": caches,
        "os": os_name,
        "compiler": output_of(compiler, "--version").splitlines()[0],
        "options": options,
    }, indent=1) + "\n")


main()

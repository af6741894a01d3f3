#!/usr/bin/env python3
"""Writes examples/embed.c into the places that quote it: README.md and speechenhance.h.

    scripts/quote_example.py [--check]    (--check: only say whether they are up to date)
"""
import pathlib
import re
import sys

ROOT = pathlib.Path(__file__).resolve().parent.parent
HEADER = ROOT / "include/speechenhance/speechenhance.h"
README = ROOT / "README.md"


def replaced(pattern, text, quote):
    text, count = re.subn(pattern, lambda match: match[1] + quote + match[2], text, count=1, flags=re.S)
    assert count == 1, f"no place for the example: {pattern}"
    return text


def main(arguments):
    example = (ROOT / "examples/embed.c").read_text()
    in_comment = "".join(f" *   {line}".rstrip() + "\n" for line in example.splitlines())
    quotes = {
        README: replaced(r"(```c\n).*?(```\n)", README.read_text(), example),
        HEADER: replaced(r"(one clean voice out\.\n \*\n).*?( \*\n \* The engine works)", HEADER.read_text(), in_comment),
    }
    stale = [path for path, text in quotes.items() if path.read_text() != text]
    if "--check" in arguments:
        for path in stale:
            print(f"{path.relative_to(ROOT)} quotes an older example: run scripts/quote_example.py", file=sys.stderr)
        return 1 if stale else 0
    for path in stale:
        path.write_text(quotes[path])
    return 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))

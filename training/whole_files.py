"""Files that appear whole or not at all."""

import contextlib
import os
from collections.abc import Iterator
from pathlib import Path


@contextlib.contextmanager
def replacing(path: Path) -> Iterator[Path]:
    """Where to write what becomes the file at `path` once the block ends; an error leaves that as it was."""
    part = path.with_name(f"part-{os.getpid()}-{path.name}")
    try:
        yield part
        os.replace(part, path)
    finally:
        part.unlink(missing_ok=True)

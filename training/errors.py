"""One exception for everything a user can put right; the commands print it as one line."""

import contextlib
import sys


class TrainingError(Exception):
    """Unusable input: what is wrong and what to do about it."""


@contextlib.contextmanager
def reported_briefly():
    """Turns a TrainingError, or a file that cannot be read or written, into one line on stderr and
    exit status 1."""
    try:
        yield
    except (TrainingError, OSError) as error:
        print(f"error: {error}", file=sys.stderr)
        sys.exit(1)

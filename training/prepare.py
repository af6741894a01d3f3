"""python3 -m training.prepare --audio FOLDER --cache FOLDER

Decodes the audio once (about 115 MB an hour) so that scenes can be mixed on the fly, and tells what was
taken on which side of the split and what was not, and why (report.txt in the cache)."""

import argparse
from pathlib import Path

from training import audio, library
from training.errors import TrainingError, reported_briefly


def main() -> None:
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("--audio", type=Path, required=True,
                        help="folder with speech/, noise/ and, if there are, rooms/ and devices/, each with a "
                             "folder per collection (Ogg Opus, FLAC or WAV)")
    parser.add_argument("--cache", type=Path, required=True, help="where the decoded samples go")
    parser.add_argument("--leave-out", metavar="COLLECTION", action="append", default=[],
                        help="a collection to do without; may be given again")
    parser.add_argument("--train-on-all", action="store_true",
                        help="hold nothing out: for the last run of a recipe that is settled")
    arguments = parser.parse_args()
    with reported_briefly():
        if not arguments.audio.is_dir():
            raise TrainingError(f"{arguments.audio} is not a folder")
        for name in arguments.leave_out:
            if not any((arguments.audio / kind / name).is_dir() for kind in (*audio.READERS, "")):
                raise TrainingError(f"--leave-out: there is no collection {name} below {arguments.audio}")
        audio.build_cache(arguments.audio, arguments.cache, library.SHAPE.sample_rate,
                          arguments.leave_out, arguments.train_on_all)


if __name__ == "__main__":
    main()

"""python3 -m training.prepare --audio FOLDER --cache FOLDER

Decodes the audio once (about 800 MB for 7 hours) so that scenes can be mixed on the fly."""

import argparse
from pathlib import Path

from training import audio, library
from training.errors import TrainingError, reported_briefly


def main() -> None:
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("--audio", type=Path, required=True,
                        help="folder with speech/*/ and noise/ (Ogg Opus, FLAC or WAV)")
    parser.add_argument("--cache", type=Path, required=True, help="where the decoded samples go")
    arguments = parser.parse_args()
    with reported_briefly():
        if not arguments.audio.is_dir():
            raise TrainingError(f"{arguments.audio} is not a folder")
        audio.build_cache(arguments.audio, arguments.cache, library.SHAPE.sample_rate)


if __name__ == "__main__":
    main()

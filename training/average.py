"""python3 -m training.average FIRST.npz SECOND.npz --share S --out FILE.npz

Averages the weights of two runs that went on from one checkpoint: (1 - S) of the first and S of the
second. Between such runs the loss has no barrier, and the average is better than either where they
differ in what they are good at (Wortsman et al. 2022, "Model soups"). The counters are the first
run's."""

import argparse
from pathlib import Path

from training import checkpoint
from training.errors import TrainingError, reported_briefly


def averaged(first: dict, second: dict, share: float) -> dict:
    return {name: value.lerp(second[name], share) for name, value in first.items()}


def main() -> None:
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("first", type=Path)
    parser.add_argument("second", type=Path)
    parser.add_argument("--share", type=float, required=True, help="of the second, 0 to 1")
    parser.add_argument("--out", type=Path, required=True)
    arguments = parser.parse_args()
    with reported_briefly():
        if not 0 <= arguments.share <= 1:
            raise TrainingError("--share must be from 0 to 1")
        first, second = checkpoint.load(arguments.first), checkpoint.load(arguments.second)
        checkpoint.save(arguments.out, averaged(first[0], second[0], arguments.share),
                        averaged(first[1], second[1], arguments.share), first[2])


if __name__ == "__main__":
    main()

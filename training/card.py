"""The model card: what was measured, and what is written beside the checkpoint in a file .md (what it
was trained on, what to expect, limits, history)."""

import json
from pathlib import Path

from training import evaluate, plots
from training.errors import TrainingError
from training.whole_files import replacing

TEXT = """# The denoiser's parameters

`denoiser.bin` is compiled into the library: **{name}**, checksum `{{checksum}}`
(`python3 -m training.model_file models/denoiser.bin` prints it with all tables; the layout is in
`docs/model-file.md`). It comes from `training/checkpoints/denoiser.npz`; `docs/training.md` explains the
steps, and this repeats what follows:

```
python3 -m training.prepare --audio AUDIO --cache CACHE
scripts/release-model training/checkpoints/denoiser.npz CACHE {count}
```

## Scores

Through the engine itself, on held-out talkers and noises, {count} scenes per condition. SI-SDR is taken
against the clean signal as far as the engine's gain rule can reach it, STOI and the rest against the plain
clean signal; dB unless it is STOI; ± is the standard error over the scenes.

{targets}

![Scores over input SNR](scores/scores.png)

All numbers, those of the tool's presets among them: `scores/scores.md`.

## Recordings from elsewhere

"far" are collections that no training heard, "near" are other talkers, noises and rooms of the collections
that were trained on: same measures, and every engine on the same scenes (`docs/training.md`, far scores). By SNR,
kind of noise, distance, sex and language: `scores/far.md`.

{far}

## Three scenes

![Three scenes](scores/scenes.png)

{notes}
## Learning curves

![Parts of the loss over hours of audio](scores/learning.png)
"""


def draft(scores: Path, name: str, checkpoint: Path) -> str:
    """The card with `{checksum}` open. Reads scores.json in `scores` and what stands beside the
    checkpoint, and draws the learning curves into `scores`."""
    log, notes = checkpoint.with_suffix(".log"), checkpoint.with_suffix(".md")
    for path in (log, notes):
        if not path.exists():
            raise TrainingError(f"{path} is missing; the card tells what it says")
    results = json.loads((scores / "scores.json").read_text())
    far = (scores / "far.md").read_text().partition("\nSTOI gained by")[0].strip()
    table = evaluate.targets_table(results["processors"], results["standard errors of the engine"])
    plots.learning(log, scores / "learning.png")
    return TEXT.format(name=name, count=results["scenes per condition"], targets="\n".join(table).rstrip(),
                       far=far, notes=notes.read_text())


def write(path: Path, text: str, checksum: int) -> None:
    with replacing(path) as part:
        part.write_text(text.replace("{checksum}", f"{checksum:08x}"))

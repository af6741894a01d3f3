"""Writes the model card, models/README.md, from a checkpoint's counters and evaluated scores."""

import json
from pathlib import Path

from training import evaluate, plots

TEXT = """# The denoiser's parameters

`denoiser.bin` is compiled into the library: **{name}**, checksum `{checksum:08x}`
(`python3 training/model_file.py models/denoiser.bin` prints it with all tables; the layout is in
`docs/model-file.md`).

## Trained on

Scenes mixed on the fly and used for about {hours:.0f} hours of audio after the start; {start}
Every scene went through the library's own analysis, echo canceller and features, so that the network
saw in training what it sees in service.

| material | origin | licence |
|---|---|---|
| spoken commands, more than 50 English speakers | GitHub `Picovoice/speech-to-intent-benchmark` | Apache-2.0 |
| keywords, more than 300 English speakers | GitHub `Picovoice/wake-word-benchmark` | Apache-2.0 |
| wake words and phrases, English and Spanish | GitHub `MycroftAI/Precise-Community-Data` | public domain |
| read sentences, German | GitHub `rhasspy/dataset-voice-kerstin` | CC0 |
| read sentences, Dutch | GitHub `rhasspy/dataset-voice-nathalie` | CC0 |
| 78 ambiences and machines | GitHub `remvze/moodist` | Pixabay Content Licence, CC0 |

About 5.3 h of speech and 1.5 h of noise in all, a fifth of the talkers and noises held out by the rule
in `training/audio.py`. Added in mixing: statistical rooms, synthetic noise, hum, babble, loudspeaker
echo, equalisation, clipping, level changes, single and dead microphones (`training/scenes.py`). None
of the recordings is in this repository.

```
python3 -m training.prepare --audio AUDIO --cache CACHE
python3 -m training.train --cache CACHE --checkpoint training/checkpoints/denoiser.npz --minutes N
python3 -m training.evaluate --cache CACHE --model models/denoiser.bin \\
  --checkpoint training/checkpoints/denoiser.npz --out models/scores
python3 -m training.export --checkpoint training/checkpoints/denoiser.npz --scores models/scores
```

`docs/training.md` explains each step.

![Parts of the loss over hours of audio](scores/learning.png)

## Scores

Through the engine itself, on held-out talkers and noises, {count} scenes per condition; the third
command above reproduces them. SI-SDR is taken against the clean signal as far as the engine's gain rule
can reach it, STOI and the rest against the plain clean signal.

{targets}

![Scores over input SNR](scores/scores.png)

All numbers, those of the tool's presets among them: `scores/scores.md`.

## What to expect

{listening}

![Three scenes](scores/scenes.png)

## Limits

- What it deletes by mistake is mostly weak consonants in the highest octaves, in noise or far from the
  microphone; where every consonant counts, mix some of the unprocessed signal back.
- While the loudspeaker plays, the engine's gain rule passes nothing above about 3.3 kHz in wide bands:
  near speech sounds darker in double talk.
- The first second of an echo, and a path that changes suddenly, rest on the network alone.
- Bands wider than three bins (above 3.3 kHz) cannot reach unity gain; the tool's presets equalise.
- Speakers are mostly adults speaking English, German, Dutch and Spanish; other languages and children
  were not evaluated. Music is treated as noise.
"""

LISTENING = """Steady noise (fans, traffic, rain) disappears almost entirely within half a second and does
not come back between words; busy noise (keyboards, crockery, voices nearby) is pushed far down but
leaves traces during speech. Clean speech stays clean: levels below 5 kHz change by
{clean:.1f} dB. With a loudspeaker playing and nobody talking the output is practically silent; in double
talk the near voice stays intelligible with a darker timbre."""


def write(folder: Path, scores: Path, name: str, checksum: int, counters: dict, log: Path | None) -> None:
    """`scores` holds scores.json of the exported model; plots and tables stay where they are."""
    results = json.loads((scores / "scores.json").read_text())
    rows = [f"| {what} | {value} | {'yes' if ok else '**no**'} |"
            for what, value, ok in evaluate.targets(results["processors"])]
    if log and log.exists():
        plots.learning(log, scores / "learning.png")
    start = ("the run began from float masters that had seen 71 hours with an earlier recipe."
             if counters.get("warm start") else "the run began from random weights.")
    text = TEXT.format(name=name, checksum=checksum, hours=counters["frames"] / 360000, start=start,
                       count=results["scenes per condition"],
                       targets="\n".join(["| target | measured | reached |", "|---|---|---|", *rows]),
                       listening=LISTENING.format(
                           clean=abs(results["processors"]["engine"]["clean"]
                                     ["attenuation 125-5000 Hz"])))
    temporary = folder / "README.md.part"
    temporary.write_text(text)
    temporary.replace(folder / "README.md")

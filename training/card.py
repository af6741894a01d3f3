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
  --checkpoint training/checkpoints/denoiser.npz --count {count} \\
  --presets tools/speech-enhance/presets --out models/scores
python3 -m training.export --checkpoint training/checkpoints/denoiser.npz --scores models/scores
```

`docs/training.md` explains each step.{history}

![Parts of the loss over hours of audio](scores/learning.png)

## Scores

Through the engine itself, on held-out talkers and noises, {count} scenes per condition; the third
command above reproduces them. SI-SDR is taken against the clean signal as far as the engine's gain rule
can reach it, STOI and the rest against the plain clean signal; ± is the standard error over the scenes.

{targets}

![Scores over input SNR](scores/scores.png)

All numbers, those of the tool's presets among them: `scores/scores.md`.

## What to expect

{listening}

![Three scenes](scores/scenes.png)

## Limits

- Until it has heard somebody talk it is careful: noise stays audible, some 20 to 40 dB down, before the
  first words, and all but vanishes in the pauses after them.
- What it deletes by mistake is mostly weak consonants in the highest octaves, in noise or far from the
  microphone; where every consonant counts, mix some of the unprocessed signal back.
- While the loudspeaker plays, the engine's gain rule closes every band of four bins or more, which is
  most of the spectrum above 4.8 kHz, and limits those of three: near speech is darker in double talk.
- The first second of an echo, and a path that changes suddenly, rest on the network alone.
- Without far-end signal, bands wider than three bins (from 4.8 kHz up) cannot reach unity gain; the
  tool's presets equalise.
- How far the scores carry: the rule that holds talkers out goes by runs of clips, not by names, and the
  German and the Dutch collection have one speaker each, whose other clips were trained on. {seen}The
  weights of the loss were chosen while looking at scores of this kind. Rooms and loudspeakers are
  synthetic throughout.
- Speakers are mostly adults speaking English, German, Dutch and Spanish; other languages and children
  were not evaluated. Music is treated as noise.
"""

LISTENING = """Read from spectrograms and scores; there was no listening test. Noise alone is taken down
by {noise:.0f} dB on average over real noises, clean speech changes its level below 5 kHz by {clean:.1f} dB.
At 0 dB SNR the output follows the talker's harmonics and leaves pauses almost empty; faint traces of
busy noise (keyboards, crockery, voices nearby) remain during speech. A loudspeaker that plays while
nobody talks is taken down by {echo:.0f} dB; in double talk the near voice stays, darker, and some of the
echo stays with it."""

SEEN = """The
  masters that the run began from were trained with a split of their own and may have heard some of
  the clips. """


def write(folder: Path, scores: Path, name: str, checksum: int, counters: dict, log: Path | None) -> None:
    """`scores` holds scores.json of the exported model; plots and tables stay where they are. What
    stands beside the log in a file .md joins the card as the history of the run."""
    results = json.loads((scores / "scores.json").read_text())
    table = evaluate.targets_table(results["processors"], results["standard errors of the engine"])
    if log and log.exists():
        plots.learning(log, scores / "learning.png")
    start = ("the run began from float masters that had seen 71 hours with an earlier recipe."
             if counters.get("warm start") else "the run began from random weights.")
    notes = log.with_suffix(".md") if log else None
    history = ("\n\nHistory of the run:\n\n" + notes.read_text().rstrip()
               if notes and notes.exists() else "")
    engine = results["processors"]["engine"]
    listening = LISTENING.format(clean=abs(engine["clean"]["attenuation 125-5000 Hz"]),
                                 noise=engine["noise only"]["drop"],
                                 echo=engine["far end only"]["drop"])
    text = TEXT.format(name=name, checksum=checksum, hours=counters["frames"] / 360000, start=start,
                       count=results["scenes per condition"],
                       targets="\n".join(table),
                       history=history, seen=SEEN if counters.get("warm start") else "", listening=listening)
    temporary = folder / "README.md.part"
    temporary.write_text(text)
    temporary.replace(folder / "README.md")

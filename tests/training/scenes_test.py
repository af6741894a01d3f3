"""Sounds, the split, scenes and windows, and scores over scenes."""

import types
import unittest
import unittest.mock
from pathlib import Path

from support import RATE, WithData, some_network, voice

import numpy as np
import torch

from training import audio, conditions, material, processors, rooms, scenes, sources, streams, validation
from training.gain_rule import GainRule
from training.library import SHAPE
from training.loss import Loss


class SceneTest(WithData):
    def test_levels_are_what_the_plan_says(self):
        mixer = scenes.Mixer(audio.Material(self.cache, "train"), RATE, 7)
        for snr in (-5.0, 10.0, 30.0):
            plan = conditions.plan(snr=snr, level=-30.0, dry=True)
            both = mixer.scene(4 * RATE, plan)
            self.assertTrue(np.isfinite(both.microphones).all())
            noise = both.microphones[1] - both.target
            level = 20 * np.log10(audio.active_level(both.target, RATE))
            self.assertAlmostEqual(level, -30.0, delta=0.5)
            self.assertAlmostEqual(level - 20 * np.log10(sources.rms(noise)), snr, delta=0.5)
            self.assertLess(np.abs(both.reference).max(), 1e-3)  # a line that plays nothing

    def test_what_must_be_silent_is(self):
        mixer = scenes.Mixer(audio.Material(self.cache, "train"), RATE, 8)
        far = mixer.scene(2 * RATE, conditions.plan(talks=False, noise="none", far_end=True, echo=0.0))
        self.assertFalse(np.any(far.target))
        self.assertTrue(np.any(far.reference) and np.any(far.microphones[1]))
        dead = mixer.scene(2 * RATE, conditions.plan(dead_microphone=True))
        self.assertFalse(np.any(dead.microphones[0]))
        self.assertTrue(np.any(dead.microphones[1]))
        late = mixer.scene(2 * RATE, conditions.plan(begins=0.5))
        first, rest = late.target[:RATE - 800], late.target[RATE:]
        self.assertGreater(sources.rms(rest), 1000 * sources.rms(first))  # an equaliser rings a little
        self.assertTrue(np.any(late.microphones[1][:RATE - 800]))

    def test_speech_keeps_its_level_and_runs_on(self):
        """A clip that is cut off before its first word stays quiet; words are strung together."""
        rng = np.random.default_rng(2)
        sound = np.concatenate([rng.normal(0, 1e-3, 2 * RATE), voice(rng, 2.0)]).astype(np.float32)
        level = audio.active_level(sound, RATE)
        clip = audio.Clip("x", "x", "x", "train", 0, len(sound), level, 0, len(sound))
        late = types.SimpleNamespace(
            samples=lambda clip, audible: sound, talkers={("x", "x"): [clip]}, noises={},
            talker_probabilities=lambda: np.ones(1))
        draw = sources.Sources(late, RATE, np.random.default_rng(11))
        quiet = [draw.speech(RATE) for _ in range(8)]
        self.assertLess(min(map(sources.rms, quiet)), 0.05)
        self.assertLess(max(map(sources.rms, quiet)), 3)
        self.assertGreater(audio.active_level(draw.speech(8 * RATE), RATE), 0.7)

        words = sources.Sources(audio.Material(self.cache, "train"), RATE, np.random.default_rng(4))
        run = words.speech(10 * RATE, ("gcompris", "de_word"), busy=0.1)
        spoken = np.abs(run.reshape(-1, RATE // 10)).max(1) > 0.1
        self.assertGreater(spoken.mean(), 0.6)
        for changed in (words.whispered(run), words.shouted(run)):
            self.assertAlmostEqual(audio.active_level(changed, RATE), 1.0, delta=0.05)
            envelope = lambda x: np.abs(x).reshape(-1, RATE // 50).mean(1)
            self.assertGreater(np.corrcoef(envelope(run), envelope(changed))[0, 1], 0.8)

    def test_the_split_holds_talkers_recordings_and_rooms_apart(self):
        sides = [audio.Material(self.cache, side) for side in material.SIDES]
        names = [{f"{material.recording_of(Path(c.collection).name, Path(c.name).stem)}"
                  for kinds in s.noises.values() for clips in kinds.values() for c in clips} for s in sides]
        for parts in ([{talker for _, talker in s.talkers} for s in sides], names):
            self.assertEqual(sum(map(len, parts)), len(set.union(*parts)))
            self.assertTrue(all(parts))
        self.assertIn(("emodb", "de_emo03"), sides[2].talkers)
        self.assertEqual(set(sides[2].rooms), {"r3vival-lab/absorptive-000"})
        self.assertEqual(set(sides[0].rooms), {"r3vival-lab/absorptive-100"})
        report = "\n".join(self.report)
        self.assertIn("refused 1 of speech/emodb: shorter than 0.2 s (de_emo03-b.wav)", report)
        self.assertIn("refused 1 of noise/esc50: a voice, which is to survive", report)
        without, refused = audio.sources(self.path / "audio", ["esc50"])
        self.assertFalse([s for s in without if s.collection == "esc50"])
        self.assertEqual(refused["noise/esc50", "left out by --leave-out"], 25)
        self.assertEqual({s.side for s in audio.sources(self.path / "audio", (), True)[0]}, {"train"})

    def test_nobody_talks_too_often(self):
        train = audio.Material(self.cache, "train")
        drawn = dict(zip(train.talkers, train.talker_probabilities()))
        self.assertAlmostEqual(sum(drawn.values()), 1.0)
        self.assertGreater(len(drawn), 1 / material.MOST_OF_A_TALKER)
        self.assertLessEqual(max(drawn.values()), material.MOST_OF_A_TALKER + 1e-9)
        rare = audio._limited(np.array([0.5, 0.3] + [0.2 / 98] * 98), 0.02)
        np.testing.assert_allclose(rare, [0.02, 0.02] + [0.96 / 98] * 98)

    def test_measured_responses_keep_their_pairs_and_move(self):
        room = scenes.Mixer(audio.Material(self.cache, "train"), RATE, 3).rooms["r3vival-lab/absorptive-100"]
        near, measured = (room.response(np.random.default_rng(1), RATE, d) for d in (0.5, 2.0))
        self.assertEqual(np.argmax(np.abs(measured[1])), rooms.DIRECT_AT)
        self.assertEqual(np.argmax(np.abs(measured[0])), rooms.DIRECT_AT + 1)
        self.assertAlmostEqual(float(measured[1, rooms.DIRECT_AT]), 1.0, places=3)
        late = slice(rooms.DIRECT_AT + 100, None)
        self.assertAlmostEqual(20 * np.log10(sources.rms(near[1, late]) / sources.rms(measured[1, late])),
                               -12.04, places=1)
        shape = audio.Material(self.cache, "train").devices + audio.Material(self.cache, "near").devices
        self.assertAlmostEqual(np.argmax(shape[0]), 0.8 / np.pi * (audio.DEVICE_BINS - 1), delta=4)

    def test_windows_line_up(self):
        mixer = scenes.Mixer(audio.Material(self.cache, "train"), RATE, 9)
        net = some_network(8)
        example = streams.make_example(mixer.scene(2 * RATE, conditions.plan(far_end=True, echo=0.0)))
        features = torch.from_numpy(example.features).unsqueeze(0)
        with torch.no_grad():
            whole = net.whole_scene(features[0, SHAPE.lookahead:])
            ends, state = 100 + 2 * SHAPE.lookahead, net.initial_state(1)
            first, state = net(features[:, :ends], state, torch.tensor([True]))
            second, _ = net(features[:, 100:], state, torch.tensor([False]))
        torch.testing.assert_close(torch.cat([first, second], 1)[0], whole, atol=2e-3, rtol=0)

        clean = conditions.plan(noise="none", snr=60.0)
        feed = streams.Streams(mixer, 2, 64, reuse=0.0, draw_plan=lambda rng, ease: clean)
        (features, mixture, target, cosine, far_end), _ = feed.next_windows()
        self.assertEqual(features.shape[1], 64 + 2 * SHAPE.lookahead)
        alike = lambda a, b: torch.corrcoef(torch.stack([a.flatten(), b.flatten()]))[0, 1]
        self.assertGreater(alike(mixture, target), alike(mixture[:, 3:], target[:, :-3]))
        self.assertGreater(alike(mixture, target), alike(mixture[:, :-3], target[:, 3:]))
        centre = features[:, SHAPE.lookahead:-SHAPE.lookahead, 1].square() @ GainRule().expansion
        inner = slice(4, 128)
        self.assertGreater(alike(centre[..., inner].sqrt(), mixture[..., inner]), 0.7)
        loss = Loss()
        error = lambda v: loss(torch.full((2, 64, SHAPE.bands), v), mixture, target, cosine,
                               far_end)[1]["spectral"]
        self.assertLess(error(1 / 3), error(0.05))
        self.assertLess(error(1 / 3), error(1.0))


class ValidationTest(WithData):
    def test_a_louder_preset_is_compared_at_the_level_of_speech(self):
        mixer = scenes.Mixer(audio.Material(self.cache, "near"), RATE, 3)
        scene = mixer.scene(3 * RATE, conditions.plan(noise="none", dry=True))
        late = lambda scene, echo: 2 * np.pad(scene.microphones[1], (160, 0))[:-160]
        for evened, level in ((True, 1), (False, 2)):
            processor = processors.Processor("late", late, evened)
            processor.measure(scene)
            np.testing.assert_allclose(processor(scene), level * scene.microphones[1], atol=1e-5)
            np.testing.assert_allclose(processor.speech_gains, level, rtol=1e-4)

    def test_far_and_near_scores(self):
        """Paired differences, rows that are kept, and a scene that does not depend on those before."""
        few = [validation.Case("noisy", "typing", conditions.plan(group="typing", snr=snr), i)
               for snr in (0.0, 10.0) for i in range(3)]
        few += [validation.Case("noise", "typing", conditions.plan(talks=False, group="typing"), i)
                for i in range(2)]
        few.append(validation.Case("late echo", "", conditions.plan(talks=False, noise="none", far_end=True,
                                                                    echo=0.0), 0))
        line = {"half": ("half", processors.Processor("half", lambda s, echo: s.microphones[1] / 2)),
                "unprocessed": ("unprocessed", processors.unprocessed())}
        with unittest.mock.patch.object(validation, "cases", lambda quick, times: few):
            rows = validation.table(self.cache, line, True, lambda text: None)
            broken = {k: (k, processors.Processor(k, None)) for k in line}
            for _, p in broken.values():
                p.measure = lambda scene: None
            self.assertEqual(validation.table(self.cache, broken, True, lambda text: None), rows)
        with unittest.mock.patch.object(validation, "cases", lambda quick, times: few[4:5]):
            again = validation.table(self.cache, line, True, lambda text: None)
        self.assertEqual(again[0], validation.pick(rows, side="far", number=1, snr=10.0)[0])
        far = {n: validation.pick(rows, processor=n, side="far") for n in line}
        self.assertEqual({r["collection"] for r in far["half"] if r["kind"] == "noisy"} -
                         {"emodb", "librispeech_resemblyzer"}, set())
        kept = validation.difference(far["half"], far["unprocessed"], "kept")
        self.assertAlmostEqual(kept[0], -6.02, places=2)
        self.assertIn("worse", validation.judged(*kept, 1, True))
        same = validation.difference(far["half"], far["unprocessed"], "stoi")
        self.assertIn("no difference", validation.judged(*same, 3, True))
        for kind in ("noise", "late echo"):
            self.assertAlmostEqual(validation.mean(validation.pick(far["half"], kind=kind), "drop")[0], 6.02, places=2)
        self.assertEqual(validation.worst(rows, "half", 2)[0]["side"], "far")
        reached = "\n".join(validation.targets(rows, "half", "unprocessed"))
        self.assertIn("| STOI at 0 dB: +0.040 over unprocessed | -0.040 | **no** |", reached)
        self.assertIn("than .005 in STOI: none | +0 | yes |", reached.replace("-0 |", "+0 |"))


if __name__ == "__main__":
    unittest.main()

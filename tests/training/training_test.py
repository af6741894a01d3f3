"""Tests of the training package on data that they synthesise. Exit status 77: PyTorch is missing.

    SE_TRAINING_LIBRARY=build/training/native/libse_training.so python3 tests/training/training_test.py
"""

import subprocess
import sys
import tempfile
import types
import unittest
from pathlib import Path

ROOT = Path(__file__).parents[2]
sys.path.insert(0, str(ROOT))

try:
    import numpy as np
    import soundfile
    import torch
except ImportError as error:
    print(f"skipped: {error}; install python3-torch, python3-numpy, python3-scipy, python3-soundfile")
    sys.exit(77)

from training import (accelerate, audio, checkpoint, conditions, export, library, metrics, network,
                      processors, scenes, streams)
from training.errors import TrainingError
from training.gain_rule import FAR_END_ENERGY, GainRule
from training.library import SHAPE
from training.loss import Loss, Weights, _SpectralError

RATE = SHAPE.sample_rate
torch.set_num_threads(1)


def voice(rng, seconds: float) -> np.ndarray:
    """Syllables of gliding harmonics."""
    t = np.arange(int(seconds * RATE)) / RATE
    pitch = rng.uniform(90, 240) * (1 + 0.1 * np.sin(2 * np.pi * rng.uniform(0.5, 2) * t))
    phase = 2 * np.pi * np.cumsum(pitch) / RATE
    tone = sum(np.sin(k * phase) / k for k in range(1, 15))
    return 0.1 * tone * np.clip(np.sin(2 * np.pi * rng.uniform(2, 4) * t), 0, 1)


def make_audio_folder(folder: Path) -> None:
    rng = np.random.default_rng(1)
    for talker in ("adam", "berta"):
        (folder / "speech" / talker).mkdir(parents=True)
        for i in range(0, 200, 20):  # runs of 25 on both sides of the split
            soundfile.write(folder / "speech" / talker / f"{i:04}.wav", voice(rng, 2.0), RATE)
    (folder / "noise").mkdir()
    for i in range(12):
        noise = rng.standard_normal(3 * RATE) * 0.05
        soundfile.write(folder / "noise" / f"noise-{i}.wav", noise, RATE)


def some_network(seed: int) -> network.Denoiser:
    """A network whose activations and gains spread over their ranges."""
    torch.manual_seed(seed)
    net = network.Denoiser()
    front = library.front_end(*(export.golden_scene(200).astype(np.float32) / 32768))
    net.calibrate(torch.from_numpy(front.features)[None])
    with torch.no_grad():
        for pair in (net.gru1, net.gru2):
            for p in pair.parameters():
                p.mul_(1.5)
        net.head.weight.mul_(4)
    net.constrain()
    return net.eval()


class WithData(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.folder = tempfile.TemporaryDirectory()
        cls.path = Path(cls.folder.name)
        make_audio_folder(cls.path / "audio")
        cls.cache = cls.path / "cache"
        audio.build_cache(cls.path / "audio", cls.cache, RATE, progress=lambda line: None)

    @classmethod
    def tearDownClass(cls):
        cls.folder.cleanup()


class ExportTest(unittest.TestCase):
    def test_library_and_network_compute_the_same_gains(self):
        with tempfile.TemporaryDirectory() as folder:
            net = some_network(3)
            model, golden = Path(folder) / "model.bin", Path(folder) / "golden.bin"
            _, difference = export.export(net, model, golden, "test")
            self.assertLessEqual(difference, 1e-4)
            front = library.front_end(*(export.golden_scene(500).astype(np.float32) / 32768))
            gains = library.network_gains(model.read_bytes(), front)[SHAPE.lookahead:]
            self.assertGreater(gains.std(), 0.05, "the gains must vary for this to mean anything")
            with torch.no_grad():
                values = net.whole_scene(torch.from_numpy(front.features))
            difference = np.abs(GainRule().raw(values).numpy() - gains)
            # Single rounding decisions fall differently where sums are formed in float.
            self.assertLess(difference.max(), 5e-3)
            self.assertLess(difference.mean(), 1e-4)

    def test_a_model_that_cannot_be_stored_leaves_the_old_one(self):
        with tempfile.TemporaryDirectory() as folder:
            model = Path(folder) / "model.bin"
            model.write_bytes(b"the good one")
            net = some_network(4)
            with torch.no_grad():
                net.head.bias[0] = float("nan")
            with self.assertRaises(Exception):
                export.export(net, model, None, "broken")
            self.assertEqual(model.read_bytes(), b"the good one")
            self.assertEqual([p.name for p in Path(folder).iterdir()], ["model.bin"])


class FrontEndTest(unittest.TestCase):
    def test_path_in_python_equals_the_engine(self):
        """Front end, alignment, gain rule with and without far end: all of it against the engine."""
        with tempfile.TemporaryDirectory() as folder:
            model = processors.written(export.tables(some_network(5)), Path(folder), "model")
            signals = export.golden_scene(400).astype(np.float32) / 32768
            out = library.engine(model, *signals)
            front = library.front_end(*signals)
            far_end = torch.from_numpy(front.energy > FAR_END_ENERGY)
            self.assertTrue(far_end.any() and not far_end.all())
            raw = torch.from_numpy(library.network_gains(model, front))
            gain = GainRule().applied(raw, far_end).numpy()
            lag = SHAPE.lookahead
            spectra = np.zeros_like(front.reference)
            spectra[lag:] = front.microphones[:-lag, 1] * gain[lag:]
            np.testing.assert_allclose(library.synthesise(spectra), out, atol=2e-6)
            self.assertGreater(np.abs(out).max(), 0.01)

    def test_ceiling_is_what_the_rule_can_reach_and_values_are_its_inverse(self):
        rule = GainRule()
        for far_end in (False, True):
            flag = torch.tensor(far_end)
            values = rule.values(torch.full((SHAPE.bands,), 0.6), flag)
            narrow = rule.applied(rule.raw(values), flag)[8:56]  # bands of one bin
            torch.testing.assert_close(narrow, torch.full_like(narrow, 0.6))
            best = rule.applied(rule.raw(torch.ones(SHAPE.bands)), flag)
            torch.testing.assert_close(best.clamp_max(1), rule.ceiling(flag))


class LossTest(unittest.TestCase):
    def test_gradient_of_the_spectral_error(self):
        g = torch.Generator().manual_seed(2)
        draw = lambda *shape: torch.rand(*shape, generator=g, dtype=torch.float64)
        gain = draw(2, 3, 5).requires_grad_()
        rest = draw(2, 3, 5), draw(2, 3, 5), draw(2, 3, 5) * 2 - 1, draw(5)
        self.assertTrue(torch.autograd.gradcheck(
            lambda x: _SpectralError.apply(x, *rest, Weights()), (gain,)))

    @unittest.skipUnless(accelerate.available(), "this CPU has no AMX")
    def test_quick_step_equals_plain_step(self):
        net = some_network(6).train()
        features = torch.rand(16, 42, SHAPE.channels, SHAPE.bands) * 2
        results = {}
        for quick in (False, True):
            net.quick = quick
            net.zero_grad()
            values, _ = net(features, net.initial_state(16), torch.arange(16) % 3 == 0)
            (values * torch.linspace(-1, 1, SHAPE.bands)).sum().backward()
            results[quick] = values.detach(), {n: p.grad.clone() for n, p in net.named_parameters()}
        self.assertLess((results[True][0] - results[False][0]).abs().mean(), 0.01)
        for name, plain in results[False][1].items():
            quick = results[True][1][name]
            alike = torch.nn.functional.cosine_similarity(plain.flatten(), quick.flatten(), 0)
            self.assertGreater(alike, 0.97, name)


class SceneTest(WithData):
    def test_levels_are_what_the_plan_says(self):
        mixer = scenes.Mixer(audio.ClipLibrary(self.cache, False), RATE, 7)
        for snr in (-5.0, 10.0, 30.0):
            plan = conditions.plan(snr=snr, level=-30.0, dry=True)
            both = mixer.scene(4 * RATE, plan)
            self.assertTrue(np.isfinite(both.microphones).all())
            noise = both.microphones[1] - both.target
            level = 20 * np.log10(scenes.active_level(both.target, RATE))
            self.assertAlmostEqual(level, -30.0, delta=0.5)
            self.assertAlmostEqual(level - 20 * np.log10(scenes.rms(noise)), snr, delta=0.5)
            self.assertLess(np.abs(both.reference).max(), 1e-3)  # a line that plays nothing

    def test_what_must_be_silent_is(self):
        mixer = scenes.Mixer(audio.ClipLibrary(self.cache, False), RATE, 8)
        far = mixer.scene(2 * RATE, conditions.plan(talks=False, noise="none", far_end=True, echo=0.0))
        self.assertFalse(np.any(far.target))
        self.assertTrue(np.any(far.reference) and np.any(far.microphones[1]))
        dead = mixer.scene(2 * RATE, conditions.plan(dead_microphone=True))
        self.assertFalse(np.any(dead.microphones[0]))
        self.assertTrue(np.any(dead.microphones[1]))
        late = mixer.scene(2 * RATE, conditions.plan(begins=0.5))
        first, rest = late.target[:RATE - 800], late.target[RATE:]
        self.assertGreater(scenes.rms(rest), 1000 * scenes.rms(first))  # an equaliser rings a little
        self.assertTrue(np.any(late.microphones[1][:RATE - 800]))

    def test_a_clip_cut_off_before_its_first_word_stays_quiet(self):
        rng = np.random.default_rng(2)
        sound = np.concatenate([rng.normal(0, 1e-3, 2 * RATE), voice(rng, 2.0)]).astype(np.float32)
        clips = types.SimpleNamespace(samples=lambda clip: sound, talkers={
            "x": {"x/0": [audio.Clip("x/0", "x/0", 0, len(sound), False)]}})
        mixer = scenes.Mixer(clips, RATE, 10)
        self.assertLess(scenes.rms(mixer.speech(RATE)), 0.05)
        self.assertGreater(scenes.active_level(mixer.speech(8 * RATE), RATE), 0.7)

    def test_both_sides_of_the_split_are_apart(self):
        sides = [audio.ClipLibrary(self.cache, held_out) for held_out in (False, True)]
        talkers = [{t for f in side.talkers.values() for t in f} for side in sides]
        noises = [{c.name for c in side.noises} for side in sides]
        self.assertFalse(talkers[0] & talkers[1] or noises[0] & noises[1])

    def test_windows_line_up(self):
        mixer = scenes.Mixer(audio.ClipLibrary(self.cache, False), RATE, 9)
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
        feed = streams.Streams(mixer, 2, 64, reuse=0.0, draw_plan=lambda rng: clean)
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


class TrainTest(WithData):
    def command(self, *extra):
        return subprocess.run(
            [sys.executable, "-W", "ignore", "-m", "training.train", "--cache", str(self.cache),
             "--checkpoint", str(self.path / "run.npz"), "--processes", "1", "--batch", "4",
             "--window", "64", "--average-every", "1", "--save-every", "0", *extra],
            cwd=ROOT, capture_output=True, text=True)

    def test_training_resumes_and_survives_a_bad_loss(self):
        first = self.command("--minutes", "0.02")
        self.assertEqual(first.returncode, 0, first.stderr)
        path = self.path / "run.npz"
        before = checkpoint.load(path)[2]["steps"]
        self.assertGreater(before, 0)
        second = self.command("--minutes", "0.02")
        self.assertEqual(second.returncode, 0, second.stderr)
        self.assertGreater(checkpoint.load(path)[2]["steps"], before)
        good = path.read_bytes()
        third = self.command("--minutes", "0.02", "--ratio", "nan")
        self.assertEqual(third.returncode, 1)
        self.assertIn("the loss became nan", third.stderr)
        self.assertEqual(path.read_bytes(), good)

    def test_unusable_input_is_named(self):
        with self.assertRaisesRegex(TrainingError, "run training.prepare"):
            audio.ClipLibrary(self.path / "nowhere", False)
        broken = self.path / "broken"
        (broken / "speech" / "x").mkdir(parents=True)
        (broken / "speech" / "x" / "1.wav").write_bytes(b"no sound")
        with self.assertRaisesRegex(TrainingError, "cannot decode .*1.wav"):
            audio.build_cache(broken, self.path / "other", RATE)
        state = network.Denoiser().state_dict()
        path = self.path / "other.npz"
        checkpoint.save(path, state, state | {"head.bias": torch.zeros(64)}, {"steps": 1})
        with self.assertRaisesRegex(TrainingError, "another network: head.bias"):
            checkpoint.load(path)
        with self.assertRaisesRegex(TrainingError, "not finite"):
            checkpoint.save(path, state | {"head.bias": torch.full((128,), torch.nan)}, state, {})

    def test_average_of_two_runs(self):
        ones, twos = ({k: torch.full_like(v, x) for k, v in network.Denoiser().state_dict().items()}
                      for x in (1, 2))
        checkpoint.save(self.path / "a.npz", ones, twos, {"steps": 3})
        checkpoint.save(self.path / "b.npz", twos, ones, {"steps": 4})
        subprocess.run([sys.executable, "-W", "ignore", "-m", "training.average", self.path / "a.npz",
                        self.path / "b.npz", "--share", "0.25", "--out", self.path / "c.npz"],
                       cwd=ROOT, check=True)
        weights, average, counters = checkpoint.load(self.path / "c.npz")
        self.assertTrue(all((v == 1.25).all() for v in weights.values()))
        self.assertTrue(all((v == 1.75).all() for v in average.values()))
        self.assertEqual(counters, {"steps": 3})


class MetricsTest(unittest.TestCase):
    def test_scores_of_known_signals(self):
        rng = np.random.default_rng(5)
        clean = voice(rng, 4.0).astype(np.float32)
        noise = rng.standard_normal(len(clean)).astype(np.float32)
        noise *= np.float32(np.linalg.norm(clean) / np.linalg.norm(noise))
        for snr in (0, 10):
            mixed = clean + noise * np.float32(10 ** (-snr / 20))
            self.assertAlmostEqual(metrics.si_sdr(0.3 * mixed, clean), snr, delta=0.5)
        self.assertAlmostEqual(metrics.stoi(clean, clean), 1.0, places=6)
        self.assertGreater(metrics.stoi(clean + noise * 0.1, clean), metrics.stoi(clean + noise, clean))
        self.assertAlmostEqual(metrics.log_spectral_distance(noise / 2, noise), 6.0, delta=0.5)
        self.assertAlmostEqual(metrics.attenuation(clean / 2, clean)[125, 5000], 6.02, places=1)
        reached = metrics.reachable(clean, np.ones(SHAPE.bins, np.float32))
        np.testing.assert_allclose(reached, clean, atol=1e-5)


if __name__ == "__main__":
    unittest.main()

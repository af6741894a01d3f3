"""Tests of the training package on data that they synthesise. Exit status 77: PyTorch is missing.

    SE_TRAINING_LIBRARY=build/training/native/libse_training.so python3 tests/training/training_test.py
"""

import subprocess
import sys
import tempfile
import types
import unittest
import unittest.mock
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

from training import (accelerate, audio, checkpoint, conditions, export, library, make_neutral_model,
                      material, metrics, network, processors, rooms, scenes, sources, streams,
                      validation)
from training.bands import expansion
from training.errors import TrainingError
from training.gain_rule import FAR_END_ENERGY, GainRule
from training.library import SHAPE, make_up
from training.loudness import Disturbance
from training.loss import Loss, Weights, _SpectralError
from training.model_tables import model_tables

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
    """Ninety talkers, one of whom says most, another in words; noises, rooms, a device; some on every side
    of the split, and some to refuse."""
    rng = np.random.default_rng(1)

    def write(name, samples):
        path = folder / f"{name}.wav"
        path.parent.mkdir(parents=True, exist_ok=True)
        soundfile.write(path, samples, RATE)

    for i in range(12):
        write(f"speech/german/{i:04}", voice(rng, 3.0))
        write(f"speech/gcompris/de_word-{i}", voice(rng, 0.5))
    for talker in range(88):
        write(f"speech/librispeech_resemblyzer/en_ls{talker}-0", voice(rng, 1.0))
    write("speech/emodb/de_emo03-a", voice(rng, 2.0))
    write("speech/emodb/de_emo03-b", voice(rng, 0.1))
    for i in range(12):
        write(f"noise/things-hum-{i}x", rng.standard_normal(3 * RATE) * 0.05)
        write(f"noise/esc50/keyboard-1-{i}-a", rng.standard_normal(RATE // 2) * 0.05)
        write(f"noise/esc50/keyboard-1-{i}-b", rng.standard_normal(RATE // 2) * 0.05)
    write("noise/esc50/crying-1-9-a", rng.standard_normal(RATE) * 0.05)
    for wall in ("000", "100"):
        for angle in range(0, 360, 30):
            response = rng.standard_normal((RATE // 4, 2)) * np.exp(-np.arange(RATE // 4) / 400)[:, None] / 8
            response[30:32] = np.eye(2)[::-1] * 0.5
            write(f"rooms/r3vival-lab/absorptive-{wall}-s{angle:03}-200-r1", response)
    write("devices/tin", np.sin(np.arange(300) * 0.8) * np.exp(-np.arange(300) / 20))


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
        cls.report = []
        audio.build_cache(cls.path / "audio", cls.cache, RATE, progress=cls.report.append)

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


class NeutralModelTest(unittest.TestCase):
    def test_passes_what_the_gain_rule_lets_pass(self):
        tables = make_neutral_model.neutral_model()
        self.assertFalse(any(t.any() for t in tables.values() if t.dtype == np.int8))
        value = 1 / (1 + np.exp(-tables["fc2_bias"].astype(float)))
        applied = make_up() * (expansion() @ value)
        self.assertFalse(applied[:4].any())
        np.testing.assert_allclose(applied[4:60], 1, atol=1e-6)  # bands of one bin
        self.assertGreater(applied[60:160].mean(), 0.95)
        ceiling = make_up() * expansion().sum(axis=1)
        wide = slice(200, 256)
        np.testing.assert_allclose(applied[wide], np.minimum(ceiling[wide], 1), atol=1e-4)


class FrontEndTest(unittest.TestCase):
    def test_path_in_python_equals_the_engine(self):
        """Front end, alignment, gain rule with and without far end: all of it against the engine."""
        with tempfile.TemporaryDirectory() as folder:
            model = processors.written(model_tables(some_network(5)), Path(folder), "model")
            signals = export.golden_scene(400).astype(np.float32) / 32768
            out = library.engine(model, *signals)
            front = library.front_end(*signals)
            far_end = torch.from_numpy(front.energy > FAR_END_ENERGY)
            self.assertTrue(far_end.any() and not far_end.all())
            raw = torch.from_numpy(library.network_gains(model, front))
            gain = GainRule().applied(raw, far_end).numpy()
            np.testing.assert_array_equal(gain, library.applied_gains(raw.numpy(), front))
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
        lost = draw(2, 1, 1) * 4
        self.assertTrue(torch.autograd.gradcheck(
            lambda x: _SpectralError.apply(x, *rest, Weights(), lost), (gain,)))

    def test_gradient_of_the_disturbance_and_of_lost_speech(self):
        """Against differences, on magnitudes and on the whole loss; speech taken from noise weighs more."""
        g = torch.Generator().manual_seed(4)
        measure = Disturbance(SHAPE.bins, RATE)
        for name in ("members", "quiet", "scale"):
            setattr(measure, name, getattr(measure, name).double())
        x, target = (torch.rand(1, 2, SHAPE.bins, generator=g, dtype=torch.float64) for _ in range(2))
        total = lambda x: sum(d.sum() for d in measure(x, target))
        x.requires_grad_()
        slope, = torch.autograd.grad(total(x), x)
        way = torch.randn(x.shape, generator=g, dtype=torch.float64)
        with torch.no_grad():
            step = (total(x + 1e-6 * way) - total(x - 1e-6 * way)) / 2e-6
        torch.testing.assert_close((slope * way).sum(), step, rtol=1e-4, atol=1e-6)

        values = torch.full((2, 64, SHAPE.bands), 1e-3)
        speech = torch.rand(2, 64, SHAPE.bins, generator=g)
        noise = torch.tensor([0.1, 3.0])[:, None, None]  # the second window holds more of it than of speech
        args = (speech + noise, speech, torch.ones_like(speech) * 0.95, torch.zeros(2, 64, dtype=torch.bool))
        both = [Loss(Weights(taken=taken))(values, *args)[1]["spectral"] for taken in (0.0, 2.0)]
        quiet = [Loss(Weights(taken=taken))(values[:1], *(a[:1] for a in args))[1]["spectral"]
                 for taken in (0.0, 2.0)]
        self.assertEqual(*quiet)
        self.assertGreater(both[1], both[0])
        loud = Loss(Weights(loudness=0.1, added=0.03))(values.requires_grad_(), *args)
        loud[0].backward()
        self.assertTrue(torch.isfinite(values.grad).all() and values.grad.any())
        self.assertGreater(loud[1]["loudness"], 0)


class QuickStepTest(unittest.TestCase):
    """Every quick path of a training step that this CPU has, against the plain one."""

    def step(self, path):
        net = some_network(6).train()
        net.path = path
        g = torch.Generator().manual_seed(1)
        features = torch.rand(16, 42, SHAPE.channels, SHAPE.bands, generator=g) * 2
        slope = torch.linspace(-1, 1, SHAPE.bands)
        fresh, state = torch.arange(16) % 3 == 0, net.initial_state(16)
        state[:, :, 1] = 0.25
        values, state = net(features, state, fresh)
        (values * slope).sum().backward()
        return values.detach(), state, {n: p.grad for n, p in net.named_parameters()}

    def check(self, path, values_within, gradients_within):
        if path not in accelerate.paths():
            self.skipTest(f"this CPU has no {path}")
        self.check_loss(path)
        values, state, gradients = self.step("plain")
        quick_values, quick_state, quick_gradients = self.step(path)
        # Rounding and clamping decide differently where sums are formed in float: plain convolutions
        # in float and in double have gradients 5e-3 apart.
        self.assertLess((quick_values - values).abs().mean(), values_within)
        self.assertLess((quick_state - state).abs().mean(), values_within)
        for name, plain in gradients.items():
            off = float((quick_gradients[name] - plain).norm() / plain.norm())
            print(f"  {path} {name}: relative error {off:.1e}")
            self.assertLess(off, gradients_within, name)

    def check_loss(self, path):
        """With silent bins, silent streams and all parts of the loss."""
        g = torch.Generator().manual_seed(2)
        values = torch.rand(8, 80, SHAPE.bands, generator=g)
        mixture, share, cosine = torch.rand(3, 8, 80, SHAPE.bins, generator=g)
        mixture[1, :9] = 0
        share[2] = 0
        results = []
        for name in ("plain", path):
            leaf = values.clone().requires_grad_()
            total, parts = Loss(Weights(loudness=0.1, taken=3.0, leak=0.4), path=name)(
                leaf, mixture, mixture * share ** 3, 2 * cosine - 1, torch.arange(80).expand(8, 80) % 3 == 0)
            total.backward()
            results.append((torch.stack([total, *parts.values()]).detach(), leaf.grad))
        torch.testing.assert_close(results[1][0], results[0][0], rtol=1e-5, atol=0)
        self.assertLess((results[1][1] - results[0][1]).norm(), 1e-5 * results[0][1].norm())

    def check_backward(self, path, within):
        """What each layer makes of its own activations, against PyTorch in double on the same ones."""
        def compare(name, quick, exact):
            off = float((quick - exact).norm() / exact.norm())
            print(f"  {path} backward, {name}: relative error {off:.1e}")
            self.assertLess(off, within, name)

        net, g = some_network(7), torch.Generator().manual_seed(3)
        draw = lambda *shape: torch.randn(*shape, generator=g)
        leaves = [p.detach().requires_grad_() for conv in net.convs for p in conv.in_integers()]
        features, fresh = draw(8, 40, SHAPE.channels, SHAPE.bands).abs() * 2, torch.arange(8) % 3 == 0
        out = accelerate.ConvStack.apply(path, network.ACTIVATION_LIMIT, features, fresh, *leaves)
        slope = draw(*out.shape)
        out.backward(slope)
        slope = slope.double().permute(0, 3, 1, 2)
        for i, (conv, x, *parameters, sums) in reversed(list(enumerate(out.grad_fn.layers))):
            x = (x.double() / network.Q10).permute(0, 3, 1, 2).requires_grad_()
            weight, multiplier, offset = (p.detach().double().requires_grad_() for p in parameters)
            y = torch.nn.functional.conv2d(x, weight, stride=(1, conv.freq_stride))
            torch.testing.assert_close(y.permute(0, 2, 3, 1)[~fresh], sums.double()[~fresh])
            slope[fresh, :, :conv.rest] = 0
            pre = torch.addcmul(offset.t().unsqueeze(1), y, multiplier.t().unsqueeze(1))
            pre.clamp(0, network.ACTIVATION_LIMIT).backward(slope)
            exact = weight.grad[:, :leaves[3 * i].shape[1]], multiplier.grad, offset.grad
            for name, leaf, gradient in zip(("weights", "multiplier", "offset"), leaves[3 * i:], exact):
                compare(f"convolution {i} {name}", leaf.grad, gradient)
            slope = x.grad[..., conv.freq_pad:-conv.freq_pad]

        pair = net.gru2
        x = torch.round(draw(2, 30, 8, SHAPE.gru2_inputs) * network.Q11) / network.Q11
        leaves = [p.detach().requires_grad_() for p in (
            x, *(network.quantise(w, network.GRU_STEP) for w in (pair.weight_ih, pair.weight_hh)),
            pair.bias_ih, pair.bias_hh)]
        out = accelerate.GruPairLoop.apply(path, *leaves, torch.zeros(2, 8, SHAPE.hidden))
        slope = draw(*out.shape)
        out.backward(slope, retain_graph=True)
        x, w_ih, w_hh, states, gates, recurrent = (
            t.detach().double() for t in out.grad_fn.saved_tensors)
        by_time = lambda t: t.transpose(0, 1)
        gates = by_time(gates)
        context = types.SimpleNamespace(saved_tensors=(
            by_time(recurrent), gates[..., :2 * SHAPE.hidden], gates[..., 2 * SHAPE.hidden:],
            by_time(states), w_hh.transpose(1, 2)))
        grad_in, grad_w_hh, grad_b_hh, _ = network._GruPairRecurrence.backward(
            context, by_time(slope).double())
        grad_in = by_time(grad_in)
        exact = (grad_in @ w_ih.unsqueeze(1), torch.einsum("gtbo,gtbi->goi", grad_in, x),
                 grad_w_hh.transpose(1, 2), grad_in.sum((1, 2)), grad_b_hh.squeeze(1))
        for name, leaf, gradient in zip(("x", "w_ih", "w_hh", "b_ih", "b_hh"), leaves, exact):
            compare(f"GRU {name}", leaf.grad, gradient)

    def test_amx(self):
        self.check("amx", 0.01, 0.3)

    def test_avx512(self):
        self.check("avx512", 1e-4, 0.01)
        self.check_backward("avx512", 0.01)

    def test_avx2(self):
        self.check("avx2", 1e-4, 5e-3)
        self.check_backward("avx2", 1e-5)


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
    def test_far_and_near_scores(self):
        """Paired differences, rows that are kept, and a scene that does not depend on those before."""
        few = [validation.Case("noisy", "typing", conditions.plan(group="typing", snr=snr), i)
               for snr in (0.0, 10.0) for i in range(3)]
        few += [validation.Case("noise", "typing", conditions.plan(talks=False, group="typing"), i)
                for i in range(2)]
        line = {"half": ("half", processors.Processor("half", lambda s, echo: s.microphones[1] / 2)),
                "unprocessed": ("unprocessed", processors.unprocessed())}
        with unittest.mock.patch.object(validation, "cases", lambda quick: few):
            rows = validation.table(self.cache, line, True, lambda text: None)
            broken = {k: (k, processors.Processor(k, None)) for k in line}
            for _, p in broken.values():
                p.measure_delay = lambda scene: None
            self.assertEqual(validation.table(self.cache, broken, True, lambda text: None), rows)
        with unittest.mock.patch.object(validation, "cases", lambda quick: few[4:5]):
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
        self.assertAlmostEqual(validation.mean(validation.pick(far["half"], kind="noise"), "drop")[0], 6.02,
                               places=2)
        self.assertEqual(validation.worst(rows, "half", 2)[0]["side"], "far")
        text = "\n".join(validation.cells(rows, "half") + validation.axes(rows, list(line)))
        self.assertIn("| typing | ", text)
        self.assertIn("10.0, far (3)", text)
        reached = "\n".join(validation.targets(rows, "half", "unprocessed"))
        self.assertIn("| STOI at 0 dB: +0.040 over unprocessed | -0.040 | **no** |", reached)
        self.assertIn("than .005 in STOI: none | +0 | yes |", reached.replace("-0 |", "+0 |"))


class TrainTest(WithData):
    def command(self, *extra):
        return subprocess.run(
            [sys.executable, "-W", "ignore", "-m", "training.train", "--cache", str(self.cache),
             "--checkpoint", str(self.path / "run.npz"), "--processes", "1", "--batch", "4",
             "--window", "64", "--average-every", "1", "--save-every", "0", *extra],
            cwd=ROOT, capture_output=True, text=True)

    def test_training_resumes_and_survives_a_bad_loss(self):
        path, old = self.path / "run.npz", self.path / "old.npz"
        state = some_network(9).state_dict()
        checkpoint.save(old, state, state, {"steps": 7, "frames": 360000, "seconds": 1.0})
        run = ("--start-from", str(old), "--hours", "0.008", "--rate", "1e-4", "--final-rate", "1e-5",
               "--keep-every", "0.004")
        first = self.command(*run, "--minutes", "0.001")
        self.assertEqual(first.returncode, 0, first.stderr)
        before = checkpoint.load(path)[2]
        self.assertGreater(before["steps"], 7)
        self.assertLess(before["frames"], 360000 + 2880)
        second = self.command(*run)
        self.assertEqual(second.returncode, 0, second.stderr)
        after = checkpoint.load(path)[2]
        self.assertEqual(after["frames"], 360000 + 12 * 256)  # 0.008 h and no step more, in two calls
        self.assertEqual(sorted(path.parent.glob("run-*h.npz")), [self.path / "run-00001h.npz"])
        good = path.read_bytes()
        third = self.command("--minutes", "0.02", "--seed", "1", "--ratio", "nan")
        self.assertEqual(third.returncode, 1)
        self.assertIn("the loss became nan", third.stderr)
        self.assertEqual(path.read_bytes(), good)

    def test_unusable_input_is_named(self):
        with self.assertRaisesRegex(TrainingError, "run training.prepare"):
            audio.Material(self.path / "nowhere", "train")
        broken = self.path / "broken"
        (broken / "speech" / "x").mkdir(parents=True)
        (broken / "speech" / "x" / "1.wav").write_bytes(b"no sound")
        with self.assertRaisesRegex(TrainingError, "no audio files below .*noise"):
            audio.build_cache(broken, self.path / "other", RATE)
        (broken / "noise").mkdir()
        (broken / "noise" / "hum.wav").write_bytes(b"no sound")
        with self.assertRaisesRegex(TrainingError, "no usable sound .* cannot be decoded .1.wav"):
            audio.build_cache(broken, self.path / "other", RATE)
        self.assertFalse(list((self.path / "other").iterdir()))
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
        for score in metrics.intelligibility(clean, clean):
            self.assertAlmostEqual(score, 1.0, places=6)
        estoi = lambda snr: metrics.intelligibility(clean + noise * np.float32(10 ** (-snr / 20)), clean)[1]
        self.assertGreater(estoi(10), estoi(0) + 0.1)
        self.assertAlmostEqual(metrics.weighted_segmental_snr(1.1 * clean, clean), 20.0, delta=0.1)
        hum = clean + 0.3 * np.sin(2 * np.pi * 50 / RATE * np.arange(len(clean))).astype(np.float32)
        self.assertLess(metrics.si_sdr(hum, clean), 0)
        self.assertGreater(metrics.si_sdr(*map(metrics.without_bass, (hum, clean))), 25)
        # Nothing, a level, what was added, what was taken.
        gap = np.abs(np.arange(SHAPE.bins) - 40) > 20
        disturbed = [metrics.bark_disturbance(x, clean) for x in (
            clean, 0.5 * clean, clean + 0.3 * noise, metrics.reachable(clean, np.float32(gap)))]
        np.testing.assert_allclose(disturbed[:2], 0, atol=1e-3)
        self.assertGreater(disturbed[2][1], 10 * disturbed[3][1])
        self.assertGreater(disturbed[3][0], 0.1)
        self.assertGreater(metrics.stoi(clean + noise * 0.1, clean), metrics.stoi(clean + noise, clean))
        self.assertAlmostEqual(metrics.log_spectral_distance(noise / 2, noise), 6.0, delta=0.5)
        self.assertAlmostEqual(metrics.attenuation(clean / 2, clean)[125, 5000], 6.02, places=1)
        reached = metrics.reachable(clean, np.ones(SHAPE.bins, np.float32))
        np.testing.assert_allclose(reached, clean, atol=1e-5)


if __name__ == "__main__":
    unittest.main()

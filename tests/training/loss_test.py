"""Gradients of the loss and of the quick paths of a step, and the measures that a release is judged by."""

import unittest

from support import RATE, some_network, voice

import numpy as np
import scipy.signal
import torch

from training import accelerate, metrics
from training.library import SHAPE
from training.loss import Loss, Weights, _SpectralError
from training.loudness import Disturbance


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

    def test_amx(self):
        self.check("amx", 0.01, 0.3)

    def test_avx512(self):
        self.check("avx512", 1e-4, 0.01)

    def test_avx2(self):
        self.check("avx2", 1e-4, 5e-3)


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

    def test_missed_words(self):
        rng = np.random.default_rng(6)
        word = np.hanning(RATE * 3 // 10) * 0.2
        at = [int(RATE * (0.3 + 0.5 * i)) for i in range(8)]  # with pauses of 200 ms
        speech = np.zeros(RATE * 9 // 2, np.float32)
        for start in at:
            speech[start:start + len(word)] = scipy.signal.lfilter([1], [1, -0.9], rng.standard_normal(len(word))) * word
        noise = rng.standard_normal(len(speech)).astype(np.float32) * np.float32(0.01)
        without = lambda db, count: speech * np.concatenate(
            [np.full(at[count] - RATE // 10, 10 ** (-db / 20)), np.ones(len(speech) - at[count] + RATE // 10)])
        for output, lost, missed in ((speech, 0, 0), (without(10, 2), 0, 0), (without(14, 2), 2, 2),
                                     (without(60, 3) + noise, 3, 3), (speech + noise, 0, 0),
                                     (speech + 100 * noise, 0, 8), (without(10, 2) + 25 * noise, 0, 2)):
            np.testing.assert_allclose(metrics.missed_words(output, speech), (lost / 8, missed / 8))
        # A level and an equaliser that the processor has anyway.
        coloured = lambda signal: 0.1 * scipy.signal.lfilter([1, -0.9], [1], signal)
        gains = metrics.speech_gains(coloured(speech), speech)
        self.assertGreater(gains.max() / gains.min(), 3)
        for db, lost in ((0, 0), (14, 2)):
            self.assertEqual(metrics.missed_words(coloured(without(db, 2)), speech, gains)[0], lost / 8)
        self.assertEqual(metrics.missed_words(coloured(speech), speech)[0], 1)
        self.assertTrue(np.isnan(metrics.missed_words(speech, 0 * speech)).all())


if __name__ == "__main__":
    unittest.main()

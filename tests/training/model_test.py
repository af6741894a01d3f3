"""The front end, gain rule and exported model in Python, against the library."""

import tempfile
import unittest
from pathlib import Path

from support import some_network

import numpy as np
import torch

from training import export, library, make_neutral_model, processors
from training.bands import expansion
from training.gain_rule import FAR_END_ENERGY, GainRule
from training.library import SHAPE, make_up
from training.model_tables import model_tables


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


if __name__ == "__main__":
    unittest.main()

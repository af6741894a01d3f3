"""Training as it is run: interrupted, resumed, on files that it cannot use."""

import subprocess
import sys
import unittest

from support import RATE, ROOT, WithData, some_network

import torch

from training import audio, checkpoint, network
from training.errors import TrainingError
from training.optimiser import GATE_RATE, Muon, Optimiser, orthogonalise


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

    def test_every_direction_of_a_gate_moves_alike(self):
        torch.manual_seed(4)
        for rows, columns in ((40, 24), (24, 40)):
            u, v = (torch.linalg.qr(torch.randn(3, n, 24)).Q for n in (rows, columns))
            weak = torch.logspace(0, -2, 24).diag()
            values = torch.linalg.svdvals(orthogonalise(u @ weak @ v.mT))
            self.assertLess((values - 1).abs().max(), 0.2)
        moved = network.Denoiser()
        before = {name: p.detach().clone() for name, p in moved.named_parameters()}
        optimiser = Optimiser(moved)
        for p in moved.parameters():
            p.grad = torch.randn_like(p) * 1e-3
        optimiser.step(1e-3)
        for name, p in moved.named_parameters():
            self.assertIsNone(p.grad)
            mean = (p.detach() - before[name]).square().mean().sqrt().item()
            kind, wanted = (("gate", Muon.SHARE * GATE_RATE * 1e-3) if "weight_" in name else
                            ("scale", 3e-3) if "gamma" in name or "beta" in name else ("rest", 1e-3))
            self.assertAlmostEqual(mean / wanted, 1, delta=0.15, msg=f"{name}, a {kind}")

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


if __name__ == "__main__":
    unittest.main()

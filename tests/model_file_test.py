"""Model files written and read in Python, and the compiled-in one."""
import struct
import sys
import tempfile
import unittest
import zlib
from pathlib import Path

import numpy as np

ROOT = Path(__file__).resolve().parent.parent
sys.path.insert(0, str(ROOT))

from training import model_file  # noqa: E402
from training.model_file import TABLES, ModelFileError, read_model, write_model  # noqa: E402


def random_tables():
    random = np.random.default_rng(1)
    tables = {}
    for table in TABLES:
        if table.dtype.kind == "i":
            tables[table.name] = random.integers(-127, 128, table.shape, dtype=np.int8)
        else:
            tables[table.name] = random.normal(size=table.shape).astype(np.float32)
    tables["conv1_kernel"][:, 45:] = 0
    tables["gru1_1_weight_hh"][0, 0] = -128
    return tables


def sealed(data):
    """The file with the checksum of what it holds."""
    return data[:16] + struct.pack("<I", zlib.crc32(data[64:])) + data[20:]


class ModelFile(unittest.TestCase):
    def setUp(self):
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        self.path = Path(folder.name) / "model.bin"

    def test_round_trip(self):
        tables = random_tables()
        checksum = write_model(self.path, "näme", tables)
        model = read_model(self.path)
        self.assertEqual((model.name, model.checksum), ("näme", checksum))
        self.assertEqual(self.path.stat().st_size, 64 + 1054656)
        for name, values in tables.items():
            np.testing.assert_array_equal(model.tables[name], values, name)

    def test_a_refused_model_leaves_the_old_file(self):
        write_model(self.path, "good", random_tables())
        before = self.path.read_bytes()
        changes = {
            "fc1_bias: missing": ("fc1_bias", None),
            "fc2_weight: shape": ("fc2_weight", np.zeros((400, 128), np.int8)),
            "conv2_kernel: type": ("conv2_kernel", np.zeros((16, 72))),
            "conv3_kernel: weights outside": ("conv3_kernel", np.full((32, 144), -128, np.int8)),
            "conv1_kernel: the padding": ("conv1_kernel", np.ones((8, 48), np.int8)),
            "gru2_1_bias_ih: holds": ("gru2_1_bias_ih", np.full((3, 200), np.nan)),
            "bn1_bn_gmb: type": ("bn1_bn_gmb", np.zeros((64, 8), int)),
            "unknown table fc3": ("fc3", np.zeros(3)),
        }
        for message, (name, value) in changes.items():
            tables = random_tables()
            if value is None:
                del tables[name]
            else:
                tables[name] = value
            with self.assertRaisesRegex(ModelFileError, message):
                write_model(self.path, "bad", tables)
        with self.assertRaisesRegex(ModelFileError, "name"):
            write_model(self.path, "x" * 44, random_tables())
        self.assertEqual(self.path.read_bytes(), before)
        self.assertEqual(list(self.path.parent.iterdir()), [self.path])

    def test_damaged_files_are_refused(self):
        write_model(self.path, "good", random_tables())
        good = self.path.read_bytes()
        for message, data in {
            "not a denoiser model": b"RIFF" + good[4:],
            "not a denoiser": good[:10],
            "version 7": good[:8] + b"\7" + good[9:],
            "bytes, expected": good[:-1],
            "checksum": good[:70] + bytes([good[70] ^ 1]) + good[71:],
            "fc2_bias: holds values that are not finite": sealed(
                good[:-4] + struct.pack("<f", float("nan"))),
            "conv1_bias: holds values that are not finite": sealed(
                good[:480] + struct.pack("<f", float("-inf")) + good[484:]),
        }.items():
            self.path.write_bytes(data)
            with self.assertRaisesRegex(ModelFileError, message):
                read_model(self.path)
            self.assertEqual(model_file.main([str(self.path)]), 1)

    def test_the_compiled_in_file_is_valid(self):
        read_model(ROOT / "models" / "denoiser.bin")


if __name__ == "__main__":
    unittest.main()

"""Reads and writes the denoiser's model files (their layout: docs/model-file.md).

    python3 -m training.model_file FILE      prints what a file holds

The tables, their types, shapes and places come from src/nn/model_tables.def, which the library
compiles. A model is a dictionary from table names to numpy arrays of the listed shapes.
"""
import re
import struct
import sys
import zlib
from collections import namedtuple
from pathlib import Path

import numpy as np

from training.errors import TrainingError
from training.whole_files import replacing

MAGIC = b"SEDENOIS"
VERSION = 1
HEADER = struct.Struct("<8sIII44s")  # magic, version, file size, checksum of the rest, name

Table = namedtuple("Table", "name dtype shape offset")
Model = namedtuple("Model", "name checksum tables")

_LIST = Path(__file__).resolve().parent.parent / "src" / "nn" / "model_tables.def"
_TYPES = {"int8_t": np.dtype("i1"), "float": np.dtype("<f4")}
_ENTRY = re.compile(r"^SE_MODEL_TABLE\((\w+), (\w+), (\d+), (\d+)\)$", re.MULTILINE)
_ALIGNMENT = 16


class ModelFileError(TrainingError):
    """A model or a model file that does not fit; the message says how."""


def _read_list():
    tables, offset = [], HEADER.size
    for name, kind, rows, columns in _ENTRY.findall(_LIST.read_text()):
        rows, columns = int(rows), int(columns)
        shape = (columns,) if rows == 1 else (rows, columns)
        tables.append(Table(name, _TYPES[kind], shape, offset))
        offset += -(-rows * columns * _TYPES[kind].itemsize // _ALIGNMENT) * _ALIGNMENT
    return tables


TABLES = _read_list()
FILE_BYTES = TABLES[-1].offset + TABLES[-1].dtype.itemsize * int(np.prod(TABLES[-1].shape))


def _checked(table, value):
    """The array as it is stored, or an error if it cannot be stored without changing it."""
    value = np.asarray(value)
    if value.shape != table.shape:
        raise ModelFileError(f"{table.name}: shape {value.shape}, expected {table.shape}")
    if table.dtype.kind == "i":
        if value.dtype != np.int8:
            raise ModelFileError(f"{table.name}: type {value.dtype}, expected int8")
        if not table.name.startswith("gru") and value.min() < -127:
            raise ModelFileError(f"{table.name}: weights outside -127..127")
        if table.name == "conv1_kernel" and value[:, 45:].any():
            raise ModelFileError(f"{table.name}: the padding behind the 45 weights must be zero")
    elif value.dtype.kind != "f":
        raise ModelFileError(f"{table.name}: type {value.dtype}, expected floats")
    elif not np.isfinite(value.astype(table.dtype)).all():
        raise ModelFileError(f"{table.name}: holds values that are not finite")
    return value.astype(table.dtype)


def write_model(path, name, tables):
    """Writes a model under `path` and returns its checksum.

    An error leaves whatever was at `path` as it was.
    """
    unknown = sorted(set(tables) - {table.name for table in TABLES})
    if unknown:
        raise ModelFileError(f"unknown table {unknown[0]}")
    label = name.encode()
    if len(label) > 43 or b"\0" in label:
        raise ModelFileError("a model's name has at most 43 bytes of UTF-8")
    data = bytearray(FILE_BYTES)
    for table in TABLES:
        if table.name not in tables:
            raise ModelFileError(f"{table.name}: missing")
        stored = _checked(table, tables[table.name]).tobytes()
        data[table.offset:table.offset + len(stored)] = stored
    checksum = zlib.crc32(data[HEADER.size:])
    data[:HEADER.size] = HEADER.pack(MAGIC, VERSION, len(data), checksum, label)

    with replacing(Path(path)) as part:
        part.write_bytes(data)
    return checksum


def read_model(path):
    """Reads a model file, checksum and all."""
    data = Path(path).read_bytes()
    if len(data) < HEADER.size or data[:len(MAGIC)] != MAGIC:
        raise ModelFileError(f"{path}: not a denoiser model file")
    _, version, size, checksum, label = HEADER.unpack_from(data)
    if version != VERSION:
        raise ModelFileError(f"{path}: version {version}, expected {VERSION}")
    if not len(data) == size == FILE_BYTES:
        raise ModelFileError(f"{path}: {len(data)} bytes, expected {FILE_BYTES}")
    if zlib.crc32(data[HEADER.size:]) != checksum:
        raise ModelFileError(f"{path}: damaged (wrong checksum)")
    tables = {
        table.name: np.frombuffer(data, table.dtype, int(np.prod(table.shape)),
                                  table.offset).reshape(table.shape)
        for table in TABLES
    }
    for name, values in tables.items():
        if not np.isfinite(values).all():
            raise ModelFileError(f"{path}: {name}: holds values that are not finite")
    try:
        name = label[:label.index(0)].decode()
    except ValueError as error:  # no closing zero, or not UTF-8
        raise ModelFileError(f"{path}: broken name") from error
    return Model(name, checksum, tables)


def main(arguments):
    if len(arguments) != 1:
        print("usage: model_file.py FILE", file=sys.stderr)
        return 2
    try:
        model = read_model(arguments[0])
    except (OSError, ModelFileError) as error:
        print(f"model_file: {error}", file=sys.stderr)
        return 1
    print(f"model     {model.name}\nchecksum  {model.checksum:08x}\nsize      {FILE_BYTES} bytes")
    for table in TABLES:
        values = model.tables[table.name]
        print(f"{table.name:22} {str(table.dtype.name):8} {str(table.shape):11} "
              f"{values.min():10.5g} .. {values.max():.5g}")
    return 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))

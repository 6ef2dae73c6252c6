#!/usr/bin/python3
"""Writes the demo calibration set of the example net examples/small_cnn:
eight 32 x 32 RGB PNG pictures and the list file that names them, under
examples/small_cnn/calibration/, and picture_04 as the net's input sees it
(sample.npy beside the net: float32 [1, 3, 32, 32], planes blue, green, red
with values 0..255, as the converter reads an image sample), for qzdl_run.

The pictures are synthetic (gradients, stripes, a disc, checkers), drawn by
formula so that the set is the same on every run; PNG is written with the
standard library alone (zlib + struct). The list holds paths relative to the
repository root, so the converter is run from there:

  build/tools/qzdl_NewConverter -j examples/small_cnn/net.json \\
      -m examples/small_cnn/net.bin -o /tmp/small_cnn_int8.bin \\
      -s examples/small_cnn/calibration/list.txt

Run from anywhere: /usr/bin/python3 scripts/make_demo_calibration.py
"""

import math
import os
import struct
import zlib

from atomic_write import write_atomically

ROOT = os.path.normpath(os.path.join(os.path.dirname(os.path.abspath(__file__)), ".."))
REL_DIR = "examples/small_cnn/calibration"
OUT_DIR = os.path.join(ROOT, REL_DIR)
SIZE = 32


def png(path, width, height, pixel):
    """An 8-bit RGB PNG; pixel(x, y) gives (r, g, b)."""
    rows = bytearray()
    for y in range(height):
        rows.append(0)  # filter: none
        for x in range(width):
            rows.extend(max(0, min(255, int(v))) for v in pixel(x, y))

    def chunk(kind, data):
        body = kind + data
        return struct.pack(">I", len(data)) + body + struct.pack(">I", zlib.crc32(body) & 0xFFFFFFFF)

    header = struct.pack(">IIBBBBB", width, height, 8, 2, 0, 0, 0)
    write_atomically(path, b"\x89PNG\r\n\x1a\n" + chunk(b"IHDR", header) +
                     chunk(b"IDAT", zlib.compress(bytes(rows), 9)) + chunk(b"IEND", b""))


def npy(path, shape, values):
    """A NumPy 1.0 file of little-endian float32 values."""
    dims = ", ".join(str(d) for d in shape)
    header = "{'descr': '<f4', 'fortran_order': False, 'shape': (%s), }" % dims
    header += " " * ((64 - (10 + len(header) + 1) % 64) % 64) + "\n"
    write_atomically(path, b"\x93NUMPY\x01\x00" + struct.pack("<H", len(header)) + header.encode() +
                     struct.pack("<%df" % len(values), *values))


def planes(pixel):
    """The pixels as the net's input: planes blue, green, red, row by row."""
    rgb = [[max(0, min(255, int(v))) for v in pixel(x, y)] for y in range(SIZE) for x in range(SIZE)]
    return [float(p[c]) for c in (2, 1, 0) for p in rgb]


def disc(x, y):
    d = math.hypot(x - 15.5, y - 15.5)
    return (230, 80, 40) if d < 11 else (20, 40 + 4 * y, 90)


PICTURES = [
    lambda x, y: (8 * x, 8 * y, 128),
    lambda x, y: (255 - 8 * y, 60, 8 * x),
    lambda x, y: ((x // 4) % 2 * 200 + 30, 120, 90),
    lambda x, y: (90, (y // 3) % 2 * 180 + 40, 200 - 5 * x),
    disc,
    lambda x, y: ((x // 8 + y // 8) % 2 * 230 + 10,) * 3,
    lambda x, y: (128 + 100 * math.sin(x / 3.0), 128 + 100 * math.cos(y / 4.0), 7 * (x + y) % 256),
    lambda x, y: (40 + 6 * x, 40 + 6 * x, 220 - 6 * y),
]


def main():
    os.makedirs(OUT_DIR, exist_ok=True)
    lines = []
    for i, picture in enumerate(PICTURES):
        name = "picture_%02d.png" % i
        png(os.path.join(OUT_DIR, name), SIZE, SIZE, picture)
        lines.append(REL_DIR + "/" + name)
    write_atomically(os.path.join(OUT_DIR, "list.txt"), ("\n".join(lines) + "\n").encode())
    npy(os.path.join(ROOT, "examples/small_cnn/sample.npy"), (1, 3, SIZE, SIZE), planes(PICTURES[4]))


if __name__ == "__main__":
    main()

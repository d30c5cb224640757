#!/usr/bin/env python3
"""Makes examples/overview.png, the picture at the top of the README: the demo
image, its scribbles drawn over it (thickened), and the hard result of the exact run and
of the converged run blended over it, side by side at twice the size. The
results come from build/tarnwick itself; the script only lays them out.
Standard library only."""
import os
import struct
import subprocess
import sys
import tempfile
import zlib

HERE = os.path.dirname(os.path.abspath(__file__))
ROOT = os.path.dirname(HERE)
SCALE = 2
GAP = 8


def read_ppm(path):
    """A binary colour pixmap as (width, height, rows of RGB tuples)."""
    with open(path, "rb") as f:
        data = f.read()
    fields = []
    pos = 0
    while len(fields) < 4:
        while data[pos:pos + 1].isspace():
            pos += 1
        start = pos
        while not data[pos:pos + 1].isspace():
            pos += 1
        fields.append(data[start:pos])
    if fields[0] != b"P6" or fields[3] != b"255":
        sys.exit(path + ": not a binary colour pixmap")
    width, height = int(fields[1]), int(fields[2])
    pixels = data[pos + 1:]
    rows = [[tuple(pixels[3 * (y * width + x):3 * (y * width + x) + 3]) for x in range(width)]
            for y in range(height)]
    return width, height, rows


def write_png(path, width, height, rows):
    def chunk(kind, body):
        return struct.pack(">I", len(body)) + kind + body + struct.pack(">I", zlib.crc32(kind + body))
    raw = b"".join(b"\0" + bytes(v for pixel in row for v in pixel) for row in rows)
    with open(path, "wb") as f:
        f.write(b"\x89PNG\r\n\x1a\n")
        f.write(chunk(b"IHDR", struct.pack(">IIBBBBB", width, height, 8, 2, 0, 0, 0)))
        f.write(chunk(b"IDAT", zlib.compress(raw, 9)))
        f.write(chunk(b"IEND", b""))


def run_tarnwick(out, *options):
    os.makedirs(out, exist_ok=True)
    subprocess.run([os.path.join(ROOT, "build", "tarnwick"), os.path.join(HERE, "demo.ppm"), "3",
                    "demo_labels.ppm", "0", "0.3", "1", out + "/", *options],
                   check=True, stdout=subprocess.DEVNULL)
    return read_ppm(os.path.join(out, "TarnwickResults", "demo_denseOUT.ppm"))[2]


def main():
    width, height, image = read_ppm(os.path.join(HERE, "demo.ppm"))
    _, _, labels = read_ppm(os.path.join(HERE, "demo_labels.ppm"))
    white = (255, 255, 255)
    # Strokes one pixel wide, thickened to three here so that they show.
    scribbles = [list(row) for row in image]
    for y in range(height):
        for x in range(width):
            if labels[y][x] != white:
                for v in range(max(y - 1, 0), min(y + 2, height)):
                    for u in range(max(x - 1, 0), min(x + 2, width)):
                        scribbles[v][u] = labels[y][x]
    with tempfile.TemporaryDirectory() as scratch:
        exact = run_tarnwick(os.path.join(scratch, "exact"))
        converged = run_tarnwick(os.path.join(scratch, "converged"), "--converged")
    panels = [image, scribbles, exact, converged]
    total = len(panels) * width * SCALE + (len(panels) - 1) * GAP
    rows = []
    for y in range(height * SCALE):
        row = []
        for i, panel in enumerate(panels):
            if i > 0:
                row.extend([white] * GAP)
            row.extend(pixel for pixel in panel[y // SCALE] for _ in range(SCALE))
        rows.append(row)
    write_png(os.path.join(HERE, "overview.png"), total, height * SCALE, rows)


if __name__ == "__main__":
    main()

#!/usr/bin/env python3
"""Draws the demo scene: a small landscape picture, a scribble label image and
a track file with a few frames of points. Deterministic; no input files."""
import math
import os
import sys

W, H = 160, 120
HERE = os.path.dirname(os.path.abspath(__file__))


def lcg(seed):
    state = seed
    while True:
        state = (1103515245 * state + 12345) % (1 << 31)
        yield state / float(1 << 31)


def region(x, y):
    """Ground-truth region of a pixel: 0 sky, 1 sun, 2 hill, 3 house, 4 tree."""
    if 96 <= x <= 130 and 52 <= y <= 88:
        return 3
    if 96 <= x <= 130 and 40 <= y < 52 and abs(x - 113) <= (y - 40) * 17 / 12:
        return 3
    if (x - 42) ** 2 + (y - 50) ** 2 <= 15 ** 2 or (37 <= x <= 46 and 50 <= y <= 92):
        return 4
    if (x - 135) ** 2 + (y - 18) ** 2 <= 11 ** 2:
        return 1
    if y >= 70 + 10 * math.sin(x / 17.0):
        return 2
    return 0


def colour(x, y, r, noise):
    n = (next(noise) - 0.5) * 18
    if r == 0:
        base = (110 + y * 0.6, 160 + y * 0.5, 235)
    elif r == 1:
        base = (250, 215, 60)
    elif r == 2:
        base = (70 + 20 * math.sin(x / 5.0), 150 - y * 0.3, 60)
    elif r == 3:
        base = (185, 60, 45) if y >= 52 else (90, 50, 40)
    else:
        base = (95, 65, 35) if y > 62 else (35, 105, 45)
    return tuple(max(0, min(255, int(c + n))) for c in base)


def write_ppm(name, pixels):
    with open(os.path.join(HERE, name), "wb") as f:
        f.write(b"P6 \n%d %d \n255\n" % (W, H))
        f.write(bytes(v for p in pixels for v in p))


def main():
    noise = lcg(7)
    regions = [region(x, y) for y in range(H) for x in range(W)]
    write_ppm("demo.ppm", [colour(i % W, i // W, r, noise) for i, r in enumerate(regions)])

    label_colours = [(255, 10, 10), (200, 190, 0), (10, 10, 255), (0, 180, 0), (255, 0, 255)]
    strokes = [  # (label, x0, y0, x1, y1): short straight scribbles inside each region
        (0, 10, 12, 70, 20), (0, 70, 30, 100, 10),
        (1, 131, 16, 139, 20),
        (2, 10, 100, 80, 110), (2, 140, 95, 155, 112),
        (3, 100, 60, 126, 80), (3, 110, 48, 116, 50),
        (4, 34, 45, 50, 55), (4, 41, 65, 42, 85),
    ]
    labels = [(255, 255, 255)] * (W * H)
    for lab, x0, y0, x1, y1 in strokes:
        steps = max(abs(x1 - x0), abs(y1 - y0))
        for s in range(steps + 1):
            x = round(x0 + (x1 - x0) * s / steps)
            y = round(y0 + (y1 - y0) * s / steps)
            assert region(x, y) == lab, (lab, x, y)
            labels[y * W + x] = label_colours[lab]
    write_ppm("demo_labels.ppm", labels)

    # Track file: per region a few points that drift one pixel a frame, frames 0 to 4.
    seeds = [(20, 15), (60, 25), (135, 18), (30, 105), (150, 100), (105, 70), (120, 60), (42, 48), (41, 80)]
    with open(os.path.join(HERE, "demo_tracks.dat"), "w") as f:
        f.write("5\n%d\n" % len(seeds))
        for x, y in seeds:
            lab = region(x, y)
            f.write("%d 5\n" % lab)
            for frame in range(5):
                f.write("%.1f %.1f %d\n" % (x + 0.5 * frame, y + 0.2, frame))
    return 0


if __name__ == "__main__":
    sys.exit(main())

#!/usr/bin/python3
"""Peer column of the quality benchmark: scikit-image's random_walker on the
scenes that `bench_quality --keep DIR` leaves in DIR, scored like
bench_quality scores the tool (mean IoU over the marked labels, pixel
accuracy), per case and per size.

Usage: /usr/bin/python3 bench/peer_random_walker.py DIR [--mode bf|cg_j] [--beta B]

Needs Debian's python3-skimage (run it with /usr/bin/python3). The default
mode is the direct solver 'bf' (about 90 s and 3 GB per 1280x960 case); the
Jacobi-preconditioned conjugate gradients 'cg_j' stop at a tolerance too
loose for these scenes and take longer at 1280x960.
"""

import argparse
import os
import re
import resource
import sys
import time

import numpy as np
from skimage.segmentation import random_walker

# Scribble colours of labels 0.. as bench/SyntheticScene.cpp paints them.
LABEL_COLOURS = [
    (230, 25, 75), (60, 180, 75), (0, 130, 200), (245, 130, 48), (145, 30, 180), (70, 240, 240),
    (240, 50, 230), (128, 128, 0), (210, 245, 60), (0, 128, 128), (170, 110, 40), (128, 0, 0),
    (0, 0, 128), (128, 128, 128), (0, 0, 0), (255, 215, 180), (255, 225, 25), (0, 255, 128),
    (128, 0, 255), (255, 128, 128), (64, 64, 192), (192, 64, 64)]


def read_ppm(path):
    """A binary pixmap (P6) as an HxWx3 uint8 array."""
    with open(path, 'rb') as f:
        data = f.read()
    fields = []
    pos = 0
    while len(fields) < 4:
        match = re.compile(rb'\s*(#[^\n]*\n\s*)*(\S+)').match(data, pos)
        fields.append(match.group(2))
        pos = match.end()
    if fields[0] != b'P6' or int(fields[3]) != 255:
        raise ValueError(path + ': not an 8-bit P6 pixmap')
    width, height = int(fields[1]), int(fields[2])
    return np.frombuffer(data[pos + 1:pos + 1 + 3 * width * height], np.uint8).reshape(height, width, 3)


def scribble_seeds(path, labels):
    """Seed image (0 unlabelled, label + 1 otherwise) from the scribbles."""
    scribbles = read_ppm(path).astype(np.int32)
    seeds = np.zeros(scribbles.shape[:2], np.int32)
    for label in range(labels):
        seeds[np.all(scribbles == LABEL_COLOURS[label], axis=2)] = label + 1
    return seeds


def point_seeds(path, shape):
    """Seed image from a track file of frame 0 whose track labels are the scene's labels."""
    with open(path) as f:
        numbers = f.read().split()
    seeds = np.zeros(shape, np.int32)
    at = 2  # frame count, track count
    for _ in range(int(numbers[1])):
        label, count = int(numbers[at]), int(numbers[at + 1])
        at += 2
        for _ in range(count):
            x, y = int(numbers[at]), int(numbers[at + 1])
            at += 3
            seeds[y, x] = label + 1
    return seeds


def score(result, truth, seeds, labels):
    """Mean IoU over the marked labels present in the truth, and pixel accuracy."""
    ious = []
    for label in range(labels):
        in_truth = truth == label
        if not in_truth.any() or not (seeds == label + 1).any():
            continue
        found = result == label
        ious.append(np.logical_and(in_truth, found).sum() / np.logical_or(in_truth, found).sum())
    return (float(np.mean(ious)) if ious else 0.0), float((result == truth).mean())


def run_case(folder, points, mode, beta):
    image = read_ppm(os.path.join(folder, 'scene.ppm')).astype(np.float64) / 255.0
    truth = read_ppm(os.path.join(folder, 'truth.ppm'))[:, :, 0].astype(np.int32)
    labels = int(truth.max()) + 1
    if points:
        seeds = point_seeds(os.path.join(folder, 'points.dat'), truth.shape)
    else:
        seeds = scribble_seeds(os.path.join(folder, 'scribbles.ppm'), labels)
    start = time.monotonic()
    result = random_walker(image, seeds, beta=beta, mode=mode, channel_axis=-1) - 1
    seconds = time.monotonic() - start
    return score(result, truth, seeds, labels) + (seconds,)


def main():
    parser = argparse.ArgumentParser(description=__doc__.split('\n\n')[0])
    parser.add_argument('folder')
    parser.add_argument('--mode', default='bf', choices=['bf', 'cg_j'])
    parser.add_argument('--beta', type=float, default=500.0)
    arguments = parser.parse_args()
    cases = sorted(os.listdir(arguments.folder), key=lambda name: [int(n) for n in re.findall(r'\d+', name)])
    print('size      scene  input      mode  peer: IoU     acc  wall[s]')
    totals = {}
    for case in cases:
        folder = os.path.join(arguments.folder, case)
        if not os.path.isfile(os.path.join(folder, 'truth.ppm')):
            continue
        size, scene = case.rsplit('_', 1)
        width, height = (int(n) for n in size.split('x'))
        mode = arguments.mode
        for points in (False, True):
            iou, accuracy, seconds = run_case(folder, points, mode, arguments.beta)
            name = 'points' if points else 'scribbles'
            print(f'{size:<10}{scene:<7}{name:<11}{mode:<5}{iou:11.3f}{accuracy:8.3f}{seconds:9.2f}', flush=True)
            totals.setdefault((width * height, size, mode), []).append((iou, accuracy, seconds))
    print('\nsize      mode  peer: IoU  min IoU     acc  wall[s]')
    for (_, size, mode), rows in sorted(totals.items()):
        rows = np.array(rows)
        print(f'{size:<10}{mode:<5}{rows[:, 0].mean():11.3f}{rows[:, 0].min():9.3f}{rows[:, 1].mean():8.3f}'
              f'{rows[:, 2].mean():9.2f}')
    print(f'\npeak memory {resource.getrusage(resource.RUSAGE_SELF).ru_maxrss / 1024:.0f} MB', file=sys.stderr)


if __name__ == '__main__':
    main()

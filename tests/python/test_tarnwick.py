"""The Python module tarnwick against the command-line tools, and its argument checks."""
import os
import shutil
import subprocess
import sys
import threading

import numpy as np
import pytest

import tarnwick

EXAMPLES = os.path.join(os.environ["TARNWICK_SOURCE_DIR"], "examples")
TARNWICK = os.environ["TARNWICK_EXE"]
SEGMENT = os.environ["TARNWICK_SEGMENT_EXE"]


def same_bits(a, b):
    return a.shape == b.shape and a.dtype == b.dtype and a.tobytes() == b.tobytes()


def numbered(scribbles):
    """Label numbers of a colour label image, numbered by first appearance in row order."""
    keys = scribbles.astype(np.int64) @ np.array([65536, 256, 1])
    numbers = np.full(keys.shape, -1)
    colours = [k for k in dict.fromkeys(keys.ravel().tolist()) if k != 0xFFFFFF]
    for number, key in enumerate(colours):
        numbers[keys == key] = number
    return numbers


@pytest.fixture(scope="module")
def demo():
    image = tarnwick.read_image(os.path.join(EXAMPLES, "demo.ppm"))
    scribbles = tarnwick.read_image(os.path.join(EXAMPLES, "demo_labels.ppm"))
    segmentations = [tarnwick.read_image(os.path.join(EXAMPLES, f"demo_seg{k}.ppm")) for k in range(3)]
    return image, scribbles, segmentations


def run_tarnwick(folder, k, alpha, *options):
    """The soft and the hard result file of the command-line tool on the demo."""
    run = subprocess.run([TARNWICK, os.path.join(EXAMPLES, "demo.ppm"), str(k), "demo_labels.ppm", "0", alpha, "0",
                          f"{folder}/", *options], check=True, capture_output=True)
    assert run.stderr == b"", "no cost warning for an ordinary hierarchy"
    results = os.path.join(folder, "TarnwickResults", "demo")
    return tarnwick.read_image(results + "_dense_soft.ppm"), tarnwick.read_image(results + "_dense.ppm")


@pytest.mark.parametrize("k,alpha,converged", [(0, "0.3", False), (1, "0.7", False), (3, "0.3", False),
                                               (3, "0", False), (3, "0.3", True)])
def test_label_paints_the_command_line_files(demo, tmp_path, k, alpha, converged):
    image, scribbles, segmentations = demo
    soft_file, hard_file = run_tarnwick(tmp_path, k, alpha, *(["--converged"] if converged else []))
    soft, hard = tarnwick.label(image, scribbles, segmentations[:k], alpha=float(alpha), converged=converged)
    assert soft.shape == image.shape[:2] + (5,) and soft.dtype == np.float32
    assert hard.shape == image.shape[:2] and hard.dtype == np.int32
    colours = tarnwick.label_colours(scribbles)
    assert same_bits(tarnwick.colourize(soft, colours), soft_file)
    assert same_bits(tarnwick.colourize(hard, colours), hard_file)
    assert np.array_equal(hard, np.argmax(soft, axis=2))
    if converged:
        assert not same_bits(soft, tarnwick.label(image, scribbles, segmentations[:k], alpha=float(alpha))[0])


def test_equivalent_inputs_give_the_same_bits(demo):
    """Label numbers for label colours, other region numbers and memory layouts, a grey image for its grey repeated."""
    image, scribbles, segmentations = demo
    maps = tarnwick.segment(image, 2, regions=[120, 30])
    renamed = tuple(7 * m.astype(np.int64) - 1000 for m in maps)
    strided = np.ascontiguousarray(np.repeat(scribbles, 2, axis=1))[:, ::2]
    grey = image[:, :, 1].copy()
    cases = [((image, scribbles, segmentations), (image, numbered(scribbles), segmentations)),
             ((image, scribbles, maps), (np.asfortranarray(image), strided, renamed)),
             ((np.dstack([grey] * 3), numbered(scribbles)), (grey, numbered(scribbles)))]
    for expected, equivalent in cases:
        for a, b in zip(tarnwick.label(*expected), tarnwick.label(*equivalent)):
            assert same_bits(a, b)


def test_segment_makes_the_regions_of_the_segment_tool(demo, tmp_path):
    image = demo[0]
    shutil.copy(os.path.join(EXAMPLES, "demo.ppm"), tmp_path / "frame.ppm")
    subprocess.run([SEGMENT, str(tmp_path / "frame.ppm"), "3", "-r", "300,80,20"], check=True, capture_output=True)
    files = [tarnwick.read_image(str(tmp_path / f"frame_seg{k}.ppm")) for k in range(3)]
    maps = tarnwick.segment(image, 3, regions=[300, 80, 20])
    assert len(maps) == 3
    for level, (regions, painted) in enumerate(zip(maps, files)):
        assert regions.shape == image.shape[:2] and regions.dtype == np.int32
        keys = painted.astype(np.int64) @ np.array([65536, 256, 1])
        pairs = np.unique(np.stack([regions.ravel(), keys.ravel()]), axis=1)
        count = regions.max() + 1
        assert pairs.shape[1] == count == len(np.unique(keys)), f"level {level}: not the same regions"
        assert np.array_equal(np.unique(regions), np.arange(count))
    for fine, coarse in zip(maps, maps[1:]):
        assert np.unique(np.stack([fine.ravel(), coarse.ravel()]), axis=1).shape[1] == fine.max() + 1
    # Region maps are painted as the tool paints its files: the same labelling.
    by_maps = tarnwick.label(image, demo[1], maps)
    by_files = tarnwick.label(image, demo[1], files)
    for a, b in zip(by_maps, by_files):
        assert same_bits(a, b)


def test_segment_default_counts_and_no_levels(demo):
    image = demo[0]
    assert tarnwick.segment(image, 0) == []
    (finest,) = tarnwick.segment(image, 1)
    assert finest.max() + 1 <= image.shape[0] * image.shape[1] // 500


def test_calls_in_parallel_threads_give_the_sequential_results(demo):
    image, scribbles, segmentations = demo
    alphas = [0.2, 0.8]
    expected = [tarnwick.label(image, scribbles, segmentations, alpha=a) for a in alphas]
    results = [None] * len(alphas)

    def work(i):
        results[i] = tarnwick.label(image, scribbles, segmentations, alpha=alphas[i])

    threads = [threading.Thread(target=work, args=(i,)) for i in range(len(alphas))]
    for thread in threads:
        thread.start()
    for thread in threads:
        thread.join()
    for got, want in zip(results, expected):
        assert same_bits(got[0], want[0]) and same_bits(got[1], want[1])


def test_images_read_and_written_as_the_command_line_does(demo, tmp_path):
    image = demo[0]
    with open(os.path.join(EXAMPLES, "demo.ppm"), "rb") as f:
        assert f.read().endswith(image.tobytes())
    tarnwick.write_image(str(tmp_path / "grey.ppm"), image[:, :, 0])
    assert same_bits(tarnwick.read_image(str(tmp_path / "grey.ppm")), np.dstack([image[:, :, 0]] * 3))
    tarnwick.write_image(str(tmp_path / "image.png"), image)
    with open(tmp_path / "image.png", "rb") as f:
        assert f.read(8) == b"\x89PNG\r\n\x1a\n"
    assert same_bits(tarnwick.read_image(str(tmp_path / "image.png"), exact=True), image)
    with pytest.raises(OSError, match="cannot read"):
        tarnwick.read_image(str(tmp_path / "missing.ppm"))
    with pytest.raises(OSError, match="cannot write"):
        tarnwick.write_image(str(tmp_path / "no" / "such.ppm"), image)


@pytest.mark.parametrize("call", [
    lambda image, scribbles: tarnwick.label(image, scribbles),
    lambda image, scribbles: tarnwick.segment(np.tile(image, (3, 3, 1)), 2),
])
def test_other_threads_run_while_one_computes(demo, call):
    # With a switch interval this long the interpreter never takes the lock
    # from a running thread: the main thread gets it during the call only if
    # the call lets go of it. The call must outlast waking the main thread up.
    image, scribbles = demo[0], demo[1]
    started = threading.Event()
    finished = []

    def work():
        started.set()
        call(image, scribbles)
        finished.append(True)

    interval = sys.getswitchinterval()
    sys.setswitchinterval(1000)
    try:
        worker = threading.Thread(target=work)
        worker.start()
        started.wait()
        ran_during_the_call = not finished
        worker.join()
    finally:
        sys.setswitchinterval(interval)
    assert ran_during_the_call


def test_colourize_paints_hard_labels_with_the_palette():
    hard = np.array([[0, 1], [-1, 1]])
    painted = tarnwick.colourize(hard)
    assert painted.shape == (2, 2, 3) and painted.dtype == np.uint8
    assert np.array_equal(painted[1, 0], [0, 0, 0])
    assert np.array_equal(painted[0, 1], painted[1, 1])
    assert not np.array_equal(painted[0, 0], painted[0, 1])


IMAGE = np.zeros((4, 5, 3), np.uint8)
LABELS = np.array([[0] + [-1] * 4] * 3 + [[-1] * 4 + [1]])


@pytest.mark.parametrize("call,error,fragment", [
    (lambda: tarnwick.label([[1]], LABELS), TypeError, "image must be a numpy array, not list"),
    (lambda: tarnwick.label(IMAGE.astype(np.float32), LABELS), TypeError, "image must have dtype uint8"),
    (lambda: tarnwick.label(IMAGE[:, :, :2], LABELS), ValueError, "HxWx3 colour or an HxW grey image"),
    (lambda: tarnwick.label(IMAGE[:0], LABELS[:0]), ValueError, "image is empty"),
    (lambda: tarnwick.label(IMAGE, LABELS[:3]), ValueError, "labels has shape (3, 5) but the image is 4 x 5"),
    (lambda: tarnwick.label(IMAGE, LABELS.astype(float)), TypeError, "must have an integer dtype, not float64"),
    (lambda: tarnwick.label(IMAGE, np.full((4, 5), -1)), ValueError, "no labels (every pixel is -1)"),
    (lambda: tarnwick.label(IMAGE, LABELS - 2), ValueError, "-2 is no label (-1 unlabelled, 0 .. L-1 a label)"),
    (lambda: tarnwick.label(IMAGE, np.where(LABELS == 1, 300, LABELS)), ValueError, "label 300 is beyond the 256 labels"),
    (lambda: tarnwick.label(IMAGE, np.full((4, 5, 3), 255, np.uint8)), ValueError, "no labels (every pixel is white)"),
    (lambda: tarnwick.label(IMAGE, np.zeros((4, 5, 3), np.int32)), TypeError, "labels (a colour image) must have dtype uint8"),
    (lambda: tarnwick.label(IMAGE, LABELS, LABELS), TypeError, "segmentations must be a sequence"),
    (lambda: tarnwick.label(IMAGE, LABELS, [LABELS[:, :4]]), ValueError, "segmentations[0] has shape (4, 4)"),
    (lambda: tarnwick.label(IMAGE, LABELS, [LABELS, IMAGE[:3, :, 0]]), ValueError, "segmentations[1] has shape (3, 5)"),
    (lambda: tarnwick.label(IMAGE, LABELS, [LABELS > 0]), TypeError, "must have an integer dtype, not bool"),
    (lambda: tarnwick.label(IMAGE, LABELS, alpha=1.0), ValueError, "alpha must be a number from 0 up to"),
    (lambda: tarnwick.label(IMAGE, LABELS, alpha=float("nan")), ValueError, "alpha must be a number"),
    (lambda: tarnwick.label(IMAGE, LABELS, alpha="0.3"), TypeError, "incompatible function arguments"),
    (lambda: tarnwick.segment(IMAGE, 11), ValueError, "k must be a level count from 0 to 10"),
    (lambda: tarnwick.segment(IMAGE, 2, regions=[3]), ValueError, "1 count(s) given for k = 2"),
    (lambda: tarnwick.segment(IMAGE, 2, regions=[5, 5]), ValueError, "5 regions after 5: each level needs at most 0.8"),
    (lambda: tarnwick.segment(IMAGE, 1, regions=[0]), ValueError, "at least 1"),
    (lambda: tarnwick.colourize(np.zeros((2, 2, 3), np.int32)), TypeError, "floating-point dtype"),
    (lambda: tarnwick.colourize(LABELS, np.zeros((1, 3), np.uint8)), ValueError, "1 colours for 2 labels"),
    (lambda: tarnwick.label_colours(LABELS), ValueError, "HxWx3 uint8 colour label image"),
])
def test_bad_arguments_raise_clear_errors(call, error, fragment):
    with pytest.raises(error) as raised:
        call()
    assert fragment in str(raised.value)

"""The Python module against the library: same boxes as the C++ program, bad input raising,
flat memory over long loops, threads running networks in parallel."""
import json
import os
import struct
import subprocess
import threading
import time

import numpy as np
import pytest

import orva

DETECT_CFG = """[network]
width=64
height=48
channels=3
[convolution]
filters=8
size=3
stride=2
activation=leaky
[convolution]
filters=14
size=1
activation=linear
[region]
classes=2
num=2
softmax=1
anchors=1,1, 2.5,1.5
"""


def write(path, text):
    path.write_text(text)
    return str(path)


def frame(h, w, c=3, seed=0):
    return np.random.default_rng(seed).integers(0, 256, (h, w, c), dtype=np.uint8)


def write_bmp(path, img):
    """24-bit BMP of a BGR frame, so the C++ program reads exactly these pixels."""
    h, w, _ = img.shape
    row = (w * 3 + 3) & ~3
    rows = np.zeros((h, row), np.uint8)
    rows[:, : w * 3] = img[::-1].reshape(h, w * 3)
    size = 54 + rows.size
    header = struct.pack("<2sIHHI", b"BM", size, 0, 0, 54)
    info = struct.pack("<IiiHHIIiiII", 40, w, h, 1, 24, 0, rows.size, 2835, 2835, 0, 0)
    path.write_bytes(header + info + rows.tobytes())
    return str(path)


def write_weights(path, convs, seed=0):
    """A weights-only file for convolutions without normalisation, given as (filters, fan-in):
    a header (int32 0, 2, 0, uint64 seen) and each layer's biases then weights as float32."""
    rng = np.random.default_rng(seed)
    parts = [np.array([0, 2, 0], np.int32).tobytes(), np.zeros(1, np.uint64).tobytes()]
    for n, fan_in in convs:
        parts.append(rng.uniform(-0.5, 0.5, n).astype(np.float32).tobytes())
        parts.append(rng.normal(0, 2 / np.sqrt(fan_in), n * fan_in).astype(np.float32).tobytes())
    path.write_bytes(b"".join(parts))
    return str(path)


def model_file(cls, d, cfg, convs, name="net"):
    """The description with random weights, kept as a model file."""
    with cls(write(d / f"{name}.cfg", cfg), write_weights(d / f"{name}.weights", convs), gpu=-1) as net:
        net.save(str(d / f"{name}.orva"))
    return str(d / f"{name}.orva")


@pytest.fixture(scope="module")
def detector(tmp_path_factory):
    return model_file(orva.DetectNetwork, tmp_path_factory.mktemp("det"), DETECT_CFG, [(8, 27), (14, 8)])


def test_same_boxes_as_the_program(detector, tmp_path):
    cli = os.environ.get("ORVA_CLI")
    if not cli or not os.path.exists(cli):
        pytest.skip("the orva program is not built")
    img = frame(90, 150, seed=1)
    net = orva.DetectNetwork(detector, gpu=-1)
    objs = net.detect(img, thresh=0.2, nms=0.4)
    assert objs, "the random detector should find something at 0.2"
    out = subprocess.run([cli, "detect", "-m", detector, "--gpu", "-1", "--thresh", "0.2", "--nms", "0.4",
                          "--json", "-", write_bmp(tmp_path / "f.bmp", img)],
                         capture_output=True, text=True, check=True).stdout
    ref = json.loads(out.splitlines()[0])["objects"]
    assert [(o["class_id"], o["box"]) for o in ref] == [(o.cls, list(o.box)) for o in objs]
    assert [o["score"] for o in ref] == pytest.approx([o.score for o in objs], abs=1e-4)
    # The array form carries the same objects.
    arr = net.detect(img, thresh=0.2, nms=0.4, as_array=True)
    assert arr.dtype == np.float32 and arr.shape == (len(objs), 7)
    assert arr[:, :4].tolist() == [list(o.box) for o in objs]
    assert arr[:, 5].tolist() == [o.cls for o in objs] and (arr[:, 6] == -1).all()


def test_frame_layouts(detector):
    net = orva.DetectNetwork(detector, gpu=-1)
    big = frame(120, 200, seed=2)
    crop = big[10:100, 20:170]  # rows apart: taken without a copy
    assert not crop.flags["C_CONTIGUOUS"]
    as_list = lambda objs: [(o.cls, o.box, o.score) for o in objs]
    assert as_list(net.detect(crop, 0.2)) == as_list(net.detect(np.ascontiguousarray(crop), 0.2))
    # A frame of the input size goes in as it is; the same pixels with rows apart take the
    # letterbox path and must give the same objects.
    exact = frame(48, 64, seed=3)
    wide = np.zeros((48, 80, 3), np.uint8)
    wide[:, :64] = exact
    assert as_list(net.detect(exact, 0.2)) == as_list(net.detect(wide[:, :64], 0.2))

    bad = {
        "float32": np.zeros((48, 64, 3), np.float32),
        "4 channels": np.zeros((48, 64, 4), np.uint8),
        "1-d": np.zeros(48 * 64 * 3, np.uint8),
        "strided pixels": frame(48, 128)[:, ::2],
        "channel-reversed view": frame(48, 64)[:, :, ::-1],
        "gray for a colour network": np.zeros((48, 64), np.uint8),
        "empty": np.zeros((0, 64, 3), np.uint8),
        "a list": [[1, 2, 3]],
    }
    for name, arr in bad.items():
        with pytest.raises(ValueError, match="H x W|channel"):
            net.detect(arr)
    with pytest.raises(ValueError, match="H x W"):
        orva.compute_hash(np.zeros((8, 8, 3), np.int16))


def test_bad_models_and_closed_networks(detector, tmp_path):
    with pytest.raises(RuntimeError, match="open"):
        orva.DetectNetwork(str(tmp_path / "missing.orva"), gpu=-1)
    (tmp_path / "junk.orva").write_bytes(b"ORVA    " + bytes(200))
    with pytest.raises(RuntimeError):
        orva.DetectNetwork(str(tmp_path / "junk.orva"), gpu=-1)
    # Faults of the description raise orva.Error instead of ending the interpreter.
    no_size = write(tmp_path / "nosize.cfg", "[network]\nchannels=3\n[convolution]\nfilters=2\nsize=1\n")
    with pytest.raises(orva.Error):
        orva.DetectNetwork(no_size, gpu=-1)
    with pytest.raises(orva.Error):  # a detector is no heat-map network
        orva.HeatmapNetwork(detector, gpu=-1)

    net = orva.DetectNetwork(detector, gpu=-1)
    net.close()
    assert net.closed
    with pytest.raises(RuntimeError, match="closed"):
        net.detect(frame(48, 64))
    with pytest.raises(RuntimeError, match="closed"):
        orva.DetectTask(net)


def rss_kib():
    with open("/proc/self/statm") as f:
        return int(f.read().split()[1]) * os.sysconf("SC_PAGE_SIZE") // 1024


def test_memory_flat_over_1000_frames(detector):
    net = orva.DetectNetwork(detector, gpu=-1)
    tracker = orva.Tracker()
    img = frame(90, 150, seed=4)

    def run(n):
        for _ in range(n):
            tracker.update(net.detect(img, 0.5), img)
            net.detect(img, 0.5, as_array=True)

    run(100)
    before = rss_kib()
    run(1000)
    assert rss_kib() - before < 2048


def test_threads_run_networks_in_parallel(tmp_path):
    # Big enough that one pass takes long against the interpreter's switch interval.
    cfg = ("[network]\nwidth=320\nheight=320\nchannels=3\n"
           "[convolution]\nfilters=32\nsize=3\nactivation=leaky\n"
           "[convolution]\nfilters=32\nsize=3\nactivation=leaky\n"
           "[maxpool]\nsize=8\nstride=8\n"
           "[convolution]\nfilters=14\nsize=1\nactivation=linear\n"
           "[region]\nclasses=2\nnum=2\nsoftmax=1\nanchors=1,1, 2.5,1.5\n")
    big = model_file(orva.DetectNetwork, tmp_path, cfg, [(32, 27), (32, 288), (14, 32)])
    nets = [orva.DetectNetwork(big, gpu=-1) for _ in range(2)]
    imgs = [frame(240, 320, seed=s) for s in (5, 6)]
    serial = [[(o.cls, o.box) for o in n.detect(i, 0.2)] for n, i in zip(nets, imgs)]

    results, calls = [None, None], []

    def work(k):
        t0 = time.perf_counter()
        for _ in range(3):
            results[k] = [(o.cls, o.box) for o in nets[k].detect(imgs[k], 0.2)]
        calls.append((time.perf_counter() - t0) / 3)

    threads = [threading.Thread(target=work, args=(k,)) for k in range(2)]
    ticks = []
    for t in threads:
        t.start()
    while any(t.is_alive() for t in threads):
        ticks.append(time.perf_counter())
    for t in threads:
        t.join()
    assert results == serial
    # While the workers are inside the library this thread keeps running: no gap as long as
    # a pass, which is what holding the interpreter lock through a pass would cause.
    gap = max(np.diff(ticks)) if len(ticks) > 1 else 0.0
    assert gap < 0.5 * min(calls), (gap, calls)


def test_detect_task_matches_the_network(detector):
    ref = orva.DetectNetwork(detector, gpu=-1)
    imgs = [frame(90, 150, seed=s) for s in range(4)]
    expect = [[(o.cls, o.box) for o in ref.detect(i, 0.3, 0.4)] for i in imgs]
    net = orva.DetectNetwork(detector, gpu=-1, batch=2)
    got = []
    with orva.DetectTask(net) as task:
        for k, img in enumerate(imgs):
            while not task.process(img, id=7, tick=k):
                time.sleep(0.001)
            r = task.result()
            if r:
                got.append(r)
        deadline = time.time() + 30
        while len(got) < len(imgs) and time.time() < deadline:
            r = task.result()
            if r:
                got.append(r)
            else:
                time.sleep(0.001)
    assert [(i, t) for i, t, _ in got] == [(7, k) for k in range(4)]
    assert [[(o.cls, o.box) for o in objs] for _, _, objs in got] == expect


def test_tracker_assigns_ids_to_steady_objects():
    tracker = orva.Tracker(max_miss=3, min_hit=2, iou=0.3)
    dets = [orva.Detection(0, 0.9, (10, 10, 40, 30)), orva.Detection(1, 0.8, (100, 60, 30, 50))]
    out = []
    for k in range(4):
        moved = [orva.Detection(d.cls, d.score, (d.box[0] + 2 * k, d.box[1], d.box[2], d.box[3])) for d in dets]
        out = tracker.update(moved, (320, 240))
    assert sorted(o.cls for o in out) == [0, 1]
    assert len({o.id for o in out}) == 2 and all(o.id >= 0 for o in out)
    # The array form gives the same tracks.
    again = orva.Tracker(max_miss=3, min_hit=2, iou=0.3)
    for k in range(4):
        arr = np.array([[d.box[0] + 2 * k, d.box[1], d.box[2], d.box[3], d.score, d.cls, -1] for d in dets],
                       np.float32)
        res = again.update(arr, np.zeros((240, 320, 3), np.uint8), as_array=True)
    assert sorted(res[:, 6].tolist()) == sorted(o.id for o in out)
    with pytest.raises(ValueError, match="N x 7"):
        again.update(np.zeros((2, 5), np.float32), (320, 240))


def test_background_model_and_hash():
    bg = frame(60, 80, seed=8)
    model = orva.MedianBGS(80, 60, 3)
    assert model.init(bg)
    for _ in range(200):
        assert model.update(bg)
    assert np.abs(model.background().astype(int) - bg).max() <= 2
    moved = bg.copy()
    moved[20:40, 30:50] = 255 - moved[20:40, 30:50]
    fg = model.foreground(moved)
    assert fg.shape[:2] == (60, 80)
    assert fg[20:40, 30:50].mean() > 50 and fg[:20].max() <= 2
    assert not model.update(frame(30, 40))  # wrong geometry refused

    h = orva.compute_hash(bg, orva.HashMode.RGB_96BIT)
    assert h.dtype == np.uint8 and h.size == 12
    assert orva.compare_hash(h, orva.compute_hash(bg.copy(), orva.HashMode.RGB_96BIT)) == 0
    assert orva.compare_hash(h, orva.compute_hash(255 - bg, orva.HashMode.RGB_96BIT)) > 0.3
    assert orva.compare_hash(h, orva.compute_hash(bg, orva.HashMode.GRAY_64BIT)) == -1.0


def test_classify_and_heatmap_networks(tmp_path):
    cls_cfg = ("[network]\nwidth=16\nheight=16\nchannels=3\n[convolution]\n"
               "filters=5\nsize=3\nactivation=leaky\n[avgpool]\n[softmax]\n")
    with orva.ClassifyNetwork(model_file(orva.ClassifyNetwork, tmp_path, cls_cfg, [(5, 27)], "cls"), gpu=-1) as net:
        img = frame(30, 20, seed=9)
        scores = net.scores(img)
        assert scores.shape == (5,) and scores.sum() == pytest.approx(1, abs=1e-2)
        top = net.classify(img, topk=3)
        assert [c for c, _ in top] == list(np.argsort(-scores, kind="stable")[:3])
    hm_cfg = ("[network]\nwidth=8\nheight=6\nchannels=3\n[convolution]\nfilters=12\n"
              "size=1\nactivation=linear\n[heatmap]\nclasses=2\nnum=4\n")
    with orva.HeatmapNetwork(model_file(orva.HeatmapNetwork, tmp_path, hm_cfg, [(12, 3)], "hm"), gpu=-1) as net:
        m = net.heatmap(frame(6, 8), cls=1)
        assert m.dtype == np.uint8 and m.ndim == 2 and m.shape[0] >= 6
        with pytest.raises(ValueError, match="not a class"):
            net.heatmap(frame(6, 8), cls=2)

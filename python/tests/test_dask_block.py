import os
import shutil

import numpy as np
import pytest

import kzdvpholibu as k
from kzdvpholibu import dask_block

distributed = pytest.importorskip("distributed")


def read_ties(path):
    with k.Block.open(str(path)) as b:
        p = b.points()
    tie = p["usage"] == k.USAGE_TIE
    return p["id"][tie], p["xyz"][tie], p["measurements"]


def test_library_pair_measurement_agrees_with_the_composed_one(demo_dir):
    # On one grid (first candidate at half + 1) both find the same matches to
    # a small fraction of a pixel where both accept the candidate.
    block = str(demo_dir / "demo.blk")
    settings = dict(dask_block.DEFAULTS, margin=dask_block.DEFAULTS["half"] + 1)
    lib = dask_block.match_pair(block, 0, 1, settings, engine="library")
    py = dask_block.match_pair(block, 0, 1, settings, engine="python")
    assert len(lib) > 20 and len(py) > 20
    common = {tuple(r[:2]): r for r in py}
    pairs = [(r, common[tuple(r[:2])]) for r in lib if tuple(r[:2]) in common]
    assert len(pairs) >= 0.8 * min(len(lib), len(py))
    diff = np.array([a[2:4] - b[2:4] for a, b in pairs])
    assert np.abs(diff).max() < 0.05
    # Rays of accepted points meet near the ground: both give the same XYZ.
    np.testing.assert_allclose(np.array([a[4:] for a, _ in pairs]),
                               np.array([b[4:] for _, b in pairs]), atol=0.5)


def test_auto_tie_pair_refuses_bad_input(demo_dir):
    with k.Block.open(str(demo_dir / "demo.blk")) as b:
        frames = b.images()
    lx, rx = k.CameraXform(frames[0]["camera"]), k.CameraXform(frames[1]["camera"])
    img = k.read_layer(frames[0]["image"])
    with pytest.raises(TypeError):
        k.auto_tie_pair(lx, img.astype(np.float32), rx, img)
    with pytest.raises(ValueError, match="unknown setting"):
        k.auto_tie_pair(lx, img, rx, img, spacing=3)
    with pytest.raises(k.Error):
        k.auto_tie_pair(lx, img, rx, img, grid_spacing=0)


def test_local_cluster_gives_the_serial_results(demo_copy, tmp_path_factory):
    serial_dir = tmp_path_factory.mktemp("serial")
    with k.Block.open(str(demo_copy / "demo.blk")) as b:
        frames = b.images()
    shutil.copy(demo_copy / "demo.blk", serial_dir)
    for f in frames:
        shutil.copy(f["image"], serial_dir)
        f["image"] = str(serial_dir / os.path.basename(f["image"]))
    with k.Block.open(str(serial_dir / "demo.blk")) as b:
        b.put_images(frames)
        b.save()
    serial = dask_block.run_block(serial_dir / "demo.blk")
    with distributed.LocalCluster(n_workers=2, threads_per_worker=1, processes=True,
                                  dashboard_address=None) as cluster, \
            distributed.Client(cluster) as client:
        parallel = dask_block.run_block(demo_copy / "demo.blk", client)
    assert serial["pairs"] == parallel["pairs"] and serial["pairs"]
    assert sum(len(t) for t in serial["ties"]) > 20
    for a, b in zip(serial["ties"], parallel["ties"]):
        np.testing.assert_array_equal(a, b)
    assert [v for v in serial["levels"].values()] == [v for v in parallel["levels"].values()]
    assert all(len(v) > 0 for v in parallel["levels"].values())
    assert serial["tie_ids"] == parallel["tie_ids"]
    # What the driver wrote into the two block files is the same.
    ids_s, xyz_s, meas_s = read_ties(serial_dir / "demo.blk")
    ids_p, xyz_p, meas_p = read_ties(demo_copy / "demo.blk")
    np.testing.assert_array_equal(ids_s, ids_p)
    np.testing.assert_array_equal(xyz_s, xyz_p)
    np.testing.assert_array_equal(meas_s["xy"], meas_p["xy"])
    assert set(serial["tie_ids"]) <= set(ids_p.tolist())
    # Each run built the levels of its own photographs, the library's
    # binomial levels, equal pixel for pixel.
    for a, b in zip(serial["levels"], parallel["levels"]):
        assert a != b and k.pyramids_check(a) and k.pyramids_check(b)
        np.testing.assert_array_equal(k.read_layer(a, 1), k.read_layer(b, 1))

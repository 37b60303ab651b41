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


def test_serial_pair_matching_equals_the_demo_matcher(demo_dir):
    # The demo's own matcher (C++) measured its tie points on the first pair
    # with the same settings; the Python pair step must find the same ones.
    ref = np.loadtxt(demo_dir / "tie_points.txt", ndmin=2)
    with k.Block.open(str(demo_dir / "demo.blk")) as b:
        frames = b.images()
    assert (0, 1) in dask_block.overlapping_pairs(frames)
    ties = dask_block.match_pair(str(demo_dir / "demo.blk"), 0, 1)
    if ref.shape[1] != 8 or len(ref) != len(ties):
        pytest.skip("the demo's tie file is not of the two-photograph layout")
    np.testing.assert_allclose(ties[:, :4], ref[:, 1:5], atol=1e-3)


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

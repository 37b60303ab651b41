import shutil
import subprocess

import numpy as np
import pytest

import kzdvpholibu as k
from kzdvpholibu import blocks
from conftest import TOOL


def test_block_triangulation_equals_the_tool(demo_copy, tmp_path):
    tool_dir = tmp_path / "tool"
    shutil.copytree(demo_copy, tool_dir)
    subprocess.run([TOOL, "triangulate", str(tool_dir / "demo.blk"), "--report",
                    str(tool_dir / "r.txt")], check=True, stdout=subprocess.DEVNULL)
    result = k.triangulate_block(str(demo_copy / "demo.blk"), report=str(demo_copy / "r.txt"))
    assert result["converged"] and result["iterations"] >= 1
    assert (demo_copy / "r.txt").stat().st_size > 0
    with k.Block.open(str(tool_dir / "demo.blk")) as b:
        want = b.points()
    with k.Block.open(str(demo_copy / "demo.blk")) as b:
        got = b.points()
    np.testing.assert_array_equal(got["id"], want["id"])
    np.testing.assert_allclose(got["xyz"], want["xyz"], atol=1e-9)
    np.testing.assert_allclose(got["residual"], want["residual"], atol=1e-9)
    np.testing.assert_allclose(got["measurements"]["residual"],
                               want["measurements"]["residual"], atol=1e-9)


def test_tri_refine_arrays_and_errors(demo_copy):
    with k.Block.open(str(demo_copy / "demo.blk")) as b:
        images, ground, measured = blocks.triangulation_input(b)
    report = str(demo_copy / "arrays.txt")
    result = k.tri_refine(images, ground, report, image_std=0.5)
    assert result["converged"]
    ids = result["points"]["id"]
    assert set(ids) == set(measured)  # control, check and intersected tie points
    assert result["points"]["xyz"].shape == (len(ids), 3)
    control = ground["usage"] == k.USAGE_CONTROL
    assert result["control_residual_count"][0] == np.count_nonzero(control)
    with pytest.raises(ValueError):
        k.tri_refine(images[:1], ground, report)
    with pytest.raises(ValueError):
        k.tri_refine(images, dict(ground, xyz=ground["xyz"][:, :2]), report)
    bad = [dict(im) for im in images]
    bad[0]["xy"] = np.zeros((len(bad[0]["point_id"]), 3))
    with pytest.raises(ValueError):
        k.tri_refine(bad, ground, report)
    with pytest.raises(k.Error):
        k.tri_refine(images, ground, str(demo_copy / "no" / "such" / "dir" / "r.txt"))

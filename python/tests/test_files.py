"""Images and pyramids, the camera file and the block file."""
import os
import subprocess

import numpy as np
import pytest

import kzdvpholibu as k
from conftest import texture, write_geotiff


def binomial_level(a):
    """One 3x3 binomial level, computed independently: border pixels repeat,
    output (c, r) is centred on input (2c, 2r), integers rounded half up."""
    p = np.pad(a.astype(np.float64), 1, mode="edge")
    w = np.array([1.0, 2.0, 1.0])
    rows = p[:-2] * w[0] + p[1:-1] * w[1] + p[2:] * w[2]
    full = rows[:, :-2] * w[0] + rows[:, 1:-1] * w[1] + rows[:, 2:] * w[2]
    return np.floor(full[::2, ::2] / 16 + 0.5)


def test_pyramid_levels_match_an_independent_filter(tmp_path):
    img = texture((301, 260), seed=9).astype(np.uint8)
    path = write_geotiff(tmp_path / "img.tif", img)
    assert not k.pyramids_check(path)
    k.compute_pyramids(path)
    assert k.pyramids_check(path)
    info = k.layer_info(path)
    assert info["levels"] == k.pyramid_level_count(260, 301) == 2
    assert info["level_sizes"] == [(130, 151), (65, 76)]
    np.testing.assert_array_equal(k.read_layer(path), img)
    level1 = k.read_layer(path, 1)
    np.testing.assert_array_equal(level1, binomial_level(img))
    np.testing.assert_array_equal(k.read_layer(path, 2), binomial_level(level1))
    lo, hi = k.layer_effective_range(path)
    assert (lo, hi) == (img.min(), img.max())


@pytest.mark.parametrize("call", [
    lambda d: k.read_layer(str(d / "missing.tif")),
    lambda d: k.compute_pyramids(str(d / "missing.tif")),
    lambda d: k.read_camera_file(str(d / "missing.cam")),
    lambda d: k.Block.open(str(d / "missing.blk")),
])
def test_missing_files_raise_with_the_library_message(tmp_path, call):
    with pytest.raises(k.Error, match="missing"):
        call(tmp_path)


def test_read_only_image_is_refused_and_kept(tmp_path):
    path = write_geotiff(tmp_path / "ro.tif", texture((300, 300)).astype(np.uint8))
    before = open(path, "rb").read()
    os.chmod(path, 0o444)
    try:
        with pytest.raises(k.Error):
            k.compute_pyramids(path)
    finally:
        os.chmod(path, 0o644)
    assert open(path, "rb").read() == before


def test_camera_file_round_trip_and_refusal(tmp_path, demo_dir):
    demo = k.read_camera_file(str(demo_dir / "demo_camera.cam"))
    assert demo["focal_length_mm"] > 0 and demo["fiducials_mm"].shape[1] == 2
    cam = {
        "name": "test camera", "description": "round trip", "focal_length_mm": 152.5,
        "principal_point_mm": (0.01, -0.02),
        "fiducials_mm": np.array([[106.0, 106.0], [-106.0, -106.0]]),
        "observation_kind": 1, "observations": np.array([[7.5, 1.5], [15.0, 2.75]]),
        "k": (1.5e-5, -3e-9, 2e-13), "extended_model": k.LENS_MODEL_AUSTRALIS,
        "extended_parameters": np.arange(1, 8) * 1e-6,
    }
    path = str(tmp_path / "cam.cam")
    k.write_camera_file(path, cam)
    back = k.read_camera_file(path)
    for key in ("name", "description", "focal_length_mm", "observation_kind", "extended_model"):
        assert back[key] == cam[key]
    for key in ("principal_point_mm", "fiducials_mm", "observations", "k", "extended_parameters"):
        np.testing.assert_allclose(back[key], cam[key], rtol=1e-5)
    before = open(path, "rb").read()
    with pytest.raises(k.Error, match="quote"):
        k.write_camera_file(path, dict(cam, name='bad "name"'))
    assert open(path, "rb").read() == before
    with pytest.raises(ValueError):
        k.write_camera_file(path, dict(cam, fiducials_mm=np.zeros((2, 3))))


def test_block_images_and_points_survive_save_and_reopen(tmp_path, demo_dir):
    with k.Block.open(str(demo_dir / "demo.blk")) as demo:
        frames = demo.images()
    assert len(frames) >= 2 and all(f["camera"] is not None for f in frames)
    path = str(tmp_path / "new.blk")
    pts = {
        "id": np.array([1, 2, 3], np.int32),
        "usage": np.array([k.USAGE_CONTROL, k.USAGE_CHECK, k.USAGE_TIE], np.int32),
        "xyz": np.array([[1.0, 2.0, 3.0], [4.0, 5.0, 6.0], [7.0, 8.0, 9.5]]),
        "std": np.full((3, 3), 0.1),
        "description": ["a", "", "c"],
        "measurements": {"point": np.array([0, 2, 2], np.int32),
                         "image": np.array([frames[0]["id"], frames[0]["id"], frames[1]["id"]],
                                           np.int32),
                         "xy": np.array([[10.5, 20.5], [30.0, 40.0], [50.25, 60.75]])},
    }
    with k.Block.open(path, create=True) as b:
        b.horizontal_units = "meters"
        b.put_images(frames)
        b.put_points(pts)
        assert b.dirty
        b.save()
    with k.Block.open(path) as b:
        assert b.horizontal_units == "meters"
        back = b.images()
        assert [f["image"] for f in back] == [f["image"] for f in frames]
        assert all(a["camera"].same_as(f["camera"]) for a, f in zip(back, frames))
        got = b.points()
    np.testing.assert_array_equal(got["id"], pts["id"])
    np.testing.assert_array_equal(got["usage"], pts["usage"])
    np.testing.assert_array_equal(got["xyz"], pts["xyz"])
    assert got["description"] == pts["description"]
    for key in ("point", "image", "xy"):
        np.testing.assert_array_equal(got["measurements"][key], pts["measurements"][key])
    with k.Block.open(path) as b:
        with pytest.raises(ValueError, match="out of range"):
            b.put_points(dict(pts, measurements=dict(pts["measurements"],
                                                    point=np.array([0, 5, 2], np.int32))))
        with pytest.raises(ValueError):
            b.put_images([{"image": "x"}])
    closed = k.Block.open(path)
    closed.close()
    with pytest.raises(k.Error, match="closed"):
        closed.points()


def test_not_a_block_file_raises(tmp_path):
    bad = tmp_path / "bad.blk"
    bad.write_bytes(b"this is not a block file\n" * 10)
    with pytest.raises(k.Error):
        k.Block.open(str(bad))

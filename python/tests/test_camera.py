import numpy as np
import pytest

import kzdvpholibu as k


def make_camera(centre=(1000.0, 2000.0, 1500.0), angles=(0.01, -0.02, 0.1), height=100.0):
    c = k.Camera()
    coeffs = np.zeros(9)
    coeffs[0] = 50.0
    coeffs[3:6] = centre
    coeffs[6:9] = angles
    c.coeffs = coeffs
    # 0.05 film units a pixel, principal point in the middle of 1024 pixels
    c.for_src_affine = [0.05, 0, -25.6, 0, -0.05, 25.6]
    c.inv_src_affine = [20.0, 0, 512.0, 0, -20.0, 512.0]
    c.dem_source = k.DEM_CONSTANT
    c.z_mean = height
    return c


def test_camera_fields_round_trip_and_copy():
    c = make_camera()
    assert c.focal == 50.0
    c.lens_distortion = [1e-4, -2e-6, 3e-10]
    np.testing.assert_array_equal(c.lens_distortion, [1e-4, -2e-6, 3e-10])
    c.dem_filename = "dem.tif"
    d = c.copy()
    assert d.same_as(c) and d.dem_filename == "dem.tif"
    d.focal = 51.0
    assert not d.same_as(c)
    c.lens_distortion = None
    assert c.lens_distortion is None
    with pytest.raises(ValueError):
        c.coeffs = np.zeros(8)


def test_forward_transform_agrees_with_the_kernel():
    cam = make_camera()
    x = k.CameraXform(cam)
    x.fill()
    m = x.orientation
    rng = np.random.default_rng(3)
    g = np.column_stack([rng.uniform(900, 1100, 50), rng.uniform(1900, 2100, 50),
                         rng.uniform(50, 150, 50)])
    fx, fy, failed = k.object_to_image(m, g[:, 0].copy(), g[:, 1].copy(), g[:, 2].copy())
    assert not failed.any()
    film = x.forward_cartesian(np.ascontiguousarray(g[:, :2]), g[:, 2])
    np.testing.assert_allclose(film[:, 0], fx, atol=1e-9)
    np.testing.assert_allclose(film[:, 1], fy, atol=1e-9)
    # Pixels through the camera's film-to-pixel affine.
    px = x.transform_3d_to_2d(g)
    a = cam.inv_src_affine
    np.testing.assert_allclose(px[:, 0], a[0] * fx + a[1] * fy + a[2], atol=1e-6)
    np.testing.assert_allclose(px[:, 1], a[3] * fx + a[4] * fy + a[5], atol=1e-6)


def test_inverse_and_pair_intersection_recover_ground():
    left, right = make_camera(centre=(900.0, 2000.0, 1500.0)), make_camera(centre=(1100.0, 2000.0, 1500.0))
    lf, rf = k.CameraXform(left), k.CameraXform(right)
    lf.fill()
    rf.fill()
    g = np.array([[1000.0, 2010.0, 100.0], [980.0, 1990.0, 100.0]])
    lp, rp = lf.transform_3d_to_2d(g), rf.transform_3d_to_2d(g)
    np.testing.assert_allclose(k.CameraXform.pair_to_3d(lf, rf, lp, rp), g, atol=1e-5)
    inv = left.copy()
    inv.direction = k.INVERSE
    ix = k.CameraXform(inv)
    ix.fill()
    np.testing.assert_allclose(ix.transform(lp), g[:, :2], atol=1e-6)  # at z_mean = 100
    line = k.CameraXform.epipolar_line(lf, rf, lp[0, 0], lp[0, 1], 0.0, 200.0, 5)
    assert line.shape == (5, 2)
    np.testing.assert_allclose(line[2], rp[0], atol=1e-6)  # height 100 is the middle one


def test_camera_errors_carry_the_library_report():
    c = make_camera()
    c.focal = 0.0
    x = k.CameraXform(c)
    with pytest.raises(k.Error, match="focal length is zero"):
        x.fill()
    with pytest.raises(k.Error, match="not prepared"):
        x.orientation
    c = make_camera()
    c.dem_source = k.DEM_FILE
    c.dem_filename = "/nonexistent/dem.tif"
    with pytest.raises(k.Error, match="dem.tif"):
        k.CameraXform(c).fill()
    good = k.CameraXform(make_camera())
    good.fill()
    with pytest.raises(ValueError):
        good.transform_3d_to_2d(np.zeros((3, 2)))
    with pytest.raises(TypeError):
        good.transform(np.zeros((3, 2), dtype=np.float32))


def test_inverse_cartesian_undoes_forward_cartesian():
    x = k.CameraXform(make_camera())
    x.fill()
    rng = np.random.default_rng(4)
    ground = np.column_stack([rng.uniform(900, 1100, 20), rng.uniform(1900, 2100, 20)])
    heights = rng.uniform(0, 200, 20)
    film = x.forward_cartesian(ground, heights)
    np.testing.assert_allclose(x.inverse_cartesian(film, heights), ground, atol=1e-6)
    with pytest.raises(ValueError):
        x.inverse_cartesian(film, heights[:5])
    # no points: empty results, not a failure
    assert x.transform(np.zeros((0, 2))).shape == (0, 2)
    assert x.transform_3d_to_2d(np.zeros((0, 3))).shape == (0, 2)
    assert k.CameraXform.pair_to_3d(x, x, np.zeros((0, 2)), np.zeros((0, 2))).shape == (0, 3)

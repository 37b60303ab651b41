import numpy as np
import pytest

import kzdvpholibu as k

RNG = np.random.default_rng(7)


def test_degree_conversions_match_numpy():
    d = np.array([-720.0, -90.0, 0.0, 33.3, 359.9])
    np.testing.assert_array_equal(k.deg2rad(d), np.deg2rad(d))
    np.testing.assert_allclose(k.rad2deg(k.deg2rad(d)), d, rtol=1e-15)


@pytest.mark.parametrize("code", [0, 1, 2, -1])
def test_rotation_matrices_are_rotations_and_invert(code):
    angles = RNG.uniform(-1.2, 1.2, size=(20, 3))
    R = k.rotation_matrix(angles, code)
    assert R.shape == (20, 3, 3)
    np.testing.assert_allclose(R @ R.transpose(0, 2, 1), np.broadcast_to(np.eye(3), R.shape),
                               atol=1e-14)
    np.testing.assert_allclose(np.linalg.det(R), 1.0, atol=1e-14)
    # one triple at a time gives the same matrices as the batch
    np.testing.assert_array_equal(k.rotation_matrix(angles[3], code), R[3])
    np.testing.assert_allclose(k.angles_from_rotation(R, code), angles, atol=1e-12)


def test_omega_phi_kappa_is_the_product_of_axis_rotations():
    o, p, kk = 0.1, -0.2, 0.3
    rx = np.array([[1, 0, 0], [0, np.cos(o), -np.sin(o)], [0, np.sin(o), np.cos(o)]])
    ry = np.array([[np.cos(p), 0, np.sin(p)], [0, 1, 0], [-np.sin(p), 0, np.cos(p)]])
    rz = np.array([[np.cos(kk), -np.sin(kk), 0], [np.sin(kk), np.cos(kk), 0], [0, 0, 1]])
    R = k.rotation_matrix(np.array([o, p, kk]), 2)
    candidates = [rx @ ry @ rz, (rx @ ry @ rz).T]
    assert min(np.abs(R - c).max() for c in candidates) < 1e-14


def _camera_matrix(focal=0.153, centre=(1000.0, 2000.0, 1500.0), angles=(0.02, -0.01, 0.3)):
    return k.projection_matrix(None, np.array(list(centre) + list(angles)), focal)


def test_collinearity_round_trip_and_independent_projection():
    m = _camera_matrix()
    n = 200
    X = RNG.uniform(500, 1500, n)
    Y = RNG.uniform(1500, 2500, n)
    Z = RNG.uniform(0, 300, n)
    x, y, failed = k.object_to_image(m, X, Y, Z)
    assert not failed.any()
    # The matrix rows evaluated by numpy give the same film coordinates.
    M = m.reshape(3, 4)
    h = np.column_stack([np.ones(n), X, Y, Z])
    den = h @ M[0]
    np.testing.assert_allclose(x, h @ M[1] / den, rtol=1e-12)
    np.testing.assert_allclose(y, h @ M[2] / den, rtol=1e-12)
    # Film back to ground at the known heights.
    X2, Y2, failed = k.image_and_z_to_xy(m, x, y, Z)
    assert not failed.any()
    np.testing.assert_allclose(X2, X, atol=1e-6)
    np.testing.assert_allclose(Y2, Y, atol=1e-6)


def test_intersection_recovers_the_ground_point():
    a = _camera_matrix(centre=(900.0, 2000.0, 1500.0))
    b = _camera_matrix(centre=(1300.0, 2000.0, 1500.0))
    g = np.array([1100.0, 2050.0, 120.0])
    fa = [v[0] for v in k.object_to_image(a, g[:1], g[1:2], g[2:])[:2]]
    fb = [v[0] for v in k.object_to_image(b, g[:1], g[1:2], g[2:])[:2]]
    np.testing.assert_allclose(k.intersect(a, b, fa, fb), g, atol=1e-6)
    with pytest.raises(k.Error, match="parallel"):
        k.intersect(a, a, fa, fa)


def test_distortion_iterative_is_undone_by_one_step():
    lens = np.array([1e-4, -2e-6, 3e-10])  # radial: x (p0 + p1 r^2 + p2 r^4)
    x = RNG.uniform(-50, 50, 30)
    y = RNG.uniform(-50, 50, 30)
    dx, dy = k.distortion(x, y, lens)
    r2 = x * x + y * y
    f = lens[0] + lens[1] * r2 + lens[2] * r2 * r2
    np.testing.assert_allclose(np.hypot(dx, dy), np.hypot(x, y) * np.abs(f), rtol=1e-9)
    dx, dy = k.distortion_iterative(x, y, lens, divergence_bound=100.0)
    back_x, back_y = k.distortion(x + dx, y + dy, lens)
    np.testing.assert_allclose(back_x, dx, atol=2e-4)
    np.testing.assert_allclose(back_y, dy, atol=2e-4)
    zero = k.distortion(x, y, None)
    assert not np.any(zero[0]) and not np.any(zero[1])
    # The batch projection applies the same lens record.
    m = _camera_matrix()
    X, Y, Z = np.array([1000.0, 1100.0]), np.array([2000.0, 1900.0]), np.array([0.0, 50.0])
    x0, y0, _ = k.object_to_image(m, X, Y, Z)
    x1, y1, _ = k.object_to_image(m, X, Y, Z, lens=lens)
    ddx, ddy = k.distortion(x0, y0, lens)
    np.testing.assert_allclose(x1, x0 + ddx, rtol=1e-15)
    np.testing.assert_allclose(y1, y0 + ddy, rtol=1e-15)


@pytest.mark.parametrize("call,error", [
    (lambda: k.object_to_image(np.zeros(12), np.zeros(3, np.float32), np.zeros(3), np.zeros(3)),
     TypeError),
    (lambda: k.object_to_image(np.zeros(12), np.zeros(3), np.zeros(2), np.zeros(3)), ValueError),
    (lambda: k.object_to_image(np.zeros(11), np.zeros(3), np.zeros(3), np.zeros(3)), ValueError),
    (lambda: k.object_to_image(np.zeros(12), np.zeros((3, 2))[:, 0], np.zeros(3), np.zeros(3)),
     ValueError),
    (lambda: k.rotation_matrix(np.array(["a", "b", "c"])), TypeError),
    (lambda: k.rotation_matrix(np.zeros((4, 2))), ValueError),
    (lambda: k.projection_matrix(None, np.zeros(6), 0.0), k.Error),
])
def test_bad_arguments_raise(call, error):
    with pytest.raises(error):
        call()

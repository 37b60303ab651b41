import numpy as np
import pytest

import kzdvpholibu as k
from conftest import texture


def numpy_ncc(a, b):
    a = a - a.mean()
    b = b - b.mean()
    return float((a * b).sum() / np.sqrt((a * a).sum() * (b * b).sum()))


@pytest.mark.parametrize("dtype", [np.uint8, np.uint16, np.uint32, np.float32, np.float64])
def test_ncc_equals_numpy(dtype):
    left = texture((60, 70), seed=1).astype(dtype)
    right = texture((60, 70), seed=2).astype(dtype)
    got = k.ncc(left, right, 20, 25, 40, 30, 9, 7)
    want = numpy_ncc(left[22:29, 16:25].astype(float), right[27:34, 36:45].astype(float))
    assert got == pytest.approx(want, abs=1e-6)
    assert k.ncc(left, left, 20, 25, 20, 25, 9, 9) == pytest.approx(1.0)


@pytest.mark.parametrize("dtype", [np.uint8, np.float32])
def test_ncc_search_finds_the_shift_like_brute_force(dtype):
    base = texture((120, 120), seed=5)
    left = base[10:100, 10:100].astype(dtype).copy()
    right = base[13:103, 5:95].astype(dtype).copy()  # content moved by (+5, -3)
    lx, ly, h = 40, 45, 8
    peak = k.ncc_search(left, right, lx, ly, h, h, 30, 30, 60, 60)
    scores = {(cx, cy): numpy_ncc(left[ly - h:ly + h + 1, lx - h:lx + h + 1].astype(float),
                                  right[cy - h:cy + h + 1, cx - h:cx + h + 1].astype(float))
              for cx in range(30, 61) for cy in range(30, 61)}
    best = max(scores, key=scores.get)
    assert (peak["column"], peak["row"]) == best == (lx + 5, ly - 3)
    assert peak["coefficient"] == pytest.approx(scores[best], abs=1e-5)
    flat = np.zeros_like(left)
    assert k.ncc_search(flat, right, lx, ly, h, h, 30, 30, 60, 60) is None


def test_least_squares_matching_recovers_a_subpixel_shift():
    n = 80
    yy, xx = np.mgrid[0:n, 0:n].astype(float)
    shift = (0.3, -0.4)
    f = lambda x, y: 128 + 60 * np.sin(x / 3.1) * np.cos(y / 2.7) + 30 * np.sin((x + y) / 5.3)
    left = f(xx, yy)
    right = f(xx - shift[0], yy - shift[1])
    # The right side is a search patch of twice the window around the start.
    patch = np.ascontiguousarray(right[30:53, 30:53])
    code, rx, ry, msg = k.lsm(left, patch, 40.5, 40.5, 10.5, 10.5, 11, 11)
    assert code < 0, msg
    assert rx + 30 == pytest.approx(40.5 + shift[0], abs=0.02)
    assert ry + 30 == pytest.approx(40.5 + shift[1], abs=0.02)
    code, rx, ry = k.lsm_half(left.astype(np.uint8), right.astype(np.uint8), 40, 40, 40.5, 40.5,
                              6, 6)
    assert code < 0
    assert rx == pytest.approx(40.5 + shift[0], abs=0.1)
    assert ry == pytest.approx(40.5 + shift[1], abs=0.1)


@pytest.mark.parametrize("call,error", [
    (lambda L, R: k.ncc(L, R, 2, 20, 20, 20, 9, 9), ValueError),        # window off the left edge
    (lambda L, R: k.ncc(L, R, 20, 20, 20, 58, 9, 9), ValueError),       # off the bottom
    (lambda L, R: k.ncc(L, R.astype(np.float64), 20, 20, 20, 20, 9, 9), TypeError),
    (lambda L, R: k.ncc(L.astype(np.int64), R, 20, 20, 20, 20, 9, 9), TypeError),
    (lambda L, R: k.ncc(L[:, ::2], R, 10, 20, 20, 20, 5, 5), ValueError),  # not contiguous
    (lambda L, R: k.ncc_search(L, R, 20, 20, 8, 8, 5, 5, 40, 40), ValueError),
    (lambda L, R: k.ncc_search(L, R, 20, 20, 200, 8, 20, 20, 21, 21), ValueError),
    (lambda L, R: k.lsm(L, R[:10, :10], 30.5, 30.5, 5, 5, 11, 11), ValueError),
    (lambda L, R: k.lsm_half(L, R[:, :50], 30, 30, 30.5, 30.5, 5, 5), ValueError),
    (lambda L, R: k.ncc(L.ravel(), R, 20, 20, 20, 20, 9, 9), ValueError),
])
def test_bad_windows_and_arrays_raise(call, error):
    L = texture((60, 60), seed=3).astype(np.uint8)
    R = texture((60, 60), seed=4).astype(np.uint8)
    with pytest.raises(error):
        call(L, R)


@pytest.mark.parametrize("dtype", [np.uint8, np.float64])
def test_subpixel_ncc_at_pixel_centres_equals_whole_pixel_ncc(dtype):
    left = texture((60, 60), seed=11).astype(dtype)
    right = texture((60, 60), seed=12).astype(dtype)
    whole = k.ncc(left, right, 20, 22, 30, 31, 9, 9)
    # position k + 0.5 reads pixel k exactly (half-pixel centres)
    assert k.ncc_subpixel(left, right, 20.5, 22.5, 30.5, 31.5, 9, 9) == pytest.approx(whole,
                                                                                      abs=1e-9)
    # both windows turned by the same angle: a window matched with itself stays 1
    assert k.ncc_subpixel(left, left, 30.5, 30.5, 30.5, 30.5, 9, 9, 0.3, 0.3) == pytest.approx(1.0)
    # a half-pixel position averages neighbours: not the whole-pixel value
    assert k.ncc_subpixel(left, right, 20.0, 22.0, 30.5, 31.5, 9, 9) != pytest.approx(whole,
                                                                                     abs=1e-6)


@pytest.mark.parametrize("direction,angle", [((1, 0), 0.0), ((0, 1), np.pi / 2),
                                             ((-1, 0), np.pi), ((1, 1), np.pi / 4)])
def test_gradient_angle_of_ramps(direction, angle):
    yy, xx = np.mgrid[0:40, 0:40].astype(float)
    ramp = 100 + 2.0 * (direction[0] * xx + direction[1] * yy)
    got = k.gradient_angle(ramp, 20, 20, 6, 6)
    assert abs(np.angle(np.exp(1j * (got - angle)))) < 0.02
    assert k.gradient_angle(np.full((40, 40), 7.0), 20, 20, 6, 6) is None
    with pytest.raises(ValueError):
        k.gradient_angle(ramp, 3, 20, 6, 6)

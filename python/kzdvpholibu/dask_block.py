"""Pyramids and pairwise tie-point matching of a whole block on Dask.

The library is thread-safe and starts no threads; this module is the engine
that fans it out. Every image's pyramid levels and every overlapping image
pair's matching are Dask tasks that call the compiled core; the driver
gathers the results and alone writes them into the block file.

The tasks read the images and the block file through the paths stored in the
block, so every worker must see the same files (a shared file system on a
real cluster). Results do not depend on where or in which order the tasks
ran: ``run_block(path)`` without a client gives the same tie points and
pyramid levels as with any cluster.

The pair step is the library's pair measurement (``auto_tie_pair``: a left
grid predicted through both frame cameras, NCC in the epipolar band,
least-squares refinement). ``engine="python"`` composes the same steps from
the wrapped primitives instead (prediction at the mean ground height, NCC
search around it, least-squares matching), for images other than 8-bit.
"""

import math
import os

import numpy as np

from . import _core

# Matching settings of the pair step.
DEFAULTS = dict(spacing=56, margin=64, half=10, radius=24, min_coefficient=0.8,
                max_iterations=10, convergence=0.002, max_shift=2.0)


def _cameras(frame):
    """Prepared transforms of a frame: (inverse, forward, height). The inverse
    cuts the ray at one height, the camera's mean ground height (the DEM's
    mean when it has a DEM), so that a prediction never waits on DEM reads."""
    forward = frame["camera"].copy()
    forward.direction = _core.FORWARD
    fwd = _core.CameraXform(forward)
    fwd.fill()
    height = fwd.camera.z_mean
    inverse = frame["camera"].copy()
    inverse.direction = _core.INVERSE
    inverse.dem_source = _core.DEM_CONSTANT
    inverse.z_mean = height
    inv = _core.CameraXform(inverse)
    inv.fill()
    return inv, fwd, height


def footprint(frame):
    """Ground bounding box (xmin, ymin, xmax, ymax) of a frame's image corners."""
    inv, _, _ = _cameras(frame)
    w, h = frame["columns"], frame["rows"]
    corners = np.array([[0, 0], [w, 0], [w, h], [0, h]], dtype=np.float64)
    g = inv.transform(corners)
    return (g[:, 0].min(), g[:, 1].min(), g[:, 0].max(), g[:, 1].max())


def overlapping_pairs(frames, min_overlap=0.2):
    """Index pairs (i, j), i < j, of frames whose ground footprints overlap by
    at least ``min_overlap`` of the smaller footprint's area."""
    boxes = [footprint(f) for f in frames]
    pairs = []
    for i in range(len(frames)):
        for j in range(i + 1, len(frames)):
            a, b = boxes[i], boxes[j]
            w = min(a[2], b[2]) - max(a[0], b[0])
            h = min(a[3], b[3]) - max(a[1], b[1])
            if w <= 0 or h <= 0:
                continue
            smaller = min((a[2] - a[0]) * (a[3] - a[1]), (b[2] - b[0]) * (b[3] - b[1]))
            if w * h >= min_overlap * smaller:
                pairs.append((i, j))
    return pairs


def build_pyramid(image):
    """Task: builds the binomial pyramid levels of one image; returns the
    level sizes."""
    _core.compute_pyramids(image)
    return [tuple(s) for s in _core.layer_info(image)["level_sizes"]]


def match_pair(block_path, i, j, settings=None, engine="library"):
    """Task: tie points between frames i and j of the block.

    Returns an (n, 7) float64 array: left column, row, right column, row
    (file pixels, pixel centres at k + 0.5), ground X, Y, Z of the two rays'
    intersection. Rows follow the left grid, so the result is the same
    wherever the task runs.
    """
    s = dict(DEFAULTS, **(settings or {}))
    with _core.Block.open(block_path) as block:
        frames = block.images()
    left, right = frames[i], frames[j]
    limg = _core.read_layer(left["image"])
    rimg = _core.read_layer(right["image"])
    if limg.dtype != rimg.dtype or limg.dtype != np.uint8:
        limg, rimg = limg.astype(np.float32), rimg.astype(np.float32)
    linv, lfwd, height = _cameras(left)
    _, rfwd, _ = _cameras(right)
    if engine == "library" and limg.dtype == np.uint8:
        found = _library_pair(lfwd, limg, rfwd, rimg, s)
    elif engine in ("library", "python"):
        found = _python_pair(linv, rfwd, height, limg, rimg, s)
    else:
        raise ValueError("engine: 'library' or 'python'")
    if len(found) == 0:
        return np.zeros((0, 7))
    xyz = _core.CameraXform.pair_to_3d(lfwd, rfwd, np.ascontiguousarray(found[:, :2]),
                                       np.ascontiguousarray(found[:, 2:4]))
    return np.column_stack([found, xyz])


def _library_pair(lfwd, limg, rfwd, rimg, s):
    r = _core.auto_tie_pair(lfwd, limg, rfwd, rimg, grid_spacing=s["spacing"],
                            template_half=s["half"], search_radius=s["radius"],
                            min_coefficient=s["min_coefficient"],
                            lsc_max_iterations=s["max_iterations"],
                            lsc_convergence=s["convergence"], lsc_max_shift=s["max_shift"])
    return np.column_stack([r["left"], r["right"]])


def _python_pair(linv, rfwd, height, limg, rimg, s):
    half, radius, margin, step = s["half"], s["radius"], s["margin"], s["spacing"]
    rows, cols = limg.shape
    grid = np.array([(x, y) for y in range(margin, rows - margin + 1, step)
                     for x in range(margin, cols - margin + 1, step)], dtype=np.float64)
    if len(grid) == 0:
        return np.zeros((0, 4))
    # Prediction: the left ray at the ground height, into the right image.
    ground = linv.transform(grid + 0.5)
    heights = np.full(len(grid), height)
    pred = rfwd.transform_3d_to_2d(np.column_stack([ground, heights]))
    rrows, rcols = rimg.shape
    square = rimg.shape[0] == rimg.shape[1]
    found = []
    for (lx, ly), (px, py) in zip(grid.astype(int), pred):
        if not (math.isfinite(px) and math.isfinite(py)):
            continue
        cx, cy = int(math.floor(px)), int(math.floor(py))
        reach = radius + half + 1
        if cx - reach < 0 or cy - reach < 0 or cx + reach >= rcols or cy + reach >= rrows:
            continue
        peak = _core.ncc_search(limg, rimg, int(lx), int(ly), half, half,
                                cx - radius, cy - radius, cx + radius, cy + radius)
        if peak is None or peak["on_border"] or peak["coefficient"] < s["min_coefficient"]:
            continue
        rx, ry = peak["subpixel_column"] + 0.5, peak["subpixel_row"] + 0.5
        if limg.dtype == np.uint8:
            if square:
                patch, ox, oy = rimg, 0, 0
            else:  # the kernel wants a square right patch: cut one around the peak
                size = 2 * (radius + half) + 8
                ox = min(max(cx - size // 2, 0), rcols - size)
                oy = min(max(cy - size // 2, 0), rrows - size)
                if ox < 0 or oy < 0:
                    continue
                patch = np.ascontiguousarray(rimg[oy:oy + size, ox:ox + size])
            code, rx2, ry2 = _core.lsm_half(limg, patch, int(lx), int(ly), rx - ox, ry - oy,
                                            half, half, s["max_iterations"], s["convergence"],
                                            s["max_shift"])
            if code >= 0:
                continue
            rx, ry = rx2 + ox, ry2 + oy
        found.append((lx + 0.5, ly + 0.5, rx, ry))
    return np.array(found, dtype=np.float64).reshape(-1, 4)


def run_block(block_path, client=None, settings=None, pyramids=True, write=True,
              engine="library"):
    """Pyramids of every image and tie points of every overlapping pair.

    With a ``distributed.Client`` the steps run as tasks on its workers
    (``client.map`` / ``client.submit``); without one they run here, one after
    the other. The driver gathers the results and, with ``write``, appends
    the tie points to the block (ids after the largest id in it, in pair
    order) and saves it. Returns a dict: ``levels`` {image: [(w, h), ...]},
    ``pairs`` [(image id, image id)], ``ties`` [(n, 7) arrays per pair, see
    :func:`match_pair`] and ``tie_ids`` (the ids given, when written).
    """
    block_path = os.fspath(block_path)
    with _core.Block.open(block_path) as block:
        frames = block.images()
    if not frames:
        raise _core.Error("%s: the block holds no images" % block_path)
    images = [f["image"] for f in frames]
    pairs = overlapping_pairs(frames)
    if client is None:
        levels = [build_pyramid(im) for im in images] if pyramids else []
        ties = [match_pair(block_path, i, j, settings, engine) for i, j in pairs]
    else:
        level_futures = client.map(build_pyramid, images, pure=False) if pyramids else []
        tie_futures = [client.submit(match_pair, block_path, i, j, settings, engine, pure=False)
                       for i, j in pairs]
        levels = client.gather(level_futures)
        ties = client.gather(tie_futures)
    result = {
        "levels": dict(zip(images, levels)),
        "pairs": [(frames[i]["id"], frames[j]["id"]) for i, j in pairs],
        "ties": ties,
        "tie_ids": [],
    }
    if write:
        result["tie_ids"] = write_ties(block_path, result["pairs"], ties)
    return result


def write_ties(block_path, pairs, ties):
    """Appends tie points (one ground point with two measurements per match)
    to the block file and saves it; returns the ids given."""
    with _core.Block.open(block_path) as block:
        pts = block.points()
        meas = pts["measurements"]
        n0 = len(pts["id"])
        next_id = int(pts["id"].max()) + 1 if n0 else 1
        ids, xyz, mpoint, mimage, mxy = [], [], [], [], []
        for (a, b), t in zip(pairs, ties):
            for row in t:
                k = n0 + len(ids)
                ids.append(next_id + len(ids))
                xyz.append(row[4:7])
                mpoint += [k, k]
                mimage += [a, b]
                mxy += [row[0:2], row[2:4]]
        if not ids:
            return []
        m = len(ids)
        new = {
            "id": np.concatenate([pts["id"], ids]).astype(np.int32),
            "type": np.concatenate([pts["type"], np.zeros(m, np.int32)]),
            "usage": np.concatenate([pts["usage"], np.full(m, _core.USAGE_TIE, np.int32)]),
            "xyz": np.vstack([pts["xyz"], np.array(xyz).reshape(-1, 3)]),
            "std": np.vstack([pts["std"], np.zeros((m, 3))]),
            "residual": np.vstack([pts["residual"], np.zeros((m, 3))]),
            "description": list(pts["description"]) + [""] * m,
            "measurements": {
                "point": np.concatenate([meas["point"], mpoint]).astype(np.int32),
                "image": np.concatenate([meas["image"], mimage]).astype(np.int32),
                "xy": np.vstack([meas["xy"], np.array(mxy).reshape(-1, 2)]),
                "residual": np.vstack([meas["residual"], np.zeros((2 * m, 2))]),
            },
        }
        block.put_points(new)
        block.save()
    return ids


def main(argv=None):
    """``python3 -m kzdvpholibu.dask_block BLOCK [--scheduler ADDRESS | --workers N]``"""
    import argparse
    import time

    parser = argparse.ArgumentParser(description=main.__doc__)
    parser.add_argument("block")
    parser.add_argument("--scheduler", help="address of a running scheduler, tcp://host:8786")
    parser.add_argument("--workers", type=int, default=0,
                        help="start a local cluster of N single-threaded worker processes")
    parser.add_argument("--no-write", action="store_true", help="leave the block file as it is")
    args = parser.parse_args(argv)
    client = cluster = None
    if args.scheduler or args.workers:
        from distributed import Client, LocalCluster
        if args.scheduler:
            client = Client(args.scheduler)
        else:
            cluster = LocalCluster(n_workers=args.workers, threads_per_worker=1, processes=True)
            client = Client(cluster)
    try:
        start = time.perf_counter()
        result = run_block(args.block, client, write=not args.no_write)
        elapsed = time.perf_counter() - start
    finally:
        if client is not None:
            client.close()
        if cluster is not None:
            cluster.close()
    total = sum(len(t) for t in result["ties"])
    print("%d images, %d pairs, %d tie points in %.2f s"
          % (len(result["levels"]), len(result["pairs"]), total, elapsed))
    return 0


if __name__ == "__main__":
    raise SystemExit(main())

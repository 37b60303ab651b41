"""Block-level helpers built on the compiled core."""

import json
import os
import tempfile

import numpy as np

from . import _core

CONTROL, CHECK, TIE = _core.USAGE_CONTROL, _core.USAGE_CHECK, _core.USAGE_TIE


def triangulation_input(block):
    """The refinement's input from an open block: (images, ground, measured).

    Images are the block's frames with the measurements that are used (both
    coordinates defined, not flagged as blunders); ground holds the control
    and check points; tie points seen in fewer than two images and control
    points seen in none are left out. ``measured`` maps point id to the
    image ids it is measured on.
    """
    frames = block.images()
    pts = block.points()
    meas = pts["measurements"]
    known = {f["id"] for f in frames}
    rays = {}
    for j in np.flatnonzero(meas["used"] & ~meas["gross_error"]):
        k = int(meas["point"][j])
        image = int(meas["image"][j])
        if image not in known:
            raise _core.Error(
                "point %d is measured on image %d, which the block does not hold"
                % (int(pts["id"][k]), image))
        rays.setdefault(k, []).append((image, meas["xy"][j]))
    per_image = {f["id"]: ([], []) for f in frames}
    ground = {"id": [], "type": [], "usage": [], "xyz": [], "std": []}
    measured = {}
    for k, usage in enumerate(pts["usage"]):
        r = rays.get(k, [])
        if usage not in (CONTROL, CHECK, TIE) or not r or (len(r) < 2 and usage != CONTROL):
            continue
        pid = int(pts["id"][k])
        measured[pid] = [image for image, _ in r]
        for image, xy in r:
            per_image[image][0].append(pid)
            per_image[image][1].append(xy)
        if usage == TIE:
            continue
        ground["id"].append(pid)
        ground["type"].append(int(pts["type"][k]))
        ground["usage"].append(int(usage))
        ground["xyz"].append(pts["xyz"][k])
        ground["std"].append(np.where(pts["std"][k] > 0, pts["std"][k], 0.05))
    images = []
    for f in frames:
        ids, xy = per_image[f["id"]]
        images.append(dict(f, point_id=np.array(ids, dtype=np.int32),
                           xy=np.array(xy, dtype=np.float64).reshape(-1, 2)))
    ground = {
        "id": np.array(ground["id"], dtype=np.int32),
        "type": np.array(ground["type"], dtype=np.int32),
        "usage": np.array(ground["usage"], dtype=np.int32),
        "xyz": np.array(ground["xyz"], dtype=np.float64).reshape(-1, 3),
        "std": np.array(ground["std"], dtype=np.float64).reshape(-1, 3),
    }
    return images, ground, measured


def triangulate_block(path, report=None, terms=3, image_std=0.5, parameter_std=0.1,
                      max_iterations=10, save=True):
    """Runs the triangulation refinement of a block file.

    The block's frame cameras orient its images; control points are held
    fixed. With ``save`` and a converged run the block gets the results: tie
    points their refined coordinates, control and check points their ground
    residuals (given minus adjusted), image points their residuals (pixels).
    Returns the result dict of :func:`tri_refine` with ``report`` added and
    ``image_residuals`` ({(point id, image id): (vx, vy)}).
    """
    if report is None:
        report = os.path.splitext(os.fspath(path))[0] + "_triangulation.txt"
    with _core.Block.open(os.fspath(path)) as block:
        images, ground, _ = triangulation_input(block)
        if not np.any(ground["usage"] == CONTROL):
            raise _core.Error("%s: the block has no control point in its images" % path)
        for im in images:
            im["terms"] = terms
            im["parameter_std"] = parameter_std
        xy_units = block.horizontal_units or "meters"
        z_units = block.vertical_units or "meters"
        fd, scratch = tempfile.mkstemp(suffix=".json")
        os.close(fd)
        try:
            result = _core.tri_refine(images, ground, report, json=scratch,
                                      max_iterations=max_iterations, image_std=image_std,
                                      xy_units=xy_units, z_units=z_units)
            with open(scratch, encoding="utf-8") as f:
                results = json.load(f)
        finally:
            os.unlink(scratch)
        residuals = {}
        for p in results.get("points", []):
            for r in p.get("rays", []):
                residuals[(int(p["id"]), int(r["image"]))] = (float(r["vx"]), float(r["vy"]))
        result["report"] = report
        result["image_residuals"] = residuals
        if save and result["converged"]:
            _write_results(block, result, residuals)
            block.save()
    return result


def _write_results(block, result, residuals):
    pts = block.points()
    refined = {int(i): xyz for i, xyz in zip(result["points"]["id"], result["points"]["xyz"])}
    for k, pid in enumerate(pts["id"]):
        q = refined.get(int(pid))
        if q is None:
            continue
        if pts["usage"][k] == TIE:
            pts["xyz"][k] = q
        else:
            pts["residual"][k] = pts["xyz"][k] - q
    meas = pts["measurements"]
    for j, k in enumerate(meas["point"]):
        r = residuals.get((int(pts["id"][k]), int(meas["image"][j])))
        if r is not None:
            meas["residual"][j] = r
    block.put_points(pts)

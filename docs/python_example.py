"""A short tour of the kzdvpholibu Python package.

Usage: python3 docs/python_example.py WORKDIR
(WORKDIR holds the output of `epho demo --workdir WORKDIR`.)
"""
import sys
from pathlib import Path

import numpy as np

import kzdvpholibu as k

work = Path(sys.argv[1])
block_path = str(work / "demo.blk")

# Rotation matrices from angle triples (radians), omega-phi-kappa.
R = k.rotation_matrix(np.radians([[1.0, -2.0, 30.0]]), code=2)
print("rotation matrix determinant:", round(float(np.linalg.det(R[0])), 12))

# The block's frames carry their frame cameras.
with k.Block.open(block_path) as block:
    frames = block.images()
left, right = frames[0], frames[1]
print("images:", [Path(f["image"]).name for f in frames])

# Project a ground point into both photographs and intersect the rays again.
lx, rx = k.CameraXform(left["camera"]), k.CameraXform(right["camera"])
lx.fill()
rx.fill()
with k.Block.open(block_path) as block:
    points = block.points()
ground = points["xyz"][:1].copy()
pl, pr = lx.transform_3d_to_2d(ground), rx.transform_3d_to_2d(ground)
back = k.CameraXform.pair_to_3d(lx, rx, pl, pr)
print("intersection error (m):", float(np.abs(back - ground).max()))

# NCC search of a left window in the right photograph around the prediction.
limg, rimg = k.read_layer(left["image"]), k.read_layer(right["image"])
x, y = int(pl[0, 0]), int(pl[0, 1])
px, py = int(pr[0, 0]), int(pr[0, 1])
if min(x, y, px, py) > 40 and max(x, y, px, py) < limg.shape[0] - 40:
    peak = k.ncc_search(limg, rimg, x, y, 10, 10, px - 8, py - 8, px + 8, py + 8)
    print("NCC peak:", peak and round(peak["coefficient"], 3))

# Errors of the library arrive as kzdvpholibu.Error with its report.
try:
    k.read_camera_file(str(work / "no_such.cam"))
except k.Error as error:
    print("error report:", str(error).splitlines()[0][:60], "...")

# Tie points of every overlapping pair (serially here; pass a
# distributed.Client to run_block to fan the work out), then the refinement.
from kzdvpholibu import dask_block  # noqa: E402

result = dask_block.run_block(block_path)
print("tie points:", sum(len(t) for t in result["ties"]))
refined = k.triangulate_block(block_path)
print("triangulation converged:", refined["converged"], "s0:", round(refined["s0"], 5))

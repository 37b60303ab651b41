#!/usr/bin/python3
"""Writes the interchange samples of this folder from a known scene.

colmap/: a COLMAP text model of five images over a small site, with four
cameras (OPENCV, SIMPLE_RADIAL, PINHOLE, FULL_OPENCV). The 2D points are the
projections of the 3D points by COLMAP's own camera equations, plus a little
measuring noise; ERROR is the mean reprojection error of each point.

project/: a hand-written project of a strip of three vertical photographs
(50 mm lens, 10 micron pixels, radial distortion), measured through the
frame camera's equations, with approximate orientations.

Independent of the library's code on purpose: the tests compare the
library's reading of these files with the numbers written here.
"""
import math
import os
import random

HERE = os.path.dirname(os.path.abspath(__file__))
rnd = random.Random(7)


def quat_to_matrix(q):
    w, x, y, z = q
    n = math.sqrt(w * w + x * x + y * y + z * z)
    w, x, y, z = w / n, x / n, y / n, z / n
    return [[1 - 2 * (y * y + z * z), 2 * (x * y - w * z), 2 * (x * z + w * y)],
            [2 * (x * y + w * z), 1 - 2 * (x * x + z * z), 2 * (y * z - w * x)],
            [2 * (x * z - w * y), 2 * (y * z + w * x), 1 - 2 * (x * x + y * y)]]


def quat_mul(a, b):
    aw, ax, ay, az = a
    bw, bx, by, bz = b
    return [aw * bw - ax * bx - ay * by - az * bz, aw * bx + ax * bw + ay * bz - az * by,
            aw * by - ax * bz + ay * bw + az * bx, aw * bz + ax * by - ay * bx + az * bw]


def axis_angle(axis, angle):
    s = math.sin(angle / 2)
    return [math.cos(angle / 2), axis[0] * s, axis[1] * s, axis[2] * s]


def colmap_project(model, params, q, t, X):
    R = quat_to_matrix(q)
    p = [sum(R[i][j] * X[j] for j in range(3)) + t[i] for i in range(3)]
    u, v = p[0] / p[2], p[1] / p[2]
    k1 = k2 = k3 = k4 = k5 = k6 = p1 = p2 = 0.0
    if model in ("SIMPLE_RADIAL", "RADIAL", "SIMPLE_PINHOLE"):
        fx = fy = params[0]
        cx, cy = params[1], params[2]
        if model != "SIMPLE_PINHOLE":
            k1 = params[3]
        if model == "RADIAL":
            k2 = params[4]
    else:
        fx, fy, cx, cy = params[:4]
        if model in ("OPENCV", "FULL_OPENCV"):
            k1, k2, p1, p2 = params[4:8]
        if model == "FULL_OPENCV":
            k3, k4, k5, k6 = params[8:12]
    r2 = u * u + v * v
    radial = (1 + k1 * r2 + k2 * r2 ** 2 + k3 * r2 ** 3) / (1 + k4 * r2 + k5 * r2 ** 2 + k6 * r2 ** 3)
    du = u * radial + 2 * p1 * u * v + p2 * (r2 + 2 * u * u)
    dv = v * radial + 2 * p2 * u * v + p1 * (r2 + 2 * v * v)
    return fx * du + cx, fy * dv + cy, p[2]


def write_colmap():
    cameras = [
        (1, "OPENCV", 1200, 800, [1010.5, 1012.25, 601.5, 398.75, -0.081, 0.0123, 0.00042, -0.00031]),
        (2, "SIMPLE_RADIAL", 1000, 750, [870.0, 500.25, 375.5, -0.052]),
        (3, "PINHOLE", 1024, 768, [900.0, 905.5, 511.0, 383.0]),
        (4, "FULL_OPENCV", 1200, 900, [950.0, 948.0, 600.5, 450.25, -0.07, 0.011, 0.0003, 0.0002,
                                       -0.0009, 0.0, 0.0, 0.0]),
    ]
    cam = {c[0]: c for c in cameras}
    # Nadir looking cameras (COLMAP's z down the world's -Z) over a 200 m site,
    # 120 m up, a little tilted and turned.
    down = [0.0, 1.0, 0.0, 0.0]  # rotation by pi about x: camera z = world -Z
    images = []
    centres = [(-40, -10, 120), (0, 0, 121), (40, 5, 119), (10, 45, 122), (-20, 40, 118)]
    for k, C in enumerate(centres):
        tilt = quat_mul(axis_angle([1, 0, 0], 0.02 * (k - 2)), axis_angle([0, 1, 0], -0.015 * k))
        q = quat_mul(axis_angle([0, 0, 1], 0.1 * k - 0.15), tilt)
        q = quat_mul(q, down)
        n = math.sqrt(sum(a * a for a in q))
        q = [a / n for a in q]
        if q[0] < 0:
            q = [-a for a in q]
        q = quat_mul(axis_angle([0, 0, 1], 0.0), q)
        R = quat_to_matrix(q)
        # Rows of R: world to camera; t = -R C.
        t = [-sum(R[i][j] * C[j] for j in range(3)) for i in range(3)]
        camera_id = [1, 1, 2, 3, 4][k]
        images.append({"id": k + 1, "q": q, "t": t, "camera": camera_id,
                       "name": "site/IMG_%04d.JPG" % (101 + k), "points": []})
    points = []
    for i in range(24):
        X = [-60 + 120 * rnd.random(), -45 + 110 * rnd.random(), 2 + 6 * rnd.random()]
        X = [round(a, 4) for a in X]
        track = []
        for im in images:
            c = cam[im["camera"]]
            x, y, depth = colmap_project(c[1], c[4], im["q"], im["t"], X)
            if depth > 0 and 5 < x < c[2] - 5 and 5 < y < c[3] - 5:
                x = round(x + rnd.uniform(-0.3, 0.3), 4)
                y = round(y + rnd.uniform(-0.3, 0.3), 4)
                track.append((im, x, y))
        if len(track) < 2:
            continue
        points.append((X, track))
    lines3d = []
    for n, (X, track) in enumerate(points):
        pid = 1 + 3 * n  # ids with gaps, as COLMAP's after filtering
        err = 0.0
        elems = []
        for im, x, y in track:
            c = cam[im["camera"]]
            px, py, _ = colmap_project(c[1], c[4], im["q"], im["t"], X)
            err += math.hypot(px - x, py - y)
            elems.append("%d %d" % (im["id"], len(im["points"])))
            im["points"].append((x, y, pid))
        rgb = [int(80 + 150 * rnd.random()) for _ in range(3)]
        lines3d.append("%d %r %r %r %d %d %d %r %s" % (pid, X[0], X[1], X[2], rgb[0], rgb[1], rgb[2],
                                                      err / len(track), " ".join(elems)))
    folder = os.path.join(HERE, "colmap")
    os.makedirs(folder, exist_ok=True)
    with open(os.path.join(folder, "cameras.txt"), "w") as f:
        f.write("# Camera list with one line of data per camera:\n")
        f.write("#   CAMERA_ID, MODEL, WIDTH, HEIGHT, PARAMS[]\n")
        f.write("# Number of cameras: %d\n" % len(cameras))
        for c in cameras:
            f.write("%d %s %d %d %s\n" % (c[0], c[1], c[2], c[3], " ".join(repr(p) for p in c[4])))
    with open(os.path.join(folder, "images.txt"), "w") as f:
        f.write("# Image list with two lines of data per image:\n")
        f.write("#   IMAGE_ID, QW, QX, QY, QZ, TX, TY, TZ, CAMERA_ID, NAME\n")
        f.write("#   POINTS2D[] as (X, Y, POINT3D_ID)\n")
        f.write("# Number of images: %d\n" % len(images))
        for im in images:
            f.write("%d %s %s %d %s\n" % (im["id"], " ".join(repr(a) for a in im["q"]),
                                          " ".join(repr(a) for a in im["t"]), im["camera"], im["name"]))
            f.write(" ".join("%r %r %d" % p for p in im["points"]) + "\n")
    with open(os.path.join(folder, "points3D.txt"), "w") as f:
        f.write("# 3D point list with one line of data per point:\n")
        f.write("#   POINT3D_ID, X, Y, Z, R, G, B, ERROR, TRACK[] as (IMAGE_ID, POINT2D_IDX)\n")
        f.write("# Number of points: %d\n" % len(points))
        f.write("\n".join(lines3d) + "\n")


def rotation_opk(omega, phi, kappa):
    so, co = math.sin(omega), math.cos(omega)
    sp, cp = math.sin(phi), math.cos(phi)
    sk, ck = math.sin(kappa), math.cos(kappa)
    r0 = [cp * ck, -cp * sk, sp]
    r1 = [co * sk + so * sp * ck, co * ck - so * sp * sk, -so * cp]
    r2 = [r0[1] * r1[2] - r0[2] * r1[1], r0[2] * r1[0] - r0[0] * r1[2], r0[0] * r1[1] - r0[1] * r1[0]]
    return [r0, r1, r2]


def write_project():
    focal, pixel, cols, rows = 50.0, 0.01, 3000, 2000
    x0, y0 = 0.012, -0.008
    k0, k1, k2 = 0.0, -2.5e-5, 1.5e-8
    height, base = 800.0, 200.0

    def terrain(x, y):
        return 50.0 + 15.0 * math.sin(x / 150.0) * math.cos(y / 170.0)

    truth = []
    for i in range(3):
        truth.append({"name": "strip_%d" % (i + 1), "file": "photos/strip_%d.tif" % (i + 1),
                      "C": (i * base, 0.0, height + 5.0 * i),
                      "angles": (0.003 * (i - 1), -0.002 * i, 0.01 * i)})

    def measure(img, X):
        R = rotation_opk(*img["angles"])
        d = [X[k] - img["C"][k] for k in range(3)]
        u, v, w = [sum(R[j][k] * d[j] for j in range(3)) for k in range(3)]
        x, y = -focal * u / w, -focal * v / w
        r2 = x * x + y * y
        f = k0 + k1 * r2 + k2 * r2 * r2
        x, y = x + x * f, y + y * f
        col = (x + cols * pixel / 2 + x0) / pixel
        row = (rows * pixel / 2 - y0 - y) / pixel
        return col, row

    folder = os.path.join(HERE, "project")
    os.makedirs(folder, exist_ok=True)
    control, meas = [], []
    pid = 100
    for gi in range(5):
        for gj in range(9):
            x, y = -150 + 62.5 * gj + 4.0 * gi, -130 + 65.0 * gi
            z = terrain(x, y)
            seen = []
            for img in truth:
                c, r = measure(img, (x, y, z))
                if 10 < c < cols - 10 and 10 < r < rows - 10:
                    seen.append((img, c, r))
            if len(seen) < 2:
                continue
            pid += 1
            usage = "control" if (gi % 2 == 0 and gj % 3 == 0) else "check" if (gi == 3 and gj % 4 == 2) else None
            if usage:
                control.append("%d %.3f %.3f %.3f %s%s" % (pid, x, y, z, usage,
                                                            " 0.02" if usage == "control" else ""))
            for img, c, r in seen:
                meas.append("%s %d %.3f %.3f" % (img["name"], pid, c, r))
    with open(os.path.join(folder, "camera.cam"), "w") as f:
        f.write("OVT Camera File Version: 2.0\nCamera Name: \"survey 50\"\n"
                "Camera Description: \"50 mm lens, 30 x 20 mm sensor\"\n\n"
                "Focal Length [mm]: %g\nPrincipal Point:\n\tx0 [mm]: %g\n\ty0 [mm]: %g\n\n"
                "Fiducial Coordinates:\n\tNumber of Fiducials: 0\n\n"
                "Radial Distortion Observations:\n\tType: \"Radial Distance\"\n"
                "\tNumber of Observations: 0\n\n"
                "Radial Lens Distortion Coefficients:\n\tk0: %g\n\tk1: %g\n\tk2: %g\n\n"
                "Extended Parameters:\n\tType: \"NONE\"\n" % (focal, x0, y0, k0, k1, k2))
    with open(os.path.join(folder, "project.txt"), "w") as f:
        f.write("# A strip of three vertical photographs over rolling terrain.\n"
                "camera        camera.cam\n"
                "image_size    %d %d        # columns rows\n"
                "pixel_size    %g           # mm\n"
                "angles        degrees\n"
                "images        images.txt\n"
                "control       control.txt\n"
                "measurements  measurements.txt\n" % (cols, rows, pixel))
    with open(os.path.join(folder, "images.txt"), "w") as f:
        f.write("# name   file   X Y Z (m)   omega phi kappa (degrees): approximate\n")
        for n, img in enumerate(truth):
            C = img["C"]
            a = [math.degrees(v) for v in img["angles"]]
            dC = [(1.5, -1.0, 0.8), (-1.0, 2.0, -0.5), (0.5, 1.0, 1.2)][n]
            da = [(0.02, -0.01, 0.03), (-0.015, 0.02, -0.02), (0.01, 0.015, 0.025)][n]
            f.write("%s %s %.3f %.3f %.3f %.4f %.4f %.4f\n" % (
                img["name"], img["file"], C[0] + dC[0], C[1] + dC[1], C[2] + dC[2],
                a[0] + da[0], a[1] + da[1], a[2] + da[2]))
    with open(os.path.join(folder, "control.txt"), "w") as f:
        f.write("# id   X Y Z (m)   usage   [standard deviation, m]\n")
        f.write("\n".join(control) + "\n")
    with open(os.path.join(folder, "measurements.txt"), "w") as f:
        f.write("# image   point   x y (file pixels, upper-left corner at 0 0)\n")
        f.write("\n".join(meas) + "\n")
    with open(os.path.join(folder, "truth.txt"), "w") as f:
        f.write("# true orientation of each photograph: name X Y Z omega phi kappa (radians)\n")
        for img in truth:
            f.write("%s %r %r %r %r %r %r\n" % ((img["name"],) + img["C"] + img["angles"]))


if __name__ == "__main__":
    write_colmap()
    write_project()

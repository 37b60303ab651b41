"""Pyramids of a set of images: serial against a local Dask cluster.

Prints the time of each, the speed-up (target: 1.6x on two workers for 8
images of 8000 x 8000, the size of the pyramid bench), whether both runs
made identical levels, and the machine's load average (the speed-up means
little on a busy machine).

Usage: dask_bench.py [--images 8] [--size 8000] [--workers 2] [--rounds 3] [--workdir DIR]
(the package must be importable: PYTHONPATH=build/python)
"""
import argparse
import importlib
import os
import shutil
import subprocess
import tempfile
import time

import numpy as np

import kzdvpholibu as k
from kzdvpholibu import dask_block


def make_image(path, size, seed):
    rng = np.random.default_rng(seed)
    raw = path + ".raw"
    rng.integers(0, 256, size=(size, size), dtype=np.uint8).tofile(raw)
    vrt = path + ".vrt"
    with open(vrt, "w") as f:
        f.write('<VRTDataset rasterXSize="%d" rasterYSize="%d"><VRTRasterBand dataType="Byte" '
                'band="1" subClass="VRTRawRasterBand"><SourceFilename relativetoVRT="1">%s'
                '</SourceFilename><ImageOffset>0</ImageOffset><PixelOffset>1</PixelOffset>'
                '<LineOffset>%d</LineOffset></VRTRasterBand></VRTDataset>'
                % (size, size, os.path.basename(raw), size))
    subprocess.run(["gdal_translate", "-q", "-of", "GTiff", "-co", "TILED=YES", vrt, path],
                   check=True)
    os.unlink(raw)
    os.unlink(vrt)


def warm_up(path):
    """Registers GDAL's drivers in the calling process (its first image open)."""
    import kzdvpholibu
    return kzdvpholibu.layer_info(path)["levels"]


def digest(paths):
    out = []
    for p in paths:
        info = k.layer_info(p)
        out.append((info["level_sizes"],
                    [int(k.read_layer(p, lv).astype(np.int64).sum())
                     for lv in range(1, info["levels"] + 1)]))
    return out


def main():
    ap = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    ap.add_argument("--images", type=int, default=8)
    ap.add_argument("--size", type=int, default=8000)
    ap.add_argument("--workers", type=int, default=2)
    ap.add_argument("--rounds", type=int, default=3)
    ap.add_argument("--workdir")
    args = ap.parse_args()
    import dask
    from distributed import Client, LocalCluster

    # Dask starts its workers with MALLOC_TRIM_THRESHOLD_=65536, so that they
    # hand freed memory back to the system at once; GDAL's block cache frees
    # and takes memory all the time, and the workers would fault it in again
    # and again. The serial run has the C library's default policy, and so
    # do the workers here: the speed-up compares the same work under the same
    # allocator.
    environ = dict(dask.config.get("distributed.nanny.pre-spawn-environ", {}))
    environ.pop("MALLOC_TRIM_THRESHOLD_", None)
    dask.config.set({"distributed.nanny.pre-spawn-environ": environ})

    work = args.workdir or tempfile.mkdtemp(prefix="dask_bench_")
    try:
        source = os.path.join(work, "source.tif")
        make_image(source, args.size, 1)
        serial = [os.path.join(work, "serial_%d.tif" % i) for i in range(args.images)]
        parallel = [os.path.join(work, "parallel_%d.tif" % i) for i in range(args.images)]
        for p in serial + parallel:
            shutil.copy(source, p)
        # Both runs start alike: the copies on disk (no write-back of them
        # competing with the runs' own flushes) and GDAL's drivers registered
        # in every process that works.
        os.sync()
        warm_up(source)
        load_before = os.getloadavg()
        # Best of a few rounds for each side, alternating, as the other
        # benches do: a round lasts a fraction of a second, and one flush of
        # another process to the shared disk shows in it. Each round rebuilds
        # the same levels (the old ones are replaced).
        t_serial = t_parallel = float("inf")
        with LocalCluster(n_workers=args.workers, threads_per_worker=1, processes=True,
                          dashboard_address=None) as cluster, Client(cluster) as client:
            client.wait_for_workers(args.workers)
            client.run(importlib.import_module, "kzdvpholibu.dask_block")  # imported everywhere
            client.run(warm_up, source)
            for _ in range(args.rounds):
                os.sync()
                start = time.perf_counter()
                for p in serial:
                    dask_block.build_pyramid(p)
                t_serial = min(t_serial, time.perf_counter() - start)
                os.sync()
                start = time.perf_counter()
                client.gather(client.map(dask_block.build_pyramid, parallel, pure=False))
                t_parallel = min(t_parallel, time.perf_counter() - start)
        load_after = os.getloadavg()
        same = digest(serial) == digest(parallel)
        speedup = t_serial / t_parallel
        print("pyramids of %d images of %d x %d, best of %d rounds"
              % (args.images, args.size, args.size, args.rounds))
        print("serial %.2f s, %d Dask workers %.2f s, speed-up %.2fx (target 1.6x on 2 workers: %s)"
              % (t_serial, args.workers, t_parallel, speedup,
                 "met" if speedup >= 1.6 else "not met"))
        print("levels identical: %s" % ("yes" if same else "NO"))
        print("load average before %.2f, after %.2f (%d cores)"
              % (load_before[0], load_after[0], os.cpu_count()))
        return 0 if same else 1
    finally:
        if not args.workdir:
            shutil.rmtree(work, ignore_errors=True)


if __name__ == "__main__":
    raise SystemExit(main())

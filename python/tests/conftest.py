import os
import shutil
import subprocess
from pathlib import Path

import numpy as np
import pytest

SOURCE = Path(os.environ.get("EPHO_SOURCE_DIR", Path(__file__).resolve().parents[2]))
TOOL = os.environ.get("EPHO_TOOL", str(SOURCE / "build" / "epho"))


@pytest.fixture(scope="session")
def demo_dir(tmp_path_factory):
    """The epho demo's photographs, cameras and block, made once a session."""
    work = tmp_path_factory.mktemp("demo")
    subprocess.run([TOOL, "demo", "--workdir", str(work)], check=True,
                   stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
    return work


@pytest.fixture
def demo_copy(demo_dir, tmp_path):
    """A private copy of the demo's block and photographs: the copied block's
    frames name the copied photographs (the cameras keep pointing at the
    session's DEM, which nobody changes)."""
    import kzdvpholibu as k

    for name in os.listdir(demo_dir):
        if name.endswith((".blk", ".tif", ".txt")):
            shutil.copy(demo_dir / name, tmp_path / name)
    with k.Block.open(str(tmp_path / "demo.blk")) as b:
        frames = b.images()
        for f in frames:
            f["image"] = str(tmp_path / os.path.basename(f["image"]))
        b.put_images(frames)
        b.save()
    return tmp_path


def write_geotiff(path, array):
    """A GeoTIFF of a 2-D array (through a raw file and gdal_translate)."""
    path = Path(path)
    raw = path.with_suffix(".raw")
    array = np.ascontiguousarray(array)
    array.tofile(raw)
    kind = {np.dtype(np.uint8): "byte", np.dtype(np.uint16): "uint16",
            np.dtype(np.float32): "float32"}[array.dtype]
    vrt = path.with_suffix(".vrt")
    gdal_type = {"byte": "Byte", "uint16": "UInt16", "float32": "Float32"}[kind]
    vrt.write_text(
        '<VRTDataset rasterXSize="%d" rasterYSize="%d"><VRTRasterBand dataType="%s" band="1" '
        'subClass="VRTRawRasterBand"><SourceFilename relativetoVRT="1">%s</SourceFilename>'
        '<ImageOffset>0</ImageOffset><PixelOffset>%d</PixelOffset><LineOffset>%d</LineOffset>'
        '<ByteOrder>LSB</ByteOrder></VRTRasterBand></VRTDataset>'
        % (array.shape[1], array.shape[0], gdal_type, raw.name, array.itemsize,
           array.itemsize * array.shape[1]))
    subprocess.run(["gdal_translate", "-q", "-of", "GTiff", str(vrt), str(path)], check=True)
    raw.unlink()
    vrt.unlink()
    return str(path)


def texture(shape, seed=1, smooth=2):
    """Random texture with correlation over a few pixels (matchable)."""
    rng = np.random.default_rng(seed)
    a = rng.random((shape[0] + 8, shape[1] + 8))
    for _ in range(smooth):
        a = (a[:-2, :-2] + a[1:-1, :-2] + a[2:, :-2] + a[:-2, 1:-1] + a[1:-1, 1:-1]
             + a[2:, 1:-1] + a[:-2, 2:] + a[1:-1, 2:] + a[2:, 2:]) / 9
    a = a[: shape[0], : shape[1]]
    return (255 * (a - a.min()) / (a.max() - a.min())).astype(np.float64)

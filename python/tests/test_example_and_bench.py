import os
import subprocess
import sys

import kzdvpholibu
from conftest import SOURCE


def run(args, cwd):
    env = dict(os.environ)
    env["PYTHONPATH"] = os.path.dirname(os.path.dirname(os.path.abspath(kzdvpholibu.__file__)))
    return subprocess.run([sys.executable] + args, cwd=cwd, env=env, check=True,
                          capture_output=True, text=True).stdout


def test_documented_example_runs(demo_copy):
    out = run([str(SOURCE / "docs" / "python_example.py"), str(demo_copy)], demo_copy)
    assert "triangulation converged: True" in out
    assert "intersection error (m): " in out
    err = float(out.split("intersection error (m): ")[1].split()[0])
    assert err < 0.05
    assert "error report:" in out


def test_dask_bench_runs_small(tmp_path):
    out = run([str(SOURCE / "bench" / "dask_bench.py"), "--images", "2", "--size", "600",
               "--workers", "2", "--workdir", str(tmp_path)], tmp_path)
    assert "speed-up" in out and "levels identical: yes" in out

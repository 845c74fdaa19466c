"""`pip install --no-build-isolation .` through the project's own build
backend, into a scratch virtual environment: the module, its stubs and the
libraries it loads land in the environment, and it works from there."""
import os
import subprocess
import sys

import pytest

from conftest import BUILD_DIR, GOLDEN, SOURCE_DIR

CHECK = """
import json, sys, trdcomp
loaded = [line.split()[-1] for line in open("/proc/self/maps") if "libtrdcomp.so" in line]
wire = open(sys.argv[1], "rb").read()
print(json.dumps({"module": trdcomp.__file__, "library": loaded[0], "hash": trdcomp.catalogue_hash(),
                  "records": [len(a) for a in trdcomp.records(wire)],
                  "messages": [m.function_id for m in trdcomp.messages(wire * 2)]}))
"""


def test_pip_installs_the_module_into_a_virtual_environment(tmp_path):
    pytest.importorskip("pip")
    venv = tmp_path / "venv"
    subprocess.run([sys.executable, "-m", "venv", "--system-site-packages", "--without-pip", venv], check=True)
    python = venv / "bin" / "python"
    # The build tree of this test run is the backend's: nothing is built again.
    env = {**os.environ, "TRDCOMP_BUILD_DIR": str(BUILD_DIR), "PIP_NO_INDEX": "1", "PIP_DISABLE_PIP_VERSION_CHECK": "1"}
    env.pop("PYTHONPATH", None)
    done = subprocess.run([python, "-m", "pip", "install", "--no-build-isolation", "--no-deps", SOURCE_DIR],
                          env=env, capture_output=True, text=True)
    assert done.returncode == 0, done.stdout + done.stderr
    site = next((venv / "lib").glob("python3*/site-packages"))
    assert sorted(p.name.split(".")[0] for p in site.glob("trdcomp*") if not p.name.endswith("-info")) == ["trdcomp", "trdcomp"]
    assert (site / "trdcomp.pyi").read_text() == (SOURCE_DIR / "python" / "trdcomp.pyi").read_text()
    scratch = tmp_path / "scratch"
    scratch.mkdir()
    env.pop("LD_LIBRARY_PATH", None)
    result = subprocess.run([python, "-c", CHECK, GOLDEN / "ans_1002_2008.wire"], cwd=scratch, env=env,
                            capture_output=True, text=True)
    assert result.returncode == 0, result.stderr
    import json
    import trdcomp
    got = json.loads(result.stdout)
    assert got["module"].startswith(str(site)) and got["library"].startswith(str(venv / "lib"))
    assert got["hash"] == trdcomp.catalogue_hash()
    assert got["records"] == [len(a) for a in trdcomp.records((GOLDEN / "ans_1002_2008.wire").read_bytes())]
    assert got["messages"] == [1002, 1002]
    # pip uninstall takes everything it put there.
    subprocess.run([python, "-m", "pip", "uninstall", "-y", "trdcomp"], env=env, check=True, capture_output=True)
    assert not list(site.glob("trdcomp*")) and not list((venv / "lib").glob("libtrdcomp*"))

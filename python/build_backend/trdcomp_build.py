"""The build backend of `pip install .`: the project's own CMake build.

It configures a build tree (build/pip in the source tree unless the
config setting `build-dir` or the environment's TRDCOMP_BUILD_DIR names
another, already configured one), builds the Python module and the shared
libraries it loads, installs the `python` and `runtime` components into a
staging folder and packs them as a wheel: the module and its type stubs at
the top of site-packages, the libraries as the wheel's data under
`<prefix>/lib`, where the module looks for them as the Debian package's
does (its run path is `$ORIGIN/../../../lib`). So pip installs the module
the Debian package holds, in a virtual environment, a --user or a --prefix
install alike.

Nothing is downloaded: CMake, a C++20 compiler, pybind11, the Python
headers, NumPy and the tool's libraries (CLI11, nlohmann-json) come from the
system (README.md names the Debian packages); use --no-build-isolation.
"""
import base64
import csv
import hashlib
import io
import os
import pathlib
import re
import subprocess
import sys
import sysconfig
import tempfile
import zipfile

SOURCE = pathlib.Path(__file__).resolve().parents[2]
NAME = "trdcomp"
SUMMARY = "Message codec for trading front ends and their servers: restore, pack and inspect messages"


def _version():
    text = (SOURCE / "CMakeLists.txt").read_text()
    match = re.search(r"project\(trdcomp VERSION ([0-9.]+)", text)
    if not match:
        raise RuntimeError("CMakeLists.txt names no project version")
    return match.group(1)


def _tag():
    """cp311-cp311-linux_x86_64: the interpreter this module is built for."""
    python = f"cp{sys.version_info.major}{sys.version_info.minor}"
    platform = sysconfig.get_platform().replace("-", "_").replace(".", "_")
    return f"{python}-{python}-{platform}"


def _run(*args):
    print("+", " ".join(str(a) for a in args), file=sys.stderr, flush=True)
    subprocess.run([str(a) for a in args], check=True, stdout=sys.stderr)


def _build_dir(config_settings):
    given = (config_settings or {}).get("build-dir") or os.environ.get("TRDCOMP_BUILD_DIR")
    return pathlib.Path(given).resolve() if given else SOURCE / "build" / "pip"


def _build(config_settings, stage):
    build = _build_dir(config_settings)
    if not (build / "CMakeCache.txt").exists():
        _run("cmake", "-S", SOURCE, "-B", build, "-DCMAKE_BUILD_TYPE=Release", "-DTRDCOMP_BUILD_TESTS=OFF",
             "-DTRDCOMP_BUILD_EXAMPLES=OFF", "-DTRDCOMP_BUILD_BENCH=OFF", f"-DPython_EXECUTABLE={sys.executable}")
    jobs = os.environ.get("CMAKE_BUILD_PARALLEL_LEVEL", "2")
    _run("cmake", "--build", build, "--target", "trdcomp_python", "--parallel", jobs)
    for component in ("python", "runtime"):
        _run("cmake", "--install", build, "--component", component, "--prefix", stage)
    modules = list((stage / "lib" / "python3" / "dist-packages").glob("trdcomp*.so"))
    if not modules:
        raise RuntimeError(f"{build} built no Python module: CMake did not find pybind11, the Python headers or NumPy "
                           f"for {sys.executable} (Debian: apt-get install pybind11-dev python3-dev python3-numpy)")


def _metadata():
    return (f"Metadata-Version: 2.1\nName: {NAME}\nVersion: {_version()}\nSummary: {SUMMARY}\n"
            "Requires-Python: >=3.9\nRequires-Dist: numpy\nProvides-Extra: pandas\n"
            "Requires-Dist: pandas ; extra == 'pandas'\nLicense-File: LICENSE\n")


def _dist_info(directory):
    info = pathlib.Path(directory) / f"{NAME}-{_version()}.dist-info"
    info.mkdir(parents=True, exist_ok=True)
    (info / "METADATA").write_text(_metadata())
    return info.name


class _Wheel:
    def __init__(self, path):
        self.zip = zipfile.ZipFile(path, "w", compression=zipfile.ZIP_DEFLATED)
        self.records = []

    def add(self, name, data, mode=0o644):
        info = zipfile.ZipInfo(name, date_time=(2020, 1, 1, 0, 0, 0))
        info.external_attr = (mode | 0o100000) << 16
        info.compress_type = zipfile.ZIP_DEFLATED
        self.zip.writestr(info, data)
        digest = base64.urlsafe_b64encode(hashlib.sha256(data).digest()).rstrip(b"=").decode()
        self.records.append((name, f"sha256={digest}", str(len(data))))

    def close(self, record_name):
        text = io.StringIO()
        writer = csv.writer(text, lineterminator="\n")
        writer.writerows(self.records)
        writer.writerow((record_name, "", ""))
        self.zip.writestr(zipfile.ZipInfo(record_name, date_time=(2020, 1, 1, 0, 0, 0)), text.getvalue())
        self.zip.close()


# ---- the hooks of PEP 517 ----

def get_requires_for_build_wheel(config_settings=None):
    return []


def prepare_metadata_for_build_wheel(metadata_directory, config_settings=None):
    return _dist_info(metadata_directory)


def build_wheel(wheel_directory, config_settings=None, metadata_directory=None):
    version = _version()
    name = f"{NAME}-{version}-{_tag()}.whl"
    with tempfile.TemporaryDirectory() as scratch:
        stage = pathlib.Path(scratch)
        _build(config_settings, stage)
        wheel = _Wheel(pathlib.Path(wheel_directory) / name)
        for path in sorted((stage / "lib" / "python3" / "dist-packages").iterdir()):
            wheel.add(path.name, path.read_bytes(), 0o755 if path.suffix == ".so" else 0o644)
        # The libraries by the names the loader asks for (their sonames), no links.
        for path in sorted((stage / "lib").glob("lib*.so.*")):
            if re.fullmatch(r"lib\w+\.so\.\d+", path.name):
                wheel.add(f"{NAME}-{version}.data/data/lib/{path.name}", path.resolve().read_bytes(), 0o755)
        info = f"{NAME}-{version}.dist-info"
        wheel.add(f"{info}/METADATA", _metadata().encode())
        wheel.add(f"{info}/WHEEL", (f"Wheel-Version: 1.0\nGenerator: trdcomp_build\nRoot-Is-Purelib: false\n"
                                    f"Tag: {_tag()}\n").encode())
        wheel.add(f"{info}/top_level.txt", f"{NAME}\n".encode())
        wheel.add(f"{info}/LICENSE", (SOURCE / "LICENSE").read_bytes())
        wheel.close(f"{info}/RECORD")
    return name

"""Shared inputs of the Python module's tests, handed over by ctest.

TRDCOMP_GOLDEN_DIR  the golden corpus (NAME.wire, NAME.restored)
TRDCOMP_TOOL        the trdcomp tool of the same build
TRDCOMP_GENERATOR   trdcomp_catalogue_gen of the same build
TRDCOMP_SOURCE_DIR  the source tree (catalogue/ and its generator)
TRDCOMP_BUILD_DIR   the build tree of the module (pip's build backend uses it again)
CXX                 the C++ compiler of the build
"""
import os
import pathlib

import pytest


def _path(name):
    value = os.environ.get(name)
    if not value:
        pytest.fail(f"{name} is not set: run these tests through ctest")
    return pathlib.Path(value)


GOLDEN = _path("TRDCOMP_GOLDEN_DIR")
WIRES = sorted(GOLDEN.glob("*.wire"))
TOOL = _path("TRDCOMP_TOOL")
GENERATOR = _path("TRDCOMP_GENERATOR")
SOURCE_DIR = _path("TRDCOMP_SOURCE_DIR")
BUILD_DIR = _path("TRDCOMP_BUILD_DIR")


def golden(name):
    return (GOLDEN / name).read_bytes()


# The capture writer the examples and the benchmark share.
import sys  # noqa: E402

sys.path.insert(0, str(SOURCE_DIR / "examples" / "python"))

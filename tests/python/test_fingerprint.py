"""The version and the catalogue fingerprint: tool, library, module and
generator agree, and the fingerprint follows the catalogue's content, not
its spelling."""
import os
import shutil
import subprocess

import trdcomp

from conftest import GENERATOR, SOURCE_DIR, TOOL


def run(*args, stdin=None):
    return subprocess.run(args, check=True, capture_output=True, text=True, input=stdin).stdout


def fnv1a64(text):
    h = 0xCBF29CE484222325
    for byte in text.encode():
        h = ((h ^ byte) * 0x100000001B3) & 0xFFFFFFFFFFFFFFFF
    return f"{h:016x}"


def canonical_of(tmp_path, name, old, new):
    """The canonical text of the catalogue with `old` replaced by `new` in
    the file `name`, from the generator compiled over the edited copy."""
    catalogue = tmp_path / "catalogue"
    shutil.copytree(SOURCE_DIR / "catalogue", catalogue, ignore=shutil.ignore_patterns("model", "*.md"))
    text = (catalogue / name).read_text()
    assert old in text, f"{name} has no {old!r}"
    (catalogue / name).write_text(text.replace(old, new, 1))
    exe = tmp_path / "gen"
    subprocess.run([os.environ.get("CXX", "c++"), "-std=c++20", "-O0", "-I", catalogue,
                    *sorted((catalogue / "gen").glob("*.cpp")), "-o", exe], check=True)
    return run(exe, "--canonical")


def test_the_fingerprint_is_the_catalogues_and_follows_its_content(tmp_path):
    # Tool, library, module and generator give one fingerprint: FNV-1a of the canonical text.
    original, h = run(GENERATOR, "--canonical"), trdcomp.catalogue_hash()
    assert fnv1a64(original) == h == trdcomp.catalogue()["hash"] == run(TOOL, "catalogue", "--hash").strip()
    assert run(GENERATOR, "--hash", stdin=original).strip() == h
    assert run(TOOL, "--version").strip() == f"trdcomp {trdcomp.__version__}, library {trdcomp.__version__}, catalogue {h}"
    cases = [  # what changes, the file, the text before and after, whether the fingerprint stays
        ("spacing and comments", "request_layouts.def", "TRD_TEXT(3, 32)", "// a note\nTRD_TEXT( 3,\n   32 )", True),
        ("a field's width", "request_layouts.def", "TRD_TEXT(59, 24)\nTRD_END(REQ_1002)",
         "TRD_TEXT(59, 25)\nTRD_END(REQ_1002)", False),
        ("a text's limit", "request_layouts.def", "TRD_TEXT_LIMIT(243, 28, 36)", "TRD_TEXT_LIMIT(243, 28, 35)", False),
        ("a route", "request_routes.def", "TRD_ROUTE(1003, 1003, 1003, 1003, 1003)",
         "TRD_ROUTE(1003, 1003, RAW, 1003, 1003)", False),
    ]
    for what, name, old, new, same in cases:
        changed = canonical_of(tmp_path / what.replace(" ", "_"), name, old, new)
        assert (fnv1a64(changed) == fnv1a64(original)) == same, what
        if not same:  # exactly the edited line differs
            lines, before = changed.splitlines(), original.splitlines()
            assert len(lines) == len(before), what
            assert sum(a != b for a, b in zip(lines, before)) == 1, what

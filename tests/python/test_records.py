"""records and dtype: the arrays hold exactly the records the library
restored, under the names and offsets of the catalogue (and so of
TrdCompRecords.h, which the same generator writes)."""
import numpy as np
import pytest
import trdcomp

from conftest import WIRES


def test_record_arrays_hold_the_restored_bytes():
    # The records end the restored buffer, section after section.
    for path in WIRES:
        wire = path.read_bytes()
        arrays, sections = trdcomp.records(wire), trdcomp.decode(wire)["sections"]
        assert [(a.shape, a.dtype.itemsize) for a in arrays] == \
            [((max(s["count"], 0),), s["size"]) for s in sections], path.name
        restored = path.with_suffix(".restored").read_bytes()
        assert restored.endswith(b"".join(a.tobytes() for a in arrays)), path.name


def field_dtype(field):
    """A field's dtype as docs/python.md states it."""
    kind, width = field["kind"], field["width"]
    if kind in ("char", "text", "ascii"):
        return np.dtype(f"S{width}")
    if kind in ("int32", "int64", "double"):
        return np.dtype({"int32": "<i4", "int64": "<i8", "double": "<f8"}[kind])
    if kind == "array":
        return np.dtype((trdcomp.dtype(field["entry"]), (field["entries"],)))
    return np.dtype(("u1", (width,))) if width > 1 else np.dtype("u1")


def test_dtypes_follow_the_catalogue():
    for name, layout in trdcomp.catalogue()["layouts"].items():
        dtype = trdcomp.dtype(name)
        assert dtype.itemsize == layout["size"], name
        assert list(dtype.names) == [f"f{o}" for o in sorted(dtype.fields[n][1] for n in dtype.names)], name
        for field in layout["fields"]:
            assert dtype.fields[field["name"]][0] == field_dtype(field), f"{name}.{field['name']}"
            assert dtype.fields[field["name"]][1] == field["offset"], f"{name}.{field['name']}"
            if field["kind"] == "sized":  # its length behind it
                assert dtype.fields[f"f{field['offset'] + field['width']}"][0] == np.dtype("<i4"), name


def test_unknown_layout_raises():
    with pytest.raises(ValueError, match="no record layout named REQ_9"):
        trdcomp.dtype("REQ_9")


def test_raw_records_come_as_opaque_records():
    # id 1022 has no codec: a raw request of two 5-byte records.
    head = (76).to_bytes(4, "little") + (1022).to_bytes(4, "little") + bytes(60) \
        + (2).to_bytes(4, "little") + (5).to_bytes(4, "little")
    wire = head + b"abcdefghij"
    [array] = trdcomp.records(wire)
    [section] = trdcomp.decode(wire)["sections"]
    assert array.dtype == np.dtype("V5") and section["layout"] is None
    assert [r.tobytes() for r in array] == [b"abcde", b"fghij"]
    assert [r.tobytes().hex() for r in array] == section["records"]

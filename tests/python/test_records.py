"""records and dtype: the arrays hold exactly the records the library
restored, under the names and offsets of TrdCompRecords.h."""
import re

import numpy as np
import pytest
import trdcomp

from conftest import GENERATED, WIRES, golden, word


def restored_sections(restored):
    """(count, size, bytes) of every record array of a restored message,
    read from its head and section table."""
    if word(restored, 0) == 76:
        count, size = word(restored, 68), word(restored, 72)
        return [(count, size, restored[76:76 + max(count, 0) * size])]
    if not word(restored, 8) & 2:
        count, size = word(restored, 88), word(restored, 92)
        return [(count, size, restored[96:96 + max(count, 0) * size])]
    table = word(restored, 96)
    at = 96 + table
    sections = []
    for j in range((table - 4) // 8):
        count, size = word(restored, 100 + 8 * j), word(restored, 104 + 8 * j)
        n = max(count, 0) * size
        sections.append((count, size, restored[at:at + n]))
        at += n
    return sections


def test_record_arrays_hold_the_restored_bytes():
    for path in WIRES:
        arrays = trdcomp.records(path.read_bytes())
        expected = restored_sections(path.with_suffix(".restored").read_bytes())
        assert len(arrays) == len(expected), path.name
        for array, (count, size, data) in zip(arrays, expected):
            assert array.shape == (max(count, 0),), path.name
            assert array.dtype.itemsize == size, path.name
            assert array.tobytes() == data, path.name


def test_a_large_message_becomes_one_array():
    # 20000 records of request 1002 through encode, back as one array.
    record = {"f0": "B", "f1": 11, "f2": "x", "f3": "ABC", "f35": "HELLO", "f59": ""}
    message = {"direction": "request", "coding": "fast", "head": {"nFuncId": 1002},
               "sections": [{"layout": "REQ_1002", "size": 83, "records": [record] * 20000}]}
    [array] = trdcomp.records(trdcomp.encode(message))
    assert array.shape == (20000,) and array.dtype == trdcomp.dtype("REQ_1002")
    assert (array["f3"] == b"ABC").all() and (array["f1"] == b"\x0b").all()


def header_structs(text):
    """{layout: (size, [field names])} from TrdCompRecords.h."""
    structs = {}
    for name, body in re.findall(r"struct tag(\w+) \{\n(.*?)\n\};", text, re.S):
        fields = re.findall(r"^\s+[\w ]+? (f\d+)(?:\[\d+\])?;", body, re.M)
        structs[name] = fields
    sizes = dict(re.findall(r"TRDCOMP_RECORD_SIZE\(tag(\w+), (\d+)\)", text))
    return {name: (int(sizes[name]), fields) for name, fields in structs.items()}


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


def test_dtypes_follow_the_generated_record_types():
    structs = header_structs((GENERATED / "trdcomp" / "TrdCompRecords.h").read_text())
    layouts = trdcomp.catalogue()["layouts"]
    assert structs.keys() == layouts.keys()
    for name, (size, fields) in structs.items():
        dtype = trdcomp.dtype(name)
        assert dtype.itemsize == size == layouts[name]["size"], name
        assert list(dtype.names) == fields, name
        for field in fields:
            assert dtype.fields[field][1] == int(field[1:]), f"{name}.{field}"
        for field in layouts[name]["fields"]:
            assert dtype.fields[field["name"]][0] == field_dtype(field), f"{name}.{field['name']}"
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

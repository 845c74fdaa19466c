"""decode and encode: the tool's JSON, every golden message packed back,
bad input refused with the reason."""
import json
import subprocess

import pytest
import trdcomp

from conftest import TOOL, WIRES, golden


def content(message):
    return {k: v for k, v in message.items() if k != "bytes"}


@pytest.mark.parametrize("name", ["req_1002_2008", "req_1002_fast", "ans_1001_2008", "ans_1053_fast", "ans_1010_fast_n2"])
def test_decode_gives_what_the_tool_prints(name):
    path = WIRES[0].parent / f"{name}.wire"
    printed = subprocess.run([TOOL, "decode", "--json", path], check=True, capture_output=True).stdout
    message = trdcomp.decode(path.read_bytes())
    assert message == json.loads(printed)
    assert trdcomp.decode(bytearray(path.read_bytes())) == trdcomp.decode(memoryview(path.read_bytes())) == message


def test_every_golden_message_decodes_and_encodes_back():
    for path in WIRES:
        wire = path.read_bytes()
        message = trdcomp.decode(wire)
        assert message["bytes"] == len(wire), path.name
        # Only a Fast text that filled its field loses its last character:
        # the message packs to one that restores identically.
        again = trdcomp.encode(message)
        lossy = message["coding"].startswith("fast") and content(trdcomp.decode(again)) == content(message)
        assert again == wire or lossy, path.name


BAD_MESSAGES = [
    (b"", "no head"),
    (b"\x4c\x00", "no head"),
    (b"not a message at all", "head word 0"),
    (golden("ans_1110_2008.wire")[:100], "refused"),
    (golden("req_1002_2008.wire")[:80], "refused"),
    (golden("ans_1001_fast.wire")[:97], "refused"),
]


@pytest.mark.parametrize("strict", [False, True])
@pytest.mark.parametrize("data,reason", BAD_MESSAGES)
def test_bad_messages_raise_value_error_with_the_reason(data, reason, strict):
    with pytest.raises(ValueError, match=reason):
        trdcomp.decode(data, strict=strict)
    with pytest.raises(ValueError, match=reason):
        trdcomp.records(data)


def test_strict_refuses_what_the_classic_restore_accepts():
    wire = golden("ans_1002_fast.wire")
    assert trdcomp.decode(wire, strict=True) == trdcomp.decode(wire)
    # One byte after the last record: accepted, refused in strict mode.
    assert trdcomp.decode(wire + b"\0")["bytes"] == len(wire) + 1
    with pytest.raises(ValueError, match="trailing bytes"):
        trdcomp.decode(wire + b"\0", strict=True)


def test_max_bytes_refuses_a_larger_restored_message():
    wire = golden("ans_1002_2008.wire")
    restored = len(golden("ans_1002_2008.restored"))
    assert trdcomp.decode(wire, max_bytes=restored)["bytes"] == len(wire)
    assert len(trdcomp.records(wire, max_bytes=restored)) == 3
    for limit in (restored - 1, 0, -1):
        with pytest.raises(ValueError, match=f"restores to {restored} bytes"):
            trdcomp.decode(wire, max_bytes=limit)
        with pytest.raises(ValueError, match="max_bytes"):
            trdcomp.records(wire, max_bytes=limit)


BAD_JSON = [
    ({}, "direction"),
    ({"direction": "sideways"}, "direction"),
    ({"direction": "request"}, "nFuncId"),
    ({"direction": "request", "coding": "2008", "head": {"nFuncId": 1002},
      "sections": [{"layout": "REQ_1002", "size": 83, "records": [{"f999": 1}]}]}, "f999"),
    ({"direction": "answer", "coding": "2008", "head": {"nFuncId": 1002}, "sections": [{}] * 6}, "at most 5"),
    ({"direction": "request", "coding": "2008", "head": {"nFuncId": b"bytes"}}, "not a JSON value"),
    ({"direction": "request", "coding": "2008", "head": {"nFuncId": float("nan")}}, "not a JSON value"),
    ([1, 2], "JSON object"),
]


@pytest.mark.parametrize("message,reason", BAD_JSON)
def test_bad_json_raises_value_error_naming_the_problem(message, reason):
    with pytest.raises(ValueError, match=reason):
        trdcomp.encode(message)

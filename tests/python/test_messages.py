"""decode, encode and message_length: arguments, results and errors cross
the binding (what the library and the tool do with them, the C++ tests
check)."""
import json
import subprocess

import pytest
import trdcomp

from conftest import GOLDEN, TOOL, golden


def test_decode_gives_what_the_tool_prints_from_any_byte_buffer():
    for name in ["req_1002_2008", "ans_1010_fast_n2"]:
        wire = golden(f"{name}.wire")
        printed = subprocess.run([TOOL, "decode", "--json", GOLDEN / f"{name}.wire"], check=True, capture_output=True)
        message = trdcomp.decode(wire)
        assert message == json.loads(printed.stdout)
        # Packed again it restores identically (a Fast text that filled its
        # field loses its last character, so the bytes may differ).
        again = trdcomp.decode(trdcomp.encode(message))
        assert {**again, "bytes": 0} == {**message, "bytes": 0}
        assert trdcomp.decode(bytearray(wire)) == trdcomp.decode(memoryview(wire)) == trdcomp.decode(wire)
    with pytest.raises(ValueError, match="contiguous buffer of bytes"):
        trdcomp.decode(memoryview(wire)[::2])


def test_message_length_splits_a_stream_and_is_none_until_the_message_is_whole():
    messages = [golden(f"{n}.wire") for n in ["req_1002_2008", "ans_1001_fast", "ans_1010_fast_n2"]]
    stream, found = b"".join(messages), []
    while stream:
        n = trdcomp.message_length(stream)
        found.append(stream[:n])
        stream = stream[n:]
    assert found == messages
    assert trdcomp.message_length(messages[0][:-1]) is None
    assert trdcomp.message_length(b"garbage that is no head") is None


@pytest.mark.parametrize("data,reason", [
    (b"not a message at all", "head word 0"),
    (golden("req_1002_2008.wire")[:80], "the library refused the message: record count past"),
])
def test_bad_messages_raise_value_error_with_the_reason(data, reason):
    with pytest.raises(ValueError, match=reason):
        trdcomp.decode(data)
    with pytest.raises(ValueError, match=reason):
        trdcomp.records(data)


def test_strict_and_max_bytes_reach_the_library():
    wire = golden("ans_1002_fast.wire")
    assert trdcomp.decode(wire + b"\0")["bytes"] == len(wire) + 1
    with pytest.raises(ValueError, match="trailing bytes"):
        trdcomp.decode(wire + b"\0", strict=True)
    wire = golden("ans_1002_2008.wire")
    restored = len(golden("ans_1002_2008.restored"))
    assert trdcomp.decode(wire, max_bytes=restored)["bytes"] == len(wire)
    assert len(trdcomp.records(wire, max_bytes=restored)) == 3
    for limit in (restored - 1, -1):
        with pytest.raises(ValueError, match=f"restores to {restored} bytes, more than max_bytes"):
            trdcomp.decode(wire, max_bytes=limit)
        with pytest.raises(ValueError, match="max_bytes"):
            trdcomp.records(wire, max_bytes=limit)


@pytest.mark.parametrize("message,reason", [
    ({"direction": "sideways"}, "direction"),
    ({"direction": "answer", "coding": "2008", "head": {"nFuncId": 1002}, "sections": [{}] * 6}, "at most 5"),
    ({"direction": "request", "coding": "2008", "head": {"nFuncId": b"bytes"}}, "not a JSON value"),
    ({"direction": "request", "coding": "2008", "head": {"nFuncId": float("nan")}}, "not a JSON value"),
    ([1, 2], "JSON object"),
])
def test_bad_json_raises_value_error_naming_the_problem(message, reason):
    with pytest.raises(ValueError, match=reason):
        trdcomp.encode(message)

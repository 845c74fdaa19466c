"""decode, encode and message_length: arguments, results and errors cross
the binding (what the library and the tool do with them, the C++ tests
check)."""
import json
import subprocess

import pytest
import trdcomp

from conftest import GOLDEN, TOOL, WIRES, golden


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
    with pytest.raises(TypeError, match="data is a buffer whose bytes are not contiguous"):
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
    for limit in (restored - 1, 0):
        with pytest.raises(ValueError, match=f"restores to {restored} bytes, more than max_bytes"):
            trdcomp.decode(wire, max_bytes=limit)
        with pytest.raises(ValueError, match="max_bytes"):
            trdcomp.records(wire, max_bytes=limit)


@pytest.mark.parametrize("message,reason", [
    ({"direction": "sideways"}, "direction"),
    ({"direction": "answer", "coding": "2008", "head": {"nFuncId": 1002}, "sections": [{}] * 6}, "at most 5"),
    ({"direction": "request", "coding": "2008", "head": {"nFuncId": b"bytes"}}, "not a JSON value"),
    ({"direction": "request", "coding": "2008", "head": {"nFuncId": float("nan")}}, "not a JSON value"),
])
def test_bad_json_raises_value_error_naming_the_problem(message, reason):
    with pytest.raises(ValueError, match=reason):
        trdcomp.encode(message)


def _request(function_id, count, size, body):
    """A request head (user words 0..13) and the bytes behind it."""
    words = [76, function_id, 0, *range(14), count, size]
    return b"".join(w.to_bytes(4, "little", signed=True) for w in words) + body


# Messages beyond the golden corpus: raw records with bytes behind them, an
# id whose restore keeps nothing, a raw answer of two arrays (a section table).
_OTHER_MESSAGES = {
    "raw_request_with_trailing_bytes": _request(1022, 2, 5, b"abcdefghij\x01\x02\x03"),
    "request_restored_to_nothing": _request(1017, 0, 0, b""),
    "raw_answer_of_two_arrays": trdcomp.encode({
        "direction": "answer", "coding": "2008", "head": {"nFuncId": 4321, "szShort": "OK"}, "arrays": 2,
        "sections": [{"layout": None, "count": 2, "size": 4, "records": ["01020304", "05060708"]},
                     {"layout": None, "count": 1, "size": 2, "records": ["0a0b"]}]}),
}


def test_decode_is_the_json_the_tool_prints_for_every_message(tmp_path):
    # Compared as JSON text: the same members in the same order, ints as
    # ints and floats as floats (5 == 5.0 in Python, not in the text).
    messages = {path.stem: path for path in WIRES}
    for name, wire in _OTHER_MESSAGES.items():
        messages[name] = tmp_path / f"{name}.wire"
        messages[name].write_bytes(wire)
    assert len(WIRES) == 472
    for name, path in messages.items():
        printed = subprocess.run([TOOL, "decode", "--json", path], check=True, capture_output=True).stdout
        decoded = trdcomp.decode(path.read_bytes())
        assert json.dumps(decoded) == json.dumps(json.loads(printed)), name
    assert trdcomp.decode(_OTHER_MESSAGES["raw_request_with_trailing_bytes"])["trailing"] == "010203"
    assert "restored" in trdcomp.decode(_OTHER_MESSAGES["request_restored_to_nothing"])
    assert [s["records"] for s in trdcomp.decode(_OTHER_MESSAGES["raw_answer_of_two_arrays"])["sections"]] == \
        [["01020304", "05060708"], ["0a0b"]]

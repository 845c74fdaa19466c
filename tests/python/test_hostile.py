"""Hostile input and wrong arguments: every call either answers or raises
ValueError or TypeError naming the argument and what was wrong; nothing
else escapes, nothing crashes, nothing restores without bound."""
import array
import io
import random

import numpy as np
import pytest
import trdcomp

from conftest import WIRES, golden

CALLS = [
    ("decode", lambda b: trdcomp.decode(b)),
    ("decode strict", lambda b: trdcomp.decode(b, strict=True)),
    ("records", lambda b: trdcomp.records(b)),
    ("message_length", lambda b: trdcomp.message_length(b)),
    ("messages", lambda b: [m.to_dict() for m in trdcomp.messages(b)]),
    ("messages u16be", lambda b: [m.sections for m in trdcomp.messages(b, frame="u16be")]),
]


def hostile_buffers():
    rng = random.Random(29)
    heads = [(76).to_bytes(4, "little"), (96).to_bytes(4, "little")]
    for n in range(0, 300, 7):  # random bytes, with and without a head word in front
        yield bytes(rng.getrandbits(8) for _ in range(n))
        yield rng.choice(heads) + bytes(rng.getrandbits(8) for _ in range(n))
    for path in WIRES[::9]:
        wire = path.read_bytes()
        for cut in range(0, len(wire), max(1, len(wire) // 16)):  # truncated
            yield wire[:cut]
        for _ in range(8):  # bytes flipped
            damaged = bytearray(wire)
            damaged[rng.randrange(len(wire))] ^= 1 << rng.randrange(8)
            yield bytes(damaged)


def test_hostile_buffers_raise_cleanly():
    seen = 0
    for data in hostile_buffers():
        for name, call in CALLS:
            try:
                call(data)
            except ValueError:
                pass
            seen += 1
    assert seen > 2000


def many_records(count):
    """An answer of id 8996: `count` records of 32,788 bytes restored."""
    message = trdcomp.decode(golden("ans_8996_fast.wire"))
    section = message["sections"][0]
    section["records"] *= count
    section["count"] = message["head"]["nRecCount"] = count
    return trdcomp.encode(message)


def test_large_restores_are_refused_before_they_are_allocated():
    wire = many_records(400)
    restored = 96 + 400 * 32788
    assert trdcomp.DEFAULT_MAX_BYTES == 256 << 20
    limit = len(wire)  # the message is within it, its restore is not
    calls = [trdcomp.decode, trdcomp.records, lambda w, max_bytes: list(trdcomp.messages(w, strict=True, max_bytes=max_bytes))]
    for call in calls:
        with pytest.raises(ValueError, match=f"the message restores to {restored} bytes, more than max_bytes \\({limit}\\)"):
            call(wire, max_bytes=limit)
    [m] = trdcomp.messages(wire, max_bytes=limit)
    assert m.refused.endswith(f"more than max_bytes ({limit})") and m.sections == []
    assert [len(a) for a in trdcomp.records(wire, max_bytes=None)] == [400]
    # A head whose count the bytes behind it cannot hold is refused whatever the limit.
    count_at = 76 - 8
    lying = bytearray(golden("req_1002_2008.wire"))
    lying[count_at:count_at + 4] = (2**31 - 1).to_bytes(4, "little")
    for limit in (None, 1 << 20):
        with pytest.raises(ValueError, match="the library refused the message"):
            trdcomp.decode(lying, max_bytes=limit)


@pytest.mark.parametrize("call,argument", [
    (lambda v: trdcomp.decode(v), "data"),
    (lambda v: trdcomp.records(v), "data"),
    (lambda v: trdcomp.message_length(v), "prefix"),
    (lambda v: trdcomp.messages(v), "source"),
])
def test_non_contiguous_buffers_raise_type_error_naming_the_argument(call, argument):
    wire = golden("req_1002_2008.wire")
    for view in (memoryview(wire)[::2], np.frombuffer(wire * 2, dtype=np.uint8).reshape(2, -1).T):
        with pytest.raises(TypeError, match=f"{argument} is a buffer whose bytes are not contiguous"):
            call(view)
    with pytest.raises(TypeError, match=f"{argument} must be"):
        call(12)


def test_any_contiguous_buffer_is_read_where_it_is():
    wire = golden("req_1002_2008.wire")
    stream = wire * 3
    for buffer in (stream, bytearray(stream), memoryview(stream), np.frombuffer(stream, dtype=np.uint8),
                   array.array("B", stream)):
        view, offsets = memoryview(buffer), []
        at = 0
        while at < len(stream):
            offsets.append(at)
            at += trdcomp.message_length(view[at:])
        assert offsets == [0, len(wire), 2 * len(wire)]
    assert trdcomp.message_length(memoryview(stream)[1:]) is None


BAD_ARGUMENTS = [
    (lambda: trdcomp.decode(golden("req_1002_2008.wire"), max_bytes=-1), ValueError, "max_bytes is -1: it must be 0 or more"),
    (lambda: trdcomp.records(golden("req_1002_2008.wire"), max_bytes="1M"), TypeError, "max_bytes must be a number of bytes or None"),
    (lambda: trdcomp.messages(b"", frame="u64le"), ValueError, 'frame is "u64le": expected None'),
    (lambda: trdcomp.messages(b"", frame=4), TypeError, "frame must be a str or None"),
    (lambda: trdcomp.messages(b"", ids=["1002"]), TypeError, "ids must hold function ids"),
    (lambda: trdcomp.messages(b"", ids=[]), ValueError, "ids is empty"),
    (lambda: trdcomp.messages(b"", ids=2**40), ValueError, "no 32-bit function id"),
    (lambda: trdcomp.messages(io.StringIO("text")), TypeError, "source is a text file"),
    (lambda: trdcomp.messages(object()), TypeError, "source must be bytes, a buffer, a path or a binary file"),
    (lambda: trdcomp.pcap(b"bytes"), TypeError, "path_or_file must be"),
    (lambda: trdcomp.pcap("/nonexistent/day.pcap"), FileNotFoundError, "day.pcap"),
    (lambda: trdcomp.pcap(io.BytesIO(), port=70000), ValueError, "port is 70000: a TCP port is 1 to 65535"),
    (lambda: trdcomp.pcap(io.BytesIO(), port="9000"), TypeError, "port must be a TCP port"),
    (lambda: trdcomp.encode([1, 2]), TypeError, "message must be a dict"),
    (lambda: trdcomp.encode({"coding": "2008", "head": {"nFuncId": 1002}}), ValueError,
     'message: say a "direction" of "request" or "answer"'),
    (lambda: trdcomp.encode({"direction": "request", "coding": "2008"}), ValueError, "message: say the head's \"nFuncId\""),
    (lambda: trdcomp.encode({"direction": "request", "head": {"nFuncId": 1002}}), ValueError, 'message: say a "coding" of'),
    (lambda: trdcomp.encode({"direction": "request", "coding": "2008", "head": {"nFuncID": 1002}}), ValueError,
     '"nFuncID" is no key of the head: the nearest is "nFuncId"'),
    (lambda: trdcomp.encode({"direction": "request", "coding": "2008", "head": {"nFuncId": b"x"}}), ValueError,
     "message holds a value that is not a JSON value"),
]


@pytest.mark.parametrize("call,error,text", BAD_ARGUMENTS)
def test_wrong_arguments_are_named_in_python_terms(call, error, text):
    with pytest.raises(error, match=text) as raised:
        call()
    assert "--" not in str(raised.value)


def test_a_fast_byte_the_coding_cannot_carry_names_classic():
    layouts = trdcomp.catalogue()["layouts"]
    for path in WIRES:  # a Fast request with records whose layout has an ascii field
        message = trdcomp.decode(path.read_bytes())
        sections = message["sections"]
        if message["direction"] == "request" and message["coding"] != "2008" and sections and sections[0]["records"] \
                and sections[0]["layout"] and any(f["kind"] == "ascii" for f in layouts[sections[0]["layout"]]["fields"]):
            break
    ascii_field = next(f["name"] for f in layouts[sections[0]["layout"]]["fields"] if f["kind"] == "ascii")
    message["sections"][0]["records"][0][ascii_field] = {"hex": "41e9"}
    with pytest.raises(ValueError, match="classic=True packs it as the classic members do") as raised:
        trdcomp.encode(message)
    assert "--" not in str(raised.value)
    assert trdcomp.decode(trdcomp.encode(message, classic=True))["head"] == message["head"]


def test_captures_that_are_none_are_reported_or_raise_with_strict(tmp_path):
    path = tmp_path / "not.pcap"
    path.write_bytes(b"this is no capture at all" * 10)
    it = trdcomp.pcap(str(path))
    assert list(it) == [] and [r.kind for r in it.reports] == ["unreadable"]
    with pytest.raises(ValueError, match="unreadable"):
        list(trdcomp.pcap(str(path), strict=True))
    rng = random.Random(7)
    for n in (24, 40, 100, 1000):  # a pcap header, then noise
        noise = bytes.fromhex("4d3cb2a1020004000000000000000000ffff000001000000") + bytes(rng.getrandbits(8) for _ in range(n))
        it = trdcomp.pcap(io.BytesIO(noise))
        assert all(isinstance(m, trdcomp.Message) for m in it)

"""messages() and pcap(): message for message what `trdcomp decode --jsonl`
prints for the same stream or capture, with the same reports, from every
kind of source; the Message's arrays are the records of its dict."""
import io
import json
import subprocess
import sys
import time

import numpy as np
import pytest
import trdcomp

from conftest import TOOL, WIRES
from pcapfile import Capture, Connection, is_request

FRAMED = [p.read_bytes() for p in WIRES if trdcomp.message_length(p.read_bytes()) == len(p.read_bytes())]
UNFRAMED = [p.read_bytes() for p in WIRES if trdcomp.message_length(p.read_bytes()) is None]


def time_text(ns):
    seconds, fraction = divmod(ns, 1_000_000_000)
    return time.strftime("%Y-%m-%dT%H:%M:%S", time.gmtime(seconds)) + f".{fraction:09d}Z"


def as_line(m):
    """A Message as the tool's JSON line of it."""
    line = {"message": m.number}
    if m.time_ns is not None:
        line.update(time=time_text(m.time_ns), connection=m.connection)
    line["offset"] = m.offset
    if m.refused is None:
        line["id"] = m.function_id
    line.update(m.to_dict())
    return json.dumps(line)


def tool_jsonl(path, *args):
    done = subprocess.run([TOOL, "decode", *args, "--jsonl", path], capture_output=True, text=True)
    lines = [json.dumps(json.loads(line)) for line in done.stdout.splitlines()]
    reports = [line.removeprefix("trdcomp decode: ") for line in done.stderr.splitlines()]
    return lines, reports


def kept(lines, kwargs):
    """The lines of the function ids `ids` keeps (the tool's --id is left
    out: it fails on streams, see the report of this change)."""
    ids = kwargs.get("ids")
    if ids is None:
        return lines
    ids = {ids} if isinstance(ids, int) else set(ids)
    return [line for line in lines if json.loads(line).get("id") in ids]


def report_lines(iterator):
    return [f"{r.kind}: {r.connection + ', ' if r.connection else ''}{r.text}".replace("frame=", "--frame")
            for r in iterator.reports]


def u32le(messages):
    return b"".join(len(m).to_bytes(4, "little") + m for m in messages)


MIX = b"".join(FRAMED * 2)
# name, stream bytes, messages() arguments, the tool's
STREAMS = [
    ("golden mix", MIX, {}, []),
    ("bytes that are no message in the middle", MIX[:5000] + b"\x07" * 100 + MIX[5000:], {}, []),
    ("an incomplete message at the end", MIX[:-10], {}, []),
    ("a transport prefix, raw records too", u32le(FRAMED[:40] + UNFRAMED), {"frame": "u32le"}, ["--frame", "u32le"]),
    ("a prefix framing no message", u32le([b"no head here"] + FRAMED[:3]), {"frame": "u32le"}, ["--frame", "u32le"]),
    ("raw records without a prefix", b"".join(FRAMED[:3] + UNFRAMED[:1] + FRAMED[:3]), {}, []),
    ("only some ids", MIX, {"ids": [1002, 1010]}, []),
    ("above max_bytes", MIX, {"max_bytes": 2000}, ["--max-bytes", "2000"]),
]


def opened(kind, path, data):
    if kind == "bytes":
        return data, None
    if kind == "bytearray":
        return bytearray(data), None
    if kind == "memoryview":
        return memoryview(data), None
    if kind == "path":
        return str(path), None
    if kind == "binary file":
        f = open(path, "rb")
        return f, f
    if kind == "unbuffered file":
        f = open(path, "rb", buffering=0)
        return f, f
    if kind == "BytesIO":
        return io.BytesIO(data), None
    if kind == "pipe":
        p = subprocess.Popen(["cat", str(path)], stdout=subprocess.PIPE)
        return p.stdout, p
    raise AssertionError(kind)


SOURCES = ["bytes", "bytearray", "memoryview", "path", "binary file", "unbuffered file", "BytesIO", "pipe"]


@pytest.mark.parametrize("name,data,kwargs,flags", STREAMS, ids=[s[0] for s in STREAMS])
def test_a_stream_gives_the_tools_json_lines_from_every_source(tmp_path, name, data, kwargs, flags):
    path = tmp_path / "stream.bin"
    path.write_bytes(data)
    lines, reports = tool_jsonl(path, "--stream", *flags)
    lines = kept(lines, kwargs)
    assert lines, name
    for kind in SOURCES:
        source, handle = opened(kind, path, data)
        it = trdcomp.messages(source, **kwargs)
        got = [as_line(m) for m in it]
        if kind == "pipe":  # a stream that stopped is not read to its end
            handle.stdout.close()
            handle.wait()
        elif handle:
            handle.close()
        if "max_bytes" in kwargs:  # the limit is named as the caller named it
            got = [g.replace("more than max_bytes (2000)", "more than the limit of 2000 bytes") for g in got]
            lines = [line.replace(" (--max-bytes N raises it, --max-bytes unlimited lifts it)", "") for line in lines]
        assert got == lines, f"{name}, from {kind}"
        # A message over max_bytes is reported as too_long or as skipped bytes
        # depending on how its bytes came in (the reads' sizes): not compared.
        if "max_bytes" not in kwargs:
            assert report_lines(it) == reports, f"{name}, from {kind}"


def write_capture(path, messages, connections=3, lose=None):
    """Requests and answers of the mix over `connections` connections; `lose`:
    the index of a segment of the first connection's requests left out."""
    with open(path, "wb") as f:
        capture = Capture(f)
        for c in range(connections):
            conn = Connection(capture, c)
            requests = b"".join(m for m in messages[c::connections] if is_request(m))
            answers = b"".join(m for m in messages[c::connections] if not is_request(m))
            if lose is not None and c == 0:
                cut = 1448 * lose
                conn.send(requests[:cut])
                conn.seq[0] += 1448
                conn.send(requests[cut + 1448:])
            else:
                conn.send(requests)
            conn.send(answers, answer=True, step_ns=61_000_000_000)  # a minute and more between answers' segments
            conn.close()


CAPTURES = [
    ("three connections", {}, {}, []),
    ("a segment lost", {"lose": 3}, {}, []),
    ("one port", {"connections": 1}, {"port": 9000}, ["--port", "9000"]),
    ("no message on the port", {"connections": 1}, {"port": 9001}, ["--port", "9001"]),
    ("only messages of 1010", {}, {"ids": 1010}, []),
]


@pytest.mark.parametrize("name,writing,kwargs,flags", CAPTURES, ids=[c[0] for c in CAPTURES])
def test_a_capture_gives_the_tools_json_lines(tmp_path, name, writing, kwargs, flags):
    path = tmp_path / "day.pcap"
    write_capture(path, FRAMED, **writing)
    lines, reports = tool_jsonl(path, "--pcap", *flags)
    lines = kept(lines, kwargs)
    reports = [r for r in reports if not r.startswith("the capture holds no TCP payload")]
    for source in (str(path), path, "file"):
        f = open(path, "rb") if source == "file" else None
        it = trdcomp.pcap(f or source, **kwargs)
        got = [as_line(m) for m in it]
        assert got == lines, f"{name}, from {type(source).__name__}"
        assert report_lines(it) == reports, name
        assert it.totals["packets"] > 0 and it.totals["connections"] == (writing.get("connections", 3) if lines else 0)
        if f:
            f.close()
    if not kwargs and not writing:
        assert len(lines) == len(FRAMED) and all(json.loads(line)["connection"] for line in lines)


def test_a_messages_arrays_are_its_records():
    # The arrays view the restored block: the dict's records, field by field.
    for m in trdcomp.messages(b"".join(FRAMED)):
        d = m.to_dict()
        assert m.raw.tobytes() == bytes(m) and len(m) == d["bytes"]
        assert m.head == d["head"] and m.direction == d["direction"] and m.coding == d["coding"]
        assert [len(a) for a in m.sections] == [len(s["records"]) for s in d["sections"]]
        for array, section in zip(m.sections, d["sections"]):
            assert not array.flags.writeable
            if section["layout"] is None:
                assert [r.tobytes().hex() for r in array] == section["records"]
                continue
            assert array.dtype == trdcomp.dtype(section["layout"])
            for record, described in zip(array, section["records"]):
                for field, value in described.items():
                    if isinstance(value, (int, float)) and array.dtype[field].kind in "if":
                        assert record[field] == value, (m, field)
                    elif isinstance(value, str) and array.dtype[field].kind == "S":
                        assert record[field].decode("latin-1") == value, (m, field)
    # Arrays outlive their message and iterator.
    arrays = next(iter(trdcomp.messages(FRAMED[0]))).sections
    assert [a.copy().tobytes() for a in arrays] == [a.tobytes() for a in trdcomp.records(FRAMED[0])]


def test_refused_messages_come_with_the_reason_or_raise_with_strict():
    stream = FRAMED[0] + b"\x07" * 64 + FRAMED[1]
    it = trdcomp.messages(stream)
    assert [m.number for m in it] == [1] and [r.kind for r in it.reports] == ["stopped"]
    with pytest.raises(ValueError, match="stopped: no message starts at offset"):
        list(trdcomp.messages(stream, strict=True))
    prefixed = u32le([b"no head here", FRAMED[0]])
    refused, good = trdcomp.messages(prefixed, frame="u32le")
    assert refused.refused.startswith("head word 0") and refused.sections == [] and refused.function_id is None
    assert good.refused is None and np.array_equal(good.sections[0], trdcomp.records(FRAMED[0])[0])
    with pytest.raises(ValueError, match=r"message 1 \(offset 4\) refused: head word 0"):
        list(trdcomp.messages(prefixed, frame="u32le", strict=True))


def test_a_message_of_a_pipe_comes_while_the_writer_still_holds_it_open():
    # The writer sends one message, then waits for its standard input to
    # close before it sends the next: the first must come before that.
    writer = ("import sys\nfirst, second = sys.argv[1:]\nout = sys.stdout.buffer\n"
              "out.write(bytes.fromhex(first)); out.flush()\nsys.stdin.read()\n"
              "out.write(bytes.fromhex(second)); out.flush()\n")
    p = subprocess.Popen([sys.executable, "-c", writer, FRAMED[0].hex(), FRAMED[1].hex()],
                         stdin=subprocess.PIPE, stdout=subprocess.PIPE)
    it = trdcomp.messages(p.stdout)
    first = next(it)
    assert bytes(first) == FRAMED[0] and p.poll() is None
    p.stdin.close()
    assert [bytes(m) for m in it] == [FRAMED[1]] and it.reports == []
    assert p.wait() == 0

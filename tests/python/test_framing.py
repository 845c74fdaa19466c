"""message_length: the length of a coded message from its first bytes."""
import pytest
import trdcomp

from conftest import WIRES, golden, word


def expected_length(wire):
    # Requests with flag bit 0 clear carry their records raw (ids 1000 and
    # 1001 pack the head alone that way): no length can be read.
    if word(wire, 0) == 76 and not word(wire, 8) & 1:
        return None
    return len(wire)


def test_every_golden_message_tells_its_length():
    told = 0
    for path in WIRES:
        wire = path.read_bytes()
        expected = expected_length(wire)
        assert trdcomp.message_length(wire) == expected, path.name
        assert trdcomp.message_length(wire + b"\xff" * 9) == expected, path.name
        assert trdcomp.message_length(wire[:-1]) is None, path.name  # None until the whole message is in
        told += expected is not None
    assert told > 460


def test_a_stream_splits_into_its_messages():
    names = ["req_1002_2008", "ans_1001_fast", "ans_1002_2008", "req_1003_fast", "ans_1010_fast_n2"]
    messages = [golden(f"{n}.wire") for n in names]
    stream, found = b"".join(messages), []
    while stream:
        n = trdcomp.message_length(stream)
        assert n is not None
        found.append(stream[:n])
        stream = stream[n:]
    assert found == messages


def raw_request():
    return (76).to_bytes(4, "little") + (1022).to_bytes(4, "little") + bytes(68) + b"abcd"


@pytest.mark.parametrize("prefix", [
    b"",
    b"garbage that is no head",
    raw_request(),                                                  # raw: no length word
    golden("ans_1001_2008.wire")[:96] + (3).to_bytes(4, "little"),  # section table too short
    golden("req_1002_fast.wire")[:76] + b"\x09\x00",                # u16 count differs from the head's
])
def test_what_cannot_be_told_is_none(prefix):
    assert trdcomp.message_length(prefix) is None

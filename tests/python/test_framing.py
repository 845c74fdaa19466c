"""message_length: the length of a coded message from its first bytes, None
while it cannot tell (the library's MessageLength, which the C++ sweep checks
on every golden message and prefix)."""
import pytest
import trdcomp

from conftest import golden


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
    golden("ans_1002_2008.wire")[:-1],                              # not yet whole
])
def test_what_cannot_be_told_is_none(prefix):
    assert trdcomp.message_length(prefix) is None

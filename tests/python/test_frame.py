"""frame(): a DataFrame per layout holding the records' values, with where
each record was found; a clear ImportError without pandas."""
import subprocess
import sys

import pytest
import trdcomp

from conftest import golden
from test_iterate import FRAMED, write_capture

pd = pytest.importorskip("pandas")


def described_rows(message_dicts, layout):
    """The records of `layout`, as the dicts describe them."""
    return [r for d in message_dicts for s in d["sections"] if s["layout"] == layout for r in s["records"]]


def test_the_frame_of_golden_messages_holds_their_records_values():
    layouts = trdcomp.catalogue()["layouts"]
    messages = list(trdcomp.messages(b"".join(FRAMED)))
    frames = trdcomp.frame(messages)
    dicts = [m.to_dict() for m in messages]
    assert frames and set(frames) == {s["layout"] for d in dicts for s in d["sections"] if s["layout"] and s["records"]}
    compared = 0
    for layout, df in frames.items():
        rows = described_rows(dicts, layout)
        assert len(df) == len(rows), layout
        assert list(df.columns[:3]) == ["message", "function_id", "section"]
        for field in layouts[layout]["fields"]:
            name, kind = field["name"], field["kind"]
            values = [r[name] for r in rows]
            column = df[name].tolist()
            if kind in ("int32", "int64", "double"):
                assert column == values, f"{layout}.{name}"
            elif kind in ("char", "text", "ascii"):  # printable ones: as the JSON shows them
                pairs = [(c, v) for c, v in zip(column, values) if isinstance(v, str)]
                assert all(c == v for c, v in pairs), f"{layout}.{name}"
            elif kind in ("bytes", "uncoded") and field["width"] > 1:
                assert [c.rstrip(b"\0").hex() for c in column] == values, f"{layout}.{name}"
            compared += len(values)
    assert compared > 1000


def test_a_captures_frame_has_time_and_connection(tmp_path):
    path = tmp_path / "day.pcap"
    write_capture(path, FRAMED)
    messages = list(trdcomp.pcap(str(path)))
    first = next(m for m in messages if m.sections and m.to_dict()["sections"][0]["layout"])
    layout = first.to_dict()["sections"][0]["layout"]
    df = trdcomp.frame(trdcomp.pcap(str(path)), layout)
    assert list(df.columns[:5]) == ["message", "function_id", "section", "time", "connection"]
    assert str(df["time"].dtype) == "datetime64[ns, UTC]"
    row = df[df["message"] == first.number].iloc[0]
    assert row["time"].value == first.time_ns and row["connection"] == first.connection
    assert len(df) == sum(len(s) for m in messages for s, d in zip(m.sections, m.to_dict()["sections"]) if d["layout"] == layout)
    one = first.frame(layout)
    assert len(one) == len(first.sections[0]) and (one["message"] == first.number).all()
    assert list(trdcomp.frame([], layout).columns[:3]) == ["message", "function_id", "section"]


def test_frame_refuses_what_is_no_message_or_layout():
    with pytest.raises(ValueError, match="no record layout named REQ_9"):
        trdcomp.frame([], "REQ_9")
    with pytest.raises(TypeError, match="messages must hold trdcomp.Message objects, not dict"):
        trdcomp.frame([trdcomp.decode(golden("req_1002_2008.wire"))])
    with pytest.raises(TypeError, match="messages must be a trdcomp.Message or an iterable"):
        trdcomp.frame(5)


def test_without_pandas_frame_raises_import_error_saying_what_to_install():
    code = "import sys; sys.modules['pandas'] = None\nimport trdcomp\ntrdcomp.frame([])"
    done = subprocess.run([sys.executable, "-c", code], capture_output=True, text=True)
    assert done.returncode == 1
    assert "ImportError: trdcomp.frame needs pandas, which is not installed (Debian: apt-get install python3-pandas)" in done.stderr

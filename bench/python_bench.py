#!/usr/bin/python3
"""The Python module at work: messages a second and memory.

On the golden mix (every golden message whose length is in its bytes, in
the corpus's order, over and over: 100,000 messages) it times
  messages()        iterating the stream, each message's `sections` taken (NumPy arrays)
  to_dict()         the same, each message also as the dict decode gives
  decode()          each message cut with message_length and decoded to a dict
  message_length()  cutting the stream through memoryview slices (no copy)
then measures in a child process the largest resident memory of
  pcap()            iterating a capture of about 1 GB (the mix as TCP
                    segments of 1448 bytes, ten connections, both directions)
  records()         a raw request whose records restore to 128 MiB: the
                    memory it adds beyond its input (one restored block).
Each time is the best of three runs, against the wall clock and the CPU
time of the run (the machine may be shared).

usage: bench/python_bench.py [BUILD_DIR] [WORK_DIR]   (defaults: build/release, a temporary folder)
"""
import os
import resource
import subprocess
import sys
import tempfile
import time

HERE = os.path.dirname(os.path.abspath(__file__))
SOURCE = os.path.dirname(HERE)
BUILD = os.path.abspath(sys.argv[1] if len(sys.argv) > 1 else os.path.join(SOURCE, "build", "release"))
sys.path.insert(0, os.path.join(BUILD, "python", "module"))
sys.path.insert(0, os.path.join(SOURCE, "examples", "python"))
import trdcomp  # noqa: E402
from pcapfile import Capture, Connection, is_request  # noqa: E402

CORPUS = os.path.join(SOURCE, "tests", "golden", "corpus")
COUNT = 100_000


def golden_mix():
    out = []
    for name in sorted(os.listdir(CORPUS)):
        if name.endswith(".wire"):
            wire = open(os.path.join(CORPUS, name), "rb").read()
            if trdcomp.message_length(wire) == len(wire):
                out.append(wire)
    return out


def best_of_three(run):
    """(wall seconds, CPU seconds) of the fastest of three runs, and what it returned."""
    best = None
    for _ in range(3):
        wall, cpu = time.perf_counter(), time.process_time()
        result = run()
        wall, cpu = time.perf_counter() - wall, time.process_time() - cpu
        if best is None or wall < best[0]:
            best = (wall, cpu, result)
    return best


def row(what, count, timing, note=""):
    wall, cpu, _ = timing
    print(f"{what:<34}{count:>10,}{count / wall:>14,.0f}{count / cpu:>14,.0f}  {note}", flush=True)


def iterate_sections(stream):
    n = 0
    for m in trdcomp.messages(stream):
        m.sections
        n += 1
    return n


def iterate_dicts(stream):
    n = 0
    for m in trdcomp.messages(stream):
        m.sections
        m.to_dict()
        n += 1
    return n


def decode_each(stream):
    view, at, n = memoryview(stream), 0, 0
    while at < len(stream):
        length = trdcomp.message_length(view[at:])
        trdcomp.decode(view[at:at + length])
        at += length
        n += 1
    return n


def cut_each(stream):
    view, at, n = memoryview(stream), 0, 0
    while at < len(stream):
        at += trdcomp.message_length(view[at:])
        n += 1
    return n


def write_capture(path, mix, target):
    """Ten connections one after the other, each a tenth of the target."""
    with open(path, "wb") as f:
        capture = Capture(f)
        requests = b"".join(m for m in mix if is_request(m))
        answers = b"".join(m for m in mix if not is_request(m))
        messages, c = 0, 0
        while capture.written < target:
            conn = Connection(capture, c)
            start = capture.written
            while capture.written - start < target // 10 and capture.written < target:
                conn.send(requests)
                conn.send(answers, answer=True)
                messages += len(mix)
            conn.close()
            c += 1
    return messages


CHILD_PCAP = """
import resource, sys, time
sys.path.insert(0, sys.argv[1])
import trdcomp
wall, cpu = time.perf_counter(), time.process_time()
n = 0
it = trdcomp.pcap(sys.argv[2])
for m in it:
    m.sections
    n += 1
wall, cpu = time.perf_counter() - wall, time.process_time() - cpu
print(n, wall, cpu, resource.getrusage(resource.RUSAGE_SELF).ru_maxrss // 1024, len(it.reports))
"""

CHILD_RECORDS = """
import resource, sys
sys.path.insert(0, sys.argv[1])
import trdcomp
size, count = 1 << 20, 128
words = [76, 1022, 0, *range(14), count, size]
wire = b"".join(w.to_bytes(4, "little") for w in words) + bytes(size * count)
before = resource.getrusage(resource.RUSAGE_SELF).ru_maxrss // 1024
arrays = trdcomp.records(wire)
after = resource.getrusage(resource.RUSAGE_SELF).ru_maxrss // 1024
print(sum(a.nbytes for a in arrays) >> 20, after - before)
"""


def main():
    work = sys.argv[2] if len(sys.argv) > 2 else tempfile.mkdtemp(prefix="trdcomp-python-bench-")
    mix = golden_mix()
    stream = b"".join(mix[i % len(mix)] for i in range(COUNT))
    print(f"trdcomp {trdcomp.__version__}, Python {sys.version.split()[0]}: the golden mix, {len(mix)} distinct messages, "
          f"{COUNT:,} messages, {len(stream) / 1e6:.1f} MB")
    print(f"{'':<34}{'messages':>10}{'messages/s':>14}{'per CPU s':>14}")
    row("messages(), sections as arrays", COUNT, best_of_three(lambda: iterate_sections(stream)))
    row("messages(), sections and to_dict()", COUNT, best_of_three(lambda: iterate_dicts(stream)))
    row("message_length() + decode()", COUNT, best_of_three(lambda: decode_each(stream)))
    row("message_length() on slices", COUNT, best_of_three(lambda: cut_each(stream)))

    path = os.path.join(work, "day.pcap")
    messages = write_capture(path, mix, 1 << 30)
    done = subprocess.run([sys.executable, "-c", CHILD_PCAP, trdcomp.__file__.rsplit("/", 1)[0], path],
                          capture_output=True, text=True, check=True)
    n, wall, cpu, rss, reports = done.stdout.split()
    print(f"\npcap() over a capture of {os.path.getsize(path) / 1e9:.2f} GB: {int(n):,} messages of {messages:,} written, "
          f"{int(n) / float(wall):,.0f} messages/s ({int(n) / float(cpu):,.0f} per CPU s), largest resident memory "
          f"{rss} MB, {reports} reports")
    os.remove(path)
    done = subprocess.run([sys.executable, "-c", CHILD_RECORDS, trdcomp.__file__.rsplit("/", 1)[0]],
                          capture_output=True, text=True, check=True)
    restored, added = done.stdout.split()
    print(f"records() of a raw request restoring to {restored} MiB: resident memory grew by {added} MB")


if __name__ == "__main__":
    main()

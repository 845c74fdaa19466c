#!/usr/bin/python3
"""The trdcomp tool on a feed: messages a second and memory.

Builds a stream of 100,000 messages of the golden mix (every golden message
whose length is in its bytes, in the corpus's order, over and over), times
`trdcomp stats`, `decode --jsonl` and `decode` (the text table) on it, output
to /dev/null; then writes a capture of about 1 GB (the mix as TCP segments of
1448 bytes over Ethernet, both directions, ten connections) and measures the
largest resident memory of `stats --pcap` and `decode --pcap --jsonl` on it.
Each figure is the best of three runs; messages a second are given against
the wall clock and against the CPU time the run took (the machine may be
shared: the second is what the tool costs).

usage: bench/stream_bench.py [BUILD_DIR] [WORK_DIR]   (defaults: build/release, a temporary folder)
"""
import os
import shutil
import struct
import subprocess
import sys
import tempfile
import time

HERE = os.path.dirname(os.path.abspath(__file__))
SOURCE = os.path.dirname(HERE)
CORPUS = os.path.join(SOURCE, "tests", "golden", "corpus")


def framed_goldens(tool):
    """The golden messages a stream can carry: those whose length is in their bytes."""
    out = []
    for name in sorted(os.listdir(CORPUS)):
        if not name.endswith(".wire"):
            continue
        path = os.path.join(CORPUS, name)
        if subprocess.run([tool, "stats", "--stream", path], capture_output=True).returncode == 0:
            out.append(open(path, "rb").read())
    return out


def write_stream(path, messages, count):
    with open(path, "wb") as f:
        for i in range(count):
            f.write(messages[i % len(messages)])


def write_capture(path, messages, target):
    """Ethernet/IPv4/TCP, ten connections one after the other: requests from
    the client, answers from the server, in segments of at most 1448 bytes."""
    requests = [m for m in messages if struct.unpack_from("<i", m, 0)[0] == 76]
    answers = [m for m in messages if struct.unpack_from("<i", m, 0)[0] == 96]
    per_connection = target // 10
    t = [1700000000, 0]
    written = 0
    count = 0

    def frame(f, src, dst, sport, dport, seq, flags, payload):
        nonlocal written
        ip = struct.pack(">BBHHHBBH4s4s", 0x45, 0, 40 + len(payload), 0, 0, 64, 6, 0, src, dst)
        tcp = struct.pack(">HHIIBBHHH", sport, dport, seq, 1, 5 << 4, flags, 65535, 0, 0)
        eth = b"\x02" * 12 + b"\x08\x00"
        data = eth + ip + tcp + payload
        t[1] += 7
        if t[1] >= 1000000:
            t[0] += 1
            t[1] -= 1000000
        f.write(struct.pack("<IIII", t[0], t[1], len(data), len(data)) + data)
        written += 16 + len(data)

    with open(path, "wb") as f:
        f.write(struct.pack("<IHHiIII", 0xA1B2C3D4, 2, 4, 0, 0, 262144, 1))
        for c in range(10):
            client, server = bytes([10, 0, 0, 1]), bytes([10, 0, 0, 2])
            cport, sport = 40000 + c, 9000
            seq = [1000, 50000]
            frame(f, client, server, cport, sport, seq[0] - 1, 0x02, b"")
            frame(f, server, client, sport, cport, seq[1] - 1, 0x12, b"")
            start = written
            i = 0
            while written - start < per_connection:
                for side, m in ((0, requests[i % len(requests)]), (1, answers[i % len(answers)])):
                    src, dst, a, b = (client, server, cport, sport) if side == 0 else (server, client, sport, cport)
                    for at in range(0, len(m), 1448):
                        piece = m[at : at + 1448]
                        frame(f, src, dst, a, b, seq[side] & 0xFFFFFFFF, 0x18, piece)
                        seq[side] += len(piece)
                    count += 1
                i += 1
            frame(f, client, server, cport, sport, seq[0] & 0xFFFFFFFF, 0x11, b"")
            frame(f, server, client, sport, cport, seq[1] & 0xFFFFFFFF, 0x11, b"")
    return count


def run(cmd):
    """Wall seconds, CPU seconds and the largest resident memory (KB) of one run."""
    start = time.monotonic()
    with open(os.devnull, "wb") as null:
        p = subprocess.Popen(cmd, stdout=null, stderr=subprocess.PIPE)
        _, status, usage = os.wait4(p.pid, 0)
        err = p.stderr.read()
    wall = time.monotonic() - start
    if os.waitstatus_to_exitcode(status) != 0:
        sys.exit("%s failed: %s" % (" ".join(cmd), err.decode(errors="replace")))
    return wall, usage.ru_utime + usage.ru_stime, usage.ru_maxrss


def best(cmd, runs=3):
    results = [run(cmd) for _ in range(runs)]
    return min(r[0] for r in results), min(r[1] for r in results), max(r[2] for r in results)


def main():
    build = sys.argv[1] if len(sys.argv) > 1 else os.path.join(SOURCE, "build", "release")
    tool = os.path.join(build, "trdcomp")
    work = sys.argv[2] if len(sys.argv) > 2 else tempfile.mkdtemp(prefix="trdcomp-stream-bench-")
    os.makedirs(work, exist_ok=True)
    messages = framed_goldens(tool)
    stream = os.path.join(work, "mix.bin")
    write_stream(stream, messages, 100000)
    size = os.path.getsize(stream)
    print("stream: 100,000 messages of the golden mix (%d golden messages), %.1f MB; %d cores, load %.2f"
          % (len(messages), size / 1e6, os.cpu_count(), os.getloadavg()[0]))
    print()
    print("| run | target | wall | messages/s (wall) | CPU | messages/s (CPU) | resident |")
    print("|---|---|---|---|---|---|---|")
    for name, cmd, target in (
        ("`stats --stream`", [tool, "stats", "--stream", stream], 1000000),
        ("`decode --stream --jsonl`", [tool, "decode", "--stream", "--jsonl", stream], 300000),
        ("`decode --stream` (table)", [tool, "decode", "--stream", stream], 150000),
    ):
        wall, cpu, rss = best(cmd)
        print("| %s | %s | %.2f s | %s | %.2f s | %s | %.0f MB |"
              % (name, format(target, ","), wall, format(int(100000 / wall), ","), cpu, format(int(100000 / cpu), ","), rss / 1024))
    capture = os.path.join(work, "capture.pcap")
    count = write_capture(capture, messages, 1 << 30)
    gb = os.path.getsize(capture) / 1e9
    print()
    print("capture: %.2f GB, %s messages in 10 connections (segments of 1448 bytes)" % (gb, format(count, ",")))
    print()
    print("| run | wall | messages/s (wall) | resident (target 200 MB) |")
    print("|---|---|---|---|")
    for name, cmd in (
        ("`stats --pcap`", [tool, "stats", "--pcap", capture]),
        ("`decode --pcap --jsonl`", [tool, "decode", "--pcap", "--jsonl", capture]),
    ):
        wall, cpu, rss = best(cmd, runs=1)
        print("| %s | %.1f s | %s | %.0f MB |" % (name, wall, format(int(count / wall), ","), rss / 1024))
    if len(sys.argv) <= 2:
        shutil.rmtree(work)


if __name__ == "__main__":
    main()

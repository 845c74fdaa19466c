"""Captures written for the tests and the benchmark: Ethernet, IPv4 and TCP
in the classic pcap format (nanosecond times), each connection opened with a
SYN from its client, its payload in segments of at most 1448 bytes."""
import struct

SEGMENT = 1448


class Capture:
    def __init__(self, file, start=1700000000):
        self.file = file
        self.ns = start * 1_000_000_000
        self.written = 0
        file.write(struct.pack("<IHHiIII", 0xA1B23C4D, 2, 4, 0, 0, 262144, 1))

    def frame(self, src, dst, sport, dport, seq, flags, payload=b"", step_ns=1000):
        self.ns += step_ns
        ip = struct.pack(">BBHHHBBH4s4s", 0x45, 0, 40 + len(payload), 0, 0x4000, 64, 6, 0, bytes(src), bytes(dst))
        tcp = struct.pack(">HHIIBBHHH", sport, dport, seq & 0xFFFFFFFF, 0, 5 << 4, flags, 65535, 0, 0)
        frame = b"\x02\0\0\0\0\x02" + b"\x02\0\0\0\0\x01" + b"\x08\x00" + ip + tcp + payload
        self.file.write(struct.pack("<IIII", self.ns // 1_000_000_000, self.ns % 1_000_000_000, len(frame), len(frame)))
        self.file.write(frame)
        self.written += 16 + len(frame)


class Connection:
    """One TCP connection: requests from the client, answers from the server."""

    def __init__(self, capture, number, port=9000):
        self.capture = capture
        self.client, self.server = (10, 0, 0, 1), (10, 0, 0, 2)
        self.cport, self.sport = 40000 + number, port
        self.seq = {0: 1000, 1: 5000}
        capture.frame(self.client, self.server, self.cport, self.sport, self.seq[0] - 1, 0x02)  # SYN
        capture.frame(self.server, self.client, self.sport, self.cport, self.seq[1] - 1, 0x12)  # SYN ACK

    def send(self, payload, answer=False, step_ns=1000):
        side = 1 if answer else 0
        ends = (self.server, self.client, self.sport, self.cport) if answer else (self.client, self.server, self.cport, self.sport)
        for at in range(0, len(payload), SEGMENT):
            piece = payload[at:at + SEGMENT]
            self.capture.frame(*ends, self.seq[side], 0x18, piece, step_ns)
            self.seq[side] += len(piece)

    def close(self):
        self.capture.frame(self.client, self.server, self.cport, self.sport, self.seq[0], 0x11)
        self.capture.frame(self.server, self.client, self.sport, self.cport, self.seq[1], 0x11)


def is_request(message):
    return struct.unpack_from("<i", message, 0)[0] == 76

// Fuzz target: the capture reader and the stream cutter of the message
// library, on any bytes. Frames of any link type go through the link, IP
// (options, extension headers, fragments) and TCP layers; or TCP segments
// built around the input's bytes (sequence numbers, flags and payload from
// the input) go through reassembly; and the payloads go through the cutter
// in pieces. Whatever the bytes, nothing is read or written outside them
// (the sanitizers watch), every message handed out is one the cutter can
// vouch for, and offsets of a direction only grow.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <string>
#include <vector>

#include "Capture.h"
#include "MessageStream.h"
#include "trdcomp/trdcomp.hpp"

namespace {

[[noreturn]] void Fail(const char* what) {
    std::fprintf(stderr, "%s\n", what);
    std::abort();
}

// Hands out everything, checking what a message must be (`framed`: cut by
// the messages' own lengths, which must then say the same).
template <class Next>
void DrainAll(Next next, bool framed) {
    std::map<std::string, std::uint64_t> ends;  // per direction: the end of its last message
    tool::TcpMessages::Item item;
    while (next(item)) {
        if (item.cut.isReport) {
            if (item.cut.report.text.empty()) Fail("a report without words");
            continue;
        }
        const std::string flow = item.flow ? std::to_string(item.flow->connection) + item.flow->name : "";
        // (A transport prefix may frame no byte at all; a message's own length is never 0.)
        if (item.cut.data == nullptr || (framed && item.cut.size == 0)) Fail("an empty message");
        if (item.cut.offset < ends[flow]) Fail("a message before the end of the one before it");
        ends[flow] = item.cut.offset + item.cut.size;
        if (!framed) continue;
        const trdcomp::FrameLength f = trdcomp::MessageLength(item.cut.data, item.cut.size);
        if (f.status != trdcomp::Framing::complete || f.length != item.cut.size) Fail("a message that does not frame as one");
    }
}

void Put16(std::vector<unsigned char>& b, std::size_t at, std::uint32_t v) {
    b[at] = static_cast<unsigned char>(v >> 8);
    b[at + 1] = static_cast<unsigned char>(v);
}
void Put32(std::vector<unsigned char>& b, std::size_t at, std::uint32_t v) {
    Put16(b, at, v >> 16);
    Put16(b, at + 2, v);
}

// An Ethernet frame of an IPv4 TCP segment between two fixed ends.
std::vector<unsigned char> Segment(bool back, std::uint32_t seq, unsigned char flags, const std::uint8_t* p, std::size_t n) {
    std::vector<unsigned char> f(14 + 20 + 20 + n, 0);
    f[12] = 0x08;
    f[14] = 0x45;
    Put16(f, 16, static_cast<std::uint32_t>(40 + n));
    f[23] = 6;
    Put32(f, 26, back ? 0x0A000002 : 0x0A000001);
    Put32(f, 30, back ? 0x0A000001 : 0x0A000002);
    Put16(f, 34, back ? 9000 : 40000);
    Put16(f, 36, back ? 40000 : 9000);
    Put32(f, 38, seq);
    f[46] = 5 << 4;
    f[47] = flags;
    if (n) std::memcpy(f.data() + 54, p, n);
    return f;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size < 2) return 0;
    static const int kLinks[] = {0, 1, 12, 101, 108, 113, 228, 229, 276, 147};
    const std::uint8_t mode = data[0];
    tool::TcpMessages::Options options;
    options.window = 64u + (data[1] & 0x3F) * 64u;  // small windows: the overflow path is taken
    options.totalWindow = 4 * options.window;
    options.cutter.maxMessage = 256u + static_cast<std::size_t>(data[1] >> 6) * 4096u;
    static const tool::Frame kFrames[] = {tool::Frame::message, tool::Frame::message, tool::Frame::message, tool::Frame::u32le,
                                          tool::Frame::u16be};
    options.cutter.frame = kFrames[(mode >> 5) % 5];
    const bool framed = options.cutter.frame == tool::Frame::message;
    data += 2, size -= 2;
    tool::TcpMessages tcp(options);
    tool::Timestamp t;
    if (mode & 1) {
        // Frames of one link type, each behind a one-byte length.
        const int link = kLinks[(mode >> 1) % (sizeof kLinks / sizeof kLinks[0])];
        while (size > 0) {
            const std::size_t n = std::min<std::size_t>(data[0], size - 1);
            t.sec += data[0] & 3;
            tcp.Packet(link, t, data + 1, n);
            DrainAll([&](tool::TcpMessages::Item& i) { return tcp.Next(i); }, framed);
            data += 1 + n, size -= 1 + n;
        }
    } else {
        // Segments: direction and flags, a sequence number near the one
        // before, a payload of the input's bytes.
        std::uint32_t seq[2] = {1000, 5000};
        while (size >= 4) {
            const bool back = data[0] & 0x80;
            const unsigned char flags = data[0] & 0x1F;
            const std::int16_t delta = static_cast<std::int16_t>(data[1] << 8 | data[2]);
            const std::size_t n = std::min<std::size_t>(data[3], size - 4);
            seq[back] += static_cast<std::uint32_t>(delta);
            const std::vector<unsigned char> frame = Segment(back, seq[back], flags, data + 4, n);
            t.sec += data[2] & 7;
            tcp.Packet(1, t, frame.data(), frame.size());
            DrainAll([&](tool::TcpMessages::Item& i) { return tcp.Next(i); }, framed);
            seq[back] += static_cast<std::uint32_t>(n);
            data += 4 + n, size -= 4 + n;
        }
    }
    tcp.Finish();
    DrainAll([&](tool::TcpMessages::Item& i) { return tcp.Next(i); }, framed);
    return 0;
}

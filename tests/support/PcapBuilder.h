// Captures for tests, written byte by byte: classic pcap files of frames of
// any link type, IPv4 and IPv6 packets (extension headers, fragments) and
// TCP segments, put together as a sender and the capture would.
#pragma once

#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

namespace pcapbuild {

using Bytes = std::vector<unsigned char>;

inline void Be16(unsigned char* p, std::uint32_t v) {
    p[0] = static_cast<unsigned char>(v >> 8);
    p[1] = static_cast<unsigned char>(v);
}
inline void Be32(unsigned char* p, std::uint32_t v) {
    Be16(p, v >> 16);
    Be16(p + 2, v);
}
inline Bytes Concat(Bytes a, const Bytes& b) {
    a.insert(a.end(), b.begin(), b.end());
    return a;
}

// Link types of a pcap file.
enum Link : std::uint32_t { kNull = 0, kEthernet = 1, kRaw = 101, kLoop = 108, kSll = 113, kIpv4 = 228, kIpv6 = 229, kSll2 = 276 };

// A classic pcap file (microseconds, little-endian).
class PcapFile {
public:
    explicit PcapFile(std::uint32_t link) {
        Put32(0xa1b2c3d4);
        Put16(2), Put16(4), Put32(0), Put32(0), Put32(262144), Put32(link);
    }
    // A frame, of which the capture keeps the first `kept` bytes (all: -1).
    void Frame(const Bytes& f, long kept = -1) {
        const std::size_t n = kept < 0 ? f.size() : static_cast<std::size_t>(kept);
        ++time_;
        Put32(1700000000 + time_ / 1000), Put32(time_ % 1000 * 1000), Put32(static_cast<std::uint32_t>(n)),
            Put32(static_cast<std::uint32_t>(f.size()));
        bytes_.insert(bytes_.end(), f.begin(), f.begin() + static_cast<std::ptrdiff_t>(n));
    }
    // Moves the capture's clock (milliseconds).
    void Wait(std::uint32_t ms) { time_ += ms; }
    const std::vector<char>& Data() const { return bytes_; }
    std::vector<char>& Data() { return bytes_; }

private:
    void Put16(std::uint16_t v) { bytes_.insert(bytes_.end(), {static_cast<char>(v), static_cast<char>(v >> 8)}); }
    void Put32(std::uint32_t v) { Put16(static_cast<std::uint16_t>(v)), Put16(static_cast<std::uint16_t>(v >> 16)); }
    std::vector<char> bytes_;
    std::uint32_t time_ = 0;
};

// One end of a connection: its address (4 bytes: IPv4, 16: IPv6) and port.
struct End {
    Bytes address;
    std::uint16_t port;
};
inline End V4(std::uint32_t a, std::uint16_t port) {
    Bytes b(4);
    Be32(b.data(), a);
    return {b, port};
}
inline End V6(std::uint16_t last, std::uint16_t port) {
    Bytes b(16, 0);
    b[0] = 0xfd, b[15] = static_cast<unsigned char>(last), b[14] = static_cast<unsigned char>(last >> 8);
    return {b, port};
}

enum Flags : unsigned char { kFin = 0x01, kSyn = 0x02, kRst = 0x04, kPsh = 0x08, kAck = 0x10 };

inline Bytes TcpSegment(const End& from, const End& to, std::uint32_t seq, unsigned char flags, const Bytes& payload) {
    Bytes t(20, 0);
    Be16(t.data(), from.port);
    Be16(t.data() + 2, to.port);
    Be32(t.data() + 4, seq);
    Be32(t.data() + 8, 1);
    t[12] = 5 << 4;
    t[13] = flags;
    Be16(t.data() + 14, 65535);
    return Concat(t, payload);
}

// An IPv4 packet: `totalLength` replaces the true one when not -1 (0 is what
// segmentation offload leaves), a fragment at `fragmentOffset` (bytes, a
// multiple of 8) with `more` set but the last.
inline Bytes Ip4(const End& from, const End& to, int proto, const Bytes& payload, long totalLength = -1, std::uint16_t id = 1,
                 std::size_t fragmentOffset = 0, bool more = false) {
    Bytes p(20, 0);
    p[0] = 0x45;
    Be16(p.data() + 2, totalLength >= 0 ? static_cast<std::uint32_t>(totalLength) : static_cast<std::uint32_t>(20 + payload.size()));
    Be16(p.data() + 4, id);
    Be16(p.data() + 6, static_cast<std::uint32_t>((more ? 0x2000 : 0) | (fragmentOffset / 8)));
    p[8] = 64;
    p[9] = static_cast<unsigned char>(proto);
    std::memcpy(p.data() + 12, from.address.data(), 4);
    std::memcpy(p.data() + 16, to.address.data(), 4);
    return Concat(p, payload);
}

// An IPv6 packet whose payload starts with header `next` (extension
// headers, then the upper layer, are the caller's bytes).
inline Bytes Ip6(const End& from, const End& to, int next, const Bytes& payload) {
    Bytes p(40, 0);
    p[0] = 0x60;
    Be16(p.data() + 4, static_cast<std::uint32_t>(payload.size()));
    p[6] = static_cast<unsigned char>(next);
    p[7] = 64;
    std::memcpy(p.data() + 8, from.address.data(), 16);
    std::memcpy(p.data() + 24, to.address.data(), 16);
    return Concat(p, payload);
}
// An IPv6 extension header of 8 * (units + 1) bytes (hop-by-hop, routing,
// destination options) whose next header is `next`.
inline Bytes Ext6(int next, int units, const Bytes& rest) {
    Bytes h(8 * static_cast<std::size_t>(units + 1), 0);
    h[0] = static_cast<unsigned char>(next);
    h[1] = static_cast<unsigned char>(units);
    return Concat(h, rest);
}
inline Bytes Fragment6(int next, std::size_t offset, bool more, std::uint32_t id, const Bytes& piece) {
    Bytes h(8, 0);
    h[0] = static_cast<unsigned char>(next);
    Be16(h.data() + 2, static_cast<std::uint32_t>(offset | (more ? 1 : 0)));
    Be32(h.data() + 4, id);
    return Concat(h, piece);
}

// Link-layer framings of an IP packet.
inline Bytes Ethernet(const Bytes& ip, std::vector<std::uint16_t> tags = {}) {
    Bytes f(12, 0x02);
    for (std::uint16_t tpid : tags) {
        const unsigned char tag[4] = {static_cast<unsigned char>(tpid >> 8), static_cast<unsigned char>(tpid), 0, 7};
        f.insert(f.end(), tag, tag + 4);
    }
    const std::uint16_t type = (ip[0] >> 4) == 6 ? 0x86DD : 0x0800;
    f.push_back(static_cast<unsigned char>(type >> 8)), f.push_back(static_cast<unsigned char>(type));
    return Concat(f, ip);
}
inline Bytes Sll(const Bytes& ip) {
    Bytes f(16, 0);
    Be16(f.data() + 2, 772);
    Be16(f.data() + 14, (ip[0] >> 4) == 6 ? 0x86DD : 0x0800);
    return Concat(f, ip);
}
inline Bytes Sll2(const Bytes& ip) {
    Bytes f(20, 0);
    Be16(f.data(), (ip[0] >> 4) == 6 ? 0x86DD : 0x0800);
    Be16(f.data() + 8, 772);
    return Concat(f, ip);
}
// BSD loopback: the address family in the capturing host's byte order (NULL)
// or in network order (LOOP).
inline Bytes Loopback(const Bytes& ip, bool networkOrder) {
    const std::uint32_t family = (ip[0] >> 4) == 6 ? 30 : 2;
    Bytes f(4);
    if (networkOrder) Be32(f.data(), family);
    else std::memcpy(f.data(), &family, 4);
    return Concat(f, ip);
}

}  // namespace pcapbuild

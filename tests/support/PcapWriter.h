// The test suite's own capture files: a classic pcap of Ethernet frames
// carrying IPv4 TCP segments, written byte by byte (no capture library), and
// a TCP connection's two byte streams laid out as such segments.
#pragma once

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <fstream>
#include <string>
#include <vector>

namespace pcap {

// A classic pcap file of Ethernet frames carrying IPv4 TCP segments.
class PcapWriter {
public:
    PcapWriter() {
        Put32(0xa1b2c3d4);
        Put16(2), Put16(4), Put32(0), Put32(0), Put32(65535), Put32(1);
    }
    // A segment; with `ack` non-zero, acknowledging the peer's bytes up to it.
    void Segment(std::uint32_t src, std::uint16_t sport, std::uint32_t dst, std::uint16_t dport, std::uint32_t seq,
                 bool syn, const char* payload, std::size_t n, std::uint32_t ack = 0) {
        std::vector<unsigned char> f(14 + 20 + 20 + n, 0);
        f[12] = 0x08;  // IPv4
        unsigned char* ip = f.data() + 14;
        ip[0] = 0x45;
        Be16(ip + 2, static_cast<std::uint16_t>(40 + n));
        ip[8] = 64;
        ip[9] = 6;
        Be32(ip + 12, src);
        Be32(ip + 16, dst);
        unsigned char* tcp = ip + 20;
        Be16(tcp, sport);
        Be16(tcp + 2, dport);
        Be32(tcp + 4, seq);
        tcp[12] = 5 << 4;
        Be32(tcp + 8, ack);
        tcp[13] = static_cast<unsigned char>((syn ? 0x02 : 0x08) | (ack != 0 || !syn ? 0x10 : 0));
        Be16(tcp + 14, 65535);  // the window
        if (n) std::memcpy(tcp + 20, payload, n);
        Put32(++time_), Put32(0), Put32(static_cast<std::uint32_t>(f.size())), Put32(static_cast<std::uint32_t>(f.size()));
        bytes_.insert(bytes_.end(), f.begin(), f.end());
    }
    const std::vector<char>& Bytes() const { return bytes_; }
    void Save(const std::string& path) const {
        std::ofstream out(path, std::ios::binary);
        out.write(bytes_.data(), static_cast<std::streamsize>(bytes_.size()));
    }

private:
    static void Be16(unsigned char* p, std::uint16_t v) { p[0] = static_cast<unsigned char>(v >> 8), p[1] = static_cast<unsigned char>(v); }
    static void Be32(unsigned char* p, std::uint32_t v) { Be16(p, static_cast<std::uint16_t>(v >> 16)), Be16(p + 2, static_cast<std::uint16_t>(v)); }
    void Put16(std::uint16_t v) {
        bytes_.push_back(static_cast<char>(v));
        bytes_.push_back(static_cast<char>(v >> 8));
    }
    void Put32(std::uint32_t v) { Put16(static_cast<std::uint16_t>(v)), Put16(static_cast<std::uint16_t>(v >> 16)); }
    std::vector<char> bytes_;
    std::uint32_t time_ = 1700000000;
};

// A connection from client:cport to server:sport that carries `up` (client
// to server) and `down` (server to client): the handshake, then each stream
// cut into segments of at most `mss` bytes, the two directions taking turns,
// so that messages span segments and segments hold several messages.
inline void Connection(PcapWriter& w, std::uint32_t client, std::uint16_t cport, std::uint32_t server, std::uint16_t sport,
                       const std::vector<char>& up, const std::vector<char>& down, std::size_t mss = 1460) {
    const std::uint32_t cisn = 1000, sisn = 500000;
    w.Segment(client, cport, server, sport, cisn - 1, true, nullptr, 0);
    w.Segment(server, sport, client, cport, sisn - 1, true, nullptr, 0, cisn);
    for (std::size_t u = 0, d = 0; u < up.size() || d < down.size();) {
        if (u < up.size()) {
            const std::size_t n = std::min(mss, up.size() - u);
            w.Segment(client, cport, server, sport, cisn + static_cast<std::uint32_t>(u), false, up.data() + u, n,
                      sisn + static_cast<std::uint32_t>(d));
            u += n;
        }
        if (d < down.size()) {
            const std::size_t n = std::min(mss, down.size() - d);
            w.Segment(server, sport, client, cport, sisn + static_cast<std::uint32_t>(d), false, down.data() + d, n,
                      cisn + static_cast<std::uint32_t>(u));
            d += n;
        }
    }
}

// 127.0.0.1 as the writer takes addresses.
constexpr std::uint32_t kLoopback = 0x7F000001;

}  // namespace pcap

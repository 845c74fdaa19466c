#include "Stream.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <map>
#include <stdexcept>
#include <tuple>

#include "Fields.h"
#include "trdcomp/trdcomp.hpp"

#if TRDCOMP_HAVE_PCAP
#include <pcap/pcap.h>
#endif

namespace tool {

namespace {

std::uint32_t Get(const unsigned char* p, int width, bool big) {
    std::uint32_t v = 0;
    for (int i = 0; i < width; ++i) v |= static_cast<std::uint32_t>(p[big ? width - 1 - i : i]) << (8 * i);
    return v;
}

}  // namespace

Frame ParseFrame(const std::string& text) {
    if (text == "message" || text.empty()) return Frame::message;
    if (text == "u32le") return Frame::u32le;
    if (text == "u32be") return Frame::u32be;
    if (text == "u16le") return Frame::u16le;
    if (text == "u16be") return Frame::u16be;
    throw std::runtime_error("--frame " + text + ": expected message, u32le, u32be, u16le or u16be");
}

Pieces CutStream(const char* p, std::size_t n, Frame frame) {
    Pieces out;
    std::size_t at = 0;
    while (at < n) {
        const std::size_t left = n - at;
        std::size_t skip = 0, length = 0;
        if (frame == Frame::message) {
            const trdcomp::FrameLength f = trdcomp::MessageLength(p + at, left);
            if (f.status == trdcomp::Framing::invalid) {
                out.problem = "no message starts at offset " + std::to_string(at) +
                              " (head word 0 must be 76 or 96, and the lengths inside the message in range)";
                return out;
            }
            if (f.status == trdcomp::Framing::cannot_tell) {
                out.problem = "the message at offset " + std::to_string(at) +
                              " does not carry its length (its records travel raw): name the transport's length "
                              "prefix with --frame";
                return out;
            }
            if (f.status == trdcomp::Framing::need_more || f.length > left) {
                out.problem = "the last " + Plural(static_cast<long long>(left), "byte") + " (from offset " + std::to_string(at) +
                              (left == 1 ? ") is" : ") are") + " an incomplete message";
                return out;
            }
            length = f.length;
        } else {
            const int width = frame == Frame::u32le || frame == Frame::u32be ? 4 : 2;
            const bool big = frame == Frame::u32be || frame == Frame::u16be;
            if (left < static_cast<std::size_t>(width)) {
                out.problem = "the last " + Plural(static_cast<long long>(left), "byte") + " (from offset " + std::to_string(at) +
                              (left == 1 ? ") is" : ") are") + " an incomplete length prefix";
                return out;
            }
            skip = static_cast<std::size_t>(width);
            length = Get(reinterpret_cast<const unsigned char*>(p + at), width, big);
            if (length > left - skip) {
                out.problem = "the prefix at offset " + std::to_string(at) + " announces " + Plural(static_cast<long long>(length), "byte") +
                              " but only " + std::to_string(left - skip) + (left - skip == 1 ? " follows" : " follow");
                return out;
            }
        }
        Piece piece;
        piece.offset = at + skip;
        piece.bytes.assign(p + at + skip, p + at + skip + length);
        out.messages.push_back(std::move(piece));
        at += skip + length;
    }
    return out;
}

#if TRDCOMP_HAVE_PCAP

namespace {

struct Segment {
    std::uint32_t seq;
    bool syn;
    std::vector<char> payload;
};

struct Direction {
    std::vector<Segment> segments;
};

std::string Address(const unsigned char* a, bool v6) {
    char text[64];
    if (!v6) {
        std::snprintf(text, sizeof text, "%u.%u.%u.%u", a[0], a[1], a[2], a[3]);
    } else {
        std::string s;
        for (int i = 0; i < 16; i += 2) {
            std::snprintf(text, sizeof text, "%s%x", i ? ":" : "", a[i] << 8 | a[i + 1]);
            s += text;
        }
        return "[" + s + "]";
    }
    return text;
}

// The IP packet inside a frame of the capture's link type, or null.
const unsigned char* IpPacket(int link, const unsigned char* p, std::size_t n, std::size_t& left) {
    std::size_t off = 0;
    switch (link) {
        case DLT_EN10MB: {
            if (n < 14) return nullptr;
            std::uint16_t type = static_cast<std::uint16_t>(p[12] << 8 | p[13]);
            off = 14;
            while ((type == 0x8100 || type == 0x88A8) && n >= off + 4) {  // VLAN tags
                type = static_cast<std::uint16_t>(p[off + 2] << 8 | p[off + 3]);
                off += 4;
            }
            if (type != 0x0800 && type != 0x86DD) return nullptr;
            break;
        }
        case DLT_NULL:
        case DLT_LOOP: off = 4; break;
        case DLT_LINUX_SLL: off = 16; break;
        case DLT_RAW:
#ifdef DLT_IPV4
        case DLT_IPV4:
        case DLT_IPV6:
#endif
            off = 0;
            break;
        default: return nullptr;
    }
    if (n < off) return nullptr;
    left = n - off;
    return p + off;
}

}  // namespace

std::vector<Flow> ReadCapture(const std::string& file, int port) {
    char err[PCAP_ERRBUF_SIZE] = {};
    pcap_t* pc = pcap_open_offline(file.c_str(), err);
    if (pc == nullptr) throw std::runtime_error("cannot read the capture " + file + ": " + err);
    const int link = pcap_datalink(pc);
    // Directions in the order they first appear.
    std::vector<std::string> order;
    std::map<std::string, Direction> flows;
    pcap_pkthdr* h = nullptr;
    const unsigned char* frame = nullptr;
    int rc;
    while ((rc = pcap_next_ex(pc, &h, &frame)) == 1) {
        std::size_t n = 0;
        const unsigned char* ip = IpPacket(link, frame, h->caplen, n);
        if (ip == nullptr || n < 20) continue;
        const int version = ip[0] >> 4;
        std::size_t ipLen = 0, total = 0;
        std::string src, dst;
        if (version == 4) {
            ipLen = static_cast<std::size_t>(ip[0] & 0xF) * 4;
            total = static_cast<std::size_t>(ip[2] << 8 | ip[3]);
            if (ip[9] != 6 || ipLen < 20 || (ip[6] & 0x3F) != 0 || ip[7] != 0) continue;  // TCP, unfragmented
            src = Address(ip + 12, false);
            dst = Address(ip + 16, false);
        } else if (version == 6 && n >= 40) {
            ipLen = 40;
            total = 40 + static_cast<std::size_t>(ip[4] << 8 | ip[5]);
            if (ip[6] != 6) continue;  // TCP without extension headers
            src = Address(ip + 8, true);
            dst = Address(ip + 24, true);
        } else {
            continue;
        }
        total = std::min(total, n);
        if (total < ipLen + 20) continue;
        const unsigned char* tcp = ip + ipLen;
        const std::size_t tcpLen = static_cast<std::size_t>(tcp[12] >> 4) * 4;
        if (tcpLen < 20 || ipLen + tcpLen > total) continue;
        const int sport = tcp[0] << 8 | tcp[1], dport = tcp[2] << 8 | tcp[3];
        if (port != 0 && sport != port && dport != port) continue;
        const std::string name = src + ":" + std::to_string(sport) + " -> " + dst + ":" + std::to_string(dport);
        if (!flows.count(name)) order.push_back(name);
        Segment s;
        s.seq = Get(tcp + 4, 4, true);
        s.syn = (tcp[13] & 0x02) != 0;
        s.payload.assign(reinterpret_cast<const char*>(tcp + tcpLen), reinterpret_cast<const char*>(ip + total));
        flows[name].segments.push_back(std::move(s));
    }
    const std::string failure = rc == -1 ? pcap_geterr(pc) : "";
    pcap_close(pc);
    if (!failure.empty()) throw std::runtime_error("reading the capture " + file + ": " + failure);

    std::vector<Flow> out;
    for (const std::string& name : order) {
        std::vector<Segment>& segs = flows[name].segments;
        // Offsets from the first byte: behind the SYN when it was captured,
        // else the lowest sequence number seen (wrap-around aware).
        std::uint32_t base = segs.front().seq;
        bool synSeen = false;
        for (const Segment& s : segs) {
            if (s.syn) {
                base = s.seq + 1;
                synSeen = true;
                break;
            }
        }
        if (!synSeen)
            for (const Segment& s : segs)
                if (static_cast<std::int32_t>(s.seq - base) < 0) base = s.seq;
        std::vector<std::pair<std::int64_t, const Segment*>> placed;
        for (const Segment& s : segs) {
            if (s.payload.empty()) continue;
            const std::int64_t seq = s.syn ? static_cast<std::int64_t>(s.seq) + 1 : s.seq;
            placed.emplace_back(static_cast<std::int64_t>(static_cast<std::uint32_t>(seq - base)), &s);
        }
        std::stable_sort(placed.begin(), placed.end(),
                         [](const auto& a, const auto& b) { return a.first < b.first; });
        Flow f;
        f.name = name;
        for (const auto& [off, s] : placed) {
            const std::int64_t have = static_cast<std::int64_t>(f.bytes.size());
            const std::int64_t end = off + static_cast<std::int64_t>(s->payload.size());
            if (end <= have) continue;  // a retransmission of bytes already placed
            if (off > have) {
                f.problem = Plural(off - have, "byte") + " missing from the capture at stream offset " +
                            std::to_string(have);
                break;
            }
            f.bytes.insert(f.bytes.end(), s->payload.begin() + (have - off), s->payload.end());
        }
        if (!f.bytes.empty() || !f.problem.empty()) out.push_back(std::move(f));
    }
    return out;
}

#else

std::vector<Flow> ReadCapture(const std::string&, int) {
    throw std::runtime_error("this trdcomp was built without libpcap, so --pcap is unavailable "
                             "(Debian: apt-get install libpcap-dev, then build again)");
}

#endif

}  // namespace tool

// The capture reader on captures written byte by byte: every link type a
// capture of TCP/IP has, IP options, extension headers and fragments, and
// TCP as it is (a capture that missed the start, keep-alives, a 4-tuple
// reused, retransmissions that differ, gaps, a capture cut short), in one
// table; each case states the messages every direction must give and the
// reports the capture must make.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <functional>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "Capture.h"
#include "support/Golden.h"
#include "support/PcapBuilder.h"
#include "trdcomp/trdcomp.hpp"

namespace {

using namespace pcapbuild;
using tool::ReportKind;

// Golden messages whose length is in their bytes, back to back.
std::vector<std::vector<char>> Messages(bool requests, std::size_t n) {
    std::vector<std::vector<char>> out;
    for (const std::string& name : golden::Names()) {
        if ((name.rfind("req_", 0) == 0) != requests) continue;
        std::vector<char> w = golden::Wire(name);
        if (trdcomp::MessageLength({w.data(), w.size()}).status == trdcomp::Framing::complete) out.push_back(w);
        if (out.size() == n) break;
    }
    return out;
}
Bytes Joined(const std::vector<std::vector<char>>& messages) {
    Bytes b;
    for (const auto& m : messages) b.insert(b.end(), m.begin(), m.end());
    return b;
}

// What a case expects: the messages of each direction (by its name) and the
// reports (kind and bytes; bytes -1: any).
struct Expected {
    std::map<std::string, std::vector<std::vector<char>>> messages;
    std::vector<std::pair<ReportKind, long long>> reports;
};

// A capture in the making: frames of one link type carrying IPv4 or IPv6
// packets, the packets built by `ip` (which may fragment them).
struct Capture {
    std::uint32_t link;
    std::function<Bytes(const Bytes&)> frame;
    std::function<std::vector<Bytes>(const End&, const End&, const Bytes&)> ip;
    PcapFile file;

    Capture(std::uint32_t l, std::function<Bytes(const Bytes&)> f, std::function<std::vector<Bytes>(const End&, const End&, const Bytes&)> i)
        : link(l), frame(std::move(f)), ip(std::move(i)), file(l) {}

    void Segment(const End& from, const End& to, std::uint32_t seq, unsigned char flags, const Bytes& payload = {}) {
        for (const Bytes& packet : ip(from, to, TcpSegment(from, to, seq, flags, payload))) file.Frame(frame(packet));
    }
    // `stream` from byte `from` to `to` in segments of varying size, starting
    // at sequence number isn + 1 + from.
    void Stream(const End& a, const End& b, std::uint32_t isn, const Bytes& stream, std::size_t from = 0, std::size_t to = SIZE_MAX) {
        to = std::min(to, stream.size());
        for (std::size_t at = from, i = 0; at < to; ++i) {
            const std::size_t n = std::min<std::size_t>(to - at, 1 + (i * 131 + 57) % 400);
            Segment(a, b, isn + 1 + static_cast<std::uint32_t>(at), kAck | kPsh, Bytes(stream.begin() + static_cast<std::ptrdiff_t>(at), stream.begin() + static_cast<std::ptrdiff_t>(at + n)));
            at += n;
        }
    }
    void Open(const End& c, const End& s, std::uint32_t cisn, std::uint32_t sisn) {
        Segment(c, s, cisn, kSyn);
        Segment(s, c, sisn, kSyn | kAck);
        Segment(c, s, cisn + 1, kAck);
    }
    void Close(const End& c, const End& s, std::uint32_t cend, std::uint32_t send) {
        Segment(c, s, cend, kFin | kAck);
        Segment(s, c, send, kFin | kAck);
        Segment(c, s, cend + 1, kAck);
    }
};

std::vector<Bytes> Whole4(const End& a, const End& b, const Bytes& tcp) { return {Ip4(a, b, 6, tcp)}; }
std::vector<Bytes> Whole6(const End& a, const End& b, const Bytes& tcp) { return {Ip6(a, b, 6, tcp)}; }
Bytes Eth(const Bytes& ip) { return Ethernet(ip); }

std::string Name(const End& a, const End& b) {
    auto text = [](const End& e) {
        char t[64];
        if (e.address.size() == 4) std::snprintf(t, sizeof t, "%u.%u.%u.%u", e.address[0], e.address[1], e.address[2], e.address[3]);
        else std::snprintf(t, sizeof t, "[fd00::%x]", e.address[14] << 8 | e.address[15]);
        return std::string(t) + ":" + std::to_string(e.port);
    };
    return text(a) + " -> " + text(b);
}

const End kClient4 = V4(0x0A000001, 40000), kServer4 = V4(0x0A000002, 9000);
const End kClient6 = V6(1, 40000), kServer6 = V6(2, 9000);

struct Case {
    std::string what;
    std::vector<char> capture;
    Expected expected;
    tool::TcpMessages::Options options{};
};

// A whole exchange on one connection, both directions, in the given framing.
Case Exchange(const std::string& what, Capture c, bool v6) {
    const End& cl = v6 ? kClient6 : kClient4;
    const End& sv = v6 ? kServer6 : kServer4;
    const auto requests = Messages(true, 6), answers = Messages(false, 6);
    const Bytes up = Joined(requests), down = Joined(answers);
    const std::uint32_t cisn = 0xFFFFFF00u, sisn = 5000;  // the client's sequence numbers wrap around
    c.Open(cl, sv, cisn, sisn);
    c.Stream(cl, sv, cisn, up);
    c.Segment(sv, cl, sisn + 1, kAck);  // a bare acknowledgement
    c.Stream(sv, cl, sisn, down);
    c.Close(cl, sv, cisn + 1 + static_cast<std::uint32_t>(up.size()), sisn + 1 + static_cast<std::uint32_t>(down.size()));
    Case k{what, c.file.Data(), {}};
    k.expected.messages[Name(cl, sv)] = requests;
    k.expected.messages[Name(sv, cl)] = answers;
    return k;
}

// The capture read by the reader: its messages by direction, its reports.
Expected Read(const std::vector<char>& capture, const tool::TcpMessages::Options& options) {
    std::vector<char> copy = capture;
    std::FILE* f = ::fmemopen(copy.data(), copy.size(), "rb");
    tool::CaptureReader reader(f, options);
    Expected got;
    tool::TcpMessages::Item item;
    while (reader.Next(item)) {
        if (item.cut.isReport) got.reports.emplace_back(item.cut.report.kind, static_cast<long long>(item.cut.report.bytes));
        else got.messages[item.flow->name].emplace_back(item.cut.data, item.cut.data + item.cut.size);
    }
    return got;
}

std::string Reports(const std::vector<std::pair<ReportKind, long long>>& r) {
    std::string s;
    for (const auto& [kind, bytes] : r) s += std::string(tool::ReportKindName(kind)) + "(" + std::to_string(bytes) + ") ";
    return s;
}

std::vector<Case> Cases() {
    std::vector<Case> cases;
    auto ip4 = Whole4;
    cases.push_back(Exchange("Ethernet with a VLAN tag inside a QinQ tag", Capture(kEthernet, [](const Bytes& ip) { return Ethernet(ip, {0x88A8, 0x8100}); }, ip4), false));
    cases.push_back(Exchange("Linux cooked v1", Capture(kSll, Sll, ip4), false));
    cases.push_back(Exchange("Linux cooked v2 (tcpdump -i any)", Capture(kSll2, Sll2, ip4), false));
    cases.push_back(Exchange("raw IPv4", Capture(kRaw, [](const Bytes& ip) { return ip; }, ip4), false));
    cases.push_back(Exchange("raw IPv6", Capture(kIpv6, [](const Bytes& ip) { return ip; }, Whole6), true));
    cases.push_back(Exchange("BSD loopback, host byte order", Capture(kNull, [](const Bytes& ip) { return Loopback(ip, false); }, ip4), false));
    cases.push_back(Exchange("OpenBSD loopback, network byte order, IPv6", Capture(kLoop, [](const Bytes& ip) { return Loopback(ip, true); }, Whole6), true));
    cases.push_back(Exchange("IPv6 behind hop-by-hop, routing and destination options", Capture(kEthernet, Eth, [](const End& a, const End& b, const Bytes& tcp) {
        return std::vector<Bytes>{Ip6(a, b, 0, Ext6(43, 0, Ext6(60, 1, Ext6(6, 0, tcp))))};
    }), true));
    cases.push_back(Exchange("IPv4 fragments, the last first", Capture(kEthernet, Eth, [](const End& a, const End& b, const Bytes& tcp) {
        static std::uint16_t id = 100;
        ++id;
        if (tcp.size() < 64) return std::vector<Bytes>{Ip4(a, b, 6, tcp)};
        const std::size_t half = tcp.size() / 16 * 8;
        return std::vector<Bytes>{Ip4(a, b, 6, Bytes(tcp.begin() + static_cast<std::ptrdiff_t>(half), tcp.end()), -1, id, half, false),
                                  Ip4(a, b, 6, Bytes(tcp.begin(), tcp.begin() + static_cast<std::ptrdiff_t>(half)), -1, id, 0, true)};
    }), false));
    cases.push_back(Exchange("IPv6 fragments", Capture(kEthernet, Eth, [](const End& a, const End& b, const Bytes& tcp) {
        static std::uint32_t id = 7;
        ++id;
        const std::size_t half = tcp.size() / 16 * 8;
        return std::vector<Bytes>{Ip6(a, b, 44, Fragment6(6, 0, true, id, Bytes(tcp.begin(), tcp.begin() + static_cast<std::ptrdiff_t>(half)))),
                                  Ip6(a, b, 44, Fragment6(6, half, false, id, Bytes(tcp.begin() + static_cast<std::ptrdiff_t>(half), tcp.end())))};
    }), true));
    cases.push_back(Exchange("IPv4 total length 0 (segmentation offload)", Capture(kEthernet, Eth, [](const End& a, const End& b, const Bytes& tcp) {
        return std::vector<Bytes>{Ip4(a, b, 6, tcp, 0)};
    }), false));

    const auto requests = Messages(true, 8), answers = Messages(false, 8);
    const Bytes up = Joined(requests);
    const std::string upName = Name(kClient4, kServer4);
    {
        // The capture starts in the middle of the connection with a keep-alive
        // probe at one before the next byte, with no byte and with one.
        Capture c(kEthernet, Eth, ip4);
        c.Segment(kClient4, kServer4, 999, kAck);
        c.Segment(kClient4, kServer4, 999, kAck, Bytes{0x55});
        c.Stream(kClient4, kServer4, 999, up);
        c.Segment(kClient4, kServer4, 999 + static_cast<std::uint32_t>(up.size()), kAck, Bytes{0x77});
        Case k{"no SYN, a keep-alive at the sequence number before the next byte", c.file.Data(), {}};
        k.expected.messages[upName] = requests;
        k.expected.reports = {{ReportKind::skipped, 0}};  // picked up at offset 0
        cases.push_back(k);
    }
    {
        // One 4-tuple, two connections: the first ends with a reset, the second
        // opens with another initial sequence number.
        Capture c(kEthernet, Eth, ip4);
        const Bytes first = Joined({requests[0], requests[1]}), second = Joined({requests[2], requests[3], requests[4]});
        c.Open(kClient4, kServer4, 100, 9000);
        c.Stream(kClient4, kServer4, 100, first);
        c.Segment(kClient4, kServer4, 101 + static_cast<std::uint32_t>(first.size()), kRst);
        c.Open(kClient4, kServer4, 700000, 1);
        c.Stream(kClient4, kServer4, 700000, second);
        Case k{"a 4-tuple reused after a reset", c.file.Data(), {}};
        k.expected.messages[upName] = {requests[0], requests[1], requests[2], requests[3], requests[4]};
        cases.push_back(k);
    }
    {
        // A segment of an earlier connection on the same 4-tuple (its
        // sequence numbers just below the SYN's), after the SYN and before it.
        Capture c(kEthernet, Eth, ip4);
        const Bytes stale(40, 0x33);
        c.Segment(kClient4, kServer4, 50000 - 17554, kAck | kPsh, stale);
        c.Open(kClient4, kServer4, 50000, 1);
        c.Segment(kClient4, kServer4, 50000 - 17554, kAck | kPsh, stale);
        c.Stream(kClient4, kServer4, 50000, up);
        Case k{"a segment before the SYN", c.file.Data(), {}};
        k.expected.messages[upName] = requests;
        k.expected.reports = {{ReportKind::skipped, 40}};  // the earlier connection's bytes, picked up and not one message
        cases.push_back(k);
    }
    {
        // The same bytes sent twice, the second time with one byte changed:
        // once after the first were handed on, once while they waited behind
        // a missing segment.
        Capture c(kEthernet, Eth, ip4);
        c.Open(kClient4, kServer4, 10, 20);
        const std::size_t a = requests[0].size();
        Bytes changed(up.begin(), up.begin() + static_cast<std::ptrdiff_t>(a));
        changed[5] ^= 0xFF;
        c.Stream(kClient4, kServer4, 10, up, 0, a);
        c.Segment(kClient4, kServer4, 11, kAck | kPsh, changed);
        c.Stream(kClient4, kServer4, 10, up, a + 100, up.size());
        Bytes later(up.begin() + static_cast<std::ptrdiff_t>(a + 100), up.begin() + static_cast<std::ptrdiff_t>(a + 150));
        later[0] ^= 1;
        c.Segment(kClient4, kServer4, 11 + static_cast<std::uint32_t>(a + 100), kAck | kPsh, later);
        c.Stream(kClient4, kServer4, 10, up, a, a + 100);
        Case k{"retransmissions with other bytes", c.file.Data(), {}};
        k.expected.messages[upName] = requests;
        k.expected.reports = {{ReportKind::conflict, static_cast<long long>(a)}, {ReportKind::conflict, 50}};
        cases.push_back(k);
    }
    {
        // A segment the capture lacks in the middle of message 3: messages 1
        // and 2 come, the rest of message 3 is skipped, decoding goes on at 4.
        Capture c(kEthernet, Eth, ip4);
        c.Open(kClient4, kServer4, 10, 20);
        const std::size_t start3 = requests[0].size() + requests[1].size(), start4 = start3 + requests[2].size();
        const std::size_t holeFrom = start3 + 10, holeTo = start3 + 30;
        c.Stream(kClient4, kServer4, 10, up, 0, holeFrom);
        c.Stream(kClient4, kServer4, 10, up, holeTo, up.size());
        c.Segment(kClient4, kServer4, 11 + static_cast<std::uint32_t>(up.size()), kFin | kAck);
        Case k{"a gap that never fills, and decoding after it", c.file.Data(), {}};
        k.expected.messages[upName] = {requests.begin(), requests.begin() + 2};
        k.expected.messages[upName].insert(k.expected.messages[upName].end(), requests.begin() + 3, requests.end());
        k.expected.reports = {{ReportKind::skipped, 10}, {ReportKind::gap, 20}, {ReportKind::skipped, static_cast<long long>(start4 - holeTo)}};
        cases.push_back(k);
    }
    {
        // The reassembly window overflows behind a missing segment: the
        // missing bytes are declared a gap at once, and the segment that
        // comes late is one of bytes already passed.
        Capture c(kEthernet, Eth, ip4);
        c.Open(kClient4, kServer4, 10, 20);
        const std::size_t end1 = requests[0].size(), start3 = end1 + requests[1].size();
        c.Stream(kClient4, kServer4, 10, up, 0, end1);
        c.Stream(kClient4, kServer4, 10, up, end1 + 5, up.size());
        c.Stream(kClient4, kServer4, 10, up, end1, end1 + 5);
        Case k{"the reassembly window overflows", c.file.Data(), {}};
        k.options.window = 600;
        k.expected.messages[upName] = {requests[0]};
        k.expected.messages[upName].insert(k.expected.messages[upName].end(), requests.begin() + 2, requests.end());
        k.expected.reports = {{ReportKind::gap, 5}, {ReportKind::skipped, static_cast<long long>(start3 - end1 - 5)}};
        cases.push_back(k);
    }
    {
        // The capture starts inside message 2 (no SYN): picked up at message 3.
        Capture c(kEthernet, Eth, ip4);
        const std::size_t start2 = requests[0].size(), start3 = start2 + requests[1].size();
        c.Stream(kClient4, kServer4, 500, up, start2 + 17, up.size());
        Case k{"picked up inside a message", c.file.Data(), {}};
        k.expected.messages[upName] = {requests.begin() + 2, requests.end()};
        k.expected.reports = {{ReportKind::skipped, static_cast<long long>(start3 - start2 - 17)}};
        cases.push_back(k);
    }
    {
        // Killed while it wrote its last packet: every message before it.
        Capture c(kEthernet, Eth, ip4);
        c.Open(kClient4, kServer4, 10, 20);
        c.Stream(kClient4, kServer4, 10, up);
        c.Segment(kClient4, kServer4, 11 + static_cast<std::uint32_t>(up.size()), kAck | kPsh, Bytes(requests[0].begin(), requests[0].end()));
        c.file.Data().resize(c.file.Data().size() - 30);
        Case k{"a capture cut inside its last packet", c.file.Data(), {}};
        k.expected.messages[upName] = requests;
        k.expected.reports = {{ReportKind::cut, 0}};
        cases.push_back(k);
    }
    {
        // Snap length: each packet kept only in part.
        Capture c(kEthernet, Eth, ip4);
        c.Open(kClient4, kServer4, 10, 20);
        const std::size_t end2 = requests[0].size() + requests[1].size();
        c.Stream(kClient4, kServer4, 10, up, 0, end2);
        c.file.Frame(Ethernet(Ip4(kClient4, kServer4, 6, TcpSegment(kClient4, kServer4, 11 + static_cast<std::uint32_t>(end2), kAck, Bytes(up.begin() + static_cast<std::ptrdiff_t>(end2), up.end())))),
                     14 + 20 + 20 + 8);
        Case k{"a packet the capture kept only the start of", c.file.Data(), {}};
        k.expected.messages[upName] = {requests[0], requests[1]};
        k.expected.reports = {{ReportKind::gap, static_cast<long long>(up.size() - end2 - 8)}, {ReportKind::skipped, 8}};
        cases.push_back(k);
    }
    {
        PcapFile f(147);  // a user-defined link type
        f.Frame(Bytes(60, 1));
        Case k{"a link type that is not read", f.Data(), {}};
        k.expected.reports = {{ReportKind::link_type, 0}};
        cases.push_back(k);
    }
    return cases;
}

}  // namespace

TEST(Capture, EveryLinkTypeAndEveryWayTcpCarriesIt) {
#if !TRDCOMP_HAVE_PCAP
    GTEST_SKIP() << "built without libpcap";
#endif
    for (const Case& c : Cases()) {
        SCOPED_TRACE(c.what);
        const Expected got = Read(c.capture, c.options);
        for (const auto& [flow, messages] : c.expected.messages) {
            const auto it = got.messages.find(flow);
            ASSERT_NE(it, got.messages.end()) << "no message from " << flow << "; reports " << Reports(got.reports);
            ASSERT_EQ(it->second.size(), messages.size()) << flow << "; reports " << Reports(got.reports);
            for (std::size_t i = 0; i < messages.size(); ++i) EXPECT_EQ(it->second[i], messages[i]) << flow << " message " << i;
        }
        for (const auto& [flow, messages] : got.messages)
            EXPECT_TRUE(c.expected.messages.count(flow)) << "messages from " << flow << " that no one sent";
        auto sorted = [](std::vector<std::pair<ReportKind, long long>> r) {
            std::sort(r.begin(), r.end());
            return r;
        };
        EXPECT_EQ(Reports(sorted(got.reports)), Reports(sorted(c.expected.reports)));
    }
}

// A flow of segments in order, one whose start the capture missed: the
// messages come out as the segments arrive, not at the end.
TEST(Capture, MessagesComeOutAsTheirLastSegmentArrives) {
    const auto requests = Messages(true, 3);
    const Bytes up = Joined(requests);
    tool::TcpMessages tcp({});
    std::vector<std::size_t> after;  // segments handed in when each message came out
    std::size_t segments = 0;
    for (std::size_t at = 0; at < up.size(); at += 50) {
        const Bytes piece(up.begin() + static_cast<std::ptrdiff_t>(at), up.begin() + static_cast<std::ptrdiff_t>(std::min(at + 50, up.size())));
        const Bytes frame = Ethernet(Ip4(kClient4, kServer4, 6, TcpSegment(kClient4, kServer4, 1000 + static_cast<std::uint32_t>(at), kAck, piece)));
        tcp.Packet(kEthernet, {}, frame.data(), frame.size());
        ++segments;
        tool::TcpMessages::Item item;
        while (tcp.Next(item))
            if (!item.cut.isReport) after.push_back(segments);
    }
    // Picked up with no SYN: the first message is certain once the second
    // frames after it; from then on each comes with its last segment.
    const std::size_t end2 = requests[0].size() + requests[1].size();
    ASSERT_EQ(after.size(), 3u);
    EXPECT_EQ(after[0], (end2 + 49) / 50);
    EXPECT_EQ(after[1], (end2 + 49) / 50);
    EXPECT_EQ(after[2], (up.size() + 49) / 50);
    EXPECT_LT(after[0], segments);
}

#include "Capture.h"

#include <algorithm>
#include <cstring>
#include <ctime>
#include <optional>
#include <utility>

#include "Fields.h"

#if TRDCOMP_HAVE_PCAP
#include <pcap/pcap.h>
#endif

namespace tool {

namespace {

// Link types as capture files number them (libpcap hands some over under
// their older DLT_ numbers: raw IP as 12 or 14).
enum : int {
    kNull = 0,
    kEthernet = 1,
    kRawDlt = 12,
    kRawDltBsd = 14,
    kRaw = 101,
    kLoop = 108,
    kLinuxCooked = 113,
    kIpv4 = 228,
    kIpv6 = 229,
    kLinuxCooked2 = 276,
};

// Bytes of TCP payload a direction keeps of what it handed on, to compare a
// later retransmission with.
constexpr std::size_t kHistory = 16 << 10;
// The largest IP datagram fragments can make.
constexpr std::size_t kMaxDatagram = 65535;
// Datagrams in reassembly at once; fragments of one not complete within
// kFragmentSeconds of capture time are reported and dropped.
constexpr std::size_t kMaxDatagrams = 4096;
constexpr double kFragmentSeconds = 30;
// Connections remembered after they ended, so that their late segments are
// not taken for a new connection.
constexpr std::size_t kMaxClosed = 4096;

std::uint16_t Be16(const unsigned char* p) { return static_cast<std::uint16_t>(p[0] << 8 | p[1]); }
std::uint32_t Be32(const unsigned char* p) {
    return static_cast<std::uint32_t>(p[0]) << 24 | static_cast<std::uint32_t>(p[1]) << 16 | static_cast<std::uint32_t>(p[2]) << 8 | p[3];
}

std::string Address(const unsigned char* a, bool v6) {
    char text[48];
    if (!v6) {
        std::snprintf(text, sizeof text, "%u.%u.%u.%u", a[0], a[1], a[2], a[3]);
        return text;
    }
    // The longest run of zero groups (two or more) as "::".
    int best = -1, bestLength = 1;
    for (int i = 0; i < 8;) {
        int j = i;
        while (j < 8 && a[2 * j] == 0 && a[2 * j + 1] == 0) ++j;
        if (j - i > bestLength) best = i, bestLength = j - i;
        i = j == i ? i + 1 : j;
    }
    std::string s = "[";
    for (int i = 0; i < 8; ++i) {
        if (i == best) {
            s += "::";
            i += bestLength - 1;
            continue;
        }
        std::snprintf(text, sizeof text, "%x", a[2 * i] << 8 | a[2 * i + 1]);
        if (s.size() > 1 && s.back() != ':') s += ":";
        s += text;
    }
    return s + "]";
}

std::string Bytes(std::uint64_t n) { return Plural(static_cast<long long>(n), "byte"); }

}  // namespace

std::string TimeText(Timestamp t) {
    const std::time_t s = static_cast<std::time_t>(t.sec);
    std::tm tm{};
    gmtime_r(&s, &tm);
    char text[64];
    const std::size_t n = std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%S", &tm);
    std::snprintf(text + n, sizeof text - n, ".%09uZ", t.nsec % 1000000000u);
    return text;
}

bool ReadableLinkType(int link) { return *LinkTypeName(link) != 0; }

const char* LinkTypeName(int link) {
    switch (link) {
        case kNull: return "BSD loopback";
        case kEthernet: return "Ethernet";
        case kRawDlt:
        case kRawDltBsd:
        case kRaw: return "raw IP";
        case kLoop: return "OpenBSD loopback";
        case kLinuxCooked: return "Linux cooked";
        case kIpv4: return "raw IPv4";
        case kIpv6: return "raw IPv6";
        case kLinuxCooked2: return "Linux cooked v2";
        default: return "";
    }
}

struct TcpMessages::Direction {
    Flow flow;
    Connection* connection = nullptr;
    std::optional<StreamCutter> cutter;  // from the direction's first byte on
    bool started = false, synSeen = false, finSeen = false, ended = false, queued = false;
    std::uint32_t isn = 0;
    std::uint32_t nextSeq = 0;   // the sequence number of the next byte in order
    std::int64_t nextOff = 0;    // ... and its stream offset
    std::int64_t finOff = -1;    // the stream offset of the FIN, once seen
    std::map<std::int64_t, std::vector<unsigned char>> ahead;  // segments beyond a missing one, not overlapping
    std::size_t aheadBytes = 0;
    Timestamp aheadSince;        // when the first missing bytes went missing
    std::vector<unsigned char> history;  // the last kHistory bytes handed on, by offset modulo kHistory
    std::int64_t historyFrom = 0;        // the first offset history holds (since the start or the last gap)
    Timestamp last;              // capture time of the direction's last packet
};

struct TcpMessages::Connection {
    std::string key;
    std::string firstSource;  // the address and port side 0 sends from, as the key spells them
    Direction side[2];
    bool reset = false;
};

struct TcpMessages::Datagram {
    std::vector<unsigned char> data;
    std::vector<std::pair<std::size_t, std::size_t>> have;  // received ranges, sorted, merged
    std::size_t total = static_cast<std::size_t>(-1);         // known once the last fragment came
    Timestamp first;
    bool v6 = false;
    unsigned char src[16] = {}, dst[16] = {};
    int proto = 0;
};

struct TcpMessages::Closed {
    std::string firstSource;    // the address and port of side 0
    std::uint32_t nextSeq[2] = {};
    bool started[2] = {};
};

TcpMessages::TcpMessages(const Options& options) : options_(options) {
    captureFlow_.name = "capture";
}

TcpMessages::~TcpMessages() = default;

void TcpMessages::Note(ReportKind kind, const std::string& text) {
    Item item;
    item.cut.isReport = true;
    item.cut.report = Report{kind, 0, 0, text};
    item.time = totals_.last;
    reports_.push_back(std::move(item));
}

void TcpMessages::Packet(int link, Timestamp time, const unsigned char* p, std::size_t n) {
    ++totals_.packets;
    if (totals_.packets == 1) totals_.first = time;
    totals_.last = time;
    std::size_t off = 0;
    switch (link) {
        case kEthernet: {
            if (n < 14) {
                ++totals_.malformed;
                return;
            }
            std::uint16_t type = Be16(p + 12);
            off = 14;
            // VLAN tags (802.1Q), QinQ service tags (802.1ad and the older 0x9100, 0x9200)
            while ((type == 0x8100 || type == 0x88A8 || type == 0x9100 || type == 0x9200) && n >= off + 4) {
                type = Be16(p + off + 2);
                off += 4;
            }
            if (type != 0x0800 && type != 0x86DD) {
                ++totals_.otherPackets;
                return;
            }
            break;
        }
        case kLinuxCooked:
            if (n < 16 || (Be16(p + 14) != 0x0800 && Be16(p + 14) != 0x86DD)) {
                ++(n < 16 ? totals_.malformed : totals_.otherPackets);
                return;
            }
            off = 16;
            break;
        case kLinuxCooked2:
            if (n < 20 || (Be16(p) != 0x0800 && Be16(p) != 0x86DD)) {
                ++(n < 20 ? totals_.malformed : totals_.otherPackets);
                return;
            }
            off = 20;
            break;
        // The address family in front of the packet is in the byte order of
        // the machine that captured it (NULL) or in network order (LOOP): the
        // IP version in the packet says the same without guessing which.
        case kNull:
        case kLoop: off = 4; break;
        case kRawDlt:
        case kRawDltBsd:
        case kRaw:
        case kIpv4:
        case kIpv6: off = 0; break;
        default: ++totals_.otherPackets; return;
    }
    if (n < off) {
        ++totals_.malformed;
        return;
    }
    Ip(p + off, n - off, time);
    if (Seconds(time) - Seconds(lastSweep_) >= 1) Sweep(time);
}

void TcpMessages::Ip(const unsigned char* p, std::size_t n, Timestamp time) {
    if (n < 1) {
        ++totals_.malformed;
        return;
    }
    switch (p[0] >> 4) {
        case 4: Ip4(p, n, time); break;
        case 6: Ip6(p, n, time); break;
        default: ++totals_.otherPackets;
    }
}

void TcpMessages::Ip4(const unsigned char* p, std::size_t n, Timestamp time) {
    const std::size_t ihl = static_cast<std::size_t>(p[0] & 0xF) * 4;
    if (n < 20 || ihl < 20 || ihl > n) {
        ++totals_.malformed;
        return;
    }
    std::size_t total = Be16(p + 2), missing = 0;
    // A total length of 0: the length was left to the network card
    // (segmentation offload); the captured bytes are the packet.
    if (total == 0) total = n;
    if (total < ihl) {
        ++totals_.malformed;
        return;
    }
    if (total > n) {  // the capture kept only the first bytes (its snap length)
        missing = total - n;
        total = n;
    }
    const int proto = p[9];
    const std::size_t fragmentOffset = static_cast<std::size_t>(Be16(p + 6) & 0x1FFF) * 8;
    const bool more = (p[6] & 0x20) != 0;
    if (more || fragmentOffset != 0) {
        if (missing != 0) {
            ++totals_.malformed;  // a fragment cut short cannot be put together
            return;
        }
        std::string key(1, '4');
        key.append(reinterpret_cast<const char*>(p + 12), 8);
        key.append(reinterpret_cast<const char*>(p + 4), 2);
        key.push_back(static_cast<char>(proto));
        Fragment(key, false, p + 12, p + 16, proto, fragmentOffset, more, p + ihl, total - ihl, time);
        return;
    }
    if (proto != 6) {
        ++totals_.otherPackets;
        return;
    }
    Tcp(false, p + 12, p + 16, p + ihl, total - ihl, missing, time);
}

void TcpMessages::Ip6(const unsigned char* p, std::size_t n, Timestamp time) {
    if (n < 40) {
        ++totals_.malformed;
        return;
    }
    std::size_t total = 40 + static_cast<std::size_t>(Be16(p + 4)), missing = 0;
    if (Be16(p + 4) == 0) total = n;  // a jumbogram, or the length left to the network card
    if (total > n) {
        missing = total - n;
        total = n;
    }
    Ip6Payload(p + 8, p + 24, p[6], p + 40, total - 40, missing, time);
}

void TcpMessages::Ip6Payload(const unsigned char* src, const unsigned char* dst, int next, const unsigned char* p, std::size_t n,
                             std::size_t missing, Timestamp time) {
    std::size_t at = 0;
    for (int headers = 0; headers < 32; ++headers) {
        const std::size_t left = n - at;
        switch (next) {
            case 6: Tcp(true, src, dst, p + at, left, missing, time); return;
            case 0:    // hop-by-hop options
            case 43:   // routing
            case 60:   // destination options
            case 135:  // mobility
            case 139:  // host identity
            case 140: {  // shim6
                if (left < 8 || static_cast<std::size_t>(p[at + 1] + 1) * 8 > left) break;
                next = p[at];
                at += static_cast<std::size_t>(p[at + 1] + 1) * 8;
                continue;
            }
            case 51: {  // authentication header: its length in 4-byte words, less 2
                if (left < 8 || static_cast<std::size_t>(p[at + 1] + 2) * 4 > left) break;
                next = p[at];
                at += static_cast<std::size_t>(p[at + 1] + 2) * 4;
                continue;
            }
            case 44: {  // fragment
                if (left < 8) break;
                const int inner = p[at];
                const std::size_t offset = Be16(p + at + 2) & 0xFFF8u;
                const bool more = (p[at + 3] & 1) != 0;
                if (offset == 0 && !more) {  // an atomic fragment: the whole datagram
                    next = inner;
                    at += 8;
                    continue;
                }
                if (missing != 0) break;
                std::string key(1, '6');
                key.append(reinterpret_cast<const char*>(src), 16);
                key.append(reinterpret_cast<const char*>(dst), 16);
                key.append(reinterpret_cast<const char*>(p + at + 4), 4);
                Fragment(key, true, src, dst, inner, offset, more, p + at + 8, left - 8, time);
                return;
            }
            default: ++totals_.otherPackets; return;  // no next header, ESP, UDP, ...
        }
        break;
    }
    ++totals_.malformed;
}

void TcpMessages::Fragment(const std::string& key, bool v6, const unsigned char* src, const unsigned char* dst, int proto,
                           std::size_t offset, bool more, const unsigned char* p, std::size_t n, Timestamp time) {
    if (offset + n > kMaxDatagram || (more && n == 0)) {
        ++totals_.malformed;
        return;
    }
    if (datagrams_.size() >= kMaxDatagrams && !datagrams_.count(key)) ExpireFragments(time, true);
    Datagram& d = datagrams_[key];
    if (d.have.empty() && d.total == static_cast<std::size_t>(-1)) {
        d.first = time;
        d.v6 = v6;
        std::memcpy(d.src, src, v6 ? 16 : 4);
        std::memcpy(d.dst, dst, v6 ? 16 : 4);
    }
    if (offset == 0) d.proto = proto;
    if (!more) d.total = offset + n;
    if (d.data.size() < offset + n) d.data.resize(offset + n);
    if (n > 0) std::memcpy(d.data.data() + offset, p, n);
    d.have.emplace_back(offset, offset + n);
    std::sort(d.have.begin(), d.have.end());
    std::vector<std::pair<std::size_t, std::size_t>> merged;
    for (const auto& r : d.have) {
        if (!merged.empty() && r.first <= merged.back().second) merged.back().second = std::max(merged.back().second, r.second);
        else merged.push_back(r);
    }
    d.have.swap(merged);
    if (d.total == static_cast<std::size_t>(-1) || d.have.size() != 1 || d.have[0].first != 0 || d.have[0].second < d.total) return;
    Datagram whole = std::move(d);
    datagrams_.erase(key);
    if (whole.v6) {
        Ip6Payload(whole.src, whole.dst, whole.proto, whole.data.data(), whole.total, 0, time);
    } else if (whole.proto == 6) {
        Tcp(false, whole.src, whole.dst, whole.data.data(), whole.total, 0, time);
    } else {
        ++totals_.otherPackets;
    }
}

void TcpMessages::ExpireFragments(Timestamp now, bool all) {
    std::size_t datagrams = 0, bytes = 0;
    for (auto it = datagrams_.begin(); it != datagrams_.end();) {
        if (all || Seconds(now) - Seconds(it->second.first) > kFragmentSeconds) {
            ++datagrams;
            for (const auto& r : it->second.have) bytes += r.second - r.first;
            it = datagrams_.erase(it);
            if (all) break;  // room for one more
        } else {
            ++it;
        }
    }
    if (datagrams > 0)
        Note(ReportKind::fragments, Plural(static_cast<long long>(datagrams), "IP datagram") + " never completed: " + Bytes(bytes) +
                                        " of fragments left out");
}

void TcpMessages::Tcp(bool v6, const unsigned char* src, const unsigned char* dst, const unsigned char* p, std::size_t n,
                      std::size_t missing, Timestamp time) {
    const std::size_t hl = n >= 20 ? static_cast<std::size_t>(p[12] >> 4) * 4 : 0;
    if (n < 20 || hl < 20 || hl > n) {
        ++totals_.malformed;
        return;
    }
    const std::uint16_t sport = Be16(p), dport = Be16(p + 2);
    if (options_.port != 0 && sport != options_.port && dport != options_.port) return;
    ++totals_.tcpSegments;
    std::uint32_t seq = Be32(p + 4);
    const unsigned char flags = p[13];
    const bool fin = flags & 0x01, syn = flags & 0x02, rst = flags & 0x04, ack = flags & 0x10;
    const unsigned char* payload = p + hl;
    const std::size_t length = n - hl;

    const std::size_t width = v6 ? 16 : 4;
    std::string a(reinterpret_cast<const char*>(src), width), b(reinterpret_cast<const char*>(dst), width);
    a.push_back(static_cast<char>(sport >> 8)), a.push_back(static_cast<char>(sport));
    b.push_back(static_cast<char>(dport >> 8)), b.push_back(static_cast<char>(dport));
    const std::string key = (v6 ? "6" : "4") + std::min(a, b) + std::max(a, b);

    auto it = connections_.find(key);
    Connection* c = it == connections_.end() ? nullptr : it->second.get();
    int side = c && c->firstSource != a ? 1 : 0;
    if (c && syn) {
        // A SYN that opens another connection on the same 4-tuple: a pure
        // SYN with another initial sequence number, or after this side's data.
        const Direction& d = c->side[side];
        if (!ack && (d.synSeen ? seq != d.isn : d.started)) {
            std::unique_ptr<Connection> old = std::move(it->second);
            connections_.erase(it);
            Close(std::move(old));
            c = nullptr;
        }
    }
    if (!c) {
        if (rst || (!syn && length <= 1)) return;  // bare acknowledgements, keep-alives, resets of connections not seen
        if (!syn) {
            // A late segment of a connection that ended.
            const auto gone = closed_.find(key);
            if (gone != closed_.end()) {
                const int s = gone->second.firstSource == a ? 0 : 1;
                if (gone->second.started[s] && static_cast<std::int32_t>(seq + static_cast<std::uint32_t>(length) - gone->second.nextSeq[s]) <= 0) return;
            }
        }
        auto fresh = std::make_unique<Connection>();
        fresh->key = key;
        fresh->firstSource = a;
        const std::uint64_t number = ++totals_.connections;
        const std::string from = Address(src, v6) + ":" + std::to_string(sport), to = Address(dst, v6) + ":" + std::to_string(dport);
        fresh->side[0].flow = Flow{number, 0, from + " -> " + to, sport, dport};
        fresh->side[1].flow = Flow{number, 1, to + " -> " + from, dport, sport};
        for (Direction& d : fresh->side) d.connection = fresh.get();
        c = fresh.get();
        side = 0;
        connections_[key] = std::move(fresh);
    }
    Direction& d = c->side[side];
    d.last = time;
    if (length > 0 && totals_.portsWithPayload.size() < 64) {
        totals_.portsWithPayload.insert(sport);
        totals_.portsWithPayload.insert(dport);
    }
    auto start = [&](std::uint32_t first, bool fromSyn) {
        d.started = true;
        d.nextSeq = first;
        d.nextOff = 0;
        StreamCutter::Options o = options_.cutter;
        o.pickup = !fromSyn;
        o.resync = true;
        d.cutter.emplace(o);
    };
    if (syn) {
        if (!d.synSeen) {
            d.synSeen = true;
            d.isn = seq;
            if (!d.started) start(seq + 1, true);
        }
        ++seq;  // the SYN takes a sequence number
    }
    if (fin) d.finSeen = true;
    if (!d.started && length > 1) start(seq, false);
    if (d.started) {
        const std::int32_t rel = static_cast<std::int32_t>(seq - d.nextSeq);
        // A keep-alive probe (one byte or none, just before the next byte) and
        // a segment far outside the window carry nothing of the stream.
        const bool keepAlive = length <= 1 && rel == -1;
        const bool inWindow = rel >= -(1 << 30) && rel <= (1 << 30);
        if (!keepAlive && inWindow && (length > 0 || missing > 0)) Place(d, d.nextOff + rel, payload, length, missing, time);
        if (fin && inWindow && d.finOff < 0) {
            d.finOff = d.nextOff + rel + static_cast<std::int64_t>(length);
            if (d.nextOff >= d.finOff && d.ahead.empty()) EndDirection(d);
        }
    }
    if (rst) c->reset = true;
    auto over = [](const Direction& x) { return x.started ? x.ended : x.finSeen; };
    if (c->reset || (over(c->side[0]) && over(c->side[1]))) {
        auto own = connections_.find(key);
        std::unique_ptr<Connection> done = std::move(own->second);
        connections_.erase(own);
        Close(std::move(done));
    }
}

void TcpMessages::Place(Direction& d, std::int64_t offset, const unsigned char* p, std::size_t n, std::size_t missing, Timestamp time) {
    std::int64_t end = offset + static_cast<std::int64_t>(n);
    if (d.ended) {
        // Bytes after the FIN are no part of the stream.
        if (offset < d.nextOff) Compare(d, offset, p, static_cast<std::size_t>(std::min(end, d.nextOff) - offset));
        return;
    }
    if (end <= d.nextOff) {
        Compare(d, offset, p, n);  // a retransmission of bytes handed on
        if (missing == 0) return;
    } else if (offset < d.nextOff) {
        const std::size_t before = static_cast<std::size_t>(d.nextOff - offset);
        Compare(d, offset, p, before);
        offset += static_cast<std::int64_t>(before);
        p += before;
        n -= before;
    }
    if (offset == d.nextOff && n > 0) {
        Deliver(d, p, n);
        if (missing > 0 && d.nextOff == end) {
            d.cutter->Gap(missing, "the capture kept only the first bytes of a packet");
            ++totals_.gaps;
            totals_.missingBytes += missing;
            d.nextOff += static_cast<std::int64_t>(missing);
            d.nextSeq += static_cast<std::uint32_t>(missing);
            d.historyFrom = d.nextOff;
        }
        Drain(d);
        return;
    }
    if (offset < d.nextOff || n == 0) return;
    // Ahead of a missing segment: held, without the bytes already held.
    const bool wasEmpty = d.ahead.empty();
    std::int64_t cursor = offset;
    const std::int64_t stop = offset + static_cast<std::int64_t>(n);
    auto it = d.ahead.upper_bound(cursor);
    if (it != d.ahead.begin()) --it;
    std::size_t stored = 0;
    while (cursor < stop) {
        while (it != d.ahead.end() && it->first + static_cast<std::int64_t>(it->second.size()) <= cursor) ++it;
        if (it != d.ahead.end() && it->first <= cursor) {
            const std::int64_t upTo = std::min(stop, it->first + static_cast<std::int64_t>(it->second.size()));
            const std::size_t k = static_cast<std::size_t>(upTo - cursor);
            if (std::memcmp(it->second.data() + (cursor - it->first), p + (cursor - offset), k) != 0) Conflict(d, cursor, k);
            cursor = upTo;
            continue;
        }
        const std::int64_t upTo = it == d.ahead.end() ? stop : std::min(stop, it->first);
        const unsigned char* from = p + (cursor - offset);
        it = d.ahead.emplace_hint(it, cursor, std::vector<unsigned char>(from, from + (upTo - cursor)));
        stored += static_cast<std::size_t>(upTo - cursor);
        cursor = upTo;
    }
    d.aheadBytes += stored;
    held_ += stored;
    if (wasEmpty) d.aheadSince = time;
    holding_.insert(&d);
    if (d.aheadBytes > options_.window)
        DeclareGap(d, "the reassembly window of " + Bytes(options_.window) + " a direction overflowed");
    while (held_ > options_.totalWindow && !holding_.empty()) {
        Direction* most = *std::max_element(holding_.begin(), holding_.end(),
                                             [](const Direction* x, const Direction* y) { return x->aheadBytes < y->aheadBytes; });
        DeclareGap(*most, "the reassembly window of " + Bytes(options_.totalWindow) + " of all connections overflowed");
    }
}

void TcpMessages::Deliver(Direction& d, const unsigned char* p, std::size_t n) {
    d.cutter->Push(reinterpret_cast<const char*>(p), n);
    if (d.history.empty()) d.history.resize(kHistory);
    for (std::size_t i = n > kHistory ? n - kHistory : 0; i < n; ++i)
        d.history[static_cast<std::size_t>(d.nextOff + static_cast<std::int64_t>(i)) % kHistory] = p[i];
    d.nextOff += static_cast<std::int64_t>(n);
    d.nextSeq += static_cast<std::uint32_t>(n);
    totals_.payloadBytes += n;
    Ready(d);
}

void TcpMessages::Compare(Direction& d, std::int64_t offset, const unsigned char* p, std::size_t n) {
    if (d.history.empty()) return;
    const std::int64_t from = std::max({offset, d.historyFrom, d.nextOff - static_cast<std::int64_t>(kHistory)});
    const std::int64_t to = std::min(offset + static_cast<std::int64_t>(n), d.nextOff);
    for (std::int64_t o = from; o < to; ++o) {
        if (d.history[static_cast<std::size_t>(o) % kHistory] != p[o - offset]) {
            Conflict(d, offset, n);
            return;
        }
    }
}

void TcpMessages::Conflict(Direction& d, std::int64_t offset, std::size_t n) {
    ++totals_.conflicts;
    Item item;
    item.cut.isReport = true;
    item.cut.offset = static_cast<std::uint64_t>(offset);
    item.cut.report = Report{ReportKind::conflict, static_cast<std::uint64_t>(offset), n,
                             "a retransmission of " + Bytes(n) + " at stream offset " + std::to_string(offset) +
                                 " differs from the bytes first captured there (the first are kept)"};
    item.flow = &d.flow;
    item.time = d.last;
    reports_.push_back(std::move(item));
}

void TcpMessages::Drain(Direction& d) {
    while (!d.ahead.empty()) {
        auto it = d.ahead.begin();
        const std::int64_t s = it->first, e = s + static_cast<std::int64_t>(it->second.size());
        if (s > d.nextOff) break;
        if (e > d.nextOff) {
            Compare(d, s, it->second.data(), static_cast<std::size_t>(d.nextOff - s));
            Deliver(d, it->second.data() + (d.nextOff - s), static_cast<std::size_t>(e - d.nextOff));
        } else {
            Compare(d, s, it->second.data(), it->second.size());
        }
        d.aheadBytes -= it->second.size();
        held_ -= it->second.size();
        d.ahead.erase(it);
        d.aheadSince = d.last;
    }
    if (d.ahead.empty()) holding_.erase(&d);
    if (d.finOff >= 0 && d.nextOff >= d.finOff && d.ahead.empty()) EndDirection(d);
}

void TcpMessages::DeclareGap(Direction& d, const std::string& why) {
    if (d.ahead.empty()) return;
    const std::int64_t missing = d.ahead.begin()->first - d.nextOff;
    d.cutter->Gap(static_cast<std::uint64_t>(missing), why);
    ++totals_.gaps;
    totals_.missingBytes += static_cast<std::uint64_t>(missing);
    d.nextOff += missing;
    d.nextSeq += static_cast<std::uint32_t>(missing);
    d.historyFrom = d.nextOff;
    Ready(d);
    Drain(d);
}

void TcpMessages::EndDirection(Direction& d) {
    if (!d.started || d.ended) return;
    while (!d.ahead.empty()) DeclareGap(d, "never retransmitted");
    if (d.ended) return;  // the drain ended it
    d.ended = true;
    d.cutter->Finish();
    Ready(d);
}

void TcpMessages::Ready(Direction& d) {
    if (d.queued) return;
    d.queued = true;
    ready_.push_back(&d);
}

void TcpMessages::Close(std::unique_ptr<Connection> c) {
    for (Direction& d : c->side) {
        EndDirection(d);
        // (Nothing is held by a direction that ended; a guard all the same,
        // for the connection is let go once its messages are out.)
        for (const auto& [at, bytes] : d.ahead) held_ -= bytes.size();
        d.ahead.clear();
        holding_.erase(&d);
    }
    if (closed_.size() >= kMaxClosed) closed_.clear();
    Closed& gone = closed_[c->key];
    gone.firstSource = c->firstSource;
    for (int s = 0; s < 2; ++s) {
        gone.started[s] = c->side[s].started;
        gone.nextSeq[s] = c->side[s].nextSeq + (c->side[s].finOff >= 0 ? 1 : 0);
    }
    ended_.push_back(std::move(c));
}

void TcpMessages::Sweep(Timestamp now) {
    lastSweep_ = now;
    std::vector<Direction*> late;
    for (Direction* d : holding_)
        if (Seconds(now) - Seconds(d->aheadSince) > options_.gapSeconds) late.push_back(d);
    for (Direction* d : late)
        DeclareGap(*d, "not retransmitted within " + std::to_string(static_cast<long long>(options_.gapSeconds)) + " s of capture time");
    if (!datagrams_.empty()) ExpireFragments(now, false);
}

void TcpMessages::Finish() {
    while (!connections_.empty()) {
        std::unique_ptr<Connection> c = std::move(connections_.begin()->second);
        connections_.erase(connections_.begin());
        Close(std::move(c));
    }
    if (!datagrams_.empty()) {
        std::size_t bytes = 0;
        for (const auto& [key, d] : datagrams_)
            for (const auto& r : d.have) bytes += r.second - r.first;
        Note(ReportKind::fragments, Plural(static_cast<long long>(datagrams_.size()), "IP datagram") +
                                        " never completed: " + Bytes(bytes) + " of fragments left out");
        datagrams_.clear();
    }
}

bool TcpMessages::Next(Item& out) {
    for (;;) {
        if (!reports_.empty()) {
            out = std::move(reports_.front());
            reports_.pop_front();
            if (out.flow == nullptr) out.flow = &captureFlow_;
            return true;
        }
        if (ready_.empty()) break;
        Direction* d = ready_.front();
        if (d->cutter && d->cutter->Next(out.cut)) {
            out.flow = &d->flow;
            out.time = d->last;
            return true;
        }
        ready_.pop_front();
        d->queued = false;
    }
    while (!ended_.empty() && !ended_.front()->side[0].queued && !ended_.front()->side[1].queued) ended_.pop_front();
    return false;
}

bool CapturesAvailable() { return TRDCOMP_HAVE_PCAP != 0; }

#if TRDCOMP_HAVE_PCAP

CaptureReader::CaptureReader(std::FILE* file, const TcpMessages::Options& options) : tcp_(options) {
    char error[PCAP_ERRBUF_SIZE] = {};
    pcap_t* pc = file ? pcap_fopen_offline_with_tstamp_precision(file, PCAP_TSTAMP_PRECISION_NANO, error) : nullptr;
    ended_ = true;
    if (pc == nullptr) {
        if (file) std::fclose(file);
        tcp_.Note(ReportKind::unreadable, std::string("the input is not a capture (pcap or pcapng): ") + (file ? error : "no input"));
        return;
    }
    pcap_ = pc;
    link_ = pcap_datalink(pc);
    if (!ReadableLinkType(link_)) {
        const char* name = pcap_datalink_val_to_name(link_);
        const char* what = pcap_datalink_val_to_description(link_);
        tcp_.Note(ReportKind::link_type,
                  "the capture's link type is " + std::to_string(link_) + (name ? std::string(" (") + name + (what ? ", " + std::string(what) : "") + ")" : "") +
                      ", which is not read: trdcomp reads Ethernet (with VLAN tags), Linux cooked v1 and v2, raw IPv4/IPv6 and "
                      "BSD loopback captures");
        return;
    }
    ended_ = false;
}

CaptureReader::~CaptureReader() {
    if (pcap_) pcap_close(static_cast<pcap_t*>(pcap_));
}

bool CaptureReader::Next(TcpMessages::Item& out) {
    for (;;) {
        if (tcp_.Next(out)) return true;
        if (ended_) return false;
        pcap_pkthdr* h = nullptr;
        const unsigned char* frame = nullptr;
        const int rc = pcap_next_ex(static_cast<pcap_t*>(pcap_), &h, &frame);
        if (rc == 1) {
            tcp_.Packet(link_, Timestamp{static_cast<std::int64_t>(h->ts.tv_sec), static_cast<std::uint32_t>(h->ts.tv_usec)}, frame, h->caplen);
            continue;
        }
        if (rc == PCAP_ERROR) {
            const std::uint64_t whole = tcp_.Counts().packets;
            tcp_.Note(ReportKind::cut, "the capture is cut short in packet " + std::to_string(whole + 1) + ", after " +
                                           Plural(static_cast<long long>(whole), "whole packet") +
                                           (whole ? " (the last at " + TimeText(tcp_.Counts().last) + ")" : "") + ": " +
                                           pcap_geterr(static_cast<pcap_t*>(pcap_)));
        }
        tcp_.Finish();
        ended_ = true;
    }
}

#else

CaptureReader::CaptureReader(std::FILE* file, const TcpMessages::Options& options) : tcp_(options) {
    if (file) std::fclose(file);
    ended_ = true;
    tcp_.Note(ReportKind::unreadable, "this trdcomp was built without libpcap, so it reads no capture "
                                      "(Debian: apt-get install libpcap-dev, then build again)");
}

CaptureReader::~CaptureReader() = default;

bool CaptureReader::Next(TcpMessages::Item& out) { return tcp_.Next(out); }

#endif

}  // namespace tool

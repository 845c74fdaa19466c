// The messages of a packet capture, as the packets come: each captured frame
// is taken apart (the link layer of every type a capture of TCP/IP traffic
// has, IPv4 and IPv6 with extension headers, IP fragments put together), the
// TCP payload of each direction of each connection is put in sequence order,
// and each direction is cut into messages (MessageStream.h) as soon as its
// bytes are in order. Holds only what reassembly still needs: the segments
// that arrived ahead of a missing one (a window of bounded size), the message
// in progress of each direction, the fragments of unfinished datagrams.
// Whatever the capture holds, the reader reports and goes on; it never throws
// for bad input.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <deque>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "MessageStream.h"

namespace tool {

struct Timestamp {
    std::int64_t sec = 0;
    std::uint32_t nsec = 0;
};
inline double Seconds(Timestamp t) { return static_cast<double>(t.sec) + t.nsec * 1e-9; }
// "2023-11-14T22:13:21.000000123Z"
std::string TimeText(Timestamp t);

// Link types of a capture file (its LINKTYPE_ / DLT_ number), by what the
// reader takes off in front of the IP packet.
bool ReadableLinkType(int link);
// "Ethernet", "Linux cooked v2", ... or "" for a type the reader does not take.
const char* LinkTypeName(int link);

// One direction of a TCP connection: where its bytes come from and go.
struct Flow {
    std::uint64_t connection = 0;  // 1, 2, ...: connections in the order they first appear
    int side = 0;                  // 0: the direction of the connection's first packet, 1: the other
    std::string name;              // "10.0.0.1:40000 -> 10.0.0.2:9000"
    std::uint16_t sourcePort = 0, destinationPort = 0;
};

class TcpMessages {
public:
    struct Options {
        int port = 0;  // 0: every connection; else those with this port at either end
        StreamCutter::Options cutter;
        // Bytes a direction holds that arrived ahead of a missing segment;
        // beyond them, the missing bytes are declared a gap.
        std::size_t window = std::size_t{8} << 20;
        // All directions together hold no more than this ahead of missing
        // segments: beyond it, the direction holding the most gives way.
        std::size_t totalWindow = std::size_t{64} << 20;
        // A missing segment not retransmitted within this much capture time
        // is a gap.
        double gapSeconds = 10;
    };

    // A message or a report, with the direction it belongs to (null for a
    // report of the whole capture) and the capture time of the packet that
    // completed it. Valid until the next call of any member.
    struct Item {
        Cut cut;
        const Flow* flow = nullptr;
        Timestamp time;
    };

    // What the capture held so far.
    struct Totals {
        std::uint64_t packets = 0;       // frames handed in
        std::uint64_t tcpSegments = 0;   // TCP segments of the connections kept (--port)
        std::uint64_t payloadBytes = 0;  // TCP payload of the connections kept
        std::uint64_t connections = 0;
        std::uint64_t gaps = 0, missingBytes = 0;
        std::uint64_t conflicts = 0;
        std::uint64_t otherPackets = 0;  // frames with no TCP segment in them (ARP, UDP, ...)
        std::uint64_t malformed = 0;     // frames too short for the headers they announce
        Timestamp first, last;           // capture time of the first and last frame
        std::set<std::uint16_t> portsWithPayload;  // (at most 64 of them) ports of every connection with payload
    };

    explicit TcpMessages(const Options& options);
    ~TcpMessages();
    TcpMessages(const TcpMessages&) = delete;
    TcpMessages& operator=(const TcpMessages&) = delete;

    // One captured frame of link type `link`: `captured` bytes at `frame`.
    void Packet(int link, Timestamp time, const unsigned char* frame, std::size_t captured);
    // A report of the capture as a whole (a cut, a link type that is not read).
    void Note(ReportKind kind, const std::string& text);
    // The capture ended: missing bytes become gaps, each direction's last
    // bytes are cut (or reported), unfinished datagrams are reported.
    void Finish();

    bool Next(Item& out);
    const Totals& Counts() const { return totals_; }

private:
    struct Direction;
    struct Connection;
    struct Key;
    struct Datagram;
    struct Closed;

    void Ip(const unsigned char* p, std::size_t n, Timestamp time);
    void Ip4(const unsigned char* p, std::size_t n, Timestamp time);
    void Ip6(const unsigned char* p, std::size_t n, Timestamp time);
    // The upper layers of an IPv6 packet from header `next` on.
    void Ip6Payload(const unsigned char* src, const unsigned char* dst, int next, const unsigned char* p, std::size_t n,
                    std::size_t missing, Timestamp time);
    void Fragment(const std::string& key, bool v6, const unsigned char* src, const unsigned char* dst, int proto,
                  std::size_t offset, bool more, const unsigned char* p, std::size_t n, Timestamp time);
    void Tcp(bool v6, const unsigned char* src, const unsigned char* dst, const unsigned char* p, std::size_t n,
             std::size_t missing, Timestamp time);
    void Place(Direction& d, std::int64_t offset, const unsigned char* p, std::size_t n, std::size_t missing, Timestamp time);
    void Deliver(Direction& d, const unsigned char* p, std::size_t n);
    void Compare(Direction& d, std::int64_t offset, const unsigned char* p, std::size_t n);
    void Drain(Direction& d);
    void DeclareGap(Direction& d, const std::string& why);
    void EndDirection(Direction& d);
    void Close(std::unique_ptr<Connection> c);
    void Ready(Direction& d);
    void Conflict(Direction& d, std::int64_t offset, std::size_t n);
    void Sweep(Timestamp now);
    void ExpireFragments(Timestamp now, bool all);

    Options options_;
    Totals totals_;
    std::map<std::string, std::unique_ptr<Connection>> connections_;
    std::map<std::string, Closed> closed_;          // 4-tuples of connections that ended, for their late segments
    std::deque<std::unique_ptr<Connection>> ended_;  // connections whose last messages are still to hand out
    std::deque<Direction*> ready_;                   // directions with bytes or reports to cut
    std::deque<Item> reports_;                       // reports of the capture and of reassembly
    std::map<std::string, Datagram> datagrams_;      // IP fragments of datagrams not complete yet
    std::set<Direction*> holding_;                   // directions holding segments ahead of a missing one
    std::size_t held_ = 0;                           // bytes all of them hold
    Timestamp lastSweep_;
    Flow captureFlow_;                               // what a report of the whole capture comes from (connection 0)
};

// A capture file (pcap or pcapng, as libpcap reads them) read packet by
// packet from `file`, which the reader owns from then on: a pipe works (a
// capture on standard input, `tcpdump -U -w -`), and a capture cut inside
// its last packet yields every message before the cut and a report of it.
class CaptureReader {
public:
    CaptureReader(std::FILE* file, const TcpMessages::Options& options);
    ~CaptureReader();
    CaptureReader(const CaptureReader&) = delete;
    CaptureReader& operator=(const CaptureReader&) = delete;

    // The next message or report; false once the capture is read and all is handed out.
    bool Next(TcpMessages::Item& out);
    const TcpMessages::Totals& Counts() const { return tcp_.Counts(); }
    // The capture's link type (-1 when the capture could not be opened).
    int LinkType() const { return link_; }

private:
    void* pcap_ = nullptr;
    int link_ = -1;
    bool ended_ = false;
    TcpMessages tcp_;
};

// Whether this build reads captures (libpcap was found).
bool CapturesAvailable();

}  // namespace tool

// Messages back to back: cutting a byte stream into messages (from the
// messages' own bytes, or a transport's length prefix) and the byte streams
// of the TCP connections in a capture.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace tool {

// How messages are delimited: by their own bytes (trdcomp::MessageLength),
// or by a length prefix of the transport in front of each (the length of
// the message behind it, prefix excluded).
enum class Frame { message, u32le, u32be, u16le, u16be };
Frame ParseFrame(const std::string& text);  // throws on an unknown name

struct Piece {
    std::size_t offset = 0;  // of the message, in the stream
    std::vector<char> bytes;
};

// Cuts `n` bytes into messages. Stops at the first place where no message
// can be cut; `problem` then says why and where ("" when every byte was cut).
struct Pieces {
    std::vector<Piece> messages;
    std::string problem;
};
Pieces CutStream(const char* p, std::size_t n, Frame frame);

// One direction of a TCP connection, its payload in sequence order.
struct Flow {
    std::string name;  // "10.0.0.1:40000 -> 10.0.0.2:9000"
    std::vector<char> bytes;
    std::string problem;  // a gap in the sequence ("" when complete)
};

// Reads a pcap or pcapng capture and reassembles the payload of each TCP
// connection's directions (segments out of order, retransmitted or
// overlapping are put in place once). `port` (0: any) keeps the connections
// with that port at either end. Throws std::runtime_error when the capture
// cannot be read, or when this build has no libpcap.
std::vector<Flow> ReadCapture(const std::string& file, int port);

}  // namespace tool

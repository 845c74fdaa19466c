// The subcommands of the trdcomp tool. Each returns the process exit code
// and throws std::runtime_error with a message for the user on bad input.
#pragma once

#include <cstdint>
#include <iosfwd>
#include <string>
#include <vector>

namespace tool {

struct DemoOptions {
    int id = 0;          // 0: every id
    bool quiet = false;  // totals only
};
int RunDemo(const DemoOptions& o);

// What decode and diff restore at most unless told otherwise (--max-bytes).
inline constexpr const char* kDefaultMaxBytes = "256M";

// Where messages come from when there are many: a stream or a capture, and
// which of its messages count.
struct FeedOptions {
    std::string file = "-";
    bool stream = false;   // messages back to back in the file
    bool pcap = false;     // the file is a capture: the TCP payload of its connections
    std::string frame;     // "" or message: cut by the messages' bytes; else a transport prefix
    int port = 0;          // with pcap: only connections with this port
    bool follow = false;   // keep reading a file that grows
    std::string ids;       // "1002,1003,1100-1120": only these function ids ("": all)
    std::string dir;       // "request" or "answer": only that direction ("": both)
    std::string maxBytes = kDefaultMaxBytes;  // the most a restore may need (ParseByteLimit), and a message's length
    bool strict = false;   // refuse what the classic restore quietly accepts
    int flag = 0;
    bool progress = true;  // a progress line on standard error, when it is a terminal
};

struct DecodeOptions : FeedOptions {
    bool hex = false;
    bool json = false;
    bool jsonl = false;    // one JSON object a line a message (streams and captures)
    bool sent = false;     // mark each Fast field's origin
    int threads = -1;      // streams and captures: threads that decode and write out (-1: one a core; 0: none but the reader)
};
// Prints a message; or each message of a stream or capture as soon as its
// last byte has come, and then the count per direction, id and coding. The
// reports (bytes skipped, gaps, ...) go to `out` with the text table, to
// `err` with --jsonl (whose `out` holds nothing but JSON).
int RunDecode(const DecodeOptions& o, std::ostream& out, std::ostream& err);

// Counts of a stream or capture: messages, bytes and records per direction,
// id and coding, refusals by reason, coded against restored size,
// connections and gaps, messages a second of capture time.
int RunStats(const FeedOptions& o, std::ostream& out, std::ostream& err);

struct DiffOptions {
    std::string a, b;
    bool hex = false;            // both inputs are hex text
    bool hexA = false, hexB = false;  // one of them is (else: told from its bytes)
    int flag = 0;
    std::string maxBytes = kDefaultMaxBytes;
    bool strict = false;
};
// 0: the messages restore identically, 1: they differ (the differences are
// printed). Throws on a message that cannot be read or restored.
int RunDiff(const DiffOptions& o, std::ostream& out);

struct EncodeCommandOptions {
    bool request = false, answer = false;
    long long id = -1;
    std::string coding;
    int flag = -1;
    std::string in = "-", out = "-";
    bool hex = false;
    bool classic = false;  // pack what the classic members pack, values the coding cannot carry included
};
int RunEncode(const EncodeCommandOptions& o);

int RunCatalogue(int id);  // 0: every id

// A file's bytes, or standard input's for "-", at most `limit` of them.
// Throws with the system's reason when it cannot be read, and when it holds
// more than `limit` bytes.
std::vector<char> ReadAll(const std::string& file, std::size_t limit, const std::string& limitHint);

}  // namespace tool

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

struct DecodeOptions {
    std::string file = "-";
    bool hex = false;
    bool json = false;
    int flag = 0;
    bool stream = false;   // messages back to back in the file
    std::string pcap;      // a capture to decode the TCP payload of
    std::string frame;     // "" or message: cut by the messages' bytes; else a transport prefix
    int port = 0;          // with pcap: only connections with this port
    bool sent = false;     // mark each Fast field's origin
    std::string maxBytes = kDefaultMaxBytes;  // the most a restore may need (ParseByteLimit)
    bool strict = false;   // refuse what the classic restore quietly accepts
};
// Prints each message; a stream or capture ends with "N messages" and the
// count per id and direction.
int RunDecode(const DecodeOptions& o, std::ostream& out);

struct DiffOptions {
    std::string a, b;
    bool hex = false;
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
};
int RunEncode(const EncodeCommandOptions& o);

int RunCatalogue(int id);  // 0: every id

// A file's bytes, or standard input's for "-". Throws when it cannot be read.
std::vector<char> ReadAll(const std::string& file);

}  // namespace tool

// Writes a capture of trdcomp traffic for the tshark benchmark
// (bench/tshark_bench.sh): one loopback connection whose client sends the
// golden requests and whose server sends the golden answers, taken in turn
// and over again until the capture holds the number of messages asked for.
// Only messages whose length is in their own bytes, no larger than
// --max-size and, with --ids, of the function ids named, are used. The
// streams are cut into segments of 1460 bytes (messages span segments and
// segments hold several), or with --segment-a-message each message is one
// segment, as a link that writes one message at a time and waits for the
// answer sends them.
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <set>
#include <string>
#include <vector>

#include "support/Golden.h"
#include "support/PcapWriter.h"
#include "trdcomp/trdcomp.hpp"

namespace {

int Usage(FILE* to) {
    std::fprintf(to,
                 "Usage: trdcomp_write_capture OUT.pcap [--messages N] [--port P] [--max-size BYTES] [--ids ID,ID...]\n"
                 "                             [--segment-a-message]\n"
                 "  a loopback TCP connection to port P (7300) carrying N (200000) golden messages,\n"
                 "  requests from the client and answers from the server, none over BYTES (4096),\n"
                 "  of the function ids named (all of them by default), in segments of 1460 bytes\n"
                 "  or, with --segment-a-message, one message a segment\n");
    return to == stdout ? 0 : 2;
}

bool Number(const char* text, unsigned long long max, unsigned long long* out) {
    char* end = nullptr;
    const unsigned long long v = std::strtoull(text, &end, 10);
    if (end == text || *end != '\0' || v == 0 || v > max) return false;
    *out = v;
    return true;
}

}  // namespace

int main(int argc, char** argv) {
    std::string out;
    unsigned long long messages = 200000, port = 7300, maxSize = 4096;
    std::set<std::string> ids;
    bool segmentAMessage = false;
    for (int i = 1; i < argc; ++i) {
        const std::string a = argv[i];
        if (a == "-h" || a == "--help") return Usage(stdout);
        if (a == "--segment-a-message") {
            segmentAMessage = true;
            continue;
        }
        if (a == "--ids" && i + 1 < argc) {
            for (std::string list = argv[++i]; !list.empty();) {
                const std::size_t comma = std::min(list.find(','), list.size());
                ids.insert(list.substr(0, comma));
                list.erase(0, comma + 1);
            }
            continue;
        }
        unsigned long long* value = a == "--messages" ? &messages : a == "--port" ? &port : a == "--max-size" ? &maxSize : nullptr;
        if (value != nullptr) {
            if (i + 1 >= argc || !Number(argv[++i], a == "--port" ? 65535 : 1ull << 32, value)) {
                std::fprintf(stderr, "trdcomp_write_capture: %s needs a positive number%s\n", a.c_str(),
                             a == "--port" ? " up to 65535" : "");
                return 2;
            }
        } else if (out.empty() && a[0] != '-') {
            out = a;
        } else {
            std::fprintf(stderr, "trdcomp_write_capture: unexpected argument \"%s\"\n", a.c_str());
            return Usage(stderr);
        }
    }
    if (out.empty()) return Usage(stderr);
    std::vector<std::vector<char>> requests, answers;
    for (const std::string& name : golden::Names()) {
        // "req_1002_2008": the id stands between the first two underscores.
        if (!ids.empty() && !ids.count(name.substr(4, name.find('_', 4) - 4))) continue;
        std::vector<char> w = golden::Wire(name);
        if (w.size() > maxSize || trdcomp::MessageLength({w.data(), w.size()}).status != trdcomp::Framing::complete) continue;
        (name.rfind("req_", 0) == 0 ? requests : answers).push_back(std::move(w));
    }
    if (requests.empty() || answers.empty()) {
        std::fprintf(stderr, "trdcomp_write_capture: no golden requests and answers to use in %s\n", TRDCOMP_GOLDEN_DIR);
        return 1;
    }
    std::vector<char> up, down;  // the streams, when cut into segments of 1460 bytes
    std::size_t bytes = 0;
    pcap::PcapWriter w;
    const std::uint32_t client = pcap::kLoopback, server = pcap::kLoopback;
    const std::uint16_t cport = 51000, sport = static_cast<std::uint16_t>(port);
    std::uint32_t cseq = 1000, sseq = 500000;  // the next byte each side sends
    if (segmentAMessage) {
        w.Segment(client, cport, server, sport, cseq - 1, true, nullptr, 0);
        w.Segment(server, sport, client, cport, sseq - 1, true, nullptr, 0, cseq);
    }
    for (unsigned long long i = 0; i < messages; ++i) {
        const bool request = i % 2 == 0;
        const std::vector<char>& m = request ? requests[(i / 2) % requests.size()] : answers[(i / 2) % answers.size()];
        bytes += m.size();
        if (!segmentAMessage) {
            std::vector<char>& s = request ? up : down;
            s.insert(s.end(), m.begin(), m.end());
            continue;
        }
        const std::uint32_t n = static_cast<std::uint32_t>(m.size());
        if (request) {
            w.Segment(client, cport, server, sport, cseq, false, m.data(), m.size(), sseq);
            cseq += n;
        } else {
            w.Segment(server, sport, client, cport, sseq, false, m.data(), m.size(), cseq);
            sseq += n;
        }
    }
    if (!segmentAMessage) pcap::Connection(w, client, cport, server, sport, up, down);
    w.Save(out);
    std::printf("%llu messages, %zu bytes of messages, %s, to %s\n", messages, bytes,
                segmentAMessage ? "a segment a message" : "in segments of 1460 bytes", out.c_str());
    return 0;
}

// trdcomp decode (one message, a stream, a capture) and trdcomp diff.
#include <algorithm>
#include <cctype>
#include <cstring>
#include <iomanip>
#include <map>
#include <ostream>
#include <stdexcept>
#include <tuple>

#include "Commands.h"
#include "Feed.h"
#include "Message.h"
#include "trdcomp/MessageHead.hpp"
#include "trdcomp/trdcomp.hpp"

namespace tool {

namespace {

namespace head = trdcomp::head;

// Hex text: digits and white space only, from its first bytes on (a message
// begins with 76 or 96 and zero bytes, never with hex digits).
bool LooksLikeHex(const std::vector<char>& bytes) {
    const auto lead = bytes.begin() + static_cast<std::ptrdiff_t>(std::min<std::size_t>(bytes.size(), 64));
    auto hexText = [](char c) { return std::isxdigit(static_cast<unsigned char>(c)) || std::isspace(static_cast<unsigned char>(c)); };
    return lead - bytes.begin() >= 8 && std::all_of(bytes.begin(), lead, hexText);
}

// How an input is read: as it is, as hex text, or as whichever its bytes say.
enum class HexInput { no, yes, detect };

// A message's bytes, read from a file of at most `limit` bytes (of hex text:
// twice that). `hexOption` is the option that says the input is hex.
std::vector<char> Input(const std::string& file, HexInput hex, std::size_t limit, const std::string& hexOption) {
    const std::size_t textLimit = hex == HexInput::no || limit > (static_cast<std::size_t>(-1) - 64) / 3 ? limit : limit * 3 + 64;
    std::vector<char> bytes = ReadAll(file, textLimit, " (--max-bytes N raises it; a file of many messages is read with --stream)");
    if (hex == HexInput::detect) hex = LooksLikeHex(bytes) ? HexInput::yes : HexInput::no;
    if (hex == HexInput::yes) {
        std::vector<char> parsed;
        if (!ParseHex(std::string(bytes.begin(), bytes.end()), parsed))
            throw std::runtime_error(file + ": the input is not hex: expected pairs of hex digits, white space between bytes only");
        bytes.swap(parsed);
        return bytes;
    }
    if (LooksLikeHex(bytes)) throw std::runtime_error(file + ": the input is hex text, not a message: decode it with " + hexOption);
    return bytes;
}

// The one place the tool's restores get their options.
trdcomp::RestoreOptions RestoreOptionsOf(int flag, const std::string& maxBytes, bool strict) {
    trdcomp::RestoreOptions options;
    options.flag = static_cast<char>(flag);
    options.maxBytes = ParseByteLimit(maxBytes);
    options.strict = strict;
    return options;
}

}  // namespace

int RunDecode(const DecodeOptions& o, std::ostream& out, std::ostream& err) {
    const trdcomp::RestoreOptions options = RestoreOptionsOf(o.flag, o.maxBytes, o.strict);  // a bad --max-bytes fails first
    if (o.pcap || o.stream || !o.frame.empty() || o.follow) {
        if (o.json) throw std::runtime_error("--json prints one message's document: for a stream or capture, --jsonl prints one JSON object a line");
        if (o.hex) throw std::runtime_error("--hex reads one message: a stream or capture is read as it is");
        return RunDecodeFeed(o, out, err);
    }
    if (o.jsonl) throw std::runtime_error("--jsonl prints the messages of a stream or capture (--stream, --pcap): one message's JSON is --json");
    if (!o.ids.empty() || !o.dir.empty()) throw std::runtime_error("--id and --dir choose among the messages of a stream or capture (--stream, --pcap)");
    const std::vector<char> bytes = Input(o.file, o.hex ? HexInput::yes : HexInput::no, options.maxBytes, "--hex");
    const Decoded m = Decode(bytes, options);
    if (o.json) WriteJson(m, out);
    else PrintText(m, out, o.sent);
    // Bytes behind a message that tells its length: maybe more messages.
    const std::size_t end = bytes.size() - m.trailing.size();
    if (!m.trailing.empty() && trdcomp::MessageLength(m.trailing.data(), m.trailing.size()).status != trdcomp::Framing::invalid)
        err << "trdcomp decode: " << Plural(static_cast<long long>(m.trailing.size()), "byte") << " follow the message (it ends at offset " << end
            << ") and begin like another message: decode --stream reads messages back to back\n";
    return 0;
}

namespace {

std::string Describe(const Decoded& m) {
    return std::string(m.request ? "request " : "answer ") + std::to_string(HeadWord(m.wire, head::kFunctionIdAt)) + ", " + CodingName(m.fastVersion) +
           ", " + Plural(static_cast<long long>(m.wire.size()), "byte");
}

}  // namespace

int RunDiff(const DiffOptions& o, std::ostream& out) {
    const trdcomp::RestoreOptions options = RestoreOptionsOf(o.flag, o.maxBytes, o.strict);
    auto hexOf = [&](bool one) { return o.hex || one ? HexInput::yes : HexInput::detect; };
    const Decoded a = Decode(Input(o.a, hexOf(o.hexA), options.maxBytes, "--hex-a"), options);
    const Decoded b = Decode(Input(o.b, hexOf(o.hexB), options.maxBytes, "--hex-b"), options);
    out << "--- " << o.a << " (" << Describe(a) << ")\n+++ " << o.b << " (" << Describe(b) << ")\n";
    std::size_t differences = 0;
    auto differ = [&](const std::string& what, const std::string& x, const std::string& y) {
        if (x == y) return;
        ++differences;
        out << what << ": " << x << " -> " << y << "\n";
    };
    differ("direction", a.request ? "request" : "answer", b.request ? "request" : "answer");
    const Json ha = HeadJson(a), hb = HeadJson(b);
    for (const auto& [key, v] : ha.items()) {
        // The coding bits differ with the coding; the restored head keeps them.
        differ("head " + key, HeadValueText(key, v), hb.contains(key) ? HeadValueText(key, hb.at(key)) : "(none)");
    }
    differ("arrays", std::to_string(a.arrayCount), std::to_string(b.arrayCount));
    differ("sections", std::to_string(a.sections.size()), std::to_string(b.sections.size()));
    for (std::size_t j = 0; j < std::min(a.sections.size(), b.sections.size()); ++j) {
        const Section& x = a.sections[j];
        const Section& y = b.sections[j];
        const std::string sec = "section " + std::to_string(j + 1);
        differ(sec + " layout", x.layout ? x.layout->name : "raw", y.layout ? y.layout->name : "raw");
        differ(sec + " count", std::to_string(x.count), std::to_string(y.count));
        differ(sec + " record size", std::to_string(x.slot), std::to_string(y.slot));
        if (x.slot <= 0 || x.slot != y.slot) {
            if (x.records != y.records) differ(sec + " records", "differ", "");
            continue;
        }
        const std::size_t slot = static_cast<std::size_t>(x.slot);
        const std::size_t nx = x.records.size() / slot, ny = y.records.size() / slot;
        for (std::size_t i = 0; i < std::max(nx, ny); ++i) {
            const std::string rec = sec + " record " + std::to_string(i);
            if (i >= nx || i >= ny) {
                ++differences;
                out << rec << ": only in " << (i < nx ? o.a : o.b) << "\n";
                continue;
            }
            const char* rx = x.records.data() + i * slot;
            const char* ry = y.records.data() + i * slot;
            if (std::memcmp(rx, ry, slot) == 0) continue;
            if (!x.layout || x.layout != y.layout) {
                differ(rec, Hex(rx, slot), Hex(ry, slot));
                continue;
            }
            const std::vector<Row> rowsA = RecordRows(*x.layout, rx), rowsB = RecordRows(*x.layout, ry);
            for (std::size_t r = 0; r < rowsA.size() && r < rowsB.size(); ++r)
                differ(rec + " offset " + std::to_string(rowsA[r].offset) + " (" + rowsA[r].kind + ", " +
                           Plural(rowsA[r].width, "byte") + ")",
                       rowsA[r].value, rowsB[r].value);
        }
    }
    differ("trailing bytes", Hex(a.trailing.data(), a.trailing.size()), Hex(b.trailing.data(), b.trailing.size()));
    // The verdict is the restored bytes themselves: a field table could hide
    // a byte the layout does not show.
    const trdcomp::span<const char> wa(a.wire.data(), a.wire.size()), wb(b.wire.data(), b.wire.size());
    const trdcomp::Restored ra = a.request ? trdcomp::RestoreRequest(wa, options) : trdcomp::RestoreAnswer(wa, options);
    const trdcomp::Restored rb = b.request ? trdcomp::RestoreRequest(wb, options) : trdcomp::RestoreAnswer(wb, options);
    const bool same = a.request == b.request && ra.Size() == rb.Size() &&
                      (ra.Size() == 0 || std::memcmp(ra.Data(), rb.Data(), ra.Size()) == 0);
    if (same && differences > 0) {
        out << "the restored messages are identical; the differences above are in the wire heads only\n";
    } else if (!same && differences == 0) {
        ++differences;
        out << "the restored bytes differ in bytes no field shows\n";
    }
    if (same) out << (a.wire == b.wire ? "identical messages\n" : "the messages restore identically (their wire bytes differ)\n");
    else out << Plural(static_cast<long long>(differences), "difference") << "\n";
    return same ? 0 : 1;
}

}  // namespace tool

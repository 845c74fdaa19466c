// Decoding a received message: restored through the library and split into
// its sections (layout, count, the sender's record size, the restored
// records) with what the head and the section table state; and the names and
// limits that decoding and encoding share (codings, byte limits, refusals).
#include <algorithm>
#include <climits>
#include <cstdint>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "Message.h"
#include "trdcomp/MessageHead.hpp"
#include "trdcomp/trdcomp.hpp"

namespace tool {

namespace head = trdcomp::head;
using catalogue_model::Get;

std::int32_t HeadWord(const std::vector<char>& wire, std::size_t at) {
    return at + sizeof(head::Word) <= wire.size() ? head::Load(wire.data(), at) : 0;
}

int ShapeArrays(const catalogue_model::Shape& s) {
    switch (s.kind) {
        case catalogue_model::ShapeKind::Sections: return static_cast<int>(s.layouts.size());
        case catalogue_model::ShapeKind::Single:
        case catalogue_model::ShapeKind::Switched: return 1;
    }
    return 1;
}

const Layout* AnswerLayout(const catalogue_model::Shape& s, int j, int count) {
    const std::string& name = s.LayoutOf(j, count);
    return name.empty() ? nullptr : &Get().At(name);
}

std::string WhyRefused(const trdcomp::RestoredView& r, const std::vector<char>& wire, int version) {
    std::string why = trdcomp::Message(r.Why());
    if (wire.size() >= head::kRoutingBytes)
        why += " (function id " + std::to_string(head::ReadRouting(wire.data()).functionId) + ", " + CodingName(version) +
               " coding)";
    return why;
}

int ParseCoding(const std::string& text) {
    if (text == "2008") return 0;
    if (text == "fast") return 1;
    if (text.rfind("fast:", 0) == 0) {
        const std::string v = text.substr(5);
        if (!v.empty() && v.size() <= 2 && v.find_first_not_of("0123456789") == std::string::npos) {
            const int n = std::stoi(v);
            if (n >= 1 && n <= 15) return n;
        }
    }
    throw std::runtime_error("coding \"" + text + "\": expected 2008, fast or fast:V with V from 1 to 15");
}

std::size_t ParseByteLimit(const std::string& text) {
    if (text == "unlimited" || text == "none") return static_cast<std::size_t>(-1);
    const std::size_t digits = std::min(text.find_first_not_of("0123456789"), text.size());
    const std::string unit = text.substr(digits);
    const int shift = unit.empty() ? 0 : unit == "K" || unit == "k" ? 10 : unit == "M" ? 20 : unit == "G" ? 30 : -1;
    const std::uint64_t n = digits == 0 || shift < 0 || digits > 15 ? 0 : std::stoull(text.substr(0, digits));
    if (digits == 0 || shift < 0 || digits > 15 || n > (UINT64_MAX >> 1 >> shift))
        throw std::runtime_error("\"" + text + "\": expected a number of bytes (with K, M or G for KiB, MiB, GiB), "
                                 "or unlimited");
    return n == 0 ? static_cast<std::size_t>(-1) : static_cast<std::size_t>(n << shift);
}

std::string ByteLimitText(std::size_t limit) {
    if (limit == static_cast<std::size_t>(-1)) return "unlimited";
    std::string text = Plural(static_cast<long long>(limit), "byte");
    for (const auto& [shift, unit] : {std::pair{30, " GiB"}, std::pair{20, " MiB"}, std::pair{10, " KiB"}})
        if (limit >= (std::size_t{1} << shift) && limit % (std::size_t{1} << shift) == 0)
            return text + " (" + std::to_string(limit >> shift) + unit + ")";
    return text;
}

std::string CodingName(int fastVersion) { return fastVersion == 0 ? "2008" : "fast:" + std::to_string(fastVersion); }

namespace {

std::int64_t Records(std::int64_t count) { return count > 0 ? count : 0; }

// The record size entry j of the section table behind an answer's head
// states; 0 where the message ends before the entry.
std::int32_t TableEntrySize(const std::vector<char>& wire, int j) {
    const std::size_t entryEnd = head::kSectionTableAt + 4 + 8 * (static_cast<std::size_t>(j) + 1);
    return wire.size() >= entryEnd ? head::SectionEntry(wire.data() + head::kSectionTableAt, j).size : 0;
}

// The one place a restore's failure becomes the tool's error.
[[noreturn]] void ReportRefusal(const trdcomp::RestoredView& r, const std::vector<char>& wire, int version,
                                const trdcomp::RestoreOptions& options) {
    switch (r.Error()) {
        case trdcomp::Errc::limit_exceeded:
            throw std::runtime_error("the message restores to " + Plural(static_cast<std::int64_t>(r.Needed()), "byte") +
                                     ", more than the limit of " + ByteLimitText(options.maxBytes) +
                                     " (--max-bytes N raises it, --max-bytes unlimited lifts it)");
        case trdcomp::Errc::out_of_memory: throw Refused("the restore could not allocate its buffer");
        default: throw Refused(WhyRefused(r, wire, version));
    }
}


// A message that tells its length: the bytes the sender put behind it
// (which the restore passes over unless strict).
void KeepTrailing(Decoded& m) {
    const trdcomp::FrameLength f = trdcomp::MessageLength(m.wire.data(), m.wire.size());
    if (f.status == trdcomp::Framing::complete && f.length < m.wire.size())
        m.trailing.assign(m.wire.begin() + static_cast<std::ptrdiff_t>(f.length), m.wire.end());
}

}  // namespace

Decoded Decode(const std::vector<char>& wire, const trdcomp::RestoreOptions& options) { return Decode(std::vector<char>(wire), options); }

Decoded Decode(std::vector<char>&& bytes, const trdcomp::RestoreOptions& options) {
    Decoded m;
    m.wire = std::move(bytes);
    const std::vector<char>& wire = m.wire;
    if (wire.size() < 4) throw std::runtime_error("the input has " + Plural(static_cast<std::int64_t>(wire.size()), "byte") + ": no head");
    if (wire.size() > static_cast<std::size_t>(INT_MAX)) throw std::runtime_error("the input is longer than a message can be (2 GiB)");
    m.flag = options.flag;
    const head::Direction direction = head::DirectionOf(wire.data(), wire.size());
    if (direction == head::kNoMessage)
        throw std::runtime_error("head word 0 is " + std::to_string(HeadWord(wire, head::kLengthAt)) +
                                 ": a request head says 76, an answer head 96");
    m.request = direction == head::kRequest;
    const std::int32_t flags = HeadWord(wire, head::kFlagsAt);
    m.fastVersion = head::FastVersion(flags);
    const bool fast = m.fastVersion != 0;
    const std::int32_t id = HeadWord(wire, head::kFunctionIdAt);
    const trdcomp::span<const char> in(wire.data(), wire.size());
    // Restored into a block of this thread's that the next message uses
    // again: what Decode keeps of it, it copies.
    constexpr std::size_t kKept = std::size_t{1} << 20;  // a larger block is let go after its message
    thread_local std::vector<char> block(std::size_t{1} << 16);
    struct Shrink {
        ~Shrink() {
            if (block.size() > kKept) std::vector<char>(std::size_t{1} << 16).swap(block);
        }
    } shrink;
    auto restore = [&] {
        const trdcomp::span<char> into(block.data(), block.size());
        return m.request ? trdcomp::RestoreRequestInto(into, in, options) : trdcomp::RestoreAnswerInto(into, in, options);
    };
    trdcomp::RestoredView r = restore();
    if (!r && r.Error() == trdcomp::Errc::buffer_too_small) {
        try {
            std::vector<char>(r.Needed()).swap(block);
        } catch (const std::bad_alloc&) {
            throw Refused("the restore could not allocate its buffer");
        }
        r = restore();
    }
    if (!r) ReportRefusal(r, wire, m.fastVersion, options);
    m.restoredBytes = r.Size();
    if (r.Size() == 0) {
        m.restoredNothing = true;
        KeepTrailing(m);
        return m;
    }
    const catalogue_model::Cell cell = Get().RestoreCell(m.request, id, fast);
    const bool codec = cell.IsCodec();
    const char* p = r.Data();
    const std::int64_t size = static_cast<std::int64_t>(r.Size());
    std::int64_t end = m.request ? head::kRequestLength : head::kAnswerLength;
    const int sections = r.Sections();
    if (!m.request) {
        m.arrayCount = 1;
        if (head::SeveralArrays(flags)) {
            const std::int32_t table = HeadWord(wire, head::kSectionTableAt);
            m.arrayCount = !fast && table >= 4 ? (table - 4) / 8 : sections;
        }
    }
    for (int j = 0; j < sections; ++j) {
        const trdcomp::RestoredView::Section s = r.GetSection(j);
        Section out;
        out.count = s.count;
        out.slot = s.size;
        if (codec) {
            out.layout = m.request ? &Get().At(Get().requestLayoutOf.at(cell.codec))
                                   : AnswerLayout(Get().AnswerShape(cell.codec), j, s.count);
            if (out.layout && out.layout->size != s.size) out.layout = nullptr;
        }
        // The size the sender stated: the request head, the answer's section
        // table (2008 coding, raw) or head (first array).
        out.size = out.slot;
        if (m.request) {
            out.size = HeadWord(wire, head::kRequestSizeAt);
        } else if (!fast && head::SeveralArrays(flags) && j < head::kMaxSectionEntries) {
            out.size = TableEntrySize(wire, j);
        } else if (j == 0) {
            out.size = HeadWord(wire, head::kAnswerSizeAt);
        }
        if (s.data != nullptr && s.size > 0) {
            std::int64_t n = Records(s.count);
            const std::int64_t at = s.data - p;
            if (n > (size - at) / s.size) n = (size - at) / s.size;  // raw requests: whole records only
            out.records.assign(s.data, s.data + n * s.size);
            end = at + n * s.size;
        }
        m.sections.push_back(std::move(out));
    }
    // A raw request restores to the message itself. A raw answer restores to
    // its head, section table and records, the message's first `size` bytes
    // (its head length is 96); the bytes the sender put behind them are only
    // in the message.
    if (!codec && m.request && end < size) m.trailing.assign(p + end, p + size);
    if (!codec && !m.request && size < static_cast<std::int64_t>(wire.size())) m.trailing.assign(wire.begin() + size, wire.end());
    if (m.trailing.empty()) KeepTrailing(m);
    return m;
}

}  // namespace tool

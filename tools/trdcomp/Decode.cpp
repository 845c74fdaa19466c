// Decoding a received message: restored through the library and split into
// its sections (layout, count, the sender's record size, the restored
// records) with what the head and the section table state; and the names and
// limits that decoding and encoding share (codings, byte limits, refusals).
#include <algorithm>
#include <climits>
#include <cstdint>
#include <new>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "Message.h"
#include "MessageView.h"
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

Decoded Decode(const std::vector<char>& wire, const trdcomp::RestoreOptions& options) { return Decode(std::vector<char>(wire), options); }

Decoded Decode(std::vector<char>&& wire, const trdcomp::RestoreOptions& options) {
    // Restored into a block of this thread's that the next message uses
    // again: what Decode keeps of it, CopyOut copies.
    constexpr std::size_t kKept = std::size_t{1} << 20;  // a larger block is let go after its message
    thread_local std::vector<char> block(std::size_t{1} << 16);
    struct Shrink {
        ~Shrink() {
            if (block.size() > kKept) std::vector<char>(std::size_t{1} << 16).swap(block);
        }
    } shrink;
    const Allocate reuse = [](std::size_t n) {
        if (block.size() < n) std::vector<char>(n).swap(block);
        return block.data();
    };
    char* restored = nullptr;
    DecodedView v;
    try {
        v = DecodeInto(wire.data(), wire.size(), options, reuse, restored, trdcomp::span<char>(block.data(), block.size()));
    } catch (const OverLimit& e) {
        throw std::runtime_error(std::string(e.what()) + " (--max-bytes N raises it, --max-bytes unlimited lifts it)");
    } catch (const std::bad_alloc&) {
        throw Refused("the restore could not allocate its buffer");
    }
    return CopyOut(v, std::move(wire), restored);
}

}  // namespace tool

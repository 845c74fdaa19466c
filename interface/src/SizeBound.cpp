// Upper bounds of a packed message's size, for the modern interface: the
// framing of each coding around the largest coded record of each array
// (from the catalogue), or the raw bytes where the records travel raw.
#include <algorithm>
#include <cstdint>

#include "Routing.h"
#include "trdcomp/trdcomp.hpp"

namespace trdcomp {

namespace {

using detail::Cell;

std::uint64_t Positive(std::int64_t v) { return v > 0 ? static_cast<std::uint64_t>(v) : 0; }

// Records a packer codes from an array that states `count`: the Fast
// framing counts in 16 bits.
std::uint64_t CodedRecords(std::int32_t count, bool fast) {
    return fast ? static_cast<std::uint16_t>(count) : Positive(count);
}

// Records a request packer can code from dataLen bytes: it stops at the
// first record whose bytes (at least one) pass the end of the data, so with
// a stride s > 0 no more than (dataLen - 1) / s + 1 of them; a stride of 0
// repeats the first record count times, a negative one codes one at most.
std::uint64_t HeldRecords(const tagREQ_HEAD& head, std::size_t dataLen, bool fast) {
    const std::uint64_t count = CodedRecords(head.nRecCount, fast);
    if (dataLen == 0) return 0;
    const std::int32_t stride = head.nRecSize;
    std::uint64_t held = count;
    if (stride > 0) held = (static_cast<std::uint64_t>(dataLen) - 1) / static_cast<std::uint32_t>(stride) + 1;
    if (stride < 0) held = 1;
    return std::min(count, held);
}

// The largest coded record of array j: the 2008 coding's depends on the
// KXPfdk the process loaded.
std::uint64_t MaxRecord(const detail::RecordBounds& b, int j, bool fast) {
    if (fast) return b.packFast[j];
    return BuiltInValueCoders() ? b.pack2008[j] : b.pack2008Exported[j];
}

}  // namespace

std::uint64_t RequestSizeBound(const tagREQ_HEAD& head, std::size_t dataLen, Coding coding) noexcept {
    const bool fast = coding.fastVersion != 0;
    const auto& routes = detail::FindReqRoutes(head.nFuncId);
    const Cell cell = fast ? routes.packFast.cell : routes.pack2008.cell;
    const std::uint64_t headOnly = TRDCOMP_REQ_HEAD_LEN;
    // A codec sends fewer bytes than one record raw, so its bound covers both.
    const std::uint64_t raw = headOnly + dataLen;
    switch (cell) {
        case Cell::no_records:
        case Cell::head_only:
        case Cell::nothing:
            return headOnly;
        case Cell::raw:
            return raw;
        case Cell::codec:
            break;
    }
    const auto& bounds = detail::FindBounds(detail::kReqBoundTable, head.nFuncId);
    const std::uint64_t record = MaxRecord(bounds, 0, fast) + (fast ? 2u : 4u);
    const std::uint64_t coded = headOnly + (fast ? 2 : 0) + HeldRecords(head, dataLen, fast) * record;
    return std::max(raw, coded);
}

std::uint64_t AnswerSizeBound(const tagANS_Proc& proc, Coding coding) noexcept {
    const bool fast = coding.fastVersion != 0;
    const std::int32_t n = proc.nArrayCount;
    const std::uint64_t table = n > 1 && !fast ? 8 * static_cast<std::uint64_t>(n) + 4 : 0;
    const std::uint64_t head = TRDCOMP_ANS_HEAD_LEN + table;
    const auto& routes = detail::FindAnsRoutes(proc.nFuncId);
    switch (fast ? routes.packFast.cell : routes.pack2008.cell) {
        case Cell::no_records:
        case Cell::head_only:
        case Cell::nothing:
            return head;
        case Cell::raw: {
            std::uint64_t bytes = head;
            for (int i = 0; i < std::min(n, 5); ++i)
                bytes += Positive(static_cast<std::int64_t>(proc.nRecCount[i]) * proc.nRecSize[i]);
            return bytes;
        }
        case Cell::codec:
            break;
    }
    const auto& bounds = detail::FindBounds(detail::kAnsBoundTable, proc.nFuncId);
    const int arrays = fast ? bounds.arraysFast : bounds.arrays2008;
    std::uint64_t bytes = head + (fast ? 2 * static_cast<std::uint64_t>(arrays) : 0);
    for (int j = 0; j < arrays; ++j) {
        const std::uint64_t record = MaxRecord(bounds, j, fast) + (fast ? 2u : 4u);
        bytes += CodedRecords(proc.nRecCount[j], fast) * record;
    }
    return bytes;
}

}  // namespace trdcomp

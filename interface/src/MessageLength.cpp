// Message boundaries from the bytes: the length of the message that starts a
// prefix, from what the packers put on the wire (the head, the record counts
// and each coded record's length), for a reader of a byte stream.
#include <climits>
#include <cstdint>

#include "Routing.h"
#include "common/Bytes.h"
#include "trdcomp/MessageHead.hpp"
#include "trdcomp/trdcomp.hpp"

namespace trdcomp {

namespace {

using detail::Cell;
using detail::LoadI32;
using detail::LoadU16;

constexpr std::int64_t kReqHead = head::kRequestLength;
constexpr std::int64_t kAnsHead = head::kAnswerLength;
constexpr std::int64_t kTable = head::kSectionTableAt;

FrameLength Complete(std::int64_t n) {
    return n > INT_MAX ? FrameLength{Framing::invalid, 0} : FrameLength{Framing::complete, static_cast<std::size_t>(n)};
}
FrameLength NeedMore(std::int64_t n) { return {Framing::need_more, static_cast<std::size_t>(n)}; }
constexpr FrameLength kCannotTell{Framing::cannot_tell, 0};
constexpr FrameLength kInvalid{Framing::invalid, 0};

// Walks `records` length-prefixed records (a length word of `width` bytes,
// 4 or 2) from `cursor`: the message ends behind the last one.
FrameLength Walk(const char* p, std::int64_t size, std::int64_t cursor, std::int64_t records, int width) {
    for (std::int64_t i = 0; i < records; ++i) {
        if (cursor > INT_MAX) return kInvalid;
        if (size - cursor < width) return NeedMore(cursor + width);
        const std::int64_t len = width == 4 ? static_cast<std::int64_t>(static_cast<std::uint32_t>(LoadI32(p + cursor)))
                                            : LoadU16(p + cursor);
        cursor += width + len;
    }
    return Complete(cursor);
}

std::int64_t Positive(std::int32_t v) { return v > 0 ? v : 0; }

FrameLength Request(const char* p, std::int64_t size, std::int32_t id, std::int32_t flags, int version) {
    const auto& routes = detail::FindReqRoutes(id);
    switch (version != 0 ? routes.packFast.cell : routes.pack2008.cell) {
        case Cell::NoRecords:
        case Cell::HeadOnly:
        case Cell::Nothing:
            return Complete(kReqHead);
        case Cell::Raw:
            return kCannotTell;
        case Cell::Codec:
            break;
    }
    // Records shorter than one record travel raw, with bit 0 clear.
    if (!head::Coded(flags)) return kCannotTell;
    if (version == 0) return Walk(p, size, kReqHead, Positive(head::RequestArray(p).count), 4);
    if (size < kReqHead + 2) return NeedMore(kReqHead + 2);
    return Walk(p, size, kReqHead + 2, LoadU16(p + kReqHead), 2);
}

FrameLength Answer(const char* p, std::int64_t size, std::int32_t id, std::int32_t flags, int version) {
    const auto& routes = detail::FindAnsRoutes(id);
    const bool sections = head::SeveralArrays(flags);
    const Cell cell = version != 0 ? routes.packFast.cell : routes.pack2008.cell;
    if (cell == Cell::Codec) {
        if (!head::Coded(flags)) return kCannotTell;
        const auto& bounds = detail::FindBounds(detail::kAnsBoundTable, id);
        const int k = version != 0 ? bounds.arraysFast : bounds.arrays2008;
        if (k < 1) return kCannotTell;
        if (version != 0) {
            // The counts of every array, then the records of each in turn.
            if (size < kAnsHead + 2 * k) return NeedMore(kAnsHead + 2 * k);
            std::int64_t records = 0;
            for (int j = 0; j < k; ++j) records += LoadU16(p + kAnsHead + 2 * j);
            return Walk(p, size, kAnsHead + 2 * k, records, 2);
        }
        // A section table stands behind the head whenever the sender
        // described several arrays; the records follow it.
        std::int64_t cursor = kAnsHead;
        std::int32_t table = 0;
        if (sections) {
            if (size < kTable + 4) return NeedMore(kTable + 4);
            table = LoadI32(p + kTable);
            if (table < 4) return kInvalid;
            cursor += table;
        }
        if (k == 1) return Walk(p, size, cursor, Positive(head::AnswerArray(p).count), 4);
        if (table < 4 + 8 * k) return kInvalid;  // the restore refuses it too
        if (size < kTable + 4 + 8 * k) return NeedMore(kTable + 4 + 8 * k);
        std::int64_t records = 0;
        for (int j = 0; j < k; ++j) records += Positive(head::SectionEntry(p + kTable, j).count);
        return Walk(p, size, cursor, records, 4);
    }
    // Head alone, or the raw arrays: the 2008 coding writes a section table
    // (its length, then count and size of each of the first five arrays),
    // the Fast coding none.
    std::int64_t table = 0;
    if (sections) {
        if (version != 0) return cell == Cell::Raw ? kCannotTell : Complete(kAnsHead);
        if (size < kTable + 4) return NeedMore(kTable + 4);
        table = LoadI32(p + kTable);
        if (table < 4) return kInvalid;
    }
    if (cell != Cell::Raw) return Complete(kAnsHead + table);
    if (head::Coded(flags)) return kInvalid;  // the raw restore refuses coded records
    std::int64_t bytes = 0;
    if (sections) {
        const std::int64_t entries = (table - 4) / 8;
        if (entries > 5) return kCannotTell;  // entries past the fifth are not written
        if (size < kTable + 4 + 8 * entries) return NeedMore(kTable + 4 + 8 * entries);
        // As the raw restore: no entry negative, and no sum past what an
        // int counts (each term is below 2^62, checked before the next).
        for (std::int64_t i = 0; i < entries; ++i) {
            const head::Array e = head::SectionEntry(p + kTable, static_cast<int>(i));
            const std::int64_t count = e.count;
            const std::int64_t bytesEach = e.size;
            if (count < 0 || bytesEach < 0) return kInvalid;
            bytes += count * bytesEach;
            if (bytes > INT32_MAX) return kInvalid;
        }
    } else {
        const head::Array a = head::AnswerArray(p);
        bytes = static_cast<std::int64_t>(a.count) * a.size;
    }
    if (bytes < 0) return kInvalid;
    return Complete(kAnsHead + table + bytes);
}

}  // namespace

FrameLength MessageLength(const char* prefix, std::size_t size) noexcept {
    if (prefix == nullptr && size != 0) return kInvalid;
    const std::int64_t n = size > static_cast<std::size_t>(INT64_MAX) ? INT64_MAX : static_cast<std::int64_t>(size);
    if (n < 4) return NeedMore(4);
    const head::Direction direction = head::DirectionOf(prefix, static_cast<std::size_t>(n));
    if (direction == head::kNoMessage) return kInvalid;
    const std::int64_t headLen = direction == head::kRequest ? kReqHead : kAnsHead;
    if (n < headLen) return NeedMore(headLen);
    const head::Routing r = head::ReadRouting(prefix);
    const int version = head::FastVersion(r.flags);
    return direction == head::kRequest ? Request(prefix, n, r.functionId, r.flags, version)
                                       : Answer(prefix, n, r.functionId, r.flags, version);
}

}  // namespace trdcomp

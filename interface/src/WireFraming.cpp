// The framing of a message from its bytes, as the packers put it on the wire
// (the head, the record counts and each coded record's length): one walk that
// gives a reader of a byte stream the message's length (MessageLength) and a
// tool the place of every coded record (CodedRecords).
#include <climits>
#include <cstdint>
#include <initializer_list>

#include "Routing.h"
#include "Bytes.h"
#include "trdcomp/MessageHead.hpp"
#include "trdcomp/Inspect.hpp"
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

// Where a message's coded records stand: from `start`, counts[j] records of
// array j, each behind a length word of `width` bytes (4 or 2). A message
// without coded records (raw, head alone), or one whose bytes so far do not
// tell, has its answer in `length` instead.
struct RecordStream {
    bool records = false;
    FrameLength length;
    std::int64_t start = 0;
    int width = 0;
    int arrays = 0;
    std::int64_t counts[head::kMaxSectionEntries] = {};
};

RecordStream CodedStream(std::int64_t start, int width, std::initializer_list<std::int64_t> counts) {
    RecordStream r;
    r.records = true;
    r.start = start;
    r.width = width;
    for (const std::int64_t c : counts) r.counts[r.arrays++] = c;
    return r;
}
RecordStream Told(FrameLength f) {
    RecordStream r;
    r.length = f;
    return r;
}

// Walks the records of the stream: visit(array, index, offset, length) for
// each whose length word the bytes hold (offset: behind its length word).
// The message ends behind the last one.
template <class Visit>
FrameLength Walk(const char* p, std::int64_t size, const RecordStream& s, const Visit& visit) {
    std::int64_t cursor = s.start;
    for (int j = 0; j < s.arrays; ++j) {
        for (std::int64_t i = 0; i < s.counts[j]; ++i) {
            if (cursor > INT_MAX) return kInvalid;
            if (size - cursor < s.width) return NeedMore(cursor + s.width);
            const std::int64_t len = s.width == 4
                                         ? static_cast<std::int64_t>(static_cast<std::uint32_t>(LoadI32(p + cursor)))
                                         : LoadU16(p + cursor);
            visit(j, i, cursor + s.width, len);
            cursor += s.width + len;
        }
    }
    return Complete(cursor);
}

std::int64_t Positive(std::int32_t v) { return v > 0 ? v : 0; }

RecordStream Request(const char* p, std::int64_t size, std::int32_t id, std::int32_t flags, int version) {
    const auto& routes = detail::FindReqRoutes(id);
    switch (version != 0 ? routes.packFast.cell : routes.pack2008.cell) {
        case Cell::no_records:
        case Cell::head_only:
        case Cell::nothing:
            return Told(Complete(kReqHead));
        case Cell::raw:
            return Told(kCannotTell);
        case Cell::codec:
            break;
    }
    // Records shorter than one record travel raw, with bit 0 clear.
    if (!head::Coded(flags)) return Told(kCannotTell);
    if (version == 0) return CodedStream(kReqHead, 4, {Positive(head::RequestArray(p).count)});
    if (size < kReqHead + 2) return Told(NeedMore(kReqHead + 2));
    return CodedStream(kReqHead + 2, 2, {LoadU16(p + kReqHead)});
}

RecordStream Answer(const char* p, std::int64_t size, std::int32_t id, std::int32_t flags, int version) {
    const auto& routes = detail::FindAnsRoutes(id);
    const bool sections = head::SeveralArrays(flags);
    const Cell cell = version != 0 ? routes.packFast.cell : routes.pack2008.cell;
    if (cell == Cell::codec) {
        if (!head::Coded(flags)) return Told(kCannotTell);
        const auto& bounds = detail::FindBounds(detail::kAnsBoundTable, id);
        const int k = version != 0 ? bounds.arraysFast : bounds.arrays2008;
        if (k < 1) return Told(kCannotTell);
        if (version != 0) {
            // The counts of every array, then the records of each in turn.
            if (size < kAnsHead + 2 * k) return Told(NeedMore(kAnsHead + 2 * k));
            RecordStream r = CodedStream(kAnsHead + 2 * k, 2, {});
            for (int j = 0; j < k; ++j) r.counts[r.arrays++] = LoadU16(p + kAnsHead + 2 * j);
            return r;
        }
        // A section table stands behind the head whenever the sender
        // described several arrays; the records follow it.
        std::int64_t cursor = kAnsHead;
        std::int32_t table = 0;
        if (sections) {
            if (size < kTable + 4) return Told(NeedMore(kTable + 4));
            table = LoadI32(p + kTable);
            if (table < 4) return Told(kInvalid);
            cursor += table;
        }
        if (k == 1) return CodedStream(cursor, 4, {Positive(head::AnswerArray(p).count)});
        if (table < 4 + 8 * k) return Told(kInvalid);  // the restore refuses it too
        if (size < kTable + 4 + 8 * k) return Told(NeedMore(kTable + 4 + 8 * k));
        RecordStream r = CodedStream(cursor, 4, {});
        for (int j = 0; j < k; ++j) r.counts[r.arrays++] = Positive(head::SectionEntry(p + kTable, j).count);
        return r;
    }
    // Head alone, or the raw arrays: the 2008 coding writes a section table
    // (its length, then count and size of each of the first five arrays),
    // the Fast coding none.
    std::int64_t table = 0;
    if (sections) {
        if (version != 0) return Told(cell == Cell::raw ? kCannotTell : Complete(kAnsHead));
        if (size < kTable + 4) return Told(NeedMore(kTable + 4));
        table = LoadI32(p + kTable);
        if (table < 4) return Told(kInvalid);
    }
    if (cell != Cell::raw) return Told(Complete(kAnsHead + table));
    if (head::Coded(flags)) return Told(kInvalid);  // the raw restore refuses coded records
    std::int64_t bytes = 0;
    if (sections) {
        const std::int64_t entries = (table - 4) / 8;
        if (entries > 5) return Told(kCannotTell);  // entries past the fifth are not written
        if (size < kTable + 4 + 8 * entries) return Told(NeedMore(kTable + 4 + 8 * entries));
        // As the raw restore: no entry negative, and no sum past what an
        // int counts (each term is below 2^62, checked before the next).
        for (std::int64_t i = 0; i < entries; ++i) {
            const head::Array e = head::SectionEntry(p + kTable, static_cast<int>(i));
            const std::int64_t count = e.count;
            const std::int64_t bytesEach = e.size;
            if (count < 0 || bytesEach < 0) return Told(kInvalid);
            bytes += count * bytesEach;
            if (bytes > INT32_MAX) return Told(kInvalid);
        }
    } else {
        const head::Array a = head::AnswerArray(p);
        bytes = static_cast<std::int64_t>(a.count) * a.size;
    }
    if (bytes < 0) return Told(kInvalid);
    return Told(Complete(kAnsHead + table + bytes));
}

// The record stream of the message at prefix[0, n), n at least 4.
RecordStream StreamOf(const char* prefix, std::int64_t n) {
    const head::Direction direction = head::DirectionOf(prefix, static_cast<std::size_t>(n));
    if (direction == head::kNoMessage) return Told(kInvalid);
    const std::int64_t headLen = direction == head::kRequest ? kReqHead : kAnsHead;
    if (n < headLen) return Told(NeedMore(headLen));
    const head::Routing r = head::ReadRouting(prefix);
    const int version = head::FastVersion(r.flags);
    return direction == head::kRequest ? Request(prefix, n, r.functionId, r.flags, version)
                                       : Answer(prefix, n, r.functionId, r.flags, version);
}

std::int64_t Bytes(std::size_t size) {
    return size > static_cast<std::size_t>(INT64_MAX) ? INT64_MAX : static_cast<std::int64_t>(size);
}

}  // namespace

FrameLength MessageLength(const char* prefix, std::size_t size) noexcept {
    if (prefix == nullptr && size != 0) return kInvalid;
    const std::int64_t n = Bytes(size);
    if (n < 4) return NeedMore(4);
    const RecordStream s = StreamOf(prefix, n);
    if (!s.records) return s.length;
    return Walk(prefix, n, s, [](int, std::int64_t, std::int64_t, std::int64_t) {});
}

std::size_t CodedRecords(const char* msg, std::size_t size, CodedRecord* out, std::size_t max) noexcept {
    if (msg == nullptr || size < 4) return 0;
    const std::int64_t n = Bytes(size);
    const RecordStream s = StreamOf(msg, n);
    if (!s.records) return 0;
    std::size_t found = 0;
    Walk(msg, n, s, [&](int array, std::int64_t index, std::int64_t offset, std::int64_t length) {
        if (found < max && out != nullptr)
            out[found] = CodedRecord{array, static_cast<std::size_t>(index), static_cast<std::size_t>(offset),
                                     static_cast<std::size_t>(length)};
        ++found;
    });
    return found;
}

bool FastSentFields(const char* msg, std::size_t size, const CodedRecord& record, bool* sent,
                    std::size_t fields) noexcept {
    for (std::size_t k = 0; k < fields; ++k) sent[k] = false;
    if (msg == nullptr || record.offset > size) return false;
    // The map's bytes: 7 fields each, the last with its stop bit, all inside
    // the record's bytes and the message's.
    const std::size_t end = record.length < size - record.offset ? record.offset + record.length : size;
    for (std::size_t j = record.offset; j < end; ++j) {
        const auto b = static_cast<unsigned char>(msg[j]);
        for (std::size_t bit = 0; bit < 7; ++bit) {
            const std::size_t k = (j - record.offset) * 7 + bit;
            if (k < fields) sent[k] = (b & (0x40u >> bit)) != 0;
        }
        if (b & 0x80u) return true;
    }
    for (std::size_t k = 0; k < fields; ++k) sent[k] = false;  // no stop bit: no map, nothing sent
    return false;
}

}  // namespace trdcomp

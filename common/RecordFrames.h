// The frames both record codings share: a run of length-prefixed records,
// the restore of a request and the restore of an answer. What differs
// between the codings is a record policy P, a small object holding the
// coding's argument (the 2008 flag, the Fast version):
//
//   encoding a run (EncodeRecords)
//     kLengthBytes           bytes of the length word before each record
//     kMaxRecord, kSlack     worst-case bytes of a record, and the bytes behind
//                            them an encoder may use as scratch
//     kLeastRecord           the fewest bytes a coded record takes
//     kExactWrites           the encoder writes no byte it does not count, so a
//                            classic call (capacity unknown) encodes in place
//     kExactInPlace          the policy has EncodeExact: the same bytes, and
//                            no write past them, for the records of a classic
//                            call the records to come do not prove room for
//     Representable(rec)     strict mode: the record can travel as it is
//     Encode(rec, prev, dst) codes one record, returns its bytes
//     StoreLength(at, n)     writes a record's length word
//   restoring (RestoreRequestFrame, RestoreAnswerFrame)
//     kCountBytes            bytes of the record count a request carries in
//                            its stream behind the head
//     kMinCoded              the fewest bytes a coded record takes on the wire
//     Decodes()              whether coded records are decoded at all
//     CountAgrees(at, count) whether the stream's count equals the head's
//     Tail<L>()              bytes a decoder may write behind a record of L
//     WritesRecords<L>()     DecodeRun writes every byte of the records it
//                            decodes (the slots need not be cleared first)
//     DecodeRun<L>(in, inLen, cursor, count, slots)
//                            decodes up to count records from in + cursor into
//                            the zeroed slots, returns the records decoded
//     ReadCounts<k>(in, inLen, headLen, counts, cursor)
//                            an answer's section counts, the cursor set to its
//                            first record; Reason::none or why it is refused
//     RecordRoom(inLen, headLen, cursor)
//                            the most records the answer's bytes can hold
//     kZeroLengthOnFailure   a failed allocation leaves outLen 0
//     kClearsSectionsBit     a one-section answer restores with flag bit 1 clear
#pragma once

#include <climits>
#include <cstdint>
#include <cstring>

#include "Framing.h"
#include "Inline.h"

namespace trdcomp::detail {

// Codes the records of a caller's array (extent bytes, stride apart) as
// length-prefixed records at out + pos, each against the one before, while
// they fit the call's capacity. Stops at the first record that does not lie
// inside the array. False when the capacity ran out, unless the call
// measures: then the records that do not fit are counted, not written, and
// pos ends past the capacity (the packer reports pos as the bytes needed). Forced inline: a
// small request's pack is mostly this framing, and each layout's run has one
// call site.
template <class P>
TRDCOMP_FORCE_INLINE bool EncodeRecords(Call& call, const P& p, std::uint32_t size, char* out, std::int64_t& pos,
                                        const char* data, std::int64_t extent, std::int64_t count,
                                        std::int32_t stride) {
    const std::int64_t records = RecordsInside(data, extent, count, stride, size);
    if (call.strict) {
        for (std::int64_t i = 0; i < records; ++i)
            if (!p.Representable(data + i * stride)) return call.Refuse(Reason::value_not_representable);
    }
    const std::int64_t cap = call.capacity;
    const char* prev = nullptr;
    for (std::int64_t i = 0; i < records; ++i) {
        const char* rec = data + i * stride;
        const std::int64_t room = cap - pos - P::kLengthBytes;
        if (room < 0 && !call.measure) return call.TooSmall(pos + P::kLengthBytes);
        // Without a known capacity, the records still to come prove the room:
        // each takes at least its length word and its least coded bytes.
        const std::int64_t proven = (records - i) * (P::kLengthBytes + P::kLeastRecord) - P::kLengthBytes;
        const std::int64_t writable = call.capacityKnown || P::kExactWrites ? room : proven;
        char* const dst = out + pos + P::kLengthBytes;
        const auto wide = [&] {
            return EncodeBounded<P::kMaxRecord, P::kSlack>([&](char* d) { return p.Encode(rec, prev, d); }, dst, room,
                                                           writable);
        };
        std::int64_t n;
        if constexpr (P::kExactInPlace) {
            // The caller's buffer holds the message, so the bytes of this
            // record are its own; room covers the worst case, so no refusal
            // can follow the writes.
            const bool exact = !call.capacityKnown &&
                               writable < static_cast<std::int64_t>(P::kMaxRecord + P::kSlack) &&
                               room >= static_cast<std::int64_t>(P::kMaxRecord);
            n = exact ? p.EncodeExact(rec, prev, dst) : wide();
        } else {
            n = wide();
        }
        if (n <= room) {
            P::StoreLength(out + pos, n);
        } else if (!call.measure) {
            return call.TooSmall(pos + P::kLengthBytes + n);
        }
        pos += P::kLengthBytes + n;
        prev = rec;
    }
    return true;
}

// Restores a request of layout L: the head (its length and record size
// words set), then the records decoded, or copied when they travelled raw.
template <const auto& L, class P>
TRDCOMP_FORCE_INLINE int RestoreRequestFrame(Call& call, const P& p, const char* in, int inLen, char** out,
                                             int& outLen) {
    static_assert(L.size > 0);
    static_assert(P::template Tail<L>() <= kReqSpare, "a decode limit overruns the spare bytes");
    RequestHead h;
    if (!ReadRequestHead(call, in, inLen, h)) return 0;
    const bool decode = h.coded && p.Decodes();
    // The stream's count must be readable, and there are no more records
    // than the message can describe: the least coded record each, one
    // received byte per copied one.
    if (decode && inLen - h.headLen < P::kCountBytes) return call.Refuse(Reason::count_past_message);
    const std::int64_t records = FilledRecords(h.count);
    if (records > (decode ? (inLen - h.headLen - P::kCountBytes) / P::kMinCoded : inLen))
        return call.Refuse(Reason::count_past_message);
    // Into the caller's memory, a count that disagrees is refused before a
    // byte is written (a classic restore hands back the zeroed buffer).
    const bool into = call.IntoCallerBlock();
    const bool agrees = !decode || p.CountAgrees(in + h.headLen, h.count);
    if (into && !agrees) return call.Refuse(Reason::stream_count_differs);
    // A run that writes its records whole leaves only the records the
    // message does not hold to clear, after it.
    const bool written = decode && agrees && P::template WritesRecords<L>();
    // One record into the caller's block (a receiver's usual request) is
    // cleared here by stores of its known size, not by the block's run of
    // zeros of a length known only now.
    const bool clearOne = into && h.count == 1 && !written;
    char* slots = OpenRestoredRequest(call, in, h, L.size, out, outLen, P::template Tail<L>(), clearOne || written);
    if (slots == nullptr) return 0;
    if (clearOne) ZeroFixed<L.size>(slots);
    if (!h.coded) {
        CopyRawRecords(in, inLen, h.recordSize, L.size, records, slots);
    } else if (decode) {
        if (!agrees) return call.Refuse(Reason::stream_count_differs);
        std::int64_t cursor = h.headLen + P::kCountBytes;
        const std::int64_t decoded = p.template DecodeRun<L>(in, inLen, cursor, records, slots);
        if (written && decoded < records)
            std::memset(slots + decoded * L.size, 0, static_cast<std::size_t>((records - decoded) * L.size));
        if (call.strict) {
            if (const Reason why = StrictEnd(cursor, inLen, decoded, records); why != Reason::none)
                return call.Refuse(why);
        }
    }
    CloseRestoredRequest(*out, L.size);
    return 1;
}

// Restores an answer of the given shape. One section: the 96-byte head
// (word 0 = 96) with the count and layout size in words 22 and 23, then the
// records. Several: the head with flag bit 1, the section table (its length
// 4 + 8k, then each count and layout size) and the sections one after the
// other. 10 spare zero bytes.
template <class Shape, class P>
TRDCOMP_FORCE_INLINE int RestoreAnswerFrame(Call& call, const P& p, const char* in, int inLen, char** out,
                                            int& outLen) {
    constexpr int k = Shape::kCount;
    if (in == nullptr || inLen < kAnsHeadLen) return call.Refuse(Reason::head_too_short);
    const std::int32_t headLen = head::Load(in, head::kLengthAt);
    if (headLen < 0 || headLen > inLen) return call.Refuse(Reason::head_length_invalid);
    std::int32_t counts[k];
    std::int64_t cursor = headLen;
    if (const Reason why = p.template ReadCounts<k>(in, inLen, headLen, counts, cursor); why != Reason::none)
        return call.Refuse(why);
    std::int64_t records = 0;
    std::int64_t total = kAnsHeadLen + (k > 1 ? 8 * k + 4 : 0);
    bool negative = false;
    for (int j = 0; j < k; ++j) {
        negative |= counts[j] < 0;
        records += FilledRecords(counts[j]);
        total += FilledRecords(counts[j]) * Shape::Size(j, counts[j]);
    }
    if (records > p.RecordRoom(inLen, headLen, cursor)) return call.Refuse(Reason::count_past_message);
    if (total > INT_MAX) return call.Refuse(Reason::size_not_representable);
    if (negative && call.refuseNegativeCounts) return call.Refuse(Reason::negative_count);
    const bool into = call.IntoCallerBlock();
    const bool agrees = k > 1 || !p.Decodes() || p.CountAgrees(in + headLen, counts[0]);
    if (into && !agrees) return call.Refuse(Reason::stream_count_differs);

    // Bytes a decoder may write behind the last record, in the caller's
    // memory; whether every section's run writes its records whole.
    std::int64_t tail = 0;
    bool whole = p.Decodes() && agrees;
    for (int j = 0; j < k; ++j)
        Shape::Visit(j, counts[j], 0, [&]<const auto& L>() {
            static_assert(P::template Tail<L>() <= kAnsSpare, "a decode limit overruns the spare bytes");
            tail = tail > P::template Tail<L>() ? tail : P::template Tail<L>();
            whole = whole && P::template WritesRecords<L>();
            return true;
        });
    // The head and section table are written below; with whole records,
    // the records the message does not hold are cleared after each run.
    const std::int64_t written = whole ? total : kAnsHeadLen;
    char* buf = OpenBlock(call, out, outLen, total, kAnsSpare, written, tail, records);
    if (buf == nullptr) {
        if (P::kZeroLengthOnFailure && !into) outLen = 0;  // a caller's block keeps the size it needs
        return 0;
    }
    std::memcpy(buf, in, kAnsHeadLen);
    char* slots = buf + kAnsHeadLen;
    if constexpr (k > 1) {
        head::Store(slots, 0, 8 * k + 4);
        for (int j = 0; j < k; ++j) {
            head::Store(slots, 4 + 8 * static_cast<std::size_t>(j), counts[j]);
            head::Store(slots, 8 + 8 * static_cast<std::size_t>(j), static_cast<std::int32_t>(Shape::Size(j, counts[j])));
        }
        slots += 8 * k + 4;
    }
    if (p.Decodes()) {
        if (!agrees) return call.Refuse(Reason::stream_count_differs);
        std::int64_t decoded = 0;
        for (int j = 0; j < k; ++j) {
            Shape::Visit(j, counts[j], 0, [&]<const auto& L>() {
                const std::int64_t n = FilledRecords(counts[j]);
                const std::int64_t done = p.template DecodeRun<L>(in, inLen, cursor, n, slots);
                if (whole && done < n) std::memset(slots + done * L.size, 0, static_cast<std::size_t>((n - done) * L.size));
                decoded += done;
                slots += n * L.size;
                return true;
            });
        }
        if (call.strict) {
            if (const Reason why = StrictEnd(cursor, inLen, decoded, records); why != Reason::none)
                return call.Refuse(why);
        }
    }
    head::Store(buf, head::kLengthAt, kAnsHeadLen);
    if constexpr (k == 1) {
        head::Store(buf, head::kAnswerCountAt, counts[0]);
        head::Store(buf, head::kAnswerSizeAt, static_cast<std::int32_t>(Shape::Size(0, counts[0])));
        if (P::kClearsSectionsBit)
            head::Store(buf, head::kFlagsAt, head::Load(buf, head::kFlagsAt) & ~TRDCOMP_FLAG_SECTIONS);
    } else {
        SetFlags(buf, TRDCOMP_FLAG_SECTIONS);
    }
    return 1;
}

}  // namespace trdcomp::detail

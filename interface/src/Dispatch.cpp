// The dispatchers of the core and their raw paths (see Dispatch.h).
//
// Every read stays inside in[0, inLen) and every write inside the caller's
// buffer as the call sizes it: where a head describes more than the message
// holds, or a size cannot be represented, the call is refused with a reason
// (docs/hostile-input.md).
#include "Dispatch.h"

#include <climits>
#include <cstddef>
#include <cstdint>
#include <cstring>

#include "RestoreRouting.h"
#include "Routing.h"
#include "Bytes.h"
#include "Framing.h"
#include "trdcomp/MessageHead.hpp"

namespace trdcomp::detail {

namespace {

constexpr int kAnsHead = head::kAnswerLength;
constexpr int kRawSpare = 10;  // spare zero bytes behind a block of the raw paths
constexpr int kMaxArrays = head::kMaxSectionEntries;
// A 2008 section table of five arrays: its length, then a count and a size each.
constexpr int kMaxTable = 4 + 8 * kMaxArrays;

// Copies the text of a fixed field the way strncpy does: at most `width`
// characters, NUL padding after a shorter text, no terminator after a full one.
void CopyText(char* dst, const char* src, std::size_t width) {
    const std::size_t n = ::strnlen(src, width);
    std::memcpy(dst, src, n);
    std::memset(dst + n, 0, width - n);
}

}  // namespace

int DispatchPackAnswer(Call& call, char* out, int& outLen, const tagANS_Proc& proc, char* const arrays[5], char flag,
                       int coding) {
    outLen = 0;
    const std::int32_t n = proc.nArrayCount;
    const int version = head::FastVersion(coding);
    const std::int64_t tableLen = n > 1 ? 8 * static_cast<std::int64_t>(n) + 4 : 0;
    const bool writeTable = n > 1 && version == 0;
    std::int64_t length = kAnsHead + (writeTable ? tableLen : 0);
    // The capacity bounds every write: a head and table that do not fit are
    // refused, or, for a call that measures, written into a block of their
    // own while the message is counted.
    char own[kAnsHead + kMaxTable];
    const bool headFits = length <= call.capacity;
    if (!headFits && (!call.measure || length > static_cast<std::int64_t>(sizeof own))) return call.TooSmall(length);
    char* const msg = headFits ? out : own;
    if (!headFits) std::memset(own, 0, kAnsHead);

    head::Store(msg, head::kFunctionIdAt, proc.nFuncId);
    CopyText(msg + offsetof(tagANS_HEAD, szShort), proc.szShort, sizeof proc.szShort);
    CopyText(msg + offsetof(tagANS_HEAD, szLong), proc.szLong, sizeof proc.szLong);
    head::Store(msg, head::kLengthAt, kAnsHead);
    // The flags word is only or-ed into: the caller's buffer holds zero there.
    std::int32_t flags = head::Load(msg, head::kFlagsAt);
    if (n > 1) flags |= TRDCOMP_FLAG_SECTIONS;
    if (version != 0) flags |= 1 << TRDCOMP_FLAG_FAST_SHIFT;  // version 1 whatever was chosen
    head::Store(msg, head::kFlagsAt, flags);
    head::Store(msg, head::kAnswerCountAt, proc.nRecCount[0]);
    head::Store(msg, head::kAnswerSizeAt, proc.nRecSize[0]);

    const int entries = n < kMaxArrays ? n : kMaxArrays;
    if (writeTable) {
        // The length counts all n arrays; only the first five get entries.
        char* const table = msg + head::kSectionTableAt;
        head::Store(table, 0, static_cast<std::int32_t>(tableLen));
        for (int i = 0; i < entries; ++i) {
            head::Store(table, 4 + 8 * static_cast<std::size_t>(i), proc.nRecCount[i]);
            head::Store(table, 8 + 8 * static_cast<std::size_t>(i), proc.nRecSize[i]);
        }
    }

    const auto& routes = FindAnsRoutes(proc.nFuncId);
    switch (version != 0 ? routes.packFast.cell : routes.pack2008.cell) {
        case Cell::head_only:
        case Cell::no_records:
        case Cell::nothing:
            break;
        case Cell::codec: {
            // The codec appends behind the running length, bounded by the
            // call's capacity.
            int len = static_cast<int>(length);
            const int fitted = version != 0 ? routes.packFast.fn(call, msg, len, &proc, arrays, version)
                                            : routes.pack2008.fn(call, msg, len, &proc, arrays, flag);
            if (!fitted) return 0;
            length = len;
            break;
        }
        case Cell::raw:
            // The arrays one after the other, none past the fifth.
            for (int i = 0; i < entries; ++i) {
                const std::int64_t bytes = static_cast<std::int64_t>(proc.nRecCount[i]) * proc.nRecSize[i];
                if (bytes == 0) continue;
                if (bytes < 0) return call.Refuse(Reason::negative_count);
                if (arrays[i] == nullptr) return call.Refuse(Reason::null_argument);
                if (bytes <= call.capacity - length) {
                    std::memcpy(msg + length, arrays[i], static_cast<std::size_t>(bytes));
                } else if (!call.measure) {
                    return call.TooSmall(length + bytes);
                }
                length += bytes;
            }
            break;
    }
    if (length > call.capacity) return call.TooSmall(length);
    outLen = static_cast<int>(length);
    return 1;
}

int RestoreRequestRaw(Call& call, const char* in, int inLen, std::int32_t flags, char** out, int& outLen) {
    // Coded records of an id this side cannot decode are refused.
    if (head::Coded(flags)) return call.Refuse(Reason::unknown_function_id);
    const bool countHeld = inLen >= static_cast<int>(head::kRequestCountAt + 4);
    const std::int32_t count = countHeld ? head::Load(in, head::kRequestCountAt) : 0;
    if (count < 0 && call.refuseNegativeCounts) return call.Refuse(Reason::negative_count);
    char* buf = OpenBlock(call, out, outLen, inLen, kRawSpare, inLen, 0, count > 0 ? count : 0);
    // The request raw path reports success even when the allocation failed
    // (*out is then null and outLen is inLen): callers depend on it. A limit
    // of the caller's, or a block of the caller's too small, refuses.
    if (buf == nullptr) return call.reason == Reason::out_of_memory ? 1 : 0;
    std::memcpy(buf, in, static_cast<std::size_t>(inLen));
    return 1;
}

int RestoreAnswerRaw(Call& call, const char* in, int inLen, std::int32_t flags, char** out, int& outLen) {
    if (head::Coded(flags)) return call.Refuse(Reason::unknown_function_id);
    // The head is copied whole and the table and records are read behind the
    // head length: all of it has to lie inside the message.
    if (inLen < kAnsHead) return call.Refuse(Reason::head_too_short);
    const std::int32_t headLen = head::Load(in, head::kLengthAt);
    if (headLen < 0) return call.Refuse(Reason::head_length_invalid);
    const std::int64_t room = static_cast<std::int64_t>(inLen) - headLen;
    std::int64_t tableLen = 0;
    long long bytes = 0;
    long long records = 0;
    if (head::SeveralArrays(flags)) {
        // Every entry the table holds describes records that lie inside the
        // message: no negative count or size, and a sum inside the room.
        head::SectionTable table;
        switch (head::CheckSectionTable(in + headLen, room, -1, &table, &bytes, &records)) {
            case head::kTableOk: break;
            case head::kTableNeedsBytes:
            case head::kTableLengthInvalid: return call.Refuse(Reason::section_table_invalid);
            case head::kTableEntryInvalid: return call.Refuse(Reason::section_entry_invalid);
        }
        tableLen = table.length;
    } else {
        const head::Array a = head::AnswerArray(in);
        bytes = static_cast<long long>(a.count) * a.size;
        if (a.count < 0 && call.refuseNegativeCounts) return call.Refuse(Reason::negative_count);
        if (bytes < 0 || bytes > room) return call.Refuse(Reason::records_past_end);
        records = a.count > 0 ? a.count : 0;
    }
    const std::int64_t total = kAnsHead + tableLen + bytes;
    if (total > INT32_MAX) return call.Refuse(Reason::size_not_representable);
    if (bytes < room - tableLen && call.strict) return call.Refuse(Reason::trailing_bytes);

    char* buf = OpenBlock(call, out, outLen, total, kRawSpare, total, 0, records);
    if (buf == nullptr) return 0;
    std::memcpy(buf, in, kAnsHead);
    head::Store(buf, head::kLengthAt, kAnsHead);
    std::memcpy(buf + kAnsHead, in + headLen, static_cast<std::size_t>(tableLen));
    std::memcpy(buf + kAnsHead + tableLen, in + headLen + tableLen, static_cast<std::size_t>(bytes));
    return 1;
}

int DispatchRestoreRequest(Call& call, const char* in, int inLen, char** out, int& outLen, char flag) {
    return RestoreMessage<true>(call, in, inLen, out, outLen, flag);
}

int DispatchRestoreAnswer(Call& call, const char* in, int inLen, char** out, int& outLen, char flag) {
    return RestoreMessage<false>(call, in, inLen, out, outLen, flag);
}

}  // namespace trdcomp::detail

/* trdcomp: the one reader of message heads and section tables.
 *
 * Every part of the library that looks at a message's head (the dispatchers,
 * the record engines, MessageLength, RestoredView) and every tool built on it
 * reads the head through these functions; the byte offsets come from the head
 * structs of TrdCompData.h, so no offset is written down twice.
 *
 * Nothing here reads past the bytes it is given: each reader states how many
 * bytes it needs, and the Checked* functions say when the bytes do not hold
 * what the head describes. Valid C++11. */
#ifndef TRDCOMP_MESSAGEHEAD_HPP
#define TRDCOMP_MESSAGEHEAD_HPP

#include <cstddef>
#include <cstring>

#include "TrdCompData.h"

namespace trdcomp {
namespace head {

typedef int Word;  // a head word: a little-endian int32 (the library is built for little-endian hosts)

/* Byte offsets of the head words, from the structs. */
enum : std::size_t {
    kLengthAt = offsetof(tagREQ_HEAD, nHeadLen),
    kFunctionIdAt = offsetof(tagREQ_HEAD, nFuncId),
    kFlagsAt = offsetof(tagREQ_HEAD, nFlags),
    kRequestCountAt = offsetof(tagREQ_HEAD, nRecCount),
    kRequestSizeAt = offsetof(tagREQ_HEAD, nRecSize),
    kAnswerReservedAt = offsetof(tagANS_HEAD, cReserved),
    kAnswerCountAt = offsetof(tagANS_HEAD, nRecCount),
    kAnswerSizeAt = offsetof(tagANS_HEAD, nRecSize),
    kRequestLength = sizeof(tagREQ_HEAD),
    kAnswerLength = sizeof(tagANS_HEAD),
    /* The section table stands right behind the 96-byte answer head. */
    kSectionTableAt = sizeof(tagANS_HEAD),
    /* Bytes a reader must have before it can route a message: length, id, flags. */
    kRoutingBytes = offsetof(tagREQ_HEAD, nFlags) + sizeof(int)
};
/* A count and its record size are neighbours in both heads. */
static_assert(kRequestSizeAt == kRequestCountAt + 4, "a request's record size follows its count");
static_assert(kAnswerSizeAt == kAnswerCountAt + 4, "an answer's record size follows its count");
/* Section table entries that carry a count and a size (the table's length
 * may announce more). */
enum { kMaxSectionEntries = 5 };

/* The word at byte `at` of p; p must hold at + 4 bytes. */
inline Word Load(const char* p, std::size_t at) {
    Word v;
    std::memcpy(&v, p + at, sizeof v);
    return v;
}
inline void Store(char* p, std::size_t at, Word v) { std::memcpy(p + at, &v, sizeof v); }

/* The Fast version of a flags word: 0 selects the 2008 coding. */
inline int FastVersion(Word flags) { return (flags >> TRDCOMP_FLAG_FAST_SHIFT) & 0xF; }
inline bool Coded(Word flags) { return (flags & TRDCOMP_FLAG_CODED) != 0; }
inline bool SeveralArrays(Word flags) { return (flags & TRDCOMP_FLAG_SECTIONS) != 0; }

/* The three words every message starts with (kRoutingBytes of them). */
struct Routing {
    Word length;      /* head length word: 76 a request, 96 an answer */
    Word functionId;
    Word flags;
};
inline Routing ReadRouting(const char* p) {
    Routing r;
    r.length = Load(p, kLengthAt);
    r.functionId = Load(p, kFunctionIdAt);
    r.flags = Load(p, kFlagsAt);
    return r;
}

/* What head word 0 says the message is: 1 a request, 2 an answer, 0 neither
 * (or fewer than 4 bytes). */
enum Direction { kNoMessage = 0, kRequest = 1, kAnswer = 2 };
inline Direction DirectionOf(const char* p, std::size_t size) {
    if (p == NULL || size < 4) return kNoMessage;
    const Word w = Load(p, kLengthAt);
    return w == static_cast<Word>(kRequestLength) ? kRequest : w == static_cast<Word>(kAnswerLength) ? kAnswer : kNoMessage;
}

/* The whole head as its struct, for what the readers above leave out (a
 * request's user words, an answer's reserved bytes and texts); p holds
 * kRequestLength (kAnswerLength) bytes. */
inline tagREQ_HEAD ReadRequestHead(const char* p) {
    tagREQ_HEAD h;
    std::memcpy(&h, p, sizeof h);
    return h;
}
inline tagANS_HEAD ReadAnswerHead(const char* p) {
    tagANS_HEAD h;
    std::memcpy(&h, p, sizeof h);
    return h;
}

/* Count and record size of an array of records: the two words at `at`. */
struct Array {
    Word count;
    Word size;
};
inline Array ArrayAt(const char* p, std::size_t at) {
    Array a;
    a.count = Load(p, at);
    a.size = Load(p, at + 4);
    return a;
}
/* The array a head describes directly (a request's, or an answer's first);
 * p holds the whole head. */
inline Array RequestArray(const char* p) { return ArrayAt(p, kRequestCountAt); }
inline Array AnswerArray(const char* p) { return ArrayAt(p, kAnswerCountAt); }

/* A section table: its length word (4 + 8 bytes an array it announces) and
 * the entries that carry a count and a size, at most five. */
struct SectionTable {
    Word length;
    int entries;  /* entries written: min((length - 4) / 8, 5) */
    Array entry[kMaxSectionEntries];
};

/* Entry i of the table at `table` (which holds 4 + 8 (i + 1) bytes). */
inline Array SectionEntry(const char* table, int i) { return ArrayAt(table, 4 + 8 * static_cast<std::size_t>(i)); }

/* What CheckSectionTable found. */
enum TableCheck {
    kTableOk = 0,
    kTableNeedsBytes,    /* the table is longer than the bytes given */
    kTableLengthInvalid, /* its length is below 4 */
    kTableEntryInvalid   /* an entry is negative, or the records pass the room */
};

/* Reads the table at `table` with `room` bytes from its start to the end of
 * the message: the length must be at least 4 and lie inside the room, and the
 * first `checked` entries it announces (all of them: -1) must be non-negative
 * with their records, all together, inside the room behind the table (each
 * term is checked against what is left before it is added, so nothing
 * overflows). *recordBytes gets the records' bytes, *records their count. */
inline TableCheck CheckSectionTable(const char* table, long long room, long long checked, SectionTable* t,
                                    long long* recordBytes, long long* records) {
    if (room < 4) return kTableNeedsBytes;
    t->length = Load(table, 0);
    if (t->length < 4) return kTableLengthInvalid;
    if (t->length > room) return kTableNeedsBytes;
    const long long announced = (static_cast<long long>(t->length) - 4) / 8;
    t->entries = announced < kMaxSectionEntries ? static_cast<int>(announced) : static_cast<int>(kMaxSectionEntries);
    const long long n = checked < 0 || checked > announced ? announced : checked;
    long long bytes = 0, count = 0;
    for (long long i = 0; i < n; ++i) {
        const Array e = SectionEntry(table, static_cast<int>(i));
        if (i < kMaxSectionEntries) t->entry[i] = e;
        const long long c = e.count;
        const long long s = e.size;
        if (c < 0 || s < 0) return kTableEntryInvalid;
        if (c * s > room - t->length - bytes) return kTableEntryInvalid;
        bytes += c * s;
        count += c;
    }
    if (recordBytes != NULL) *recordBytes = bytes;
    if (records != NULL) *records = count;
    return kTableOk;
}

}  // namespace head
}  // namespace trdcomp

#endif

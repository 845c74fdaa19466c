// trdcomp: the modern interface (C++17 or later) beside CTrdCompData.
//
// The functions here are thin wrappers over the library's modern entry
// points, which make their own call into the same core the classic members
// use (the same dispatchers, engines and wire bytes). What this face adds is
// what callers of the classic interface write by hand: packing into a buffer
// of known capacity (an error with the bytes needed instead of an overrun,
// and never an allocation), an upper bound of a message's packed size,
// restoring into the caller's memory, a restored message that owns its
// buffer and releases it through ReleaseAnsData, limits and a strict mode,
// the reason of every refusal, and typed, bounds-checked access to the
// restored head and records.
//
//     trdcomp::Coding coding = trdcomp::Coding::Fast();
//     trdcomp::span<const tagREQ_1002> records(orders, n);
//     std::vector<char> wire(trdcomp::RequestSizeBound(head, records, coding));
//     trdcomp::PackResult packed = trdcomp::PackRequest(wire, head, records, coding);
//     trdcomp::Restored back = trdcomp::RestoreRequest({wire.data(), packed.size});
//     for (const tagREQ_1002& r : back.Records<tagREQ_1002>()) use(r);
#ifndef TRDCOMP_TRDCOMP_HPP
#define TRDCOMP_TRDCOMP_HPP

#if (defined(_MSVC_LANG) ? _MSVC_LANG : __cplusplus) < 201703L
#error "trdcomp.hpp needs C++17 or later; TrdCompData.h serves C++11 callers"
#endif

#include <climits>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <initializer_list>
#include <new>
#include <type_traits>
#include <utility>
#include <vector>

#if __has_include(<span>)
#include <span>
#endif

#include "MessageHead.hpp"
#include "Reasons.hpp"
#include "TrdCompData.h"
#include "TrdCompRecords.h"

namespace trdcomp {

#if defined(__cpp_lib_span)
template <class T>
using span = std::span<T>;
#else
// A view of contiguous elements, for C++17 callers (std::span from C++20 on).
template <class T>
class span {
public:
    constexpr span() noexcept = default;
    constexpr span(T* data, std::size_t size) noexcept : data_(data), size_(size) {}
    template <std::size_t N>
    constexpr span(T (&a)[N]) noexcept : data_(a), size_(N) {}
    template <class C, class = decltype(std::declval<C&>().data()), class = decltype(std::declval<C&>().size())>
    constexpr span(C& c) noexcept : data_(c.data()), size_(c.size()) {}
    template <class U, class = std::enable_if_t<std::is_convertible_v<U (*)[], T (*)[]>>>
    constexpr span(const span<U>& s) noexcept : data_(s.data()), size_(s.size()) {}
    constexpr T* data() const noexcept { return data_; }
    constexpr std::size_t size() const noexcept { return size_; }
    constexpr bool empty() const noexcept { return size_ == 0; }
    constexpr T* begin() const noexcept { return data_; }
    constexpr T* end() const noexcept { return data_ + size_; }
    constexpr T& operator[](std::size_t i) const noexcept { return data_[i]; }

private:
    T* data_ = nullptr;
    std::size_t size_ = 0;
};
#endif

// The version of the library the program loaded ("0.2.0"); TRDCOMP_VERSION
// is the version of the headers it was compiled with.
TRDCOMP_API const char* Version() noexcept;

// The fingerprint of the catalogue the library was built from: FNV-1a 64 of
// the canonical text of its layouts, routing, field kinds and limits. Two
// ends compare it before they talk: different fingerprints mean that some
// function id is coded or laid out differently at the two ends.
TRDCOMP_API std::uint64_t CatalogueHash() noexcept;

// The coding of a message: the 2008 coding with its flag, or the Fast coding
// with a version from 1 to 15. `strict` makes the modern packers refuse a
// value the coding cannot carry (value_not_representable) instead of coding
// it as the classic members do: a byte of 0x80 or above in a Fast ascii field.
struct Coding {
    int fastVersion = 0;  // 0: the 2008 coding; 1..15: Fast; anything else is refused
    char flag = 0;        // handed to the 2008 codecs
    bool strict = false;

    static constexpr Coding C2008(char flag = 0) noexcept { return Coding{0, flag, false}; }
    static constexpr Coding Fast(int version = 1) noexcept { return Coding{version & 0xF ? version & 0xF : 1, 0, false}; }
    constexpr Coding Strict(bool on = true) const noexcept { return Coding{fastVersion, flag, on}; }
    constexpr bool IsFast() const noexcept { return fastVersion != 0; }
};

struct PackResult {
    std::size_t size = 0;    // bytes written, on success
    Errc error = Errc::ok;
    std::size_t needed = 0;  // with buffer_too_small: the exact packed length
    Reason reason = Reason::none;  // why it was refused
    explicit operator bool() const noexcept { return error == Errc::ok; }
};

// One record array of an answer: `count` records of `size` bytes at `data`.
struct Array {
    const char* data = nullptr;
    std::int32_t count = 0;
    std::int32_t size = 0;

    Array() = default;
    Array(const void* d, std::int32_t n, std::int32_t s) noexcept : data(static_cast<const char*>(d)), count(n), size(s) {}
    template <class R>
    Array(span<const R> records) noexcept  // NOLINT: an array of typed records converts implicitly
        : data(reinterpret_cast<const char*>(records.data())),
          count(records.size() > INT_MAX ? INT_MAX : static_cast<std::int32_t>(records.size())),
          size(static_cast<std::int32_t>(sizeof(R))) {}
};

// Does the 2008 coding run with the value coders of this project's KXPfdk,
// compiled into the library? True when the process loaded our KXPfdk; false
// when it loaded another (a peer's value format), whose exported coders are
// then called for every value. Decided once, when the library loads.
TRDCOMP_API bool BuiltInValueCoders() noexcept;

// Upper bounds of the packed size, computed from the catalogue's largest
// coded record of each layout: never below what PackRequest / PackAnswer
// write for the same arguments. With a KXPfdk of another format the 2008
// bounds follow the contract such a library keeps (docs/porting-guide.md).
TRDCOMP_API std::uint64_t RequestSizeBound(const tagREQ_HEAD& head, std::size_t dataLen, Coding coding) noexcept;
TRDCOMP_API std::uint64_t AnswerSizeBound(const tagANS_Proc& proc, Coding coding) noexcept;

// The bound of a request of typed records (count and size from `records`).
template <class R>
std::uint64_t RequestSizeBound(tagREQ_HEAD head, span<const R> records, Coding coding) noexcept {
    head.nRecCount = records.size() > static_cast<std::size_t>(INT_MAX) ? INT_MAX : static_cast<int>(records.size());
    head.nRecSize = static_cast<int>(sizeof(R));
    return RequestSizeBound(head, records.size() * sizeof(R), coding);
}

namespace detail {

// The library's modern pack entry points (the span wrappers below call them).
TRDCOMP_API PackResult PackRequestInto(char* out, std::size_t capacity, const tagREQ_HEAD& head, const char* data,
                                       std::size_t dataLen, const Coding& coding) noexcept;
TRDCOMP_API PackResult PackAnswerInto(char* out, std::size_t capacity, const tagANS_Proc& proc, const Array* arrays,
                                      std::size_t arrayCount, const Coding& coding) noexcept;

}  // namespace detail

// Packs a request into `out`: the head as given (its coding bits replaced by
// `coding`), then `data`. Never writes past out.size() and never allocates:
// a buffer too small gives buffer_too_small with `needed`, the exact packed
// length. More than 65535 records in the Fast coding are refused (its stream
// counts in 16 bits).
inline PackResult PackRequest(span<char> out, const tagREQ_HEAD& head, span<const char> data, Coding coding) noexcept {
    return detail::PackRequestInto(out.data(), out.size(), head, data.data(), data.size(), coding);
}

// Typed records: the head's count and record size are taken from `records`.
template <class R>
PackResult PackRequest(span<char> out, tagREQ_HEAD head, span<const R> records, Coding coding) noexcept {
    static_assert(std::is_trivially_copyable_v<R>, "records are packed structs");
    if (records.size() > static_cast<std::size_t>(INT_MAX) / sizeof(R))
        return PackResult{0, Errc::too_large, 0, Reason::length_too_large};
    head.nRecCount = static_cast<int>(records.size());
    head.nRecSize = static_cast<int>(sizeof(R));
    return PackRequest(out, head, span<const char>(reinterpret_cast<const char*>(records.data()), records.size() * sizeof(R)),
                       coding);
}

// Packs an answer of up to five record arrays described by `proc` (its
// array table is filled from `arrays`). Never writes past out.size() and
// never allocates. An array of more than 65535 records in the Fast coding is
// refused. With buffer_too_small, `needed` is the exact packed length.
inline PackResult PackAnswer(span<char> out, const tagANS_Proc& proc, span<const Array> arrays, Coding coding) noexcept {
    return detail::PackAnswerInto(out.data(), out.size(), proc, arrays.data(), arrays.size(), coding);
}

inline PackResult PackAnswer(span<char> out, const tagANS_Proc& proc, std::initializer_list<Array> arrays, Coding coding) noexcept {
    return PackAnswer(out, proc, span<const Array>(arrays.begin(), arrays.size()), coding);
}

// What a restore is allowed: the options every modern restore takes. The
// limits are checked before anything is allocated or written. By default
// nothing is limited; the classic members never limit.
struct RestoreOptions {
    char flag = 0;                                          // handed to the 2008 codecs
    std::size_t maxBytes = static_cast<std::size_t>(-1);    // a restore needing more bytes is refused (limit_exceeded)
    bool strict = false;                                    // refuse what the classic restores quietly accept (see docs)
    std::size_t maxRecords = static_cast<std::size_t>(-1);  // a message of more records (all arrays) is refused (limit_exceeded)
};

class Restored;
class RestoredView;
namespace detail {
struct ViewAccess;  // the library's makers of RestoredView and Restored

// The library's modern restore entry points, one a direction so that
// neither tests the direction. Restore*Owned: into a fresh block the result
// owns. Restore*IntoView: into dst[0, capacity), nothing written past it; the
// hot path of a receiver pays one call into the library. RestoredBytes: the
// bytes such a restore needs, 0 when refused.
TRDCOMP_API Restored RestoreRequestOwned(const char* in, std::size_t inLen, const RestoreOptions& options) noexcept;
TRDCOMP_API Restored RestoreAnswerOwned(const char* in, std::size_t inLen, const RestoreOptions& options) noexcept;
TRDCOMP_API RestoredView RestoreRequestIntoView(char* dst, std::size_t capacity, const char* in, std::size_t inLen,
                                                const RestoreOptions& options) noexcept;
TRDCOMP_API RestoredView RestoreAnswerIntoView(char* dst, std::size_t capacity, const char* in, std::size_t inLen,
                                               const RestoreOptions& options) noexcept;
TRDCOMP_API std::size_t RestoredBytes(bool request, const char* in, std::size_t inLen,
                                      const RestoreOptions& options) noexcept;
}  // namespace detail

// A restored request or answer in memory it does not own: what RestoreInto
// returns (the caller's block), and the accessors of Restored.
class RestoredView {
public:
    // One record array of the restored message.
    struct Section {
        std::int32_t count = 0;  // as the message states it (0 or less: none)
        std::int32_t size = 0;   // bytes per record
        const char* data = nullptr;
    };

    RestoredView() = default;

    explicit operator bool() const noexcept { return error_ == Errc::ok; }
    Errc Error() const noexcept { return error_; }
    // Why the restore was refused (none on success).
    Reason Why() const noexcept { return why_; }
    bool IsRequest() const noexcept { return request_; }
    // With buffer_too_small (RestoreInto) or limit_exceeded: the bytes the
    // restore needs.
    std::size_t Needed() const noexcept { return needed_; }

    // The restored bytes (outLen of the classic restore). Empty for an id
    // whose restore keeps nothing, and when outLen is below zero (a request
    // head with a negative record count restores to 76 + count * size).
    const char* Data() const noexcept { return p_; }
    std::size_t Size() const noexcept { return p_ && len_ > 0 ? static_cast<std::size_t>(len_) : 0; }
    span<const char> Bytes() const noexcept { return span<const char>(p_, Size()); }

    const tagREQ_HEAD* RequestHead() const noexcept {
        return request_ && Size() >= sizeof(tagREQ_HEAD) ? reinterpret_cast<const tagREQ_HEAD*>(p_) : nullptr;
    }
    const tagANS_HEAD* AnswerHead() const noexcept {
        return !request_ && Size() >= sizeof(tagANS_HEAD) ? reinterpret_cast<const tagANS_HEAD*>(p_) : nullptr;
    }

    // Number of record arrays: 1 for a request, the section table's entries
    // (at most five) or 1 for an answer, 0 when nothing was restored or the
    // section table is not one (length out of range, an entry negative, or
    // the sections' bytes overflowing).
    int Sections() const noexcept {
        if (request_) return RequestHead() ? 1 : 0;
        if (!AnswerHead()) return 0;
        if (!head::SeveralArrays(AnswerHead()->nFlags)) return 1;
        head::SectionTable table{};
        return Table(&table) ? table.entries : 0;
    }

    // Section j, with its records checked to lie inside the restored bytes;
    // an empty section (count 0, data null) otherwise.
    Section GetSection(int j) const noexcept {
        if (j < 0 || j >= Sections()) return {};
        std::int64_t at = 0;
        Section s;
        if (request_) {
            s = {RequestHead()->nRecCount, RequestHead()->nRecSize, nullptr};
            at = TRDCOMP_REQ_HEAD_LEN;
        } else if (!head::SeveralArrays(AnswerHead()->nFlags)) {
            s = {AnswerHead()->nRecCount, AnswerHead()->nRecSize, nullptr};
            at = TRDCOMP_ANS_HEAD_LEN;
        } else {
            // Table() checked the entries: the sums stay inside Size().
            head::SectionTable table{};
            Table(&table);
            at = TRDCOMP_ANS_HEAD_LEN + static_cast<std::int64_t>(table.length);
            for (int i = 0; i < j; ++i) at += static_cast<std::int64_t>(table.entry[i].count) * table.entry[i].size;
            s = {table.entry[j].count, table.entry[j].size, nullptr};
        }
        const std::int64_t bytes = static_cast<std::int64_t>(s.count > 0 ? s.count : 0) * (s.size > 0 ? s.size : 0);
        if (s.size < 0 || at < 0 || at > static_cast<std::int64_t>(Size()) || bytes > static_cast<std::int64_t>(Size()) - at)
            return {};
        s.data = p_ + at;
        return s;
    }

    // The records of section j as R. Empty when the section holds none, and
    // when R is not the section's record type: then *why (when given) says
    // which (record_type_mismatch: R's size is not the section's record
    // size; no_such_section), and is none for a section that is simply empty.
    template <class R>
    span<const R> Records(int j = 0, Reason* why = nullptr) const noexcept {
        static_assert(std::is_trivially_copyable_v<R> && alignof(R) == 1, "records are packed structs");
        const Section s = GetSection(j);
        Reason r = Reason::none;
        if (j < 0 || j >= Sections()) {
            r = Reason::no_such_section;
        } else if (s.count > 0 && s.size != static_cast<std::int32_t>(sizeof(R))) {
            r = Reason::record_type_mismatch;
        }
        if (why != nullptr) *why = r;
        if (r != Reason::none || s.data == nullptr || s.count <= 0) return {};
        return span<const R>(reinterpret_cast<const R*>(s.data), static_cast<std::size_t>(s.count));
    }

protected:
    // A restore's result: its bytes, or why it was refused (and the bytes it needed).
    RestoredView(bool request, char* p, int len) noexcept
        : p_(p), len_(len), request_(request), error_(Errc::ok), why_(Reason::none) {}
    RestoredView(bool request, Reason why, std::size_t needed = 0) noexcept
        : request_(request), error_(ErrcOf(why)), why_(why), needed_(needed) {}

    friend struct detail::ViewAccess;

    // The section table of a restored answer, its written entries checked.
    bool Table(head::SectionTable* t) const noexcept {
        if (Size() < static_cast<std::size_t>(TRDCOMP_ANS_HEAD_LEN)) return false;
        const long long room = static_cast<long long>(Size()) - TRDCOMP_ANS_HEAD_LEN;
        return head::CheckSectionTable(p_ + head::kSectionTableAt, room, head::kMaxSectionEntries, t, nullptr,
                                       nullptr) == head::kTableOk;
    }

    char* p_ = nullptr;
    int len_ = 0;
    bool request_ = false;
    Errc error_ = Errc::refused;
    Reason why_ = Reason::head_length_invalid;
    std::size_t needed_ = 0;
};

// A restored request or answer that owns the buffer the library allocated
// and releases it with CTrdCompData::ReleaseAnsData. Move-only.
class Restored : public RestoredView {
public:
    Restored() = default;
    Restored(Restored&& o) noexcept : RestoredView(o) { o.p_ = nullptr; }
    Restored& operator=(Restored&& o) noexcept {
        if (this != &o) {
            CTrdCompData::ReleaseAnsData(p_);
            RestoredView::operator=(o);
            o.p_ = nullptr;
        }
        return *this;
    }
    Restored(const Restored&) = delete;
    Restored& operator=(const Restored&) = delete;
    ~Restored() { CTrdCompData::ReleaseAnsData(p_); }

private:
    friend struct detail::ViewAccess;
};

namespace detail {

inline RestoredView RestoreInto(span<char> dst, span<const char> in, const RestoreOptions& options, bool request) noexcept {
    return request ? RestoreRequestIntoView(dst.data(), dst.size(), in.data(), in.size(), options)
                   : RestoreAnswerIntoView(dst.data(), dst.size(), in.data(), in.size(), options);
}

}  // namespace detail

inline Restored RestoreRequest(span<const char> in, const RestoreOptions& options) noexcept {
    return detail::RestoreRequestOwned(in.data(), in.size(), options);
}
inline Restored RestoreRequest(span<const char> in, char flag = 0) noexcept {
    return RestoreRequest(in, RestoreOptions{flag});
}

inline Restored RestoreAnswer(span<const char> in, const RestoreOptions& options) noexcept {
    return detail::RestoreAnswerOwned(in.data(), in.size(), options);
}
inline Restored RestoreAnswer(span<const char> in, char flag = 0) noexcept {
    return RestoreAnswer(in, RestoreOptions{flag});
}

// Restores into the caller's memory, without allocating: the bytes of the
// classic restore (head, section table, records; the spare bytes behind them
// are not written) at dst.data(). The view refers to dst. A dst that is too
// small gives buffer_too_small with Needed(), and nothing is written past
// dst. Needed() can exceed Size() by the few bytes some layouts' decoders
// write behind the last record.
inline RestoredView RestoreRequestInto(span<char> dst, span<const char> msg, const RestoreOptions& options = {}) noexcept {
    return detail::RestoreInto(dst, msg, options, true);
}
inline RestoredView RestoreAnswerInto(span<char> dst, span<const char> msg, const RestoreOptions& options = {}) noexcept {
    return detail::RestoreInto(dst, msg, options, false);
}
// The direction from head word 0 (76: request, 96: answer; else refused).
inline RestoredView RestoreInto(span<char> dst, span<const char> msg, const RestoreOptions& options = {}) noexcept {
    const head::Direction direction = head::DirectionOf(msg.data(), msg.size());
    if (direction == head::kNoMessage) return RestoredView();
    return detail::RestoreInto(dst, msg, options, direction == head::kRequest);
}

// The bytes a RestoreInto of `msg` needs (direction from head word 0),
// without restoring; 0 for a message the library refuses (within the limits
// of `options`, when given) and for one whose restore keeps nothing.
inline std::size_t RestoredSize(span<const char> msg, const RestoreOptions& options) noexcept {
    const head::Direction direction = head::DirectionOf(msg.data(), msg.size());
    if (direction == head::kNoMessage) return 0;
    return detail::RestoredBytes(direction == head::kRequest, msg.data(), msg.size(), options);
}
inline std::size_t RestoredSize(span<const char> msg, char flag = 0) noexcept {
    return RestoredSize(msg, RestoreOptions{flag});
}

// Where a message ends, from its first bytes (see MessageLength).
enum class Framing {
    complete,     // `length` is the message's length
    need_more,    // the bytes so far do not decide it: `length` is the least the prefix must grow to
    cannot_tell,  // the length is not in the bytes (records that travel raw): only the transport knows it
    invalid,      // no message of this library starts here (head word 0 neither 76 nor 96, lengths out of range)
};

struct FrameLength {
    Framing status = Framing::invalid;
    std::size_t length = 0;
};

// The length of the message that starts at prefix[0] when its bytes so far
// determine it: coded messages carry their record counts and each record's
// length, raw answers their counts and record sizes. Reads nothing past the
// prefix. See docs/api-reference.md for what it can know on each path.
TRDCOMP_API FrameLength MessageLength(const char* prefix, std::size_t size) noexcept;
inline FrameLength MessageLength(span<const char> prefix) noexcept { return MessageLength(prefix.data(), prefix.size()); }

}  // namespace trdcomp

#endif

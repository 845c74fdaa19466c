// trdcomp: the modern interface (C++17 or later) beside CTrdCompData.
//
// Every function here calls the classic members; nothing is coded twice.
// What this layer adds is what callers of the classic interface write by
// hand: packing into a buffer of known capacity (an error instead of an
// overrun), an upper bound of a message's packed size, a restored message
// that owns its buffer and releases it through ReleaseAnsData, and typed,
// bounds-checked access to the restored head and records.
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

struct Scratch {
    char* p = nullptr;
    explicit Scratch(std::uint64_t n) noexcept : p(n <= static_cast<std::uint64_t>(INT_MAX) ? new (std::nothrow) char[n] : nullptr) {}
    ~Scratch() { delete[] p; }
    Scratch(const Scratch&) = delete;
    Scratch& operator=(const Scratch&) = delete;
};

inline int Capacity(std::size_t n) noexcept { return n > static_cast<std::size_t>(INT_MAX) ? INT_MAX : static_cast<int>(n); }

// The calls of the modern interface run the classic members inside a call
// scope of their thread: the library then applies the caller's limits and
// strict mode, and records the reason of a refusal where it stops. Outside
// a scope the classic members behave as they always did.
TRDCOMP_API void EnterCall(bool strict, std::uint64_t maxBytes, std::uint64_t maxRecords) noexcept;
// Ends the scope; returns the reason of the last refusal inside it (none)
// and, for a limit, the bytes the restore would have needed.
TRDCOMP_API Reason LeaveCall(std::uint64_t* needed) noexcept;

class CallScope {
public:
    CallScope(bool strict, std::uint64_t maxBytes = UINT64_MAX, std::uint64_t maxRecords = UINT64_MAX) noexcept {
        EnterCall(strict, maxBytes, maxRecords);
    }
    ~CallScope() {
        if (open_) LeaveCall(nullptr);
    }
    Reason Leave(std::uint64_t* needed = nullptr) noexcept {
        open_ = false;
        return LeaveCall(needed);
    }
    CallScope(const CallScope&) = delete;
    CallScope& operator=(const CallScope&) = delete;

private:
    bool open_ = true;
};

inline PackResult Fail(Reason r, std::size_t needed = 0) noexcept { return PackResult{0, ErrcOf(r), needed, r}; }

inline Reason CheckCoding(const Coding& c) noexcept {
    return c.fastVersion < 0 || c.fastVersion > 15 ? Reason::invalid_fast_version : Reason::none;
}

}  // namespace detail

// Packs a request into `out`: the head as given (its coding bits replaced by
// `coding`), then `data`. Never writes past out.size(). More than 65535
// records in the Fast coding are refused (its stream counts in 16 bits).
inline PackResult PackRequest(span<char> out, tagREQ_HEAD head, span<const char> data, Coding coding) noexcept {
    if (out.data() == nullptr) return detail::Fail(Reason::null_argument);
    if (data.size() > static_cast<std::size_t>(INT_MAX)) return detail::Fail(Reason::length_too_large);
    if (detail::CheckCoding(coding) != Reason::none) return detail::Fail(detail::CheckCoding(coding));
    if (coding.IsFast() && head.nRecCount > 0xFFFF) return detail::Fail(Reason::too_many_fast_records);
    head.nFlags = (head.nFlags & ~TRDCOMP_FLAG_FAST_MASK) | (coding.fastVersion << TRDCOMP_FLAG_FAST_SHIFT);
    const std::uint64_t bound = RequestSizeBound(head, data.size(), coding);
    char* const records = const_cast<char*>(data.data());
    const int dataLen = static_cast<int>(data.size());
    int len = 0;
    detail::CallScope scope(coding.strict);
    if (bound <= out.size()) {
        CTrdCompData::PackReq2008(out.data(), len, &head, records, dataLen, coding.flag);
        const Reason why = scope.Leave();
        if (why != Reason::none) return detail::Fail(why);
        return {static_cast<std::size_t>(len), Errc::ok, 0, Reason::none};
    }
    // The classic packer has no capacity: pack into a block of the bound and
    // copy what fits.
    if (bound > static_cast<std::uint64_t>(INT_MAX)) return detail::Fail(Reason::length_too_large);
    detail::Scratch scratch(bound);
    if (scratch.p == nullptr) return detail::Fail(Reason::out_of_memory);
    CTrdCompData::PackReq2008(scratch.p, len, &head, records, dataLen, coding.flag);
    const Reason why = scope.Leave();
    if (why != Reason::none) return detail::Fail(why);
    if (static_cast<std::size_t>(len) > out.size()) return detail::Fail(Reason::buffer_too_small, static_cast<std::size_t>(len));
    std::memcpy(out.data(), scratch.p, static_cast<std::size_t>(len));
    return {static_cast<std::size_t>(len), Errc::ok, 0, Reason::none};
}

// Typed records: the head's count and record size are taken from `records`.
template <class R>
PackResult PackRequest(span<char> out, tagREQ_HEAD head, span<const R> records, Coding coding) noexcept {
    static_assert(std::is_trivially_copyable_v<R>, "records are packed structs");
    if (records.size() > static_cast<std::size_t>(INT_MAX) / sizeof(R)) return detail::Fail(Reason::length_too_large);
    head.nRecCount = static_cast<int>(records.size());
    head.nRecSize = static_cast<int>(sizeof(R));
    return PackRequest(out, head, span<const char>(reinterpret_cast<const char*>(records.data()), records.size() * sizeof(R)),
                       coding);
}

// Packs an answer of up to five record arrays described by `proc` (its
// array table is filled from `arrays`). Never writes past out.size(). An
// array of more than 65535 records in the Fast coding is refused. With
// buffer_too_small, `needed` is the exact packed length.
inline PackResult PackAnswer(span<char> out, tagANS_Proc proc, span<const Array> arrays, Coding coding) noexcept {
    if (out.data() == nullptr) return detail::Fail(Reason::null_argument);
    if (arrays.size() > 5) return detail::Fail(Reason::too_many_arrays);
    if (detail::CheckCoding(coding) != Reason::none) return detail::Fail(detail::CheckCoding(coding));
    char* a[5] = {};
    proc.nArrayCount = static_cast<int>(arrays.size());
    int j = 0;
    for (const Array& x : arrays) {
        if (coding.IsFast() && x.count > 0xFFFF) return detail::Fail(Reason::too_many_fast_records);
        a[j] = const_cast<char*>(x.data);
        proc.nRecCount[j] = x.count;
        proc.nRecSize[j] = x.size;
        ++j;
    }
    const int codingWord = coding.fastVersion << TRDCOMP_FLAG_FAST_SHIFT;
    const std::uint64_t bound = AnswerSizeBound(proc, coding);
    Reason why = Reason::none;
    auto pack = [&](char* dst, std::size_t cap) {
        std::memset(dst, 0, 20);  // the flags word is or-ed into; bytes 12..19 are not written
        int len = 0;
        detail::CallScope scope(coding.strict);
        CTrdCompData::PackAns2008(dst, detail::Capacity(cap), len, &proc, a[0], a[1], a[2], a[3], a[4], coding.flag, codingWord);
        why = scope.Leave();
        return len;
    };
    int len = 0;
    if (out.size() >= static_cast<std::size_t>(TRDCOMP_ANS_HEAD_LEN)) {
        len = pack(out.data(), out.size());
        if (len > 0) return {static_cast<std::size_t>(len), Errc::ok, 0, Reason::none};
        if (why != Reason::none && why != Reason::buffer_too_small) return detail::Fail(why);
        if (bound <= out.size()) return detail::Fail(why != Reason::none ? why : Reason::buffer_too_small);
    }
    if (bound > static_cast<std::uint64_t>(INT_MAX)) return detail::Fail(Reason::length_too_large);
    // Refused within the caller's capacity: find out how much room it needs.
    const std::uint64_t room = bound < std::uint64_t{TRDCOMP_ANS_HEAD_LEN} ? std::uint64_t{TRDCOMP_ANS_HEAD_LEN} : bound;
    detail::Scratch scratch(room);
    if (scratch.p == nullptr) return detail::Fail(Reason::out_of_memory);
    const int needed = pack(scratch.p, static_cast<std::size_t>(room));
    if (needed > 0) return detail::Fail(Reason::buffer_too_small, static_cast<std::size_t>(needed));
    return detail::Fail(why != Reason::none ? why : Reason::buffer_too_small);
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
template <class Classic>
Restored Restore(span<const char> in, const RestoreOptions& options, bool request, Classic classic) noexcept;
RestoredView RestoreInto(span<char> dst, span<const char> in, const RestoreOptions& options, bool request) noexcept;
struct ViewAccess;  // the library's makers of RestoredView

// Exported by the library. RestoreIntoBlock restores `in` into dst[0,
// capacity): 1 done (*len: the restored length), 0 refused, -1 dst too small
// (*len: the bytes needed); nothing is written past dst + capacity.
// RestoredBytes: the bytes such a restore needs, 0 when refused.
TRDCOMP_API int RestoreIntoBlock(bool request, char* dst, std::size_t capacity, const char* in, std::size_t inLen,
                                 char flag, std::size_t* len) noexcept;
TRDCOMP_API std::size_t RestoredBytes(bool request, const char* in, std::size_t inLen, char flag) noexcept;
// RestoreIntoBlock inside a call scope of its own (the options' strict mode
// and limits), made into the view RestoreInto returns in the same call: the
// hot path of a receiver pays one call into the library. One entry point a
// direction, so that neither tests the direction.
TRDCOMP_API RestoredView RestoreRequestIntoView(char* dst, std::size_t capacity, const char* in, std::size_t inLen,
                                                const RestoreOptions& options) noexcept;
TRDCOMP_API RestoredView RestoreAnswerIntoView(char* dst, std::size_t capacity, const char* in, std::size_t inLen,
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
        if (!(AnswerHead()->nFlags & TRDCOMP_FLAG_SECTIONS)) return 1;
        if (Size() < TRDCOMP_ANS_HEAD_LEN + 4u) return 0;
        const std::int32_t table = Word(TRDCOMP_ANS_HEAD_LEN);
        if (table < 4 || static_cast<std::size_t>(table) > Size() - TRDCOMP_ANS_HEAD_LEN) return 0;
        const int n = (table - 4) / 8 < 5 ? (table - 4) / 8 : 5;
        // Every entry non-negative, and all of them together inside the bytes
        // (each term, below 2^62, is checked against what is left before it
        // is added).
        const std::int64_t room = static_cast<std::int64_t>(Size()) - TRDCOMP_ANS_HEAD_LEN;
        std::int64_t bytes = table;
        for (int i = 0; i < n; ++i) {
            const std::int64_t count = Word(TRDCOMP_ANS_HEAD_LEN + 4 + 8 * static_cast<std::size_t>(i));
            const std::int64_t size = Word(TRDCOMP_ANS_HEAD_LEN + 8 + 8 * static_cast<std::size_t>(i));
            if (count < 0 || size < 0 || count * size > room - bytes) return 0;
            bytes += count * size;
        }
        return n;
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
        } else if (!(AnswerHead()->nFlags & TRDCOMP_FLAG_SECTIONS)) {
            s = {AnswerHead()->nRecCount, AnswerHead()->nRecSize, nullptr};
            at = TRDCOMP_ANS_HEAD_LEN;
        } else {
            // Sections() checked the entries: the sums stay inside Size().
            at = TRDCOMP_ANS_HEAD_LEN + static_cast<std::int64_t>(Word(TRDCOMP_ANS_HEAD_LEN));
            for (int i = 0; i < j; ++i) at += Records(i);
            s = {Word(TRDCOMP_ANS_HEAD_LEN + 4 + 8 * j), Word(TRDCOMP_ANS_HEAD_LEN + 8 + 8 * j), nullptr};
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

    template <class Classic>
    friend Restored detail::Restore(span<const char>, const RestoreOptions&, bool, Classic) noexcept;
    friend struct detail::ViewAccess;

    std::int32_t Word(std::size_t off) const noexcept {
        std::int32_t v = 0;
        if (off + 4 <= Size()) std::memcpy(&v, p_ + off, 4);
        return v;
    }
    std::int64_t Records(int j) const noexcept {
        const std::int64_t n = Word(TRDCOMP_ANS_HEAD_LEN + 4 + 8 * static_cast<std::size_t>(j));
        const std::int64_t s = Word(TRDCOMP_ANS_HEAD_LEN + 8 + 8 * static_cast<std::size_t>(j));
        return n > 0 && s > 0 ? n * s : 0;
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
};

namespace detail {

inline std::uint64_t Limit(std::size_t n) noexcept {
    return n == static_cast<std::size_t>(-1) ? UINT64_MAX : static_cast<std::uint64_t>(n);
}

// Calls a classic restore on `in` inside a call scope (limits and strict mode
// of `options`); the result tells refusal apart from success.
template <class Classic>
Restored Restore(span<const char> in, const RestoreOptions& options, bool request, Classic classic) noexcept {
    Restored r;
    r.request_ = request;
    if (in.data() == nullptr || in.size() > static_cast<std::size_t>(INT_MAX)) {
        r.why_ = in.data() == nullptr ? Reason::null_argument : Reason::length_too_large;
        r.error_ = ErrcOf(r.why_);
        return r;
    }
    CallScope scope(options.strict, Limit(options.maxBytes), Limit(options.maxRecords));
    const int rc = classic(const_cast<char*>(in.data()), static_cast<int>(in.size()), &r.p_, r.len_, options.flag);
    std::uint64_t needed = 0;
    Reason why = scope.Leave(&needed);
    // The raw request path reports success with no buffer when its allocation failed.
    if (rc == 1 && r.p_ == nullptr && r.len_ > 0) why = Reason::out_of_memory;
    if (rc != 1 && why == Reason::none) why = Reason::head_length_invalid;  // the dispatcher's own checks
    r.why_ = rc == 1 && why != Reason::out_of_memory ? Reason::none : why;
    r.error_ = ErrcOf(r.why_);
    if (r.error_ == Errc::limit_exceeded) r.needed_ = static_cast<std::size_t>(needed);
    if (r.error_ != Errc::ok) r.len_ = 0;
    return r;
}

inline RestoredView RestoreInto(span<char> dst, span<const char> in, const RestoreOptions& options, bool request) noexcept {
    return request ? RestoreRequestIntoView(dst.data(), dst.size(), in.data(), in.size(), options)
                   : RestoreAnswerIntoView(dst.data(), dst.size(), in.data(), in.size(), options);
}

// Head word 0 tells a request (76) from an answer (96).
inline int Direction(span<const char> msg) noexcept {
    std::int32_t w = 0;
    if (msg.data() == nullptr || msg.size() < 4) return 0;
    std::memcpy(&w, msg.data(), 4);
    return w == TRDCOMP_REQ_HEAD_LEN ? 1 : w == TRDCOMP_ANS_HEAD_LEN ? 2 : 0;
}

}  // namespace detail

inline Restored RestoreRequest(span<const char> in, const RestoreOptions& options) noexcept {
    return detail::Restore(in, options, true, &CTrdCompData::RestoreReq2008);
}
inline Restored RestoreRequest(span<const char> in, char flag = 0) noexcept {
    return RestoreRequest(in, RestoreOptions{flag});
}

inline Restored RestoreAnswer(span<const char> in, const RestoreOptions& options) noexcept {
    return detail::Restore(in, options, false, &CTrdCompData::RestoreAns2008);
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
    const int direction = detail::Direction(msg);
    if (direction == 0) return RestoredView();
    return detail::RestoreInto(dst, msg, options, direction == 1);
}

// The bytes a RestoreInto of `msg` needs (direction from head word 0),
// without restoring; 0 for a message the library refuses (within the limits
// of `options`, when given) and for one whose restore keeps nothing.
inline std::size_t RestoredSize(span<const char> msg, const RestoreOptions& options) noexcept {
    const int direction = detail::Direction(msg);
    if (direction == 0) return 0;
    detail::CallScope scope(false, detail::Limit(options.maxBytes), detail::Limit(options.maxRecords));
    return detail::RestoredBytes(direction == 1, msg.data(), msg.size(), options.flag);
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

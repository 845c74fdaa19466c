// The call every dispatcher and engine takes: what the caller allows (the
// output's capacity, limits, strict mode, where a restore's block comes from)
// and what the call found (why it stopped, the bytes it needed). The classic
// members make a classic call and the modern interface a modern one; the
// engines read only these fields, never a global or thread-local state.
#pragma once

#include <climits>
#include <cstdint>

#include "trdcomp/Reasons.hpp"

namespace trdcomp::detail {

// Where a restore puts the restored message.
enum class BlockSource : std::uint8_t {
    allocate,  // a fresh zero-filled block from the global operator new (released with ReleaseAnsData)
    caller,    // the caller's memory: Call::block, Call::capacity bytes
};

struct Call {
    // ---- in ----
    // Bytes the output may hold: a pack's whole message, or a restore's block
    // in the caller's memory.
    std::int64_t capacity = INT_MAX;
    // Does the packer know its capacity? The classic PackReq2008 is not told
    // it: its caller sized the buffer for the message, so only what the
    // message itself still has to write proves room.
    bool capacityKnown = false;
    // Refuse values the coding cannot carry, and what the classic restores
    // quietly accept (bytes behind the records, counts the stream lacks).
    bool strict = false;
    // The modern rules: a negative record count is refused in both codings
    // (a classic 2008 restore accepts it).
    bool refuseNegativeCounts = false;
    // A pack that runs out of capacity goes on counting the bytes it would
    // need (without writing them) and reports them in `needed`.
    bool measure = false;
    BlockSource source = BlockSource::allocate;
    char* block = nullptr;  // with BlockSource::caller
    std::uint64_t maxBytes = UINT64_MAX;
    std::uint64_t maxRecords = UINT64_MAX;

    // ---- out ----
    Reason reason = Reason::none;  // why the call stopped
    std::uint64_t needed = 0;      // buffer_too_small or a limit: the bytes the message needs
    std::int64_t length = 0;       // the bytes written (pack) or restored (restore)

    // Records why the call stops; returns the refusal code 0 (false).
    int Refuse(Reason r) noexcept {
        reason = r;
        return 0;
    }
    // The output cannot take `bytes`: buffer_too_small with the bytes needed.
    int TooSmall(std::int64_t bytes) noexcept {
        reason = Reason::buffer_too_small;
        needed = bytes > 0 ? static_cast<std::uint64_t>(bytes) : 0;
        return 0;
    }
    // Checks the caller's limits before a restore allocates or writes:
    // `records` the records it will fill, `bytes` the bytes it needs. False
    // (the reason recorded) when one is exceeded.
    bool WithinLimits(std::int64_t records, std::int64_t bytes) noexcept {
        if (static_cast<std::uint64_t>(bytes) > maxBytes) {
            reason = Reason::bytes_over_limit;
            needed = static_cast<std::uint64_t>(bytes);
            return false;
        }
        if (static_cast<std::uint64_t>(records) > maxRecords) {
            reason = Reason::records_over_limit;
            needed = static_cast<std::uint64_t>(bytes);
            return false;
        }
        return true;
    }
    bool IntoCallerBlock() const noexcept { return source == BlockSource::caller; }
};

// The call of a classic member: no limits, not strict, the classic rules,
// a fresh block for a restore; a pack whose capacity the caller did not say.
constexpr Call ClassicCall() noexcept { return Call{}; }

// The call of a classic PackAns2008, told its capacity.
constexpr Call ClassicCall(std::int64_t capacity) noexcept {
    Call c{};
    c.capacity = capacity;
    c.capacityKnown = true;
    return c;
}

// The call of the modern interface: its limits and strict mode, the modern
// rules, a pack that reports the bytes it needs.
constexpr Call ModernCall(bool strict, std::uint64_t maxBytes = UINT64_MAX,
                          std::uint64_t maxRecords = UINT64_MAX) noexcept {
    Call c{};
    c.strict = strict;
    c.refuseNegativeCounts = true;
    c.measure = true;
    c.maxBytes = maxBytes;
    c.maxRecords = maxRecords;
    return c;
}

// Where a strict restore stopped reading: the cursor after the last record it
// decoded (past inLen when a record's length passed the end), against the
// records decoded and those the message states.
inline Reason StrictEnd(std::int64_t cursor, std::int64_t inLen, std::int64_t decoded, std::int64_t records) noexcept {
    if (cursor > inLen) return Reason::ends_inside_record;
    if (decoded < records) return cursor < inLen ? Reason::ends_inside_record : Reason::count_not_held;
    if (cursor < inLen) return Reason::trailing_bytes;
    return Reason::none;
}

}  // namespace trdcomp::detail

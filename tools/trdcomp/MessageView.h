// A received message decoded without copies: restored once, into a block
// the caller hands over (one allocation of exactly the restored size), and
// described by where its sections lie in that block. The Python module's
// messages keep their records there and show them as arrays; Decoded
// (Message.h) is the same message with its bytes copied out, for the
// describers.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <stdexcept>
#include <vector>

#include "Message.h"

namespace tool {

struct SectionView {
    const Layout* layout = nullptr;  // null: the records travelled raw
    int count = 0;                   // as the restored message states it
    int size = 0;                    // record size the sender stated
    int slot = 0;                    // bytes per record in the restored block
    std::size_t at = 0;              // where its records start in the block
    std::size_t records = 0;         // whole records the block holds
};

struct DecodedView {
    bool request = false;
    int fastVersion = 0;
    char flag = 0;
    std::int32_t functionId = 0;
    bool restoredNothing = false;   // the id's restore keeps nothing
    std::size_t restoredBytes = 0;  // the block's size
    int arrayCount = 1;             // arrays the sender described (answers)
    std::vector<SectionView> sections;
    // Bytes behind the last whole record: in the block (a raw request's) or
    // in the message.
    bool trailingRestored = false;
    std::size_t trailingAt = 0, trailingSize = 0;
};

// A restore that would need more than the caller's limit (checked before
// anything is allocated).
struct OverLimit : std::runtime_error {
    OverLimit(std::size_t needed, std::size_t limit);
    std::size_t needed, limit;
};

// Hands back a block of n bytes (n > 0) that outlives the view; throws
// (std::bad_alloc) when it cannot.
using Allocate = std::function<char*(std::size_t n)>;

// Restores the n bytes at `wire` into `first` when the message fits there,
// else into a block from `allocate` (not called when the restore keeps
// nothing; `restored` is then null). Throws as Decode does:
// std::runtime_error for bytes that are no message, Refused naming the
// failed check, OverLimit beyond options.maxBytes.
DecodedView DecodeInto(const char* wire, std::size_t n, const trdcomp::RestoreOptions& options, const Allocate& allocate,
                       char*& restored, trdcomp::span<char> first = {});

// The same message as Decode gives it (the bytes copied), for the describers.
Decoded CopyOut(const DecodedView& v, const char* wire, std::size_t n, const char* restored);
// The same, keeping `wire` rather than a copy of it.
Decoded CopyOut(const DecodedView& v, std::vector<char>&& wire, const char* restored);

}  // namespace tool

// trdcomp: what a tool shows of a message's coded bytes, from the library (C++17
// or later). The walk is the one MessageLength makes over the head, the record
// counts and each coded record's length.
#ifndef TRDCOMP_INSPECT_HPP
#define TRDCOMP_INSPECT_HPP

#include <cstddef>

#include "TrdCompExport.h"

namespace trdcomp {

// A coded record as it stands in a message.
struct CodedRecord {
    int array = 0;            // the record array (section) it belongs to, from 0
    std::size_t index = 0;    // its place in that array, from 0
    std::size_t offset = 0;   // where its coded bytes start in the message (behind its length word)
    std::size_t length = 0;   // its coded bytes, as its length word states them
};

// The coded records of the message at msg[0, size), in wire order, in either
// coding: the first `max` go to out (out may be null to count them). Returns
// how many records the message frames up to the first length word its bytes
// do not hold; 0 for a message whose records are not coded (raw, head alone)
// or for bytes that are no message.
TRDCOMP_API std::size_t CodedRecords(const char* msg, std::size_t size, CodedRecord* out, std::size_t max) noexcept;

// Which fields a record of the Fast coding sent: sent[k] for its layout's k-th
// coded field (the fields in coding order), from the record's presence map;
// a field the map does not reach was not sent. False, with every sent[k]
// false, when the record's bytes hold no presence map (no byte with the stop
// bit): then it sent nothing. Reads only msg[0, size).
TRDCOMP_API bool FastSentFields(const char* msg, std::size_t size, const CodedRecord& record, bool* sent,
                                std::size_t fields) noexcept;

}  // namespace trdcomp

#endif

// trdcomp: the error classes and refusal reasons of the modern interface
// (trdcomp.hpp). Valid C++11.
#ifndef TRDCOMP_REASONS_HPP
#define TRDCOMP_REASONS_HPP

namespace trdcomp {

enum class Errc {
    ok = 0,
    null_argument,     // a required buffer or description is missing
    buffer_too_small,  // the message needs more room; PackResult::needed / RestoredView::Needed() say how much
    refused,           // the library refused the message (see docs/hostile-input.md)
    too_large,         // a length that the classic interface cannot represent (int)
    out_of_memory,     // an allocation failed
    limit_exceeded,    // the restore needs more than RestoreOptions::maxBytes / maxRecords allow
    invalid_argument,  // an argument the call cannot take (a Fast version outside 1..15, a record type of another size)
};

inline const char* Message(Errc e) noexcept {
    switch (e) {
        case Errc::ok: return "ok";
        case Errc::null_argument: return "a required buffer or description is missing";
        case Errc::buffer_too_small: return "the output buffer is too small for the message";
        case Errc::refused: return "the library refused the message";
        case Errc::too_large: return "a length does not fit the classic interface's int";
        case Errc::out_of_memory: return "an allocation failed";
        case Errc::limit_exceeded: return "the restored message would exceed the limit the caller set";
        case Errc::invalid_argument: return "an argument the call cannot take";
    }
    return "unknown error";
}

// Why a pack or restore of the modern interface was refused: the point where
// the library stopped. Errc is the coarse class of each (ErrcOf).
enum class Reason : unsigned char {
    none = 0,
    null_argument,          // a required buffer or description is missing
    unknown_function_id,    // coded records of a function id this library has no codec for
    head_too_short,         // the message is shorter than its head
    head_length_invalid,    // head word 0 negative, past the end, or neither 76 nor 96
    several_arrays_request, // a request head with flag bit 1 (several record arrays)
    negative_count,         // a negative record count
    count_past_message,     // more records than the message's bytes can hold
    stream_count_differs,   // the Fast stream's count differs from the head's count
    ends_inside_record,     // strict: the message ends inside a record
    records_past_end,       // raw records (count x size) past the end of the message
    section_table_invalid,  // section table length below its entries or past the end of the message
    section_entry_invalid,  // section table entry negative or overflowing
    size_not_representable, // the restored size does not fit an int
    out_of_memory,          // an allocation failed
    bytes_over_limit,       // restored size over the caller's limit (maxBytes)
    records_over_limit,     // record count over the caller's limit (maxRecords)
    trailing_bytes,         // strict: bytes after the last record
    count_not_held,         // strict: the stream ends before the records its count states
    buffer_too_small,       // the output buffer is too small
    too_many_fast_records,  // more than 65535 records in one array of the Fast coding
    value_not_representable,// strict: a value the coding cannot carry (a byte of 0x80 or above in a Fast ascii field)
    invalid_fast_version,   // a Fast version outside 1..15
    too_many_arrays,        // more than five record arrays
    length_too_large,       // a length the classic interface cannot represent (int)
    record_type_mismatch,   // Records<R>: R's size differs from the section's record size
    no_such_section,        // Records<R>: the message has no such section
};

inline const char* Message(Reason r) noexcept {
    switch (r) {
        case Reason::none: return "ok";
        case Reason::null_argument: return "a required buffer or description is missing";
        case Reason::unknown_function_id: return "unknown function id: coded records of an id without a codec";
        case Reason::head_too_short: return "message shorter than its head";
        case Reason::head_length_invalid: return "head length word negative, past the end or not a head length";
        case Reason::several_arrays_request: return "request head says several record arrays";
        case Reason::negative_count: return "negative record count";
        case Reason::count_past_message: return "record count past what the message can hold";
        case Reason::stream_count_differs: return "stream count differs from the head's count";
        case Reason::ends_inside_record: return "message ends inside a record";
        case Reason::records_past_end: return "record length past the end of the message";
        case Reason::section_table_invalid: return "section table length invalid or past the end";
        case Reason::section_entry_invalid: return "section table entry negative or overflowing";
        case Reason::size_not_representable: return "restored size does not fit an int";
        case Reason::out_of_memory: return "allocation failed";
        case Reason::bytes_over_limit: return "restored size over the caller's limit";
        case Reason::records_over_limit: return "record count over the caller's limit";
        case Reason::trailing_bytes: return "trailing bytes after the last record";
        case Reason::count_not_held: return "the stream holds fewer records than its count";
        case Reason::buffer_too_small: return "output buffer too small";
        case Reason::too_many_fast_records: return "too many records for the Fast coding (65535 per array)";
        case Reason::value_not_representable: return "value not representable in the coding";
        case Reason::invalid_fast_version: return "Fast version outside 1..15";
        case Reason::too_many_arrays: return "more than five record arrays";
        case Reason::length_too_large: return "length does not fit the classic interface's int";
        case Reason::record_type_mismatch: return "record type size differs from the section's record size";
        case Reason::no_such_section: return "no such section";
    }
    return "unknown reason";
}

// The coarse class of a reason.
inline Errc ErrcOf(Reason r) noexcept {
    switch (r) {
        case Reason::none: return Errc::ok;
        case Reason::null_argument: return Errc::null_argument;
        case Reason::buffer_too_small: return Errc::buffer_too_small;
        case Reason::length_too_large:
        case Reason::size_not_representable: return Errc::too_large;
        case Reason::out_of_memory: return Errc::out_of_memory;
        case Reason::bytes_over_limit:
        case Reason::records_over_limit: return Errc::limit_exceeded;
        case Reason::too_many_arrays: return Errc::too_large;
        case Reason::invalid_fast_version:
        case Reason::record_type_mismatch:
        case Reason::no_such_section: return Errc::invalid_argument;
        default: return Errc::refused;
    }
}

}  // namespace trdcomp

#endif

// The catalogue's layout lines as model entries: after this header, including
// a layouts .def file defines, for every TRD_LAYOUT(NAME, SIZE), the constant
// entries kNAME_entries and the built layout kNAME (trdcomp::model::Layout).
#pragma once

#include "Layout.h"

#define TRD_LAYOUT(NAME, SIZE) \
    inline constexpr ::trdcomp::model::Entry k##NAME##_entries[] = {::trdcomp::model::Begin(SIZE),
#define TRD_END(NAME)                                                                                   \
    }                                                                                                   \
    ;                                                                                                   \
    inline constexpr auto k##NAME =                                                                     \
        ::trdcomp::model::Build<::trdcomp::model::CodedFields(k##NAME##_entries)>(k##NAME##_entries);
#define TRD_CHAR(OFF) ::trdcomp::model::Char(OFF),
#define TRD_CHAR_DEF(OFF, D) ::trdcomp::model::Char(OFF, D),
#define TRD_TEXT(OFF, N) ::trdcomp::model::Text(OFF, N),
#define TRD_TEXT_LIMIT(OFF, N, LIMIT) ::trdcomp::model::Text(OFF, N, LIMIT),
#define TRD_TEXT_LAST(OFF, N) ::trdcomp::model::Text(OFF, N, 0, true),
#define TRD_ASCII(OFF, N) ::trdcomp::model::Ascii(OFF, N),
#define TRD_BYTES(OFF, N) ::trdcomp::model::Bytes(OFF, N),
#define TRD_INT32(OFF) ::trdcomp::model::Int32(OFF),
#define TRD_INT64(OFF) ::trdcomp::model::Int64(OFF),
#define TRD_DOUBLE(OFF) ::trdcomp::model::Double(OFF),
#define TRD_UNCODED(OFF, N) ::trdcomp::model::Uncoded(OFF, N),
#define TRD_SIZED_BLOCK(OFF, N) ::trdcomp::model::SizedBlock(OFF, N),
#define TRD_COUNTED_ARRAY(OFF, E, ENTRY, COUNT_OFF) ::trdcomp::model::Array(OFF, E, k##ENTRY##_entries, COUNT_OFF),

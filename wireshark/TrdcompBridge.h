/* The dissector's one door into trdcomp: plain C over the library and the
 * catalogue model.
 *
 * Wireshark unwinds with longjmp, which must never cross a C++ frame. So the
 * dissector copies a message's bytes out of its tvb, calls these functions
 * (which catch every exception and call nothing of Wireshark's except the
 * allocator they are handed), and adds its tree items afterwards from the
 * plain data they returned. Nothing here keeps a C++ object alive between
 * two calls. */
#ifndef TRDCOMP_WIRESHARK_BRIDGE_H
#define TRDCOMP_WIRESHARK_BRIDGE_H

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* ---- the catalogue, for registering one field per record field ---- */

/* The kinds of record field (the catalogue's FieldKind, in its order). */
enum trdcomp_ws_kind {
    TRDCOMP_WS_CHAR,
    TRDCOMP_WS_TEXT,
    TRDCOMP_WS_ASCII,
    TRDCOMP_WS_BYTES,
    TRDCOMP_WS_INT32,
    TRDCOMP_WS_INT64,
    TRDCOMP_WS_DOUBLE,
    TRDCOMP_WS_UNCODED,
    TRDCOMP_WS_SIZED, /* `width` bytes of data, then their int32 length */
    TRDCOMP_WS_ARRAY  /* `entries` records of layout `entry` */
};

typedef struct {
    enum trdcomp_ws_kind kind;
    const char* kind_name; /* "text", "int32", ... */
    int offset;
    int width;
    int entry;       /* TRDCOMP_WS_ARRAY: index of the entry layout */
    int entries;     /* TRDCOMP_WS_ARRAY: entry count */
    int count_offset;/* TRDCOMP_WS_ARRAY: offset of the count field */
} trdcomp_ws_field;

typedef struct {
    const char* name; /* "REQ_1002" */
    int size;
    int field_count;
    const trdcomp_ws_field* fields; /* offset order */
} trdcomp_ws_layout;

/* The layouts of the catalogue (requests, answers and array entries), in
 * name order; null with *count 0 when the catalogue cannot be loaded. The
 * table lives as long as the process. */
const trdcomp_ws_layout* trdcomp_ws_layouts(int* count);

/* Where the head words stand, from the head structs of the library. */
typedef struct {
    int request_length, answer_length; /* 76, 96 */
    int length_at, function_id_at, flags_at;
    int user_at, user_words;           /* a request's user words */
    int request_count_at, request_size_at;
    int reserved_at, reserved_length;  /* an answer's reserved bytes */
    int short_at, short_length;        /* its short text */
    int long_at, long_length;          /* its long text */
    int answer_count_at, answer_size_at;
    int section_table_at;
    int flag_coded, flag_sections, flag_fast_mask, flag_fast_shift;
    int routing_bytes;                 /* bytes that give length, id and flags */
} trdcomp_ws_head_layout;
const trdcomp_ws_head_layout* trdcomp_ws_head(void);

/* ---- framing ---- */

enum trdcomp_ws_framing {
    TRDCOMP_WS_COMPLETE,    /* *length is the message's length */
    TRDCOMP_WS_NEED_MORE,   /* more bytes are needed to tell */
    TRDCOMP_WS_CANNOT_TELL, /* raw records: only a transport prefix knows */
    TRDCOMP_WS_INVALID      /* no message starts here */
};
/* The length of the message at p[0, size) from its own bytes. */
enum trdcomp_ws_framing trdcomp_ws_message_length(const uint8_t* p, size_t size, uint64_t* length);

/* Does the stream look like trdcomp: a request or answer head of a known
 * function id whose framing is not invalid. */
int trdcomp_ws_looks_like_message(const uint8_t* p, size_t size);

/* ---- one message ---- */

/* The allocator the results come from (Wireshark's packet scope): it must
 * not unwind. */
typedef void* (*trdcomp_ws_alloc)(void* context, size_t bytes);

typedef struct {
    int layout;      /* index into trdcomp_ws_layouts(), -1: the records travelled raw */
    int32_t count;   /* as the restored message states it */
    int32_t size;    /* the record size the sender stated */
    int32_t slot;    /* bytes per record in `records` */
    const uint8_t* records;
    size_t records_length;
} trdcomp_ws_section;

typedef struct {
    int array;        /* the section it belongs to */
    uint64_t index;   /* its place there */
    uint64_t offset;  /* its coded bytes in the message, behind its length word */
    uint64_t length;
} trdcomp_ws_coded_record;

typedef struct {
    int ok;                  /* 0: refused; `why` says what the library said */
    const char* why;
    int request;             /* 1 request, 0 answer */
    int32_t function_id;
    int32_t flags;
    int fast_version;        /* 0: the 2008 coding */
    const char* coding;      /* "2008", "fast:1" */
    const char* route;       /* the restore's route: the codec id, or RAW, NO_RECORDS, HEAD_ONLY, NOTHING */
    int restored_nothing;    /* the id's restore keeps nothing */
    uint64_t restored_bytes; /* what the library restored */
    int array_count;         /* arrays the sender described */
    uint64_t records;        /* records of all sections */
    int section_count;
    const trdcomp_ws_section* sections; /* null when only the summary was asked for */
    uint64_t coded_record_count; /* coded records framed in the wire bytes */
    const trdcomp_ws_coded_record* coded_records;
    uint64_t trailing_length;    /* bytes behind the last whole record */
} trdcomp_ws_message;

/* Restores the message p[0, size) through the library (at most max_bytes
 * restored) and describes it into *out, every pointer from `alloc`: with
 * `sections` 0 only what a summary line shows (direction, id, coding, route,
 * records, restored bytes; the sections and coded records are left out).
 * Never throws; a refused message gives ok 0 and the reason. */
void trdcomp_ws_decode(const uint8_t* p, size_t size, uint64_t max_bytes, int sections, trdcomp_ws_alloc alloc,
                       void* context, trdcomp_ws_message* out);

#ifdef __cplusplus
}
#endif

#endif

/* trdcomp messages in Wireshark and tshark.
 *
 * A thin dissector over the library: the message's bytes are copied out of
 * the tvb and handed to the bridge (TrdcompBridge.h), which restores them
 * through the library and returns plain data; the tree is built from that.
 * The record fields are registered from the catalogue at start-up, one per
 * layout and offset (trdcomp.REQ_1002.f35), and shown on the restored
 * records, one data source a section. */
#define WS_BUILD_DLL
#include <wireshark.h>

#include <epan/conversation.h>
#include <epan/expert.h>
#include <epan/packet.h>
#include <epan/prefs.h>
#include <epan/dissectors/packet-tcp.h>
#include <ws_version.h>

#include "TrdcompBridge.h"

#ifndef TRDCOMP_PLUGIN_VERSION
#define TRDCOMP_PLUGIN_VERSION "0"
#endif

WS_DLL_PUBLIC_DEF const gchar plugin_version[] = TRDCOMP_PLUGIN_VERSION;
WS_DLL_PUBLIC_DEF const int plugin_want_major = WIRESHARK_VERSION_MAJOR;
WS_DLL_PUBLIC_DEF const int plugin_want_minor = WIRESHARK_VERSION_MINOR;
WS_DLL_PUBLIC void plugin_register(void);

/* An array field's entries nested inside entries: deeper than this the
 * entries are shown as bytes. */
#define MAX_NESTING 4

static int proto_trdcomp = -1;
static dissector_handle_t trdcomp_handle;

/* The transport prefix in front of each message. */
enum frame { FRAME_MESSAGE, FRAME_U32LE, FRAME_U32BE, FRAME_U16LE, FRAME_U16BE };
static const enum_val_t frame_values[] = {
    {"message", "None: each message's own length", FRAME_MESSAGE},
    {"u32le", "4 bytes, little-endian", FRAME_U32LE},
    {"u32be", "4 bytes, big-endian", FRAME_U32BE},
    {"u16le", "2 bytes, little-endian", FRAME_U16LE},
    {"u16be", "2 bytes, big-endian", FRAME_U16BE},
    {NULL, NULL, 0}};
static gint pref_frame = FRAME_MESSAGE;
static gboolean pref_desegment = TRUE;
static gboolean pref_restore = TRUE;
static guint pref_max_message = 64u << 20;
static guint pref_max_restored = 256u << 20;

static int hf_prefix = -1;
static int hf_head_length = -1;
static int hf_func_id = -1;
static int hf_flags = -1;
static int hf_flag_coded = -1;
static int hf_flag_sections = -1;
static int hf_flag_fast = -1;
static int hf_user = -1;
static int hf_rec_count = -1;
static int hf_rec_size = -1;
static int hf_reserved = -1;
static int hf_short_text = -1;
static int hf_long_text = -1;
static int hf_direction = -1;
static int hf_coding = -1;
static int hf_route = -1;
static int hf_wire_length = -1;
static int hf_restored_length = -1;
static int hf_ratio = -1;
static int hf_table_length = -1;
static int hf_section_count = -1;
static int hf_section_size = -1;
static int hf_section_slot = -1;
static int hf_section_layout = -1;
static int hf_record_coded_length = -1;
static int hf_raw_record = -1;
static int hf_trailing = -1;

static gint ett_trdcomp = -1;
static gint ett_head = -1;
static gint ett_flags = -1;
static gint ett_sections = -1;
static gint ett_section = -1;
static gint ett_record = -1;
static gint ett_array = -1;
static gint ett_entry = -1;

static expert_field ei_refused = EI_INIT;
static expert_field ei_no_message = EI_INIT;
static expert_field ei_length_unknown = EI_INIT;
static expert_field ei_too_long = EI_INIT;
static expert_field ei_truncated = EI_INIT;
static expert_field ei_trailing = EI_INIT;

static const value_string direction_names[] = {{1, "request"}, {2, "answer"}, {0, NULL}};

/* The catalogue's layouts and, per layout and field, the registered field
 * (and for a sized field, its length). */
static const trdcomp_ws_layout* layouts;
static int layout_count;
static int** layout_hf;
static int** layout_hf_length;
static const trdcomp_ws_head_layout* head;

static void* pool_alloc(void* context, size_t bytes) { return wmem_alloc((wmem_allocator_t*)context, bytes ? bytes : 1); }

static guint prefix_width(void) {
    switch (pref_frame) {
        case FRAME_U32LE:
        case FRAME_U32BE: return 4;
        case FRAME_U16LE:
        case FRAME_U16BE: return 2;
        default: return 0;
    }
}

/* The message length the transport prefix at `offset` states. */
static guint64 prefix_value(tvbuff_t* tvb, int offset) {
    switch (pref_frame) {
        case FRAME_U32LE: return tvb_get_letohl(tvb, offset);
        case FRAME_U32BE: return tvb_get_ntohl(tvb, offset);
        case FRAME_U16LE: return tvb_get_letohs(tvb, offset);
        case FRAME_U16BE: return tvb_get_ntohs(tvb, offset);
        default: return 0;
    }
}

/* The longest message reassembled: the preference, within what a tvb's
 * offsets can address. */
static guint max_message(void) { return MIN(pref_max_message, 1u << 30); }

/* The length of the PDU at `offset` for tcp_dissect_pdus: the prefix and
 * the message, 0 to ask for one more segment while the bytes so far do not
 * tell, and what is left of the data for anything that cannot be framed (the
 * PDU's dissection then says why). */
static guint get_trdcomp_pdu_len(packet_info* pinfo, tvbuff_t* tvb, int offset, void* data _U_) {
    const guint width = prefix_width();
    const guint remaining = (guint)tvb_reported_length_remaining(tvb, offset);
    if (width != 0) {
        const guint64 length = prefix_value(tvb, offset);
        return length > max_message() ? remaining : (guint)(width + length);
    }
    const guint available = (guint)tvb_captured_length_remaining(tvb, offset);
    guint64 length = 0;
    switch (trdcomp_ws_message_length(tvb_get_ptr(tvb, offset, available), available, &length)) {
        case TRDCOMP_WS_COMPLETE: return length > max_message() ? remaining : (guint)length;
        case TRDCOMP_WS_NEED_MORE:
            return pref_desegment && pinfo->can_desegment && length <= max_message() ? 0 : remaining;
        case TRDCOMP_WS_CANNOT_TELL:
        case TRDCOMP_WS_INVALID: break;
    }
    return remaining;
}

/* The head: every word with its meaning, from the wire bytes at `at`. */
static void add_head(proto_tree* tree, tvbuff_t* tvb, int at, guint length, int request) {
    static int* const flag_bits[] = {&hf_flag_coded, &hf_flag_sections, &hf_flag_fast, NULL};
    const guint head_length = (guint)(request ? head->request_length : head->answer_length);
    const guint shown = MIN(length, head_length);
    proto_tree* t = proto_tree_add_subtree_format(tree, tvb, at, (gint)shown, ett_head, NULL, "Head (%u bytes)", head_length);
    if (length < (guint)head->routing_bytes) return;
    proto_tree_add_item(t, hf_head_length, tvb, at + head->length_at, 4, ENC_LITTLE_ENDIAN);
    proto_tree_add_item(t, hf_func_id, tvb, at + head->function_id_at, 4, ENC_LITTLE_ENDIAN);
    proto_tree_add_bitmask(t, tvb, at + head->flags_at, hf_flags, ett_flags, flag_bits, ENC_LITTLE_ENDIAN);
    if (length < head_length) return;
    if (request) {
        for (int i = 0; i < head->user_words; ++i) {
            proto_item* ti = proto_tree_add_item(t, hf_user, tvb, at + head->user_at + 4 * i, 4, ENC_LITTLE_ENDIAN);
            proto_item_append_text(ti, " (head word %d)", head->user_at / 4 + i);
        }
        proto_tree_add_item(t, hf_rec_count, tvb, at + head->request_count_at, 4, ENC_LITTLE_ENDIAN);
        proto_tree_add_item(t, hf_rec_size, tvb, at + head->request_size_at, 4, ENC_LITTLE_ENDIAN);
    } else {
        proto_tree_add_item(t, hf_reserved, tvb, at + head->reserved_at, head->reserved_length, ENC_NA);
        proto_tree_add_item(t, hf_short_text, tvb, at + head->short_at, head->short_length, ENC_ASCII);
        proto_tree_add_item(t, hf_long_text, tvb, at + head->long_at, head->long_length, ENC_ASCII);
        proto_tree_add_item(t, hf_rec_count, tvb, at + head->answer_count_at, 4, ENC_LITTLE_ENDIAN);
        proto_tree_add_item(t, hf_rec_size, tvb, at + head->answer_size_at, 4, ENC_LITTLE_ENDIAN);
    }
}

/* The field type, display and encoding of each kind of record field. */
static const struct {
    enum ftenum type;
    int display;
    guint encoding;
} kinds[] = {
    [TRDCOMP_WS_CHAR] = {FT_CHAR, BASE_HEX, ENC_NA},
    [TRDCOMP_WS_TEXT] = {FT_STRINGZPAD, BASE_NONE, ENC_ASCII},
    [TRDCOMP_WS_ASCII] = {FT_STRINGZPAD, BASE_NONE, ENC_ASCII},
    [TRDCOMP_WS_BYTES] = {FT_BYTES, BASE_NONE, ENC_NA},
    [TRDCOMP_WS_INT32] = {FT_INT32, BASE_DEC, ENC_LITTLE_ENDIAN},
    [TRDCOMP_WS_INT64] = {FT_INT64, BASE_DEC, ENC_LITTLE_ENDIAN},
    [TRDCOMP_WS_DOUBLE] = {FT_DOUBLE, BASE_NONE, ENC_LITTLE_ENDIAN},
    [TRDCOMP_WS_UNCODED] = {FT_BYTES, BASE_NONE, ENC_NA},
    [TRDCOMP_WS_SIZED] = {FT_BYTES, BASE_NONE, ENC_NA},
    [TRDCOMP_WS_ARRAY] = {FT_NONE, BASE_NONE, ENC_NA},
};

/* The fields of one record of layout `l` at `base` in the restored bytes. */
static void add_fields(proto_tree* tree, tvbuff_t* rtvb, int base, int l, int depth) {
    const trdcomp_ws_layout* layout = &layouts[l];
    for (int k = 0; k < layout->field_count; ++k) {
        const trdcomp_ws_field* f = &layout->fields[k];
        const int at = base + f->offset;
        switch (f->kind) {
            case TRDCOMP_WS_CHAR:
            case TRDCOMP_WS_TEXT:
            case TRDCOMP_WS_ASCII:
            case TRDCOMP_WS_BYTES:
            case TRDCOMP_WS_INT32:
            case TRDCOMP_WS_INT64:
            case TRDCOMP_WS_DOUBLE:
            case TRDCOMP_WS_UNCODED:
                proto_tree_add_item(tree, layout_hf[l][k], rtvb, at, f->width, kinds[f->kind].encoding);
                break;
            case TRDCOMP_WS_SIZED:
                proto_tree_add_item(tree, layout_hf[l][k], rtvb, at, f->width, ENC_NA);
                proto_tree_add_item(tree, layout_hf_length[l][k], rtvb, at + f->width, 4, ENC_LITTLE_ENDIAN);
                break;
            case TRDCOMP_WS_ARRAY: {
                const int e = f->entry;
                const int entry_size = e >= 0 ? layouts[e].size : 0;
                proto_item* ti = proto_tree_add_item(tree, layout_hf[l][k], rtvb, at, entry_size * f->entries, ENC_NA);
                proto_item_append_text(ti, ": %d entries of %s", f->entries, e >= 0 ? layouts[e].name : "?");
                if (e < 0 || depth >= MAX_NESTING) break;
                proto_tree* entries = proto_item_add_subtree(ti, ett_array);
                for (int n = 0; n < f->entries; ++n) {
                    proto_tree* entry = proto_tree_add_subtree_format(entries, rtvb, at + n * entry_size, entry_size,
                                                                      ett_entry, NULL, "Entry %d", n);
                    add_fields(entry, rtvb, at + n * entry_size, e, depth + 1);
                }
                break;
            }
        }
    }
}

/* The coded record `index` of section `array`, or NULL. Coded records come
 * in wire order, a section after another. */
static const trdcomp_ws_coded_record* coded_record(const trdcomp_ws_message* m, guint64* next, int array, guint64 index) {
    while (*next < m->coded_record_count) {
        const trdcomp_ws_coded_record* r = &m->coded_records[*next];
        if (r->array > array || (r->array == array && r->index > index)) return NULL;
        ++*next;
        if (r->array == array && r->index == index) return r;
    }
    return NULL;
}

static void add_sections(proto_tree* tree, packet_info* pinfo, tvbuff_t* tvb, int at, guint length,
                         const trdcomp_ws_message* m) {
    if (!m->request && (m->flags & head->flag_sections) && m->fast_version == 0 &&
        length >= (guint)head->section_table_at + 4)
        proto_tree_add_item(tree, hf_table_length, tvb, at + head->section_table_at, 4, ENC_LITTLE_ENDIAN);
    proto_tree* sections = proto_tree_add_subtree_format(tree, tvb, at, 0, ett_sections, NULL, "Sections: %d", m->section_count);
    guint64 next = 0;
    for (int j = 0; j < m->section_count; ++j) {
        const trdcomp_ws_section* s = &m->sections[j];
        const int l = s->layout;
        proto_item* si;
        proto_tree* st = proto_tree_add_subtree_format(sections, tvb, at, 0, ett_section, &si, "Section %d: %d records of %s",
                                                       j + 1, s->count, l >= 0 ? layouts[l].name : "raw bytes");
        proto_item_set_generated(si);
        proto_item_set_generated(proto_tree_add_int(st, hf_section_count, tvb, at, 0, s->count));
        proto_item_set_generated(proto_tree_add_int(st, hf_section_size, tvb, at, 0, s->size));
        proto_item_set_generated(proto_tree_add_int(st, hf_section_slot, tvb, at, 0, s->slot));
        proto_item_set_generated(proto_tree_add_string(st, hf_section_layout, tvb, at, 0, l >= 0 ? layouts[l].name : "raw"));
        if (s->records_length == 0 || s->slot <= 0 || s->records_length > G_MAXINT) continue;
        tvbuff_t* rtvb = tvb_new_child_real_data(tvb, s->records, (guint)s->records_length, (gint)s->records_length);
        add_new_data_source(pinfo, rtvb, wmem_strdup_printf(pinfo->pool, "Section %d records (restored)", j + 1));
        const guint64 n = s->records_length / (guint64)s->slot;
        for (guint64 i = 0; i < n; ++i) {
            const int base = (int)(i * (guint64)s->slot);
            const trdcomp_ws_coded_record* coded = coded_record(m, &next, j, i);
            proto_item* ri;
            proto_tree* rt;
            if (coded != NULL && coded->offset + coded->length <= length)
                rt = proto_tree_add_subtree_format(st, tvb, at + (int)coded->offset, (int)coded->length, ett_record, &ri,
                                                   "Record %" PRIu64, i + 1);
            else
                rt = proto_tree_add_subtree_format(st, rtvb, base, s->slot, ett_record, &ri, "Record %" PRIu64, i + 1);
            if (coded != NULL)
                proto_item_set_generated(proto_tree_add_uint64(rt, hf_record_coded_length, tvb, at, 0, coded->length));
            if (l >= 0 && layouts[l].size <= s->slot)
                add_fields(rt, rtvb, base, l, 0);
            else
                proto_tree_add_item(rt, hf_raw_record, rtvb, base, s->slot, ENC_NA);
        }
    }
}

/* One message, with its transport prefix when the preference names one. */
static int dissect_trdcomp_pdu(tvbuff_t* tvb, packet_info* pinfo, proto_tree* tree, void* data _U_) {
    const guint width = prefix_width();
    const guint pdu = tvb_reported_length(tvb);
    proto_item* ti = proto_tree_add_item(tree, proto_trdcomp, tvb, 0, -1, ENC_NA);
    proto_tree* t = proto_item_add_subtree(ti, ett_trdcomp);
    if (width != 0) {
        proto_item* pi = proto_tree_add_item(t, hf_prefix, tvb, 0, (gint)width,
                                             pref_frame == FRAME_U32LE || pref_frame == FRAME_U16LE ? ENC_LITTLE_ENDIAN
                                                                                                     : ENC_BIG_ENDIAN);
        const guint64 stated = prefix_value(tvb, 0);
        if (stated != pdu - width) {
            expert_add_info_format(pinfo, pi, &ei_too_long, "The prefix states %" PRIu64 " bytes, over the limit of %u",
                                   stated, max_message());
            col_append_sep_str(pinfo->cinfo, COL_INFO, ", ", "bad transport prefix");
            return (int)pdu;
        }
    }
    const guint length = pdu - width;
    const guint captured = (guint)tvb_captured_length_remaining(tvb, (gint)width);
    if (captured < length) {
        expert_add_info_format(pinfo, ti, &ei_truncated,
                               "Only %u of the message's %u bytes are here (reassembly off, or bytes missing from the capture)",
                               captured, length);
        col_append_sep_str(pinfo->cinfo, COL_INFO, ", ", "message incomplete");
        return (int)pdu;
    }
    if (length == 0) {
        expert_add_info_format(pinfo, ti, &ei_no_message, "The prefix states an empty message");
        col_append_sep_str(pinfo->cinfo, COL_INFO, ", ", "empty message");
        return (int)pdu;
    }
    guint64 framed = 0;
    const guint8* bytes = (const guint8*)tvb_memdup(pinfo->pool, tvb, (gint)width, length);
    const enum trdcomp_ws_framing framing = trdcomp_ws_message_length(bytes, length, &framed);
    if (framing == TRDCOMP_WS_INVALID) {
        expert_add_info_format(pinfo, ti, &ei_no_message, "No message starts here: %u bytes that are no trdcomp head", length);
        col_append_sep_fstr(pinfo->cinfo, COL_INFO, ", ", "%u bytes of no message", length);
        return (int)pdu;
    }
    if (width == 0 && framing == TRDCOMP_WS_COMPLETE && framed > max_message()) {
        expert_add_info_format(pinfo, ti, &ei_too_long, "The message states %" PRIu64 " bytes, over the limit of %u", framed,
                               max_message());
        col_append_sep_str(pinfo->cinfo, COL_INFO, ", ", "message over the length limit");
        return (int)pdu;
    }
    if (width == 0 && framing == TRDCOMP_WS_CANNOT_TELL)
        expert_add_info(pinfo, ti, &ei_length_unknown);
    if (!pref_restore) {
        /* Framing only: the head as it stands, nothing restored. */
        const int request = length >= 4 && tvb_get_letohl(tvb, (gint)width + head->length_at) == (guint32)head->request_length;
        const gint32 id = length >= (guint)head->routing_bytes ? tvb_get_letohil(tvb, (gint)width + head->function_id_at) : 0;
        col_append_sep_fstr(pinfo->cinfo, COL_INFO, ", ", "%s %d, %u bytes", request ? "Request" : "Answer", id, length);
        proto_item_append_text(ti, ", %s %d, %u bytes", request ? "Request" : "Answer", id, length);
        add_head(t, tvb, (gint)width, length, request);
        return (int)pdu;
    }

    trdcomp_ws_message m;
    /* Without a tree only the summary line is wanted. */
    trdcomp_ws_decode(bytes, length, pref_max_restored, tree != NULL, pool_alloc, pinfo->pool, &m);

    const char* direction = m.request ? "Request" : "Answer";
    const char* coding = m.coding != NULL ? m.coding : "?";
    if (m.ok) {
        const guint64 records = m.records;
        const double ratio = length > 0 ? (double)m.restored_bytes / length : 0.0;
        const char* summary = wmem_strdup_printf(
            pinfo->pool, "%s %d, %s, route %s, %" PRIu64 " record%s, %u -> %" PRIu64 " bytes (%.2f:1)", direction,
            m.function_id, coding, m.route, records, records == 1 ? "" : "s", length, m.restored_bytes, ratio);
        col_append_sep_str(pinfo->cinfo, COL_INFO, ", ", summary);
        proto_item_append_text(ti, ", %s", summary);
    } else {
        col_append_sep_fstr(pinfo->cinfo, COL_INFO, ", ", "%s %d, %s, refused: %s", direction, m.function_id, coding, m.why);
        proto_item_append_text(ti, ", %s %d, refused: %s", direction, m.function_id, m.why);
    }
    if (tree == NULL) {
        if (!m.ok) expert_add_info_format(pinfo, ti, &ei_refused, "The library refuses the message: %s", m.why);
        return (int)pdu;
    }
    proto_item_set_generated(proto_tree_add_uint(t, hf_direction, tvb, (gint)width, 4, m.request ? 1 : 2));
    proto_item_set_generated(proto_tree_add_string(t, hf_coding, tvb, (gint)width, 0, coding));
    if (m.route != NULL) proto_item_set_generated(proto_tree_add_string(t, hf_route, tvb, (gint)width, 0, m.route));
    add_head(t, tvb, (gint)width, length, m.request);
    if (!m.ok) {
        expert_add_info_format(pinfo, ti, &ei_refused, "The library refuses the message: %s", m.why);
        return (int)pdu;
    }
    proto_item_set_generated(proto_tree_add_uint(t, hf_wire_length, tvb, (gint)width, (gint)length, length));
    proto_item_set_generated(proto_tree_add_uint64(t, hf_restored_length, tvb, (gint)width, 0, m.restored_bytes));
    proto_item_set_generated(
        proto_tree_add_double(t, hf_ratio, tvb, (gint)width, 0, length > 0 ? (double)m.restored_bytes / length : 0.0));
    add_sections(t, pinfo, tvb, (gint)width, length, &m);
    if (m.trailing_length > 0 && m.trailing_length <= length) {
        const gint at = (gint)(width + length - m.trailing_length);
        proto_item* tr = proto_tree_add_item(t, hf_trailing, tvb, at, (gint)m.trailing_length, ENC_NA);
        expert_add_info(pinfo, tr, &ei_trailing);
    }
    return (int)pdu;
}

static int dissect_trdcomp(tvbuff_t* tvb, packet_info* pinfo, proto_tree* tree, void* data) {
    col_set_str(pinfo->cinfo, COL_PROTOCOL, "trdcomp");
    col_clear(pinfo->cinfo, COL_INFO);
    const guint width = prefix_width();
    tcp_dissect_pdus(tvb, pinfo, tree, pref_desegment, width != 0 ? width : 4, get_trdcomp_pdu_len, dissect_trdcomp_pdu,
                     data);
    return tvb_captured_length(tvb);
}

/* A stream whose first bytes frame as a request or answer head of a known
 * function id: from then on the conversation is trdcomp. */
static gboolean dissect_trdcomp_heur(tvbuff_t* tvb, packet_info* pinfo, proto_tree* tree, void* data) {
    const guint width = prefix_width();
    const guint available = (guint)tvb_captured_length(tvb);
    if (available < width + (guint)head->routing_bytes) return FALSE;
    if (width != 0 && prefix_value(tvb, 0) < (guint64)head->request_length) return FALSE;
    if (!trdcomp_ws_looks_like_message(tvb_get_ptr(tvb, (gint)width, available - width), available - width)) return FALSE;
    conversation_set_dissector(find_or_create_conversation(pinfo), trdcomp_handle);
    dissect_trdcomp(tvb, pinfo, tree, data);
    return TRUE;
}

/* The header fields of the head and the message. */
static void register_message_fields(void) {
    static hf_register_info hf[] = {
        {&hf_prefix, {"Transport prefix", "trdcomp.prefix", FT_UINT32, BASE_DEC, NULL, 0, "Message length the transport states", HFILL}},
        {&hf_head_length, {"Head length", "trdcomp.head_length", FT_INT32, BASE_DEC, NULL, 0, "76: a request, 96: an answer", HFILL}},
        {&hf_func_id, {"Function id", "trdcomp.func_id", FT_INT32, BASE_DEC, NULL, 0, NULL, HFILL}},
        {&hf_flags, {"Flags", "trdcomp.flags", FT_UINT32, BASE_HEX, NULL, 0, NULL, HFILL}},
        {&hf_flag_coded, {"Records coded", "trdcomp.flags.coded", FT_BOOLEAN, 32, NULL, 0, NULL, HFILL}},
        {&hf_flag_sections, {"Several record arrays", "trdcomp.flags.several_arrays", FT_BOOLEAN, 32, NULL, 0, NULL, HFILL}},
        {&hf_flag_fast, {"Fast version (0: the 2008 coding)", "trdcomp.flags.fast_version", FT_UINT32, BASE_DEC, NULL, 0, NULL, HFILL}},
        {&hf_user, {"User word", "trdcomp.user", FT_INT32, BASE_DEC, NULL, 0, "Carried unchanged", HFILL}},
        {&hf_rec_count, {"Record count", "trdcomp.rec_count", FT_INT32, BASE_DEC, NULL, 0, "The head's record count (an answer's first array)", HFILL}},
        {&hf_rec_size, {"Record size", "trdcomp.rec_size", FT_INT32, BASE_DEC, NULL, 0, "The head's record size (an answer's first array)", HFILL}},
        {&hf_reserved, {"Reserved", "trdcomp.reserved", FT_BYTES, BASE_NONE, NULL, 0, NULL, HFILL}},
        {&hf_short_text, {"Short text", "trdcomp.short_text", FT_STRINGZPAD, BASE_NONE, NULL, 0, NULL, HFILL}},
        {&hf_long_text, {"Long text", "trdcomp.long_text", FT_STRINGZPAD, BASE_NONE, NULL, 0, NULL, HFILL}},
        {&hf_direction, {"Direction", "trdcomp.direction", FT_UINT8, BASE_DEC, VALS(direction_names), 0, NULL, HFILL}},
        {&hf_coding, {"Coding", "trdcomp.coding", FT_STRING, BASE_NONE, NULL, 0, "2008 or fast:V", HFILL}},
        {&hf_route, {"Restore route", "trdcomp.route", FT_STRING, BASE_NONE, NULL, 0,
                     "The codec id that restores the records, or RAW, NO_RECORDS, HEAD_ONLY, NOTHING", HFILL}},
        {&hf_wire_length, {"Message bytes", "trdcomp.wire_length", FT_UINT32, BASE_DEC, NULL, 0, NULL, HFILL}},
        {&hf_restored_length, {"Restored bytes", "trdcomp.restored_length", FT_UINT64, BASE_DEC, NULL, 0, NULL, HFILL}},
        {&hf_ratio, {"Compression ratio", "trdcomp.ratio", FT_DOUBLE, BASE_NONE, NULL, 0, "Restored bytes / message bytes", HFILL}},
        {&hf_table_length, {"Section table length", "trdcomp.section_table.length", FT_INT32, BASE_DEC, NULL, 0, NULL, HFILL}},
        {&hf_section_count, {"Records", "trdcomp.section.count", FT_INT32, BASE_DEC, NULL, 0, NULL, HFILL}},
        {&hf_section_size, {"Record size stated", "trdcomp.section.size", FT_INT32, BASE_DEC, NULL, 0, NULL, HFILL}},
        {&hf_section_slot, {"Restored record size", "trdcomp.section.slot", FT_INT32, BASE_DEC, NULL, 0, NULL, HFILL}},
        {&hf_section_layout, {"Layout", "trdcomp.section.layout", FT_STRING, BASE_NONE, NULL, 0, NULL, HFILL}},
        {&hf_record_coded_length, {"Coded bytes", "trdcomp.record.coded_length", FT_UINT64, BASE_DEC, NULL, 0, NULL, HFILL}},
        {&hf_raw_record, {"Record bytes", "trdcomp.record.raw", FT_BYTES, BASE_NONE, NULL, 0, NULL, HFILL}},
        {&hf_trailing, {"Trailing bytes", "trdcomp.trailing", FT_BYTES, BASE_NONE, NULL, 0, NULL, HFILL}},
    };
    /* The flag bits come from the library's head. */
    for (size_t i = 0; i < G_N_ELEMENTS(hf); ++i) {
        if (hf[i].p_id == &hf_flag_coded) hf[i].hfinfo.bitmask = (guint64)head->flag_coded;
        if (hf[i].p_id == &hf_flag_sections) hf[i].hfinfo.bitmask = (guint64)head->flag_sections;
        if (hf[i].p_id == &hf_flag_fast) hf[i].hfinfo.bitmask = (guint64)head->flag_fast_mask;
    }
    proto_register_field_array(proto_trdcomp, hf, G_N_ELEMENTS(hf));
}

static void set_field(hf_register_info* r, int* id, char* name, char* abbrev, enum ftenum type, int display, char* blurb) {
    const header_field_info empty = {NULL, NULL, FT_NONE, BASE_NONE, NULL, 0, NULL, HFILL};
    r->p_id = id;
    r->hfinfo = empty;
    r->hfinfo.name = name;
    r->hfinfo.abbrev = abbrev;
    r->hfinfo.type = type;
    r->hfinfo.display = display;
    r->hfinfo.blurb = blurb;
}

/* One field per layout and offset, from the catalogue. */
static void register_record_fields(void) {
    layouts = trdcomp_ws_layouts(&layout_count);
    int total = 0;
    for (int l = 0; l < layout_count; ++l)
        for (int k = 0; k < layouts[l].field_count; ++k) total += layouts[l].fields[k].kind == TRDCOMP_WS_SIZED ? 2 : 1;
    hf_register_info* hf = g_new0(hf_register_info, total > 0 ? total : 1);
    layout_hf = g_new0(int*, layout_count > 0 ? layout_count : 1);
    layout_hf_length = g_new0(int*, layout_count > 0 ? layout_count : 1);
    int n = 0;
    for (int l = 0; l < layout_count; ++l) {
        const trdcomp_ws_layout* layout = &layouts[l];
        layout_hf[l] = g_new(int, layout->field_count + 1);
        layout_hf_length[l] = g_new(int, layout->field_count + 1);
        for (int k = 0; k < layout->field_count; ++k) {
            const trdcomp_ws_field* f = &layout->fields[k];
            layout_hf[l][k] = layout_hf_length[l][k] = -1;
            char* abbrev = g_strdup_printf("trdcomp.%s.f%d", layout->name, f->offset);
            char* blurb = g_strdup_printf("%s offset %d: %s of %d bytes", layout->name, f->offset, f->kind_name, f->width);
            set_field(&hf[n++], &layout_hf[l][k], g_strdup_printf("f%d (%s, %d)", f->offset, f->kind_name, f->width), abbrev,
                      kinds[f->kind].type, kinds[f->kind].display, blurb);
            if (f->kind == TRDCOMP_WS_SIZED)
                set_field(&hf[n++], &layout_hf_length[l][k], g_strdup_printf("f%d length", f->offset),
                          g_strdup_printf("%s.length", abbrev), FT_INT32, BASE_DEC,
                          g_strdup_printf("%s offset %d: the length of the sized field", layout->name, f->offset + f->width));
        }
    }
    proto_register_field_array(proto_trdcomp, hf, n);
}

static void proto_register_trdcomp(void) {
    static gint* ett[] = {&ett_trdcomp, &ett_head, &ett_flags, &ett_sections, &ett_section, &ett_record, &ett_array, &ett_entry};
    static ei_register_info ei[] = {
        {&ei_refused, {"trdcomp.malformed", PI_MALFORMED, PI_ERROR, "The library refuses the message", EXPFILL}},
        {&ei_no_message, {"trdcomp.no_message", PI_MALFORMED, PI_ERROR, "No message starts here", EXPFILL}},
        {&ei_length_unknown, {"trdcomp.length_unknown", PI_PROTOCOL, PI_WARN,
                              "The records travel raw: the message's length is not in its bytes (set the transport prefix "
                              "preference when the link has one)", EXPFILL}},
        {&ei_too_long, {"trdcomp.too_long", PI_MALFORMED, PI_ERROR, "Message over the length limit", EXPFILL}},
        {&ei_truncated, {"trdcomp.truncated", PI_MALFORMED, PI_WARN, "Message incomplete in the data at hand", EXPFILL}},
        {&ei_trailing, {"trdcomp.trailing_bytes", PI_PROTOCOL, PI_NOTE, "Bytes behind the last whole record", EXPFILL}},
    };
    head = trdcomp_ws_head();
    proto_trdcomp = proto_register_protocol("trdcomp message", "trdcomp", "trdcomp");
    register_message_fields();
    register_record_fields();
    proto_register_subtree_array(ett, G_N_ELEMENTS(ett));
    expert_register_field_array(expert_register_protocol(proto_trdcomp), ei, G_N_ELEMENTS(ei));

    module_t* module = prefs_register_protocol(proto_trdcomp, NULL);
    prefs_register_enum_preference(module, "frame", "Transport prefix",
                                   "The length prefix in front of each message, if the link has one", &pref_frame,
                                   frame_values, FALSE);
    prefs_register_bool_preference(module, "desegment", "Reassemble messages spanning several TCP segments",
                                   "Needs the TCP preference \"Allow subdissectors to reassemble TCP streams\"",
                                   &pref_desegment);
    prefs_register_bool_preference(module, "restore", "Restore each message through the library",
                                   "Off: messages are framed and their heads shown, nothing is restored (the fastest "
                                   "pass over a large capture)", &pref_restore);
    prefs_register_uint_preference(module, "max_message", "Longest message (bytes)",
                                   "A longer stated length is shown as an error, not reassembled", 10, &pref_max_message);
    prefs_register_uint_preference(module, "max_restored", "Largest restore (bytes)",
                                   "A message that restores to more bytes is refused", 10, &pref_max_restored);
    trdcomp_handle = register_dissector("trdcomp", dissect_trdcomp, proto_trdcomp);
}

static void proto_reg_handoff_trdcomp(void) {
    dissector_add_uint_range_with_preference("tcp.port", "", trdcomp_handle);
    heur_dissector_add("tcp", dissect_trdcomp_heur, "trdcomp over TCP", "trdcomp_tcp", proto_trdcomp, HEURISTIC_DISABLE);
}

void plugin_register(void) {
    static proto_plugin plugin;
    plugin.register_protoinfo = proto_register_trdcomp;
    plugin.register_handoff = proto_reg_handoff_trdcomp;
    proto_register_plugin(&plugin);
}

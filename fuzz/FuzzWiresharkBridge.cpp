// Fuzz target: the Wireshark plugin's bridge into the library, on any bytes
// the dissector may hand it. Whatever the bytes, the framing, the heuristic's
// test and both decodes return (nothing thrown, nothing read or written
// outside the bytes and the blocks the allocator gave), and the two decodes
// agree: the summary (a restore into the dissector's memory) and the full
// decode (the message library's) accept the same messages with the same
// records and restored bytes, and the sections and coded records the full
// decode describes start inside what it was given.
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "TrdcompBridge.h"

namespace {

// Each block a separate allocation, so that the sanitizer sees its bounds.
struct Arena {
    std::vector<void*> blocks;
    ~Arena() {
        for (void* p : blocks) std::free(p);
    }
};

void* Allocate(void* context, std::size_t bytes) {
    void* p = std::malloc(bytes);
    if (p == nullptr) std::abort();
    static_cast<Arena*>(context)->blocks.push_back(p);
    return p;
}

[[noreturn]] void Fail(const char* what) {
    std::fprintf(stderr, "%s\n", what);
    std::abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    // A copy of its own size: reading past the message is caught.
    std::vector<std::uint8_t> bytes(data, data + size);
    const std::uint8_t* p = bytes.empty() ? nullptr : bytes.data();
    std::uint64_t length = 0;
    trdcomp_ws_message_length(p, size, &length);
    trdcomp_ws_looks_like_message(p, size);

    int layouts = 0;
    trdcomp_ws_layouts(&layouts);
    Arena arena;
    trdcomp_ws_message summary, full;
    // 64 MiB at most restored: the limit's refusal is a path of its own.
    trdcomp_ws_decode(p, size, std::uint64_t{64} << 20, 0, Allocate, &arena, &summary);
    trdcomp_ws_decode(p, size, std::uint64_t{64} << 20, 1, Allocate, &arena, &full);
    if (summary.ok != full.ok) Fail("the summary and the full decode disagree on accepting the message");
    if (!full.ok) {
        if (full.why == nullptr || summary.why == nullptr || std::strcmp(full.why, summary.why) != 0)
            Fail("a refusal without the same reason");
        return 0;
    }
    if (summary.records != full.records || summary.restored_bytes != full.restored_bytes ||
        summary.section_count != full.section_count)
        Fail("the summary and the full decode differ");
    for (int j = 0; j < full.section_count; ++j) {
        const trdcomp_ws_section& s = full.sections[j];
        if (s.layout < -1 || s.layout >= layouts) Fail("a section's layout outside the catalogue");
        if (s.records_length > full.restored_bytes) Fail("a section's records past the restored bytes");
        if (s.records_length > 0) {
            volatile std::uint8_t last = s.records[s.records_length - 1];
            (void)last;
        }
    }
    for (std::uint64_t i = 0; i < full.coded_record_count; ++i) {
        const trdcomp_ws_coded_record& r = full.coded_records[i];
        // Its length word lies in the message; its bytes may run past the end
        // of a message cut short, which the dissector checks before it uses them.
        if (r.offset > size) Fail("a coded record starting outside the message");
    }
    return 0;
}

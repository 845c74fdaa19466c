// Received messages that describe more than they hold, or what this side
// cannot restore, are refused by the classic and the modern restores, each
// with its reason, without reading outside the message (the sanitizer preset
// runs these on exact-size heap copies) and without writing into a caller's
// block. The classic restores keep a few quirks: any request head length,
// and a negative count, which the 2008 request restore takes as 76 + count *
// size bytes (below its own head).
#include <gtest/gtest.h>

#include <climits>
#include <cstring>
#include <optional>
#include <vector>

#include "support/AllocHook.h"
#include "support/Golden.h"
#include "support/Messages.h"
#include "trdcomp/trdcomp.hpp"

using namespace testmsg;
using R = trdcomp::Reason;

namespace {

// A raw answer of id 1022: head (word 0 `headLen`), optional table, `body` record bytes.
std::vector<char> Raw(int flags, int count, int size, std::vector<std::int32_t> table, int body, int headLen = 96) {
    std::vector<char> m = AnsBytes(1022, flags, count, size, table, static_cast<std::size_t>(body));
    SetWord(m.data(), 0, headLen);
    return m;
}

// Too short for any head; word 0 says its length.
std::vector<char> Short(int n) {
    std::vector<char> m(static_cast<std::size_t>(n), 0);
    if (n >= 4) SetWord(m.data(), 0, n);
    return m;
}

// An answer whose head length word is 40: a table of one array of two
// 3-byte records at offset 40, its records behind it, then the rest of a
// head's bytes (the head copy needs 96 readable bytes).
std::vector<char> ShortHead() {
    std::vector<char> m = Raw(2, 0, 0, {}, 0, 40);
    m.resize(40);
    for (const std::int32_t w : {12, 2, 3}) m.insert(m.end(), reinterpret_cast<const char*>(&w), reinterpret_cast<const char*>(&w) + 4);
    m.insert(m.end(), {'1', '2', '3', '4', '5', '6'});
    m.resize(96, 'p');
    return m;
}

// A message with the 16-bit word at `offset` set as well.
std::vector<char> Twice(std::vector<char> m, int offset, int value) {
    std::memcpy(m.data() + offset, &value, 2);
    return m;
}

// A golden message, the first `keep` bytes of it (0: all), a word of `width` bytes set.
std::vector<char> Edited(const char* name, int offset, int value, int width = 4, std::size_t keep = 0) {
    std::vector<char> m = golden::Wire(name);
    if (keep) m.resize(keep);
    if (offset >= 0) std::memcpy(m.data() + offset, &value, static_cast<std::size_t>(width));
    return m;
}

struct Hostile {
    const char* what;
    std::vector<char> message;
    int rc;  // the classic restore's
    R why;   // the modern restores' reason (none: restored)
    bool request = false;
    std::optional<int> classicLen = {};  // a refused classic restore's outLen when it hands a buffer out all the same
};

// A view over bytes built by hand, as a restore might hand them out.
struct ViewOver : trdcomp::RestoredView {
    explicit ViewOver(const std::vector<char>& bytes) {
        p_ = const_cast<char*>(bytes.data());
        len_ = static_cast<int>(bytes.size());
        error_ = trdcomp::Errc::ok;
    }
};

}  // namespace

// The classic return code and the modern reason of each; RestoreInto tells
// the direction by head word 0 first, refuses without writing and otherwise
// gives the owning restore's bytes. A view over the bytes of a refused
// section table has no sections and reads nothing.
TEST(HostileInput, EveryRestoreRefusesWithItsReason) {
    const int big = INT_MAX;
    const Hostile cases[] = {
        {"records exactly fill the message", Raw(0, 2, 10, {}, 20), 1, R::none},
        {"records one byte beyond", Raw(0, 2, 10, {}, 19), 0, R::records_past_end},
        {"negative count", Raw(0, -2, 10, {}, 20), 0, R::negative_count},
        {"negative size", Raw(0, 2, -10, {}, 20), 0, R::records_past_end},
        {"product beyond int", Raw(0, big, big, {}, 20), 0, R::records_past_end},
        {"table exactly fits", Raw(2, 0, 0, {20, 1, 4, 2, 3}, 10), 1, R::none},
        {"table longer than the message", Raw(2, 0, 0, {20, 1, 4}, 0), 0, R::section_table_invalid},
        {"table length below 4", Raw(2, 0, 0, {3}, 50), 0, R::section_table_invalid},
        {"table length negative", Raw(2, 0, 0, {-8}, 50), 0, R::section_table_invalid},
        {"table records beyond the message", Raw(2, 0, 0, {12, 2, 8}, 15), 0, R::section_entry_invalid},
        // No entry may be negative: a negative one cannot offset a positive one.
        {"table with a negative count", Raw(2, 0, 0, {20, -1, 8, 1, 8}, 16), 0, R::section_entry_invalid},
        {"table with a negative size", Raw(2, 0, 0, {20, 1, -8, 1, 8}, 16), 0, R::section_entry_invalid},
        {"table whose sum is negative", Raw(2, 0, 0, {20, 1, 4, -1, 8}, 8), 0, R::section_entry_invalid},
        {"table of huge entries that cancel out", Raw(2, 0, 0, {20, big, big, -big, big}, 16), 0, R::section_entry_invalid},
        {"table products summing past int", Raw(2, 0, 0, {20, big, 2, big, 2}, 8), 0, R::section_entry_invalid},
        {"table products summing past 2^63", Raw(2, 0, 0, {28, big, big, big, big, big, big}, 16), 0, R::section_entry_invalid},
        {"head length word negative", Raw(0, 1, 4, {}, 4, -1), 0, R::head_length_invalid},
        // A head length of 40 moves the table and records behind offset 40, as sent.
        {"head length word shorter than the head", ShortHead(), 1, R::none},
        {"table right at the end of a short head length", Raw(2, 0, 0, {}, 0, 94), 0, R::section_table_invalid},
        {"message shorter than an answer head", Short(60), 0, R::head_too_short},
        {"answer of 1 byte", Short(1), 0, R::head_too_short},
        {"answer of 4 bytes", Short(4), 0, R::head_too_short},
        {"answer of 11 bytes", Short(11), 0, R::head_too_short},
        {"request of 1 byte", Short(1), 0, R::head_too_short, true},
        {"request of 4 bytes", Short(4), 0, R::head_too_short, true},
        {"request of 11 bytes", Short(11), 0, R::head_too_short, true},
        {"raw request of 12 bytes is copied", Short(12), 1, R::none, true},
        {"raw request with a negative count", ReqBytes(ReqHead(777, 0, -1, 10), 20), 1, R::negative_count, true},
        {"answer cut inside its records", Edited("ans_1110_2008", -1, 0, 4, 100), 0, R::count_past_message},
        {"Fast stream count other than the head's", Edited("req_1002_fast", 76, 2, 2), 0, R::stream_count_differs, true,
         76 + 3 * 83},
        {"Fast answer count other than the head's", Edited("ans_1003_fast", 96, 7, 2), 0, R::stream_count_differs, false,
         96 + 3 * 69},
        {"request count beyond the bytes", Edited("req_1002_2008", 68, 1 << 30), 0, R::count_past_message, true},
        {"Fast request count beyond the bytes", Twice(Edited("req_1002_fast", 68, 60000), 76, 60000), 0, R::count_past_message, true},
        {"head length beyond the message", Edited("ans_1002_2008", 0, 1 << 20), 0, R::head_too_short},
        {"request head word 0 neither 76 nor 96", Edited("req_1002_2008", 0, 55), 1, R::none, true},
        {"coded records of an id without a codec", Edited("req_1002_2008", 4, 777), 0, R::unknown_function_id, true},
        {"request head with several arrays", Edited("req_1002_2008", 8, 3), 0, R::several_arrays_request, true},
        {"answer shorter than its head", Edited("ans_1110_2008", -1, 0, 4, 90), 0, R::head_too_short},
        {"2008 section table shorter than its entries", Edited("ans_1002_2008", 96, 12), 0, R::section_table_invalid},
        {"2008 request with a negative count", Edited("req_1002_2008", 68, -1), 1, R::negative_count, true, 76 - 83},
        {"Fast request with a negative count", Edited("req_1002_fast", 68, -1), 0, R::negative_count, true, 76 - 83},
        {"2008 answer with a negative count", Edited("ans_1003_2008", 88, -2), 1, R::negative_count},
        {"Fast answer with a negative count", Edited("ans_1003_fast", 88, -2), 0, R::negative_count, false, 96},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        const std::vector<char>& m = c.message;
        Exact in(m);
        Restored r;
        alloc_hook::ResetLastNothrowSize();
        Restore(r, in.data(), in.size(), c.request);
        EXPECT_EQ(r.rc, c.rc);
        // A refusal allocates nothing, but where it hands a buffer out all the same.
        if (c.rc == 0 && !c.classicLen) { EXPECT_EQ(alloc_hook::LastNothrowSize(), 0u); }
        if (c.classicLen) {
            EXPECT_NE(r.p, nullptr);
            EXPECT_EQ(r.len, *c.classicLen);
        } else if (c.rc == 0) {
            EXPECT_EQ(r.p, nullptr);
        }
        if (m.size() >= 8 && Word(m.data(), 0) == 40) {
            ASSERT_EQ(r.len, 96 + 12 + 6);
            EXPECT_EQ(Word(r.p, 0), 96);
            EXPECT_EQ(std::vector<char>(r.p + 96, r.p + r.len), std::vector<char>(m.begin() + 40, m.begin() + 58));
        }
        const trdcomp::span<const char> bytes(in.data(), in.size());
        const trdcomp::Restored modern = c.request ? trdcomp::RestoreRequest(bytes) : trdcomp::RestoreAnswer(bytes);
        EXPECT_EQ(modern.Why(), c.why) << trdcomp::Message(modern.Why());

        const std::int32_t word0 = m.size() >= 4 ? Word(m.data(), 0) : 0;
        const R intoWhy = word0 == 76 || word0 == 96 ? c.why : R::head_length_invalid;
        std::vector<char> block(1 << 16, 0x5A);
        const trdcomp::RestoredView v = trdcomp::RestoreInto(block, bytes);
        EXPECT_EQ(v.Why(), intoWhy) << trdcomp::Message(v.Why());
        if (intoWhy == R::none) {
            EXPECT_EQ(std::vector<char>(v.Data(), v.Data() + v.Size()), std::vector<char>(modern.Data(), modern.Data() + modern.Size()));
        } else {
            EXPECT_EQ(trdcomp::RestoredSize(bytes), 0u);
            EXPECT_EQ(block, std::vector<char>(1 << 16, 0x5A)) << "a refused restore wrote";
        }

        if (c.request || word0 != 96 || m.size() < 100 || !(Word(m.data(), 8) & TRDCOMP_FLAG_SECTIONS) || (Word(m.data(), 8) & 1))
            continue;
        const int entries = c.rc == 1 ? (Word(m.data(), 96) - 4) / 8 : 0;
        EXPECT_EQ(modern.Sections(), entries);
        if (entries > 1) {
            const int first = Word(m.data(), 100) * Word(m.data(), 104);
            EXPECT_EQ(modern.GetSection(1).data - modern.Data(), 96 + Word(m.data(), 96) + first);
        }
        const ViewOver view(m);
        EXPECT_EQ(view.Sections(), entries);
        if (entries == 0) { EXPECT_EQ(view.GetSection(1).data, nullptr); }
    }
}

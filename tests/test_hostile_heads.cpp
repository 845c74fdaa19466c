// Received heads that describe more than the message holds are refused by
// the classic and the modern restores, each with its reason, without reading
// outside the message (the sanitizer preset runs these on exact-size heap
// copies).
#include <gtest/gtest.h>

#include <climits>
#include <vector>

#include "support/Messages.h"
#include "trdcomp/trdcomp.hpp"

using namespace testmsg;
using R = trdcomp::Reason;

namespace {

// A raw answer of id 1022: head, optional table, `body` record bytes.
std::vector<char> RawAnswer(int flags, int count, int size, std::vector<std::int32_t> table, int body) {
    return AnsBytes(1022, flags, count, size, table, static_cast<std::size_t>(body));
}

// Too short for any head; word 0 says its length.
std::vector<char> Short(int n) {
    std::vector<char> m(static_cast<std::size_t>(n), 0);
    if (n >= 4) SetWord(m.data(), 0, n);
    return m;
}

struct Hostile {
    const char* what;
    std::vector<char> message;
    int headLen;  // written into word 0 (with id 1022 in word 1) of a message of 12 bytes or more
    int rc;
    R why;  // the modern restore's reason (none: restored)
    bool request = false;
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

// The classic return code and the modern reason of each; a view over the
// bytes of a refused section table has no sections and reads nothing.
TEST(HostileInput, HeadsThatOverreachAreRefused) {
    const int big = INT_MAX;
    const Hostile cases[] = {
        {"records exactly fill the message", RawAnswer(0, 2, 10, {}, 20), 96, 1, R::none},
        {"records one byte beyond", RawAnswer(0, 2, 10, {}, 19), 96, 0, R::records_past_end},
        {"negative count", RawAnswer(0, -2, 10, {}, 20), 96, 0, R::negative_count},
        {"negative size", RawAnswer(0, 2, -10, {}, 20), 96, 0, R::records_past_end},
        {"product beyond int", RawAnswer(0, big, big, {}, 20), 96, 0, R::records_past_end},
        {"table exactly fits", RawAnswer(2, 0, 0, {20, 1, 4, 2, 3}, 10), 96, 1, R::none},
        {"table longer than the message", RawAnswer(2, 0, 0, {20, 1, 4}, 0), 96, 0, R::section_table_invalid},
        {"table length below 4", RawAnswer(2, 0, 0, {3}, 50), 96, 0, R::section_table_invalid},
        {"table length negative", RawAnswer(2, 0, 0, {-8}, 50), 96, 0, R::section_table_invalid},
        {"table records beyond the message", RawAnswer(2, 0, 0, {12, 2, 8}, 15), 96, 0, R::section_entry_invalid},
        // No entry may be negative: a negative one cannot offset a positive one.
        {"table with a negative count", RawAnswer(2, 0, 0, {20, -1, 8, 1, 8}, 16), 96, 0, R::section_entry_invalid},
        {"table with a negative size", RawAnswer(2, 0, 0, {20, 1, -8, 1, 8}, 16), 96, 0, R::section_entry_invalid},
        {"table whose sum is negative", RawAnswer(2, 0, 0, {20, 1, 4, -1, 8}, 8), 96, 0, R::section_entry_invalid},
        {"table of huge entries that cancel out", RawAnswer(2, 0, 0, {20, big, big, -big, big}, 16), 96, 0,
         R::section_entry_invalid},
        {"table products summing past int", RawAnswer(2, 0, 0, {20, big, 2, big, 2}, 8), 96, 0, R::section_entry_invalid},
        {"table products summing past 2^63", RawAnswer(2, 0, 0, {28, big, big, big, big, big, big}, 16), 96, 0,
         R::section_entry_invalid},
        {"head length word negative", RawAnswer(0, 1, 4, {}, 4), -1, 0, R::head_length_invalid},
        {"head length word shorter than the head", RawAnswer(0, 0, 0, {}, 0), 40, 1, R::none},
        {"table right at the end of a short head length", RawAnswer(2, 0, 0, {}, 0), 94, 0, R::section_table_invalid},
        {"message shorter than an answer head", std::vector<char>(60, 0), 60, 0, R::head_too_short},
        {"answer of 1 byte", Short(1), 1, 0, R::head_too_short},
        {"answer of 4 bytes", Short(4), 4, 0, R::head_too_short},
        {"answer of 11 bytes", Short(11), 11, 0, R::head_too_short},
        {"request of 1 byte", Short(1), 1, 0, R::head_too_short, true},
        {"request of 4 bytes", Short(4), 4, 0, R::head_too_short, true},
        {"request of 11 bytes", Short(11), 11, 0, R::head_too_short, true},
        {"raw request of 12 bytes is copied", Short(12), 12, 1, R::none, true},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        std::vector<char> m = c.message;
        if (m.size() >= 12) {
            SetWord(m.data(), 0, c.headLen);
            SetWord(m.data(), 4, 1022);
        }
        Exact in(m);
        Restored r;
        Restore(r, in.data(), in.size(), c.request);
        EXPECT_EQ(r.rc, c.rc);
        if (c.rc == 0) {
            EXPECT_EQ(r.p, nullptr);
        } else if (c.request) {
            EXPECT_EQ(r.bytes(), m);
        }
        const trdcomp::span<const char> bytes(in.data(), in.size());
        const trdcomp::Restored modern = c.request ? trdcomp::RestoreRequest(bytes) : trdcomp::RestoreAnswer(bytes);
        EXPECT_EQ(modern.Why(), c.why) << trdcomp::Message(modern.Why());
        if (c.request || c.headLen != 96 || !(Word(m.data(), 8) & TRDCOMP_FLAG_SECTIONS)) continue;
        const int entries = c.rc == 1 ? (Word(m.data(), 96) - 4) / 8 : 0;
        EXPECT_EQ(modern.Sections(), entries);
        if (entries > 1) {
            const int first = Word(m.data(), 100) * Word(m.data(), 104);
            EXPECT_EQ(modern.GetSection(1).data - modern.Data(), 96 + Word(m.data(), 96) + first);
        }
        const ViewOver view(m);
        EXPECT_EQ(view.Sections(), entries);
        if (entries == 0) {
            EXPECT_EQ(view.GetSection(1).data, nullptr);
        }
    }
}

TEST(HostileInput, RawAnswerRestoresWhatTheTableDescribes) {
    // A head length of 40 moves the table and records behind offset 40, as sent.
    auto m = RawAnswer(2, 0, 0, {}, 0);
    m.resize(40);
    const std::int32_t table[] = {12, 2, 3};
    m.insert(m.end(), reinterpret_cast<const char*>(table), reinterpret_cast<const char*>(table) + 12);
    m.insert(m.end(), {'1', '2', '3', '4', '5', '6'});
    m.resize(96, 'p');  // the head copy needs 96 readable bytes
    SetWord(m.data(), 0, 40);
    Exact in(m);
    Restored r;
    RestoreAns(r, in.data(), in.size());
    ASSERT_EQ(r.rc, 1);
    ASSERT_EQ(r.len, 96 + 12 + 6);
    EXPECT_EQ(Word(r.p, 0), 96);
    EXPECT_EQ(Word(r.p, 96), 12);
    EXPECT_EQ(std::string(r.p + 108, 6), "123456");
}

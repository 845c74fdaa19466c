// Received heads that describe more than the message holds are refused
// without reading outside it (the sanitizer preset runs these on exact-size
// heap copies).
#include <gtest/gtest.h>

#include <climits>
#include <vector>

#include "support/Messages.h"

using namespace testmsg;

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
    bool request = false;
};

}  // namespace

TEST(HostileInput, HeadsThatOverreachAreRefused) {
    const Hostile cases[] = {
        {"records exactly fill the message", RawAnswer(0, 2, 10, {}, 20), 96, 1},
        {"records one byte beyond", RawAnswer(0, 2, 10, {}, 19), 96, 0},
        {"negative count", RawAnswer(0, -2, 10, {}, 20), 96, 0},
        {"negative size", RawAnswer(0, 2, -10, {}, 20), 96, 0},
        {"product beyond int", RawAnswer(0, INT_MAX, INT_MAX, {}, 20), 96, 0},
        {"table exactly fits", RawAnswer(2, 0, 0, {20, 1, 4, 2, 3}, 10), 96, 1},
        {"table longer than the message", RawAnswer(2, 0, 0, {20, 1, 4}, 0), 96, 0},
        {"table length below 4", RawAnswer(2, 0, 0, {3}, 50), 96, 0},
        {"table length negative", RawAnswer(2, 0, 0, {-8}, 50), 96, 0},
        {"table records beyond the message", RawAnswer(2, 0, 0, {12, 2, 8}, 15), 96, 0},
        // No entry may be negative: a negative one cannot offset a positive one.
        {"table with a negative product", RawAnswer(2, 0, 0, {20, 1, 8, -1, 4}, 8), 96, 0},
        {"table whose sum is negative", RawAnswer(2, 0, 0, {20, 1, 4, -1, 8}, 8), 96, 0},
        {"table products summing past int", RawAnswer(2, 0, 0, {20, INT_MAX, 2, INT_MAX, 2}, 8), 96, 0},
        {"head length word negative", RawAnswer(0, 1, 4, {}, 4), -1, 0},
        {"head length word shorter than the head", RawAnswer(0, 0, 0, {}, 0), 40, 1},
        {"table right at the end of a short head length", RawAnswer(2, 0, 0, {}, 0), 94, 0},
        {"message shorter than an answer head", std::vector<char>(60, 0), 60, 0},
        {"answer of 1 byte", Short(1), 1, 0},
        {"answer of 4 bytes", Short(4), 4, 0},
        {"answer of 11 bytes", Short(11), 11, 0},
        {"request of 1 byte", Short(1), 1, 0, true},
        {"request of 4 bytes", Short(4), 4, 0, true},
        {"request of 11 bytes", Short(11), 11, 0, true},
        {"raw request of 12 bytes is copied", Short(12), 12, 1, true},
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

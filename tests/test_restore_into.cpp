// Restoring into the caller's memory and finding message boundaries where
// the catalogue sweep does not reach: the caller's limits, strict mode, and
// what the bytes alone cannot tell (refusals: test_hostile_heads.cpp).
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "support/AllocHook.h"
#include "support/Golden.h"
#include "support/Messages.h"
#include "trdcomp/trdcomp.hpp"

namespace {

trdcomp::span<const char> Span(const std::vector<char>& v) { return {v.data(), v.size()}; }

}  // namespace

namespace {

// A raw answer of id 777: its head, `words`, then `records` bytes.
std::vector<char> RawAnswer(int flags, std::vector<std::int32_t> words, std::size_t records) {
    return testmsg::AnsBytes(777, flags, 0, 0, words, records);
}

}  // namespace

TEST(RestoreOptions, LimitsRefuseBeforeAnythingIsAllocated) {
    // 20 KB of a Fast answer of id 8996: 10000 empty records of 32788 bytes
    // each, about 330 MB restored.
    std::vector<char> wire = RawAnswer(0x11, {}, 2 + 2 * 10000);
    std::memset(wire.data() + 96, 0, wire.size() - 96);
    testmsg::SetWord(wire.data(), 4, 8996);
    testmsg::SetWord(wire.data(), 88, 10000);
    wire[96] = static_cast<char>(10000 & 0xFF);
    wire[97] = static_cast<char>(10000 >> 8);
    const std::size_t need = 96 + 10000 * std::size_t{32788};
    EXPECT_EQ(trdcomp::RestoredSize(Span(wire)), need);
    struct Case { std::size_t maxBytes, maxRecords; trdcomp::Reason why; };
    const Case cases[] = {
        {1 << 20, std::size_t(-1), trdcomp::Reason::bytes_over_limit},
        {need - 1, std::size_t(-1), trdcomp::Reason::bytes_over_limit},
        {std::size_t(-1), 9999, trdcomp::Reason::records_over_limit},
    };
    for (const Case& c : cases) {
        trdcomp::RestoreOptions o;
        o.maxBytes = c.maxBytes;
        o.maxRecords = c.maxRecords;
        alloc_hook::ResetLastNothrowSize();
        const trdcomp::Restored r = trdcomp::RestoreAnswer(Span(wire), o);
        EXPECT_EQ(alloc_hook::LastNothrowSize(), 0u) << "allocated before the limit";
        EXPECT_EQ(r.Error(), trdcomp::Errc::limit_exceeded);
        EXPECT_EQ(r.Why(), c.why);
        EXPECT_EQ(r.Needed(), need);
        std::vector<char> block(4096, 0x5A);
        const trdcomp::RestoredView v = trdcomp::RestoreAnswerInto(block, Span(wire), o);
        EXPECT_EQ(v.Why(), c.why);
        EXPECT_EQ(v.Needed(), need);
        EXPECT_EQ(block, std::vector<char>(4096, 0x5A));
        EXPECT_EQ(trdcomp::RestoredSize(Span(wire), o), 0u);
    }
    // A limit of exactly the message passes; the record limit counts every
    // array of the message.
    const std::vector<char> wire1002 = golden::Wire("ans_1002_2008");
    const trdcomp::Restored all = trdcomp::RestoreAnswer(Span(wire1002));
    ASSERT_TRUE(all);
    std::size_t records = 0;
    for (int j = 0; j < all.Sections(); ++j) records += static_cast<std::size_t>(all.GetSection(j).count);
    trdcomp::RestoreOptions o;
    o.maxRecords = records - 1;
    EXPECT_EQ(trdcomp::RestoreAnswer(Span(wire1002), o).Why(), trdcomp::Reason::records_over_limit);
    o.maxRecords = records;
    o.maxBytes = trdcomp::RestoredSize(Span(wire1002));
    std::vector<char> block(o.maxBytes);
    EXPECT_TRUE(trdcomp::RestoreAnswer(Span(wire1002), o));
    EXPECT_TRUE(trdcomp::RestoreInto(block, Span(wire1002), o));
}

TEST(RestoreOptions, StrictRefusesWhatTheClassicRestoresAccept) {
    using R = trdcomp::Reason;
    struct Case { const char* what; std::vector<char> wire; R why; };
    auto edit = [](const char* name, int cut, int extra, int countOffset = -1, int count = 0) {
        std::vector<char> w = golden::Wire(name);
        w.resize(w.size() - static_cast<std::size_t>(cut));
        w.insert(w.end(), static_cast<std::size_t>(extra), '\x01');
        if (countOffset >= 0) testmsg::SetWord(w.data(), countOffset, count);
        return w;
    };
    const Case cases[] = {
        {"2008 request cut inside its last record", edit("req_1002_2008", 1, 0), R::ends_inside_record},
        {"2008 request, bytes after the last record", edit("req_1002_2008", 0, 3), R::trailing_bytes},
        {"2008 request, a count the stream does not hold", edit("req_1002_2008", 0, 0, 68, 4), R::count_not_held},
        {"2008 request cut inside a record's length", edit("req_1002_2008", 0, 2, 68, 4), R::ends_inside_record},
        {"Fast request cut inside its last record", edit("req_1002_fast", 1, 0), R::ends_inside_record},
        {"Fast request, bytes after the last record", edit("req_1002_fast", 0, 1), R::trailing_bytes},
        {"2008 answer cut inside its last record", edit("ans_1110_2008", 1, 0), R::ends_inside_record},
        {"2008 answer, bytes after the last record", edit("ans_1110_2008", 0, 5), R::trailing_bytes},
        {"Fast answer, bytes after the last record", edit("ans_1110_fast", 0, 1), R::trailing_bytes},
        {"Fast answer of several arrays cut short", edit("ans_1002_fast", 1, 0), R::ends_inside_record},
        {"raw answer, bytes after the records", RawAnswer(0, {}, 31), R::trailing_bytes},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        std::vector<char> wire = c.wire;
        if (c.what[0] == 'r') {
            testmsg::SetWord(wire.data(), 88, 3);
            testmsg::SetWord(wire.data(), 92, 10);
        }
        const bool request = trdcomp::detail::Direction(Span(wire)) == 1;
        auto restore = [&](const trdcomp::RestoreOptions& o) {
            return request ? trdcomp::RestoreRequest(Span(wire), o) : trdcomp::RestoreAnswer(Span(wire), o);
        };
        EXPECT_TRUE(restore({})) << "the default restore accepts it";
        trdcomp::RestoreOptions strict;
        strict.strict = true;
        const trdcomp::Restored r = restore(strict);
        EXPECT_EQ(r.Error(), trdcomp::Errc::refused);
        EXPECT_EQ(r.Why(), c.why) << trdcomp::Message(r.Why());
        std::vector<char> block(1 << 16);
        EXPECT_EQ(trdcomp::RestoreInto(block, Span(wire), strict).Why(), c.why);
    }
}

TEST(MessageLength, WhatTheBytesCannotTell) {
    struct Case { const char* what; std::vector<char> bytes; trdcomp::Framing status; std::size_t length; };
    auto request = [](int id, int flags, int count, int size, std::size_t extra) {
        return testmsg::ReqBytes(testmsg::ReqHead(id, flags, count, size), extra);
    };
    auto answer = [](int id, int flags, int count, int size, std::size_t extra) {
        return testmsg::AnsBytes(id, flags, count, size, {}, extra);
    };
    const Case cases[] = {
        {"raw request: the transport knows its length", request(777, 0, 2, 10, 20), trdcomp::Framing::cannot_tell, 0},
        {"codec id, records shorter than one record travel raw", request(1002, 0, 0, 0, 5), trdcomp::Framing::cannot_tell, 0},
        {"raw answer: count times size", answer(777, 0, 3, 10, 30), trdcomp::Framing::complete, 126},
        {"raw answer: the head alone so far", answer(777, 0, 3, 10, 0), trdcomp::Framing::complete, 126},
        {"raw answer with a negative size", answer(777, 0, 3, -10, 0), trdcomp::Framing::invalid, 0},
        {"coded request: its first record's length word missing", request(1002, 1, 2, 83, 0), trdcomp::Framing::need_more, 80},
        {"head word 0 neither 76 nor 96", std::vector<char>(12, 1), trdcomp::Framing::invalid, 0},
        {"three bytes", std::vector<char>(3, 76), trdcomp::Framing::need_more, 4},
        {"a request head cut short", std::vector<char>{76, 0, 0, 0, 1}, trdcomp::Framing::need_more, 76},
        {"a section table shorter than 4 bytes", testmsg::AnsBytes(1001, 3, 0, 0, {3}), trdcomp::Framing::invalid, 0},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        const trdcomp::FrameLength f = trdcomp::MessageLength(Span(c.bytes));
        EXPECT_EQ(f.status, c.status);
        EXPECT_EQ(f.length, c.length);
    }
}

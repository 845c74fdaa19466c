// The four dispatchers beyond the catalogue sweep: argument refusals, heads,
// raw paths of ids the catalogue does not route, capacity and buffer ownership.
#include <gtest/gtest.h>

#include <climits>
#include <string>
#include <vector>

#include "model/Samples.h"
#include "support/AllocHook.h"
#include "support/Golden.h"
#include "support/Messages.h"
#include "trdcomp/trdcomp.hpp"

using namespace testmsg;

namespace {

constexpr int kFastV1 = 0x10;

std::vector<char> PackReq(tagREQ_HEAD head, const std::vector<char>& data, int* rc = nullptr) {
    std::vector<char> out(4096, '\x5A');
    int len = -1;
    const int r = CTrdCompData::PackReq2008(out.data(), len, &head, const_cast<char*>(data.data()),
                                            static_cast<int>(data.size()), 0);
    if (rc) *rc = r;
    out.resize(static_cast<std::size_t>(len < 0 ? 0 : len));
    return out;
}

struct PackedAns { std::vector<char> bytes; int rc = -1; int outLen = -1; };

PackedAns PackAns(tagANS_Proc proc, std::vector<std::vector<char>> arrays, int coding = 0, int outSize = 4096,
                  char fill = '\0') {
    std::vector<char> out(1 << 16, fill);  // as much as any outSize below may use as scratch
    std::memset(out.data() + 8, 0, 4);  // the caller hands in a zero flags word
    arrays.resize(5);
    PackedAns r;
    r.rc = CTrdCompData::PackAns2008(out.data(), outSize, r.outLen, &proc, arrays[0].data(), arrays[1].data(),
                                     arrays[2].data(), arrays[3].data(), arrays[4].data(), 0, coding);
    out.resize(static_cast<std::size_t>(r.outLen));
    r.bytes = out;
    return r;
}

std::vector<char> Seq(int n, char first = 'a') {
    std::vector<char> v(static_cast<std::size_t>(n));
    for (int i = 0; i < n; ++i) v[static_cast<std::size_t>(i)] = static_cast<char>(first + i % 26);
    return v;
}

}  // namespace

TEST(PackReq, RefusalsLeaveOutLen) {
    tagREQ_HEAD head = ReqHead(1022);
    char buf[128];
    struct Case { const char* what; char* out; tagREQ_HEAD* head; char* data; int dataLen; int rc, outLen; };
    const Case cases[] = {
        {"null output", nullptr, &head, nullptr, 0, 0, 77},
        {"null head", buf, nullptr, nullptr, 0, 0, 77},
        {"negative data length", buf, &head, buf, -1, 0, 77},
        {"null data with a length", buf, &head, nullptr, 5, 0, 77},
        {"null data without", buf, &head, nullptr, 0, 1, 76},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        int len = 77;
        EXPECT_EQ(CTrdCompData::PackReq2008(c.out, len, c.head, c.data, c.dataLen, 0), c.rc);
        EXPECT_EQ(len, c.outLen);
    }
}

TEST(PackReq, HeadIsCopiedWithLength76AndTheCallersFlags) {
    std::vector<char> order(83, 0);
    order[0] = 'A', order[1] = 11;
    struct Case { int id, flags, count, size; std::vector<char> data; int flagsOut; std::vector<char> body; };
    // Fast version 3 stays in the flags; one record at the defaults still sends its texts.
    std::vector<Case> cases = {{1002, 0x30, 1, 83, order, 0x31, {1, 0, 4, 0, '\x8e', '\x80', '\x80', '\x80'}}};
    for (int id : {1022, 999, 9000, -5, INT_MIN})  // ids without a codec travel raw whatever the flags
        for (int flags : {0, kFastV1, 0xF0}) cases.push_back({id, flags, 2, 5, Seq(10), flags, Seq(10)});
    for (const Case& c : cases) {
        SCOPED_TRACE(std::to_string(c.id) + " flags " + std::to_string(c.flags));
        tagREQ_HEAD head = ReqHead(c.id, c.flags, c.count, c.size);
        head.nHeadLen = 0;
        int rc = -1;
        const auto wire = PackReq(head, c.data, &rc);
        EXPECT_EQ(rc, 1);
        EXPECT_EQ(head.nHeadLen, 0);
        tagREQ_HEAD expected = head;
        expected.nHeadLen = 76;
        expected.nFlags = c.flagsOut;
        ASSERT_GE(wire.size(), 76u);
        EXPECT_EQ(std::memcmp(wire.data(), &expected, 76), 0);
        EXPECT_EQ(std::vector<char>(wire.begin() + 76, wire.end()), c.body);
    }
}

TEST(RawRestore, ComesBackAsACopyWithTenZeroBytesBehind) {
    const auto request = PackReq(ReqHead(1022, 0, 1, 10), Seq(10));
    const auto answer = PackAns(Proc(1022, {{3, 20}}), {Seq(60)}).bytes;
    for (const auto& wire : {request, answer}) {
        Exact in(wire);
        alloc_hook::ResetLastNothrowSize();
        Restored r;
        Restore(r, in.data(), in.size(), wire.size() == 86);
        EXPECT_EQ(r.rc, 1);
        EXPECT_EQ(alloc_hook::LastNothrowSize(), wire.size() + 10);
        ASSERT_EQ(r.bytes(), wire);
        EXPECT_EQ(std::string(r.p + r.len, 10), std::string(10, '\0'));
    }
}

TEST(RestoreReq, RefusalsLeaveOutAndOutLen) {
    auto wire = PackReq(ReqHead(1022), {});
    ASSERT_EQ(wire.size(), 76u);
    struct Case { int headLen, inLen, rc; bool null = false; };
    const Case cases[] = {{76, 76, 1}, {77, 76, 0}, {76, 75, 0}, {-1, 76, 1}, {12, 76, 1}, {76, 0, 0}, {76, -4, 0},
                          {76, 76, 0, true}};
    for (const auto& c : cases) {
        SCOPED_TRACE(std::to_string(c.headLen) + " in " + std::to_string(c.inLen) + (c.null ? ", null" : ""));
        SetWord(wire.data(), 0, c.headLen);
        Exact in(wire.data(), c.inLen > 0 ? c.inLen : 0);
        char* sentinel = reinterpret_cast<char*>(&wire);
        Restored r;
        r.p = sentinel;
        r.len = 555;
        RestoreReq(r, c.null ? nullptr : in.data(), c.inLen);
        EXPECT_EQ(r.rc, c.rc);
        if (c.rc == 0) {
            EXPECT_EQ(r.p, sentinel);  // untouched on refusal
            EXPECT_EQ(r.len, 555);
            r.p = nullptr;
        } else {
            EXPECT_EQ(r.len, c.inLen);
        }
    }
    char* out = nullptr;
    int len = 9;
    EXPECT_EQ(CTrdCompData::RestoreAns2008(nullptr, 100, &out, len, 0), 0);
    EXPECT_EQ(len, 9);
    CTrdCompData::ReleaseAnsData(nullptr);  // ignored
}

TEST(AllocationFailure, OnlyTheRequestRawPathStillReportsSuccess) {
    struct Case {
        const char* what;
        std::vector<char> wire;
        int rc, outLen;  // outLen < 0: not promised
    };
    const Case cases[] = {
        {"raw request", PackReq(ReqHead(1022, 0, 1, 10), Seq(10)), 1, 86},
        {"raw answer", PackAns(Proc(1022, {{3, 20}}), {Seq(60)}).bytes, 0, 156},
        {"coded request", golden::Wire("req_1002_fast"), 0, -1},
        {"coded answer", golden::Wire("ans_1003_fast"), 0, 0},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        Exact in(c.wire);
        Restored r;
        alloc_hook::FailNext(1);
        Restore(r, in.data(), in.size(), c.wire[0] == 76);
        alloc_hook::FailNext(0);
        EXPECT_EQ(r.rc, c.rc);
        EXPECT_EQ(r.p, nullptr);
        if (c.outLen >= 0) { EXPECT_EQ(r.len, c.outLen); }
    }
}

TEST(PackAns, OutSizeIsAnUnsignedCapacity) {
    const auto sample = catalogue_model::SampleAnswers(1003, catalogue_model::Coding::k2008).at(0);
    const std::vector<std::vector<char>> raw = {Seq(60)};
    // A capacity beyond the buffer is the caller's promise: the packer may use
    // the bytes up to its size bound as scratch.
    ASSERT_LE(trdcomp::AnswerSizeBound(sample.proc, trdcomp::Coding::C2008()), 1u << 16);
    const PackedAns exact = PackAns(sample.proc, sample.arrays, 0, -1);
    const int n = exact.outLen;
    struct Case { const char* what; tagANS_Proc proc; std::vector<std::vector<char>> arrays; int outSize, outLen; };
    const Case cases[] = {
        {"coded, -1 is the largest", sample.proc, sample.arrays, -1, n},
        {"coded, INT_MAX", sample.proc, sample.arrays, INT_MAX, n},
        {"coded, the head alone", sample.proc, sample.arrays, 96, 0},
        {"coded, below the head", sample.proc, sample.arrays, 95, 0},
        {"raw, exact", Proc(1022, {{3, 20}}), raw, 156, 156},
        {"raw, one byte short", Proc(1022, {{3, 20}}), raw, 155, 0},
        {"raw, a negative count", Proc(1022, {{-1, 20}}), raw, 4096, 0},
        {"raw, no array behind a count", Proc(1022, {{1, 20}}), {}, 4096, 0},
        {"head only, 96", Proc(1017, {{1, 20}}), raw, 96, 96},
        {"head only, 95", Proc(1017, {{1, 20}}), raw, 95, 0},
        {"head only, 0", Proc(1017, {{1, 20}}), raw, 0, 0},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        const PackedAns packed = PackAns(c.proc, c.arrays, 0, c.outSize);
        EXPECT_EQ(packed.rc, 0);  // whatever happened: the length tells
        ASSERT_EQ(packed.outLen, c.outLen);
        if (c.outLen == n) { EXPECT_EQ(packed.bytes, exact.bytes); }
    }
    tagANS_Proc many = Proc(1022, {});
    many.nArrayCount = INT_MAX;  // its table alone cannot fit
    EXPECT_EQ(PackAns(many, {}).outLen, 0);
    tagANS_Proc proc = Proc(1022, {{1, 4}});
    char buf[200], rec[4] = {};
    int len = 77;
    EXPECT_EQ(CTrdCompData::PackAns2008(nullptr, 200, len, &proc, rec, nullptr, nullptr, nullptr, nullptr, 0, 0), 0);
    EXPECT_EQ(len, 0);
    len = 77;
    EXPECT_EQ(CTrdCompData::PackAns2008(buf, 200, len, nullptr, rec, nullptr, nullptr, nullptr, nullptr, 0, 0), 0);
    EXPECT_EQ(len, 0);
}

TEST(PackAns, HeadIsBuiltFromTheProc) {
    // Texts shorter than their fields are padded with zeros; texts that fill
    // them are cut without a terminator; bytes 12..19 are not written.
    for (const auto& [shortText, longText] : {std::pair<std::string, std::string>{"AB", "LONG TEXT"}, {"WXYZ", std::string(64, 'L')}}) {
        SCOPED_TRACE(shortText);
        tagANS_Proc proc = Proc(1022, {{3, 20}});
        std::memcpy(proc.szShort, shortText.data(), shortText.size());
        std::memcpy(proc.szLong, longText.data(), longText.size());
        std::vector<char> expected = AnsBytes(1022, 0, 3, 20);
        std::memset(expected.data() + 12, '\xEE', 8);
        std::memcpy(expected.data() + 20, shortText.data(), shortText.size());
        std::memcpy(expected.data() + 24, longText.data(), longText.size());
        const std::vector<char> records = Seq(60);
        expected.insert(expected.end(), records.begin(), records.end());
        EXPECT_EQ(PackAns(proc, {records}, 0, 4096, '\xEE').bytes, expected);
    }
}

TEST(PackAns, FlagBitsForSectionsAndFastVersion) {
    struct Case { int arrays; int coding; int flags; int outLen; };
    const Case cases[] = {
        {1, 0, 0x00, 96 + 8},        // one array: no table
        {2, 0, 0x02, 96 + 20 + 16},  // table of 20 bytes
        {2, 0x30, 0x12, 96 + 16},    // Fast: bit 1, version recorded as 1, no table
        {1, 0xF0, 0x10, 96 + 8},
        {1, 0x0F, 0x00, 96 + 8},     // only bits 4..7 select the coding
        {0, 0, 0x00, 96},            // no arrays, or a negative number of them: the head alone
        {-3, 0, 0x00, 96},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(std::to_string(c.arrays) + " arrays, coding " + std::to_string(c.coding));
        const std::size_t n = static_cast<std::size_t>(c.arrays < 0 ? 0 : c.arrays);
        tagANS_Proc proc = Proc(1022, std::vector<std::pair<int, int>>(n, {2, 4}));
        proc.nArrayCount = c.arrays;
        const auto packed = PackAns(proc, std::vector<std::vector<char>>(n, Seq(8)), c.coding);
        EXPECT_EQ(Word(packed.bytes.data(), 8), c.flags);
        EXPECT_EQ(packed.outLen, c.outLen);
    }
}

TEST(RawAnswer, SevenArraysWriteFiveEntriesAndFiveArrays) {
    tagANS_Proc proc = Proc(1022, {{1, 2}, {1, 2}, {1, 2}, {1, 2}, {1, 2}});
    proc.nArrayCount = 7;
    const auto packed =
        PackAns(proc, {Seq(2, 'A'), Seq(2, 'C'), Seq(2, 'E'), Seq(2, 'G'), Seq(2, 'I')}, 0, 4096, '\xEE');
    const int tableLen = 7 * 8 + 4;
    ASSERT_EQ(packed.outLen, 96 + tableLen + 10);
    const char* p = packed.bytes.data();
    EXPECT_EQ(Word(p, 96), tableLen);
    for (int i = 0; i < 5; ++i) {
        EXPECT_EQ(Word(p, 100 + 8 * i), 1);
        EXPECT_EQ(Word(p, 104 + 8 * i), 2);
    }
    // The words of arrays 6 and 7 stay as the caller's buffer held them.
    EXPECT_EQ(std::string(p + 140, 16), std::string(16, '\xEE'));
    EXPECT_EQ(std::string(p + 96 + tableLen, 10), "ABCDEFGHIJ");
}

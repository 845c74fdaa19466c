// Restoring into the caller's memory and finding message boundaries where
// the catalogue sweep does not reach: refusals that write nothing, negative
// counts, the caller's limit, and what the bytes alone cannot tell.
#include <gtest/gtest.h>

#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "support/AllocHook.h"
#include "support/Messages.h"
#include "trdcomp/trdcomp.hpp"

namespace fs = std::filesystem;

namespace {

struct Golden {
    std::string name;
    std::vector<char> wire, restored;
};

std::vector<char> ReadFile(const fs::path& p) {
    std::ifstream in(p, std::ios::binary);
    return std::vector<char>(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

const std::vector<Golden>& Corpus() {
    static const std::vector<Golden> corpus = [] {
        std::vector<Golden> c;
        for (const auto& e : fs::directory_iterator(TRDCOMP_GOLDEN_DIR)) {
            if (e.path().extension() != ".wire") continue;
            fs::path restored = e.path();
            restored.replace_extension(".restored");
            c.push_back({e.path().stem().string(), ReadFile(e.path()), ReadFile(restored)});
        }
        return c;
    }();
    return corpus;
}

trdcomp::span<const char> Span(const std::vector<char>& v) { return {v.data(), v.size()}; }

}  // namespace

const Golden& Find(const std::string& name) {
    for (const Golden& g : Corpus())
        if (g.name == name) return g;
    throw std::runtime_error("no golden message " + name);
}

TEST(RestoreInto, RefusesWhatTheClassicRestoreRefusesWithoutWriting) {
    struct Case {
        const char* what;
        const char* golden;
        std::size_t keep;   // bytes of the message kept (0: all)
        int offset, value;  // a 32-bit word set (offset < 0: none)
        bool u16;           // the word is 16 bits
    };
    const Case cases[] = {
        {"answer cut inside its records", "ans_1110_2008", 100, -1, 0, false},
        {"Fast stream count other than the head's", "req_1002_fast", 0, 76, 2, true},
        {"Fast answer count other than the head's", "ans_1003_fast", 0, 96, 7, true},
        {"request count beyond the bytes", "req_1002_2008", 0, 68, 1 << 20, false},
        {"head length beyond the message", "ans_1002_2008", 0, 0, 1 << 20, false},
        {"head word 0 neither 76 nor 96", "req_1002_2008", 0, 0, 55, false},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        std::vector<char> wire = Find(c.golden).wire;
        if (c.keep) wire.resize(c.keep);
        if (c.offset >= 0) std::memcpy(wire.data() + c.offset, &c.value, c.u16 ? 2 : 4);
        const bool request = c.golden[0] == 'r';
        testmsg::Restored classic;
        if (request) {
            testmsg::RestoreReq(classic, wire.data(), static_cast<int>(wire.size()));
        } else {
            testmsg::RestoreAns(classic, wire.data(), static_cast<int>(wire.size()));
        }
        if (c.value != 55) {
            EXPECT_EQ(classic.rc, 0);  // the classic request restore takes any head length
        }
        EXPECT_EQ(trdcomp::RestoredSize(Span(wire)), 0u);
        std::vector<char> block(1 << 16, 0x5A);
        const trdcomp::RestoredView v = trdcomp::RestoreInto(block, Span(wire));
        EXPECT_EQ(v.Error(), trdcomp::Errc::refused);
        EXPECT_EQ(v.Size(), 0u);
        EXPECT_EQ(block, std::vector<char>(1 << 16, 0x5A)) << "a refused restore wrote";
    }
}

TEST(RestoreInto, ANegativeRecordCountStillNeedsRoomForTheHead) {
    // The classic restore gives outLen 76 + count * size (below the head's
    // 76 bytes here) and writes the head into its spare bytes.
    const std::pair<const char*, int> cases[] = {{"req_1002_2008", 83}, {"req_1003_2008", 218}};
    for (const auto& [name, size] : cases) {
        SCOPED_TRACE(name);
        std::vector<char> wire = Find(name).wire;
        testmsg::SetWord(wire.data(), 68, -1);
        testmsg::Restored classic;
        testmsg::RestoreReq(classic, wire.data(), static_cast<int>(wire.size()));
        ASSERT_EQ(classic.rc, 1);
        ASSERT_EQ(classic.len, 76 - size);
        ASSERT_EQ(trdcomp::RestoredSize(Span(wire)), 76u);
        const std::unique_ptr<char[]> exact(new char[76]);
        const trdcomp::RestoredView v = trdcomp::RestoreInto({exact.get(), 76}, Span(wire));
        EXPECT_TRUE(v);
        EXPECT_EQ(v.Size(), 0u);
        EXPECT_EQ(std::memcmp(exact.get(), classic.p, 76), 0);
        const std::unique_ptr<char[]> shorter(new char[75]);
        EXPECT_EQ(trdcomp::RestoreInto({shorter.get(), 75}, Span(wire)).Error(), trdcomp::Errc::buffer_too_small);
    }
}

TEST(RestoreOptions, MaxBytesRefusesLargerRestoresInEveryModernRestore) {
    const Golden& g = Find("ans_1110_2008");
    const std::size_t need = trdcomp::RestoredSize(Span(g.wire));
    std::vector<char> block(need);
    trdcomp::RestoreOptions limit;
    limit.maxBytes = need - 1;
    const trdcomp::RestoredView v = trdcomp::RestoreInto(block, Span(g.wire), limit);
    EXPECT_EQ(v.Error(), trdcomp::Errc::limit_exceeded);
    EXPECT_EQ(v.Needed(), need);
    const trdcomp::Restored r = trdcomp::RestoreAnswer(Span(g.wire), limit);
    EXPECT_EQ(r.Error(), trdcomp::Errc::limit_exceeded);
    EXPECT_EQ(r.Data(), nullptr);
    limit.maxBytes = need;
    EXPECT_TRUE(trdcomp::RestoreInto(block, Span(g.wire), limit));
    EXPECT_TRUE(trdcomp::RestoreAnswer(Span(g.wire), limit));
}

TEST(MessageLength, WhatTheBytesCannotTell) {
    struct Case {
        const char* what;
        std::vector<char> bytes;
        trdcomp::Framing status;
        std::size_t length;
    };
    auto request = [](int id, int flags, int count, int size, std::size_t extra) {
        const tagREQ_HEAD h = testmsg::ReqHead(id, flags, count, size);
        std::vector<char> b(reinterpret_cast<const char*>(&h), reinterpret_cast<const char*>(&h) + 76);
        b.resize(76 + extra, 'x');
        return b;
    };
    auto answer = [](int id, int flags, int count, int size, std::size_t extra) {
        std::vector<char> b(96 + extra, 0);
        testmsg::SetWord(b.data(), 0, 96);
        testmsg::SetWord(b.data(), 4, id);
        testmsg::SetWord(b.data(), 8, flags);
        testmsg::SetWord(b.data(), 88, count);
        testmsg::SetWord(b.data(), 92, size);
        return b;
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
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        const trdcomp::FrameLength f = trdcomp::MessageLength(Span(c.bytes));
        EXPECT_EQ(f.status, c.status);
        EXPECT_EQ(f.length, c.length);
    }
}

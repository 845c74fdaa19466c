// Speed and wire size of both codings, through the classic interface, beside
// memcpy, LZ4 and zstd (level 1) of the same raw record arrays.
//
// Scenarios (deterministic, realistic data):
//   quote   answer 1110: 193-byte quote records, 18 doubles, sorted by code
//   order   request 1011: 274-byte order records, texts and ints
//   dayorder request 1031: 244-byte orders of one account's day, by stock
//           code then time (constant texts and a full random token)
//   tiny    answer 1053: one double a record
//   block   answer 8996: a 32 KB block with its length and a text
// Counters: ns_per_record, bytes_per_second (raw bytes), wire_ratio
// (coded bytes / raw bytes).
#include <benchmark/benchmark.h>
#include <lz4.h>
#include <zstd.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <new>
#include <string>
#include <vector>

#include "trdcomp/TrdCompData.h"
#include "trdcomp/trdcomp.hpp"
#include "trdcomp/TrdCompRecords.h"

namespace {

// ---- data ----

void Text(char* dst, std::size_t width, const std::string& s) {
    std::memset(dst, 0, width);
    std::memcpy(dst, s.data(), s.size() < width ? s.size() : width);
}

// A fixed linear congruential generator: the same data on every run and
// every machine, and the same raw array for every codec.
struct Lcg {
    std::uint32_t state;
    std::uint32_t Next() { return state = state * 1103515245u + 12345u; }
    // 0 .. n-1 from the high bits (the low bits of an LCG cycle quickly).
    std::uint32_t Below(std::uint32_t n) { return (Next() >> 8) % n; }
};

// A security's short name: two or three syllables, as listed on a board.
std::string Name(Lcg& r) {
    static const char* const kSyllables[] = {"HUA", "XIN", "ZHONG", "GUO", "TONG", "DA", "JIN", "HAI",
                                             "AN", "KE", "JI", "YUAN", "SHI", "YE", "DONG", "FANG"};
    std::string s;
    const int n = 2 + static_cast<int>(r.Below(2));
    for (int k = 0; k < n; ++k) s += kSyllables[r.Below(16)];
    return s;
}

// Quote snapshots of consecutive stock codes (a board sorted by code). Each
// stock has its own price level; the record holds, as doubles: previous
// close, open, high, low, last (2 decimals, within a few percent of each
// other), volume in round lots of 100, turnover, five bid and five ask
// levels one tick (0.01) apart around the last price, and the average
// price (3 decimals). Market '1', code, short name; the status text is
// empty on most stocks. Unused bytes are zero.
std::vector<char> Quotes(int n) {
    std::vector<char> out(sizeof(tagANS_1110) * static_cast<std::size_t>(n));
    Lcg r{20261122u};
    for (int i = 0; i < n; ++i) {
        tagANS_1110 q{};
        q.f0 = '1';
        Text(q.f1, sizeof q.f1, std::to_string(600000 + i));
        Text(q.f17, sizeof q.f17, Name(r));
        // Prices in ticks of 0.01.
        const int close = 300 + static_cast<int>(r.Below(6000));  // 3.00 .. 62.99
        const int swing = close / 50 + 1;                            // about 2 %
        auto near = [&](int base) { return base + static_cast<int>(r.Below(2 * swing + 1)) - swing; };
        const int open = near(close);
        const int last = near(open);
        const int high = std::max(open, last) + static_cast<int>(r.Below(swing + 1));
        const int low = std::min(open, last) - static_cast<int>(r.Below(swing + 1));
        const double lots = 100.0 * (100 + r.Below(200000));         // round lots
        const double avg = std::round((low + r.Below(high - low + 1) + r.Below(10) / 10.0) * 10.0) / 1000.0;
        double v[18];
        v[0] = close / 100.0;
        v[1] = open / 100.0;
        v[2] = high / 100.0;
        v[3] = low / 100.0;
        v[4] = last / 100.0;
        v[5] = lots;
        v[6] = std::round(lots * avg * 100.0) / 100.0;                // turnover, cents
        for (int k = 0; k < 5; ++k) {
            v[7 + k] = (last - k) / 100.0;                           // bids, best first
            v[12 + k] = (last + 1 + k) / 100.0;                      // asks, best first
        }
        v[17] = avg;
        std::memcpy(reinterpret_cast<char*>(&q) + 33, v, sizeof v);  // f33..f169, one after the other
        if (r.Below(20) == 0) Text(q.f177, sizeof q.f177, "HALTED");
        std::memcpy(out.data() + i * sizeof q, &q, sizeof q);
    }
    return out;
}

// Orders of one trading session as a branch front end sends them: a handful
// of accounts of one branch, the operator and station of the terminal, the
// date and a time of day that moves on by a few seconds, stock codes from a
// list, limit prices with 2 decimals carried as int (price * 1000), round-lot
// quantities, the side, the market, the order type, a client order number
// and short remarks. Unused bytes are zero.
std::vector<char> Orders(int n) {
    std::vector<char> out(sizeof(tagREQ_1011) * static_cast<std::size_t>(n));
    Lcg r{7011u};
    int seconds = 9 * 3600 + 30 * 60;
    for (int i = 0; i < n; ++i) {
        tagREQ_1011 o{};
        o.f0 = '1';
        Text(o.f1, sizeof o.f1, "3301");                                            // branch
        Text(o.f17, sizeof o.f17, "0330" + std::to_string(100200 + 17 * r.Below(8)));  // account
        Text(o.f33, sizeof o.f33, "OP0027");                                         // operator
        Text(o.f49, sizeof o.f49, "a7Kq2m");                                         // session key
        Text(o.f57, 12, "MAC00163E5A");                                              // station block
        Text(o.f121, sizeof o.f121, "10.18.4.27");
        o.f145 = 20261123;
        seconds += static_cast<int>(r.Below(6));
        o.f149 = (seconds / 3600) * 10000 + (seconds / 60 % 60) * 100 + seconds % 60;
        const bool sh = r.Below(2) == 0;
        const int code = sh ? 600000 + static_cast<int>(r.Below(1800)) : static_cast<int>(r.Below(3000)) + 1;
        char codeText[8];
        std::snprintf(codeText, sizeof codeText, "%06d", code);
        Text(o.f153, sizeof o.f153, codeText);
        Text(o.f165, sizeof o.f165, r.Below(4) == 0 ? "basket rebalance" : "");      // remark
        o.f193 = r.Below(2) ? 'B' : 'S';
        Text(o.f194, sizeof o.f194, sh ? "SH" : "SZ");
        Text(o.f210, sizeof o.f210, "0");                                            // limit order
        o.f218 = (300 + static_cast<int>(r.Below(6000))) * 10;                       // price * 1000
        o.f222 = 100 * (1 + static_cast<int>(r.Below(50)));                          // quantity
        o.f226 = '0';
        o.f227 = '1';
        o.f228 = '0';
        o.f229 = '0';
        Text(o.f230, sizeof o.f230, "CNY");
        Text(o.f238, sizeof o.f238, std::to_string(81000000 + i));                   // client order number
        std::memcpy(out.data() + i * sizeof o, &o, sizeof o);
    }
    return out;
}

// One account's orders of a day as the server logs them, by stock code and
// then time (request 1031, layout REQ_1030): the account, customer, trader,
// branch and station texts and a 64-byte session token of random bytes are
// the same in every record; the stock code and the side change between runs
// of 1 to 12 orders; the limit price (a text such as "12.34") moves every
// record, as do the quantity and the sequence number; the remark has 0 to 7
// characters. Unused bytes are zero.
std::vector<char> DayOrders(int n) {
    std::vector<char> out(sizeof(tagREQ_1030) * static_cast<std::size_t>(n));
    Lcg r{1031u};
    char token[64];
    for (char& b : token) b = static_cast<char>(r.Next() >> 24);
    int code = 600000, seq = 1, i = 0;
    while (i < n) {
        code += 1 + static_cast<int>(r.Below(40));
        const char side = r.Below(2) ? 'B' : 'S';
        int price = 300 + static_cast<int>(r.Below(6000));  // in cents
        const int run = 1 + static_cast<int>(r.Below(12));
        for (int k = 0; k < run && i < n; ++k, ++i) {
            tagREQ_1030 o{};
            o.f0 = '1';
            Text(o.f1, sizeof o.f1, "0330100217");       // account
            Text(o.f17, sizeof o.f17, "C000481236");     // customer
            Text(o.f33, sizeof o.f33, "TRD0042");        // trader
            Text(o.f49, sizeof o.f49, "3301");           // branch
            std::memcpy(o.f57, token, sizeof o.f57);     // session token
            Text(o.f121, sizeof o.f121, "WS-3301-017");  // station
            o.f145 = side;
            char text[16];
            std::snprintf(text, sizeof text, "%06d", code);
            Text(o.f146, sizeof o.f146, text);
            o.f162 = '1';
            price += static_cast<int>(r.Below(21)) - 10;
            if (price < 100) price = 100;
            std::snprintf(text, sizeof text, "%d.%02d", price / 100, price % 100);
            Text(o.f163, sizeof o.f163, text);
            o.f199 = 100 * (1 + static_cast<int>(r.Below(50)));  // quantity
            o.f203 = seq;                                         // sequence number
            seq += 1 + static_cast<int>(r.Below(3));
            static const char* const kRemarks[] = {"", "", "", "T0", "hedge", "rebal", "manual1"};
            Text(o.f212, sizeof o.f212, kRemarks[r.Below(7)]);
            std::memcpy(out.data() + i * sizeof o, &o, sizeof o);
        }
    }
    return out;
}

std::vector<char> Tiny(int n) {
    std::vector<char> out(sizeof(tagANS_1053) * static_cast<std::size_t>(n));
    for (int i = 0; i < n; ++i) {
        tagANS_1053 t{};
        t.f0 = 10.0 + i * 0.01;
        std::memcpy(out.data() + i * sizeof t, &t, sizeof t);
    }
    return out;
}

std::vector<char> Blocks(int n) {
    std::vector<char> out(sizeof(tagANS_8996) * static_cast<std::size_t>(n));
    for (int i = 0; i < n; ++i) {
        auto* b = reinterpret_cast<tagANS_8996*>(out.data() + i * sizeof(tagANS_8996));
        const int len = 2000 + 37 * i;
        for (int k = 0; k < len; ++k) b->f0[k] = static_cast<char>("settlement file line "[k % 21]);
        std::memcpy(&b->f32768, &len, 4);
        Text(b->f32772, sizeof b->f32772, "file.txt");
    }
    return out;
}

struct Scenario {
    const char* name;
    int id;
    bool request;
    int size;
    std::vector<char> (*make)(int);
};

const Scenario kScenarios[] = {
    {"quote", 1110, false, sizeof(tagANS_1110), Quotes},
    {"order", 1011, true, sizeof(tagREQ_1011), Orders},
    {"dayorder", 1031, true, sizeof(tagREQ_1030), DayOrders},
    {"tiny", 1053, false, sizeof(tagANS_1053), Tiny},
    {"block", 8996, false, sizeof(tagANS_8996), Blocks},
};

// ---- packing and restoring through the classic interface ----

struct Message {
    std::vector<char> raw, out;
    int len = 0;
};

int Pack(const Scenario& s, Message& m, int n, int coding) {
    if (s.request) {
        tagREQ_HEAD head{};
        head.nFuncId = s.id;
        head.nFlags = coding;
        head.nRecCount = n;
        head.nRecSize = s.size;
        CTrdCompData::PackReq2008(m.out.data(), m.len, &head, m.raw.data(), static_cast<int>(m.raw.size()), 0);
    } else {
        tagANS_Proc proc{};
        proc.nFuncId = s.id;
        proc.nArrayCount = 1;
        proc.nRecCount[0] = n;
        proc.nRecSize[0] = s.size;
        CTrdCompData::PackAns2008(m.out.data(), static_cast<int>(m.out.size()), m.len, &proc, m.raw.data(), nullptr,
                                  nullptr, nullptr, nullptr, 0, coding);
    }
    return m.len;
}

int Restore(const Scenario& s, char* in, int len) {
    char* out = nullptr;
    int outLen = 0;
    const int rc = s.request ? CTrdCompData::RestoreReq2008(in, len, &out, outLen, 0)
                             : CTrdCompData::RestoreAns2008(in, len, &out, outLen, 0);
    benchmark::DoNotOptimize(out);
    CTrdCompData::ReleaseAnsData(out);
    return rc;
}

void Report(benchmark::State& state, int n, std::size_t rawBytes, double wire) {
    state.counters["ns_per_record"] = benchmark::Counter(static_cast<double>(n) * static_cast<double>(state.iterations()),
                                                         benchmark::Counter::kIsRate | benchmark::Counter::kInvert);
    state.SetBytesProcessed(static_cast<std::int64_t>(rawBytes) * state.iterations());
    state.counters["wire_ratio"] = wire / static_cast<double>(rawBytes);
}

Message Prepared(const Scenario& s, int n) {
    Message m;
    m.raw = s.make(n);
    m.out.assign(m.raw.size() * 2 + 4096, 0);
    return m;
}

void BM_Pack(benchmark::State& state, const Scenario* s, int coding) {
    const int n = static_cast<int>(state.range(0));
    Message m = Prepared(*s, n);
    for (auto _ : state) {
        std::memset(m.out.data() + 8, 0, 4);  // a zero flags word, as callers hand in
        benchmark::DoNotOptimize(Pack(*s, m, n, coding));
    }
    Report(state, n, m.raw.size(), m.len);
}

void BM_Restore(benchmark::State& state, const Scenario* s, int coding) {
    const int n = static_cast<int>(state.range(0));
    Message m = Prepared(*s, n);
    Pack(*s, m, n, coding);
    if (Restore(*s, m.out.data(), m.len) != 1) state.SkipWithError("the message does not restore");
    for (auto _ : state) benchmark::DoNotOptimize(Restore(*s, m.out.data(), m.len));
    Report(state, n, m.raw.size(), m.len);
}

void BM_Memcpy(benchmark::State& state, const Scenario* s) {
    const int n = static_cast<int>(state.range(0));
    Message m = Prepared(*s, n);
    for (auto _ : state) {
        std::memcpy(m.out.data(), m.raw.data(), m.raw.size());
        benchmark::ClobberMemory();
    }
    Report(state, n, m.raw.size(), static_cast<double>(m.raw.size()));
}

void BM_Lz4(benchmark::State& state, const Scenario* s, bool compress) {
    const int n = static_cast<int>(state.range(0));
    Message m = Prepared(*s, n);
    std::vector<char> packed(static_cast<std::size_t>(LZ4_compressBound(static_cast<int>(m.raw.size()))));
    const int packedLen = LZ4_compress_default(m.raw.data(), packed.data(), static_cast<int>(m.raw.size()),
                                               static_cast<int>(packed.size()));
    std::vector<char> back(m.raw.size());
    for (auto _ : state) {
        if (compress)
            benchmark::DoNotOptimize(LZ4_compress_default(m.raw.data(), packed.data(), static_cast<int>(m.raw.size()),
                                                          static_cast<int>(packed.size())));
        else
            benchmark::DoNotOptimize(LZ4_decompress_safe(packed.data(), back.data(), packedLen, static_cast<int>(back.size())));
    }
    Report(state, n, m.raw.size(), packedLen);
}

void BM_Zstd(benchmark::State& state, const Scenario* s, bool compress) {
    const int n = static_cast<int>(state.range(0));
    Message m = Prepared(*s, n);
    std::vector<char> packed(ZSTD_compressBound(m.raw.size()));
    ZSTD_CCtx* cctx = ZSTD_createCCtx();
    ZSTD_DCtx* dctx = ZSTD_createDCtx();
    const std::size_t packedLen = ZSTD_compressCCtx(cctx, packed.data(), packed.size(), m.raw.data(), m.raw.size(), 1);
    std::vector<char> back(m.raw.size());
    for (auto _ : state) {
        if (compress)
            benchmark::DoNotOptimize(ZSTD_compressCCtx(cctx, packed.data(), packed.size(), m.raw.data(), m.raw.size(), 1));
        else
            benchmark::DoNotOptimize(ZSTD_decompressDCtx(dctx, back.data(), back.size(), packed.data(), packedLen));
    }
    ZSTD_freeCCtx(cctx);
    ZSTD_freeDCtx(dctx);
    Report(state, n, m.raw.size(), static_cast<double>(packedLen));
}

// The routing alone: a one-record message of the tiny layout, packed and restored.
void BM_DispatchTiny(benchmark::State& state, int coding) {
    const Scenario& s = *std::find_if(std::begin(kScenarios), std::end(kScenarios),
                                      [](const Scenario& c) { return std::strcmp(c.name, "tiny") == 0; });
    Message m = Prepared(s, 1);
    for (auto _ : state) {
        std::memset(m.out.data() + 8, 0, 4);
        Pack(s, m, 1, coding);
        benchmark::DoNotOptimize(Restore(s, m.out.data(), m.len));
    }
    state.counters["ns_per_message"] =
        benchmark::Counter(static_cast<double>(state.iterations()), benchmark::Counter::kIsRate | benchmark::Counter::kInvert);
}

// The one-record request of the hot path, packed once into `wire`.
struct HotRequest {
    std::vector<char> record, wire = std::vector<char>(4096), block;
    tagREQ_HEAD head{};
    int len = 0;
    HotRequest(int id, int coding) {
        if (id == 8996) {
            record.assign(sizeof(tagREQ_8996), 0);
            std::memcpy(record.data(), "ORD-20261123-042", 16);
        } else if (id == 1002) {
            // An order of the front end: side, market, type, account, order
            // reference and security.
            tagREQ_1002 o{};
            o.f0 = '1';
            o.f1 = 'B';
            o.f2 = '0';
            Text(o.f3, sizeof o.f3, "0330100217");
            Text(o.f35, sizeof o.f35, "ORD-20261125-000042");
            Text(o.f59, sizeof o.f59, "600519");
            record.assign(reinterpret_cast<const char*>(&o), reinterpret_cast<const char*>(&o) + sizeof o);
        } else {
            record = Orders(1);
        }
        head.nHeadLen = TRDCOMP_REQ_HEAD_LEN;
        head.nFuncId = id;
        head.nFlags = coding;
        head.nRecCount = 1;
        head.nRecSize = static_cast<int>(record.size());
        Pack();
        block.resize(trdcomp::RestoredSize({wire.data(), static_cast<std::size_t>(len)}));
    }
    void Pack() {
        CTrdCompData::PackReq2008(wire.data(), len, &head, record.data(), static_cast<int>(record.size()), 0);
    }
    void RestoreClassic() {
        char* out = nullptr;
        int outLen = 0;
        benchmark::DoNotOptimize(CTrdCompData::RestoreReq2008(wire.data(), len, &out, outLen, 0));
        benchmark::DoNotOptimize(out);
        CTrdCompData::ReleaseAnsData(out);
    }
    void RestoreInto() {
        const trdcomp::RestoredView v = trdcomp::RestoreRequestInto(block, {wire.data(), static_cast<std::size_t>(len)});
        benchmark::DoNotOptimize(v.Data());
    }
};

// The hot path of a front end: a one-record request packed, then restored
// either by the classic restore (a new zeroed block, released again) or
// into the caller's block by RestoreInto. Request 8996 has one 16-byte text
// a record; the order request 1011 is 274 bytes.
// mode 0: pack + classic restore, 1: pack + RestoreInto; 2, 3, 4: the pack,
// the classic restore, RestoreInto alone.
void BM_HotPath(benchmark::State& state, int id, int coding, int mode) {
    HotRequest r(id, coding);
    if (r.block.empty()) state.SkipWithError("the request does not restore");
    const bool pack = mode <= 2, into = mode == 1 || mode == 4;
    for (auto _ : state) {
        if (pack) r.Pack();
        if (mode == 2) {
            benchmark::DoNotOptimize(r.wire.data());
        } else if (into) {
            r.RestoreInto();
        } else {
            r.RestoreClassic();
        }
    }
    state.counters["ns_per_message"] =
        benchmark::Counter(static_cast<double>(state.iterations()), benchmark::Counter::kIsRate | benchmark::Counter::kInvert);
}

// Blocks of `first` and of `second` alternate, each block timed on its own,
// so that a change of the machine's speed during the run falls on both alike.
// Counters: ns a message of each (named as given) and their ratio
// (second / first).
template <class First, class Second>
void Paired(benchmark::State& state, const char* firstName, const First& first, const char* secondName,
            const Second& second, int block = 256) {
    using Clock = std::chrono::steady_clock;
    double a = 0, b = 0;
    std::int64_t blocks = 0;
    for (auto _ : state) {
        const auto t0 = Clock::now();
        for (int k = 0; k < block; ++k) first();
        const auto t1 = Clock::now();
        for (int k = 0; k < block; ++k) second();
        const auto t2 = Clock::now();
        a += std::chrono::duration<double>(t1 - t0).count();
        b += std::chrono::duration<double>(t2 - t1).count();
        state.SetIterationTime(std::chrono::duration<double>(t2 - t0).count());
        ++blocks;
    }
    const double messages = static_cast<double>(blocks) * block;
    state.counters[firstName] = messages > 0 ? a / messages * 1e9 : 0;
    state.counters[secondName] = messages > 0 ? b / messages * 1e9 : 0;
    state.counters["ratio"] = a > 0 ? b / a : 0;
}

// Both pipelines of the hot path: pack + classic restore and release against
// pack + RestoreInto.
void BM_HotPathPaired(benchmark::State& state, int id, int coding) {
    HotRequest r(id, coding);
    if (r.block.empty()) state.SkipWithError("the request does not restore");
    Paired(
        state, "classic_ns",
        [&] {
            r.Pack();
            r.RestoreClassic();
        },
        "into_ns",
        [&] {
            r.Pack();
            r.RestoreInto();
        });
}

// The modern PackRequest against the classic PackReq2008 it stands beside,
// on the same one-record order.
void BM_PackPaired(benchmark::State& state, int id, int coding) {
    HotRequest r(id, coding);
    const trdcomp::Coding c = coding ? trdcomp::Coding::Fast(coding >> TRDCOMP_FLAG_FAST_SHIFT) : trdcomp::Coding::C2008();
    const trdcomp::span<const char> record(r.record.data(), r.record.size());
    const trdcomp::span<char> out(r.wire.data(), r.wire.size());
    Paired(
        state, "classic_ns",
        [&] {
            r.Pack();
            benchmark::DoNotOptimize(r.wire.data());
        },
        "modern_ns", [&] { benchmark::DoNotOptimize(trdcomp::PackRequest(out, r.head, record, c)); });
}

// A codec against LZ4 on the same 1000 records, paired: blocks of LZ4's
// compress (or decompress) and of the codec's classic pack (or restore and
// release) alternate, so that the ratio (codec / LZ4) holds when the
// machine's speed moves during the run.
void BM_AgainstLz4(benchmark::State& state, const Scenario* s, int coding, bool restore) {
    constexpr int n = 1000;
    Message m = Prepared(*s, n);
    Pack(*s, m, n, coding);
    if (Restore(*s, m.out.data(), m.len) != 1) state.SkipWithError("the message does not restore");
    std::vector<char> packed(static_cast<std::size_t>(LZ4_compressBound(static_cast<int>(m.raw.size()))));
    const int packedLen = LZ4_compress_default(m.raw.data(), packed.data(), static_cast<int>(m.raw.size()),
                                               static_cast<int>(packed.size()));
    std::vector<char> back(m.raw.size());
    auto lz4 = [&] {
        if (restore)
            benchmark::DoNotOptimize(LZ4_decompress_safe(packed.data(), back.data(), packedLen, static_cast<int>(back.size())));
        else
            benchmark::DoNotOptimize(LZ4_compress_default(m.raw.data(), packed.data(), static_cast<int>(m.raw.size()),
                                                          static_cast<int>(packed.size())));
    };
    auto codec = [&] {
        if (restore) {
            benchmark::DoNotOptimize(Restore(*s, m.out.data(), m.len));
        } else {
            std::memset(m.out.data() + 8, 0, 4);  // a zero flags word, as callers hand in
            benchmark::DoNotOptimize(Pack(*s, m, n, coding));
        }
    };
    Paired(state, "lz4_ns", lz4, "codec_ns", codec, 4);
}

// What every restore pays before decoding: one allocation and its zero fill.
void BM_RestoreAllocation(benchmark::State& state) {
    const std::size_t bytes = static_cast<std::size_t>(state.range(0));
    for (auto _ : state) {
        void* p = ::operator new(bytes, std::nothrow);
        std::memset(p, 0, bytes);
        benchmark::DoNotOptimize(p);
        ::operator delete(p);
    }
    state.SetBytesProcessed(static_cast<std::int64_t>(bytes) * state.iterations());
}

void Register() {
    for (const Scenario& s : kScenarios) {
        const std::string base = s.name;
        const int maxRecords = s.size > 4096 ? 100 : 1000;
        auto args = [maxRecords](benchmark::internal::Benchmark* b) {
            for (int n = 1; n <= maxRecords; n *= 10) b->Arg(n);
        };
        args(benchmark::RegisterBenchmark(("pack/fast/" + base).c_str(), BM_Pack, &s, 0x10));
        args(benchmark::RegisterBenchmark(("restore/fast/" + base).c_str(), BM_Restore, &s, 0x10));
        args(benchmark::RegisterBenchmark(("pack/2008/" + base).c_str(), BM_Pack, &s, 0));
        args(benchmark::RegisterBenchmark(("restore/2008/" + base).c_str(), BM_Restore, &s, 0));
        args(benchmark::RegisterBenchmark(("copy/memcpy/" + base).c_str(), BM_Memcpy, &s));
        args(benchmark::RegisterBenchmark(("pack/lz4/" + base).c_str(), BM_Lz4, &s, true));
        args(benchmark::RegisterBenchmark(("restore/lz4/" + base).c_str(), BM_Lz4, &s, false));
        args(benchmark::RegisterBenchmark(("pack/zstd1/" + base).c_str(), BM_Zstd, &s, true));
        args(benchmark::RegisterBenchmark(("restore/zstd1/" + base).c_str(), BM_Zstd, &s, false));
    }
    benchmark::RegisterBenchmark("dispatch/fast/tiny", BM_DispatchTiny, 0x10);
    benchmark::RegisterBenchmark("dispatch/2008/tiny", BM_DispatchTiny, 0);
    const char* const modes[] = {"classic", "restore-into", "pack-only", "classic-restore-only", "restore-into-only"};
    for (const int id : {8996, 1002, 1011})
        for (const int coding : {0x10, 0})
            for (int mode = 0; mode < 5; ++mode)
                benchmark::RegisterBenchmark(("hotpath/" + std::string(coding ? "fast" : "2008") + "/request" +
                                              std::to_string(id) + "/" + modes[mode])
                                                 .c_str(),
                                             BM_HotPath, id, coding, mode);
    for (const int id : {8996, 1002})
        for (const int coding : {0x10, 0})
            benchmark::RegisterBenchmark(("hotpath/" + std::string(coding ? "fast" : "2008") + "/request" +
                                          std::to_string(id) + "/paired")
                                             .c_str(),
                                         BM_HotPathPaired, id, coding)
                ->UseManualTime();
    for (const int coding : {0x10, 0})
        benchmark::RegisterBenchmark(("modern-pack/" + std::string(coding ? "fast" : "2008") + "/request1002/paired").c_str(),
                                     BM_PackPaired, 1002, coding)
            ->UseManualTime();
    for (const Scenario& s : kScenarios) {
        const std::string name = s.name;
        if (name != "quote" && name != "dayorder" && name != "order") continue;
        for (const bool restore : {true, false})
            for (const int coding : {0x10, 0})
                benchmark::RegisterBenchmark(("against-lz4/" + std::string(restore ? "restore/" : "pack/") +
                                              (coding ? "fast/" : "2008/") + name + "/paired")
                                                 .c_str(),
                                             BM_AgainstLz4, &s, coding, restore)
                    ->UseManualTime();
    }
    benchmark::RegisterBenchmark("allocation/zero-fill", BM_RestoreAllocation)->Arg(96 + 10)->Arg(96 + 1000 * 193 + 10);
}

}  // namespace

int main(int argc, char** argv) {
    Register();
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}

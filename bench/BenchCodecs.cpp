// Speed and wire size of both codings, through the classic interface, beside
// memcpy, LZ4 and zstd (level 1) of the same raw record arrays.
//
// Scenarios (deterministic, realistic data):
//   quote   answer 1110: 193-byte quote records, 18 doubles, sorted by code
//   order   request 1011: 274-byte order records, texts and ints
//   tiny    answer 1053: one double a record
//   block   answer 8996: a 32 KB block with its length and a text
// Counters: ns_per_record, bytes_per_second (raw bytes), wire_ratio
// (coded bytes / raw bytes).
#include <benchmark/benchmark.h>
#include <lz4.h>
#include <zstd.h>

#include <cstdio>
#include <cstring>
#include <new>
#include <string>
#include <vector>

#include "trdcomp/TrdCompData.h"
#include "trdcomp/TrdCompRecords.h"

namespace {

// ---- data ----

void Text(char* dst, std::size_t width, const std::string& s) {
    std::memset(dst, 0, width);
    std::memcpy(dst, s.data(), s.size() < width ? s.size() : width);
}

std::vector<char> Quotes(int n) {
    std::vector<char> out(sizeof(tagANS_1110) * static_cast<std::size_t>(n));
    unsigned seed = 12345;
    auto next = [&] { return seed = seed * 1103515245u + 12345u; };
    for (int i = 0; i < n; ++i) {
        tagANS_1110 q{};
        q.f0 = '1';
        Text(q.f1, sizeof q.f1, std::to_string(600000 + 3 * i));
        Text(q.f17, sizeof q.f17, "STOCK" + std::to_string(i % 97));
        const double base = 5.0 + (next() % 5000) / 100.0;
        double values[18];
        values[0] = base;                                   // last close
        values[1] = base + ((next() % 21) - 10) / 100.0;    // open
        values[2] = values[1] + (next() % 30) / 100.0;      // high
        values[3] = values[1] - (next() % 30) / 100.0;      // low
        values[4] = values[1] + ((next() % 21) - 10) / 100.0;  // last
        values[5] = static_cast<double>(next() % 5000000);     // volume
        values[6] = values[5] * values[4];                  // turnover
        for (int k = 7; k < 18; ++k) values[k] = values[4] + ((k % 2) ? 1 : -1) * (k - 6) / 100.0;
        std::memcpy(reinterpret_cast<char*>(&q) + 33, values, sizeof values);  // f33..f169, one after the other
        Text(q.f177, sizeof q.f177, (i % 3) ? "" : "SUSPENDED");
        std::memcpy(out.data() + i * sizeof q, &q, sizeof q);
    }
    return out;
}

std::vector<char> Orders(int n) {
    std::vector<char> out(sizeof(tagREQ_1011) * static_cast<std::size_t>(n));
    for (int i = 0; i < n; ++i) {
        tagREQ_1011 o{};
        o.f0 = 'N';
        Text(o.f1, sizeof o.f1, "BRANCH01");
        Text(o.f17, sizeof o.f17, "ACCT" + std::to_string(100000 + i % 7));
        Text(o.f33, sizeof o.f33, "TRADER7");
        Text(o.f49, sizeof o.f49, "PWD");
        Text(o.f121, sizeof o.f121, "10.1.2.3");
        o.f145 = 20261122;
        o.f149 = 93000 + i;
        Text(o.f153, sizeof o.f153, std::to_string(600000 + (i * 7) % 900));
        Text(o.f165, sizeof o.f165, "ORDER REF " + std::to_string(i));
        o.f193 = (i % 2) ? 'B' : 'S';
        Text(o.f194, sizeof o.f194, "SHA");
        Text(o.f210, sizeof o.f210, "LIMIT");
        o.f218 = 100 * (1 + i % 50);
        o.f222 = 1000 + i % 300;
        o.f226 = '0';
        o.f227 = '1';
        o.f228 = '0';
        o.f229 = '0';
        std::memcpy(out.data() + i * sizeof o, &o, sizeof o);
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
    const Scenario& s = kScenarios[2];
    Message m = Prepared(s, 1);
    for (auto _ : state) {
        std::memset(m.out.data() + 8, 0, 4);
        Pack(s, m, 1, coding);
        benchmark::DoNotOptimize(Restore(s, m.out.data(), m.len));
    }
    state.counters["ns_per_message"] =
        benchmark::Counter(static_cast<double>(state.iterations()), benchmark::Counter::kIsRate | benchmark::Counter::kInvert);
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

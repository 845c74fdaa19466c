// The library keeps no state: many threads packing and restoring different
// messages at once get exactly the bytes a single thread gets. Run under
// ThreadSanitizer in CI.
#include <gtest/gtest.h>

#include <atomic>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "model/CatalogueModel.h"
#include "support/Messages.h"

using namespace testmsg;
using catalogue_model::Get;

namespace {

struct Sample {
    int id;
    int flags;
    int count;
    int size;
    std::vector<char> data;
    std::vector<char> wire;      // reference, packed by one thread
    std::vector<char> restored;  // reference restore
};

std::vector<char> Pack(const Sample& s) {
    tagREQ_HEAD head = ReqHead(s.id, s.flags, s.count, s.size);
    std::vector<char> out(1 << 16);
    int len = 0;
    CTrdCompData::PackReq2008(out.data(), len, &head, const_cast<char*>(s.data.data()), static_cast<int>(s.data.size()), 0);
    out.resize(static_cast<std::size_t>(len));
    return out;
}

std::vector<char> Restore(const std::vector<char>& wire) {
    char* p = nullptr;
    int len = 0;
    std::vector<char> copy = wire;
    CTrdCompData::RestoreReq2008(copy.data(), static_cast<int>(copy.size()), &p, len, 0);
    std::vector<char> out = p ? std::vector<char>(p, p + len) : std::vector<char>();
    CTrdCompData::ReleaseAnsData(p);
    return out;
}

}  // namespace

TEST(Concurrency, ManyThreadsGetTheBytesOneThreadGets) {
    const auto& c = Get();
    std::mt19937 rng(7);
    std::vector<Sample> samples;
    for (const auto& route : c.requestRoutes) {
        for (int flags : {0, 0x10}) {
            const std::string& cell = route.cell[flags ? 1 : 0];
            if (cell.empty() || cell[0] < '0' || cell[0] > '9') continue;
            const auto& layout = c.At(c.requestLayoutOf.at(std::stoi(cell)));
            if (layout.size > 4096) continue;
            Sample s{route.id, flags, 4, layout.size, {}, {}, {}};
            for (int i = 0; i < s.count; ++i) {
                auto r = catalogue_model::MakeRecord(layout, rng);
                s.data.insert(s.data.end(), r.begin(), r.end());
            }
            s.wire = Pack(s);
            s.restored = Restore(s.wire);
            samples.push_back(std::move(s));
        }
    }
    ASSERT_GT(samples.size(), 100u);

    const unsigned threads = 8;
    std::atomic<int> mismatches{0};
    std::vector<std::thread> pool;
    for (unsigned t = 0; t < threads; ++t) {
        pool.emplace_back([&, t] {
            for (int round = 0; round < 3; ++round)
                for (std::size_t i = t; i < samples.size(); i += 3) {
                    const Sample& s = samples[(i + round * 17) % samples.size()];
                    if (Pack(s) != s.wire || Restore(s.wire) != s.restored) ++mismatches;
                }
        });
    }
    for (auto& th : pool) th.join();
    EXPECT_EQ(mismatches.load(), 0);
}

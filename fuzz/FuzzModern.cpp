// Fuzz target: the modern interface and the classic members on any bytes. Byte 0 chooses the options (strict, a
// byte limit, a record limit, the 2008 flag), byte 1 the direction and how to pack; the rest is a message, in a heap
// block of exactly its size so that AddressSanitizer sees any read past it. Checked on every input:
//   - the classic restore (RestoreReq2008 or RestoreAns2008 by the direction) hands back outLen readable bytes, and
//     the modern restore without limits or strict mode takes no message the classic one refuses and gives the same
//     bytes (it refuses more: negative counts);
//   - MessageLength reads only the message;
//   - a refusal always names its reason, and Errc is that reason's class;
//   - RestoredSize, the owning restore and RestoreInto agree: a message the owning restore takes restores into a
//     block of exactly RestoredSize bytes to the same bytes (strict included), one byte less is too small and
//     nothing is written past the block;
//   - sections and records lie inside the restored bytes, and the limits hold;
//   - the message's bytes packed as the records of a routed function id (a request, an answer of 1 to 3 arrays)
//     stay inside the caller's capacity, are the bytes the classic packer writes inside the size bound, and
//     restore again unless their description disagrees with the records.
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <memory>
#include <vector>

#include "CatalogueTables.h"
#include "Bytes.h"
#include "trdcomp/trdcomp.hpp"

namespace {

// A failed check names itself before it stops the fuzzer.
#define Check(ok) \
    ((ok) ? void() : (std::fprintf(stderr, "check failed, line %d: %s\n", __LINE__, #ok), __builtin_trap()))

void CheckWhy(trdcomp::Errc e, trdcomp::Reason why) {
    Check(trdcomp::ErrcOf(why) == e);
    Check(std::strcmp(trdcomp::Message(why), "unknown reason") != 0);
}

void CheckView(const trdcomp::RestoredView& v, const trdcomp::RestoreOptions& o) {
    CheckWhy(v.Error(), v.Why());
    if (!v) return;
    Check(v.Size() <= o.maxBytes);
    std::size_t records = 0;
    for (int j = -1; j <= 5; ++j) {
        const auto s = v.GetSection(j);
        if (s.data == nullptr) continue;
        Check(j >= 0 && j < v.Sections());
        const std::size_t count = s.count > 0 ? static_cast<std::size_t>(s.count) : 0;
        Check(s.data >= v.Data() && s.data + count * static_cast<std::size_t>(s.size) <= v.Data() + v.Size());
        records += count;
        trdcomp::Reason why = trdcomp::Reason::none;
        const auto r = v.Records<tagANS_1019>(j, &why);
        Check(r.empty() || (why == trdcomp::Reason::none && r.size() == count));
    }
    Check(records <= o.maxRecords);
}

// What every packing keeps: a refusal names its reason, nothing is written
// past the capacity (the guard byte behind it), and a message too big for it
// is refused with the size it needs. True when it packed.
bool Packed(const trdcomp::PackResult& p, const std::vector<char>& out, std::size_t capacity) {
    CheckWhy(p.error, p.reason);
    Check(out[capacity] == 0x5A && (p.error != trdcomp::Errc::buffer_too_small || p.needed > capacity));
    Check(!p || p.size <= capacity);
    return static_cast<bool>(p);
}

// A message the library packed restores, unless its description disagrees
// with what was packed: a head stating more records than the data held (the
// packer codes those that lie inside it), or an answer whose array count is
// not the one its id's codec codes (no section table where one is read).
bool Restores(const trdcomp::Restored& r) {
    return r || r.Why() == trdcomp::Reason::count_past_message || r.Why() == trdcomp::Reason::section_table_invalid;
}

// A heap block of exactly n bytes (one when n is 0, for an address).
std::unique_ptr<char[]> Block(std::size_t n) { return std::unique_ptr<char[]>(new char[n ? n : 1]); }

bool Same(const char* a, std::size_t n, const char* b, std::size_t m) {
    return n == m && (n == 0 || std::memcmp(a, b, n) == 0);
}

// Every routed function id, from the catalogue's routing tables.
const std::vector<int> kIds = [] {
    std::vector<int> ids;
    for (const auto& r : trdcomp::generated::kCatalogueRequestRoutes) ids.push_back(r.id);
    for (const auto& r : trdcomp::generated::kCatalogueAnswerRoutes) ids.push_back(r.id);
    return ids;
}();

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size < 2) return 0;
    trdcomp::RestoreOptions o;
    o.strict = data[0] & 1;
    o.flag = static_cast<char>((data[0] >> 1) & 3);  // the 2008 codecs tell 0, 1 and any other flag apart
    if (data[0] & 8) o.maxBytes = 64u << (data[0] >> 4);
    if (data[0] & 0x40) o.maxRecords = data[1] & 7;
    const bool request = data[1] & 0x80;
    const std::size_t n = size - 2;
    const auto msg = Block(n);
    std::memcpy(msg.get(), data + 2, n);
    const trdcomp::span<const char> in(msg.get(), n);

    // The classic restore and the modern one under the classic's leniency (no
    // strict mode, no limits). Comparing the two reads all outLen bytes of the
    // restored buffer (AddressSanitizer checks the whole range a memcmp reads).
    char* out = nullptr;
    int outLen = 0;
    const auto classicRestore = request ? CTrdCompData::RestoreReq2008 : CTrdCompData::RestoreAns2008;
    const int rc = classicRestore(msg.get(), static_cast<int>(n), &out, outLen, o.flag);
    const trdcomp::RestoreOptions lenient{o.flag};
    const trdcomp::Restored m = request ? trdcomp::RestoreRequest(in, lenient) : trdcomp::RestoreAnswer(in, lenient);
    if (rc != 1) Check(!m);
    if (m) Check(rc == 1 && Same(m.Data(), m.Size(), out, out && outLen > 0 ? static_cast<std::size_t>(outLen) : 0));
    CTrdCompData::ReleaseAnsData(out);
    const std::size_t need = trdcomp::detail::RestoredBytes(request, msg.get(), n, o);
    const auto block = Block(need);
    static_cast<void>(trdcomp::MessageLength(msg.get(), n));

    // The modern restores, in a call scope of the options.
    const trdcomp::Restored r = request ? trdcomp::RestoreRequest(in, o) : trdcomp::RestoreAnswer(in, o);
    CheckView(r, o);
    if (r.Error() == trdcomp::Errc::limit_exceeded) Check(r.Needed() > o.maxBytes || o.maxRecords != std::size_t(-1));
    const auto restoreInto = [&](char* dst, std::size_t cap) {
        return request ? trdcomp::RestoreRequestInto({dst, cap}, in, o) : trdcomp::RestoreAnswerInto({dst, cap}, in, o);
    };
    if (r) {
        const trdcomp::RestoredView v = restoreInto(block.get(), need);
        CheckView(v, o);
        Check(static_cast<bool>(v) && Same(v.Data(), v.Size(), r.Data(), r.Size()));
        if (need > 0) {
            const auto shorter = Block(need);
            shorter[need - 1] = 0x5A;
            const trdcomp::RestoredView s = restoreInto(shorter.get(), need - 1);
            Check(s.Error() == trdcomp::Errc::buffer_too_small && s.Needed() == need && shorter[need - 1] == 0x5A);
        }
    }

    // The message's bytes as records of a routed id (picked by the message's
    // id word), of a size around the layouts' (most are below 700 bytes), as
    // many as the bytes hold.
    const int id = kIds[static_cast<std::uint32_t>(n >= 8 ? trdcomp::detail::LoadI32(msg.get() + 4) : 0) % kIds.size()];
    const int recordSize = 1 + static_cast<int>(((n ? static_cast<unsigned char>(msg[0]) : 0u) * 131u + n) % 700u);
    const int count = static_cast<int>(n / static_cast<std::size_t>(recordSize));
    trdcomp::Coding c = (data[1] & 0x40) ? trdcomp::Coding::Fast(1 + (data[0] & 0xF)) : trdcomp::Coding::C2008(o.flag);
    if ((data[0] & 0x30) == 0x30) c.fastVersion = 16;  // refused
    c.strict = o.strict;
    const bool shortOfRoom = data[1] & 0x20;  // a capacity of n / 2 instead of the size bound
    // The modern packers run the classic ones in a call scope, with a
    // capacity: wherever a modern packer succeeds, the classic one given the
    // same arguments (the coding bits in the flags, a zeroed buffer of the
    // size bound) writes the same bytes. The modern ones refuse more (strict
    // mode, the capacity, an invalid coding), so the two are compared where
    // the modern one packed.

    tagREQ_HEAD head{.nFuncId = id, .nFlags = c.fastVersion << TRDCOMP_FLAG_FAST_SHIFT, .nRecCount = count,
                     .nRecSize = recordSize};
    const std::uint64_t bound = trdcomp::RequestSizeBound(head, n, c);
    const std::size_t capacity = shortOfRoom ? n / 2 : static_cast<std::size_t>(bound);
    std::vector<char> req(capacity + 1, 0x5A);
    const trdcomp::PackResult p = trdcomp::PackRequest({req.data(), capacity}, head, in, c);
    if (Packed(p, req, capacity)) {
        Check(Restores(trdcomp::RestoreRequest({req.data(), p.size}, o.flag)));
        std::vector<char> wire(bound, 0);
        int wireLen = 0;
        Check(CTrdCompData::PackReq2008(wire.data(), wireLen, &head, msg.get(), static_cast<int>(n), c.flag) == 1);
        Check(Same(wire.data(), static_cast<std::size_t>(wireLen), req.data(), p.size));
    }

    // An answer of 1 to 3 arrays: all the records, then half of them (twice).
    tagANS_Proc proc{.nFuncId = id, .nArrayCount = 1 + (data[1] & 3) % 3};
    const trdcomp::Array arrays[] = {{msg.get(), count, recordSize}, {msg.get(), count / 2, recordSize},
                                     {msg.get(), count / 2, recordSize}};
    char* a[5] = {};
    for (int j = 0; j < proc.nArrayCount; ++j) {
        a[j] = msg.get();
        proc.nRecCount[j] = arrays[j].count;
        proc.nRecSize[j] = arrays[j].size;
    }
    const std::uint64_t ansBound = trdcomp::AnswerSizeBound(proc, c);
    const std::size_t ansCapacity = shortOfRoom ? n / 2 : static_cast<std::size_t>(ansBound);
    std::vector<char> ans(ansCapacity + 1, 0x5A);
    const trdcomp::PackResult pa =
        trdcomp::PackAnswer({ans.data(), ansCapacity}, proc, {arrays, static_cast<std::size_t>(proc.nArrayCount)}, c);
    if (Packed(pa, ans, ansCapacity)) {
        // A raw answer of several arrays in the Fast coding carries no section
        // table: its restore reads records as one. A 2008 answer of one array
        // carries none either: a codec of several sections reads the first
        // record's bytes as its table, with whatever counts (negative too).
        const trdcomp::Restored back = trdcomp::RestoreAnswer({ans.data(), pa.size}, o.flag);
        const bool oneArray = proc.nArrayCount == 1;
        if (!c.IsFast() || (ans[8] & TRDCOMP_FLAG_CODED) || oneArray)
            Check(Restores(back) || (!c.IsFast() && oneArray && back.Why() == trdcomp::Reason::negative_count));
        std::vector<char> wire(ansBound, 0);
        int wireLen = 0;
        CTrdCompData::PackAns2008(wire.data(), static_cast<int>(ansBound), wireLen, &proc, a[0], a[1], a[2], a[3], a[4],
                                  c.flag, c.fastVersion << TRDCOMP_FLAG_FAST_SHIFT);
        Check(Same(wire.data(), static_cast<std::size_t>(wireLen), ans.data(), pa.size));
    }
    return 0;
}

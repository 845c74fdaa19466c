// Fuzz target: the modern interface on any bytes. Byte 0 chooses the options
// (strict, a byte limit, a record limit, the 2008 flag), byte 1 the direction
// and a pack coding; the rest is a message. Checked on every input:
//   - a refusal always names its reason, and Errc is that reason's class;
//   - RestoredSize, the owning restore and RestoreInto agree: a message the
//     owning restore takes restores into a block of exactly RestoredSize
//     bytes to the same bytes (strict included), one byte less is too small
//     and nothing is written past the block;
//   - sections and records lie inside the restored bytes;
//   - the limits hold (never more bytes or records than allowed);
//   - the same bytes packed as records restore again (not strict), or are
//     refused only for a head count beyond the records the data held.
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <memory>
#include <vector>

#include "trdcomp/trdcomp.hpp"

namespace {

// A failed check names itself before it stops the fuzzer.
#define Check(ok)                                                                    \
    do {                                                                             \
        if (!(ok)) {                                                                 \
            std::fprintf(stderr, "check failed, line %d: %s\n", __LINE__, #ok);     \
            __builtin_trap();                                                        \
        }                                                                            \
    } while (0)

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
        const std::size_t bytes = static_cast<std::size_t>(s.count > 0 ? s.count : 0) * static_cast<std::size_t>(s.size);
        Check(s.data >= v.Data() && s.data + bytes <= v.Data() + v.Size());
        records += s.count > 0 ? static_cast<std::size_t>(s.count) : 0;
        trdcomp::Reason why = trdcomp::Reason::none;
        const auto r = v.Records<tagANS_1019>(j, &why);
        Check(r.empty() || (why == trdcomp::Reason::none && r.size() == static_cast<std::size_t>(s.count)));
    }
    Check(records <= o.maxRecords);
}

// A message the library packed restores, unless its description disagrees
// with what was packed: a head stating more records than the data held (the
// packer codes those that lie inside it), or an answer whose array count is
// not the one its id's codec codes (no section table where one is read).
bool Restores(const trdcomp::Restored& r) {
    return r || r.Why() == trdcomp::Reason::count_past_message || r.Why() == trdcomp::Reason::section_table_invalid;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size < 2) return 0;
    trdcomp::RestoreOptions o;
    o.strict = data[0] & 1;
    o.flag = static_cast<char>((data[0] >> 1) & 3);
    if (data[0] & 8) o.maxBytes = 64u << (data[0] >> 4);
    if (data[0] & 0x40) o.maxRecords = data[1] & 7;
    const bool request = data[1] & 0x80;
    const std::size_t n = size - 2;
    std::unique_ptr<char[]> msg(new char[n ? n : 1]);
    if (n) std::memcpy(msg.get(), data + 2, n);
    const trdcomp::span<const char> in(msg.get(), n);

    const trdcomp::Restored r = request ? trdcomp::RestoreRequest(in, o) : trdcomp::RestoreAnswer(in, o);
    CheckView(r, o);
    if (r.Error() == trdcomp::Errc::limit_exceeded) Check(r.Needed() > o.maxBytes || o.maxRecords != std::size_t(-1));

    const std::size_t need = trdcomp::detail::RestoredBytes(request, msg.get(), n, o.flag);
    if (r) {
        std::unique_ptr<char[]> block(new char[need ? need : 1]);
        const trdcomp::RestoredView v = request ? trdcomp::RestoreRequestInto({block.get(), need}, in, o)
                                                : trdcomp::RestoreAnswerInto({block.get(), need}, in, o);
        CheckView(v, o);
        Check(static_cast<bool>(v) && v.Size() == r.Size() && (r.Size() == 0 || std::memcmp(v.Data(), r.Data(), r.Size()) == 0));
        if (need > 0) {
            std::unique_ptr<char[]> shorter(new char[need]);
            shorter[need - 1] = 0x5A;
            const trdcomp::RestoredView s = request ? trdcomp::RestoreRequestInto({shorter.get(), need - 1}, in, o)
                                                    : trdcomp::RestoreAnswerInto({shorter.get(), need - 1}, in, o);
            Check(s.Error() == trdcomp::Errc::buffer_too_small && s.Needed() == need && shorter[need - 1] == 0x5A);
        }
    }

    // The message's bytes as the records of a request and an answer.
    const int id = 1000 + (data[1] & 0x7F) * 2 + (data[0] >> 7);
    trdcomp::Coding c = (data[1] & 0x40) ? trdcomp::Coding::Fast(1 + (data[0] & 0xF)) : trdcomp::Coding::C2008(o.flag);
    if ((data[0] & 0x30) == 0x30) c.fastVersion = 16;  // refused
    c.strict = o.strict;
    const int recordSize = 1 + static_cast<int>(n % 331);
    const int count = static_cast<int>(n / static_cast<std::size_t>(recordSize));
    tagREQ_HEAD head{};
    head.nFuncId = id;
    head.nRecCount = count;
    head.nRecSize = recordSize;
    const std::size_t capacity = (data[1] & 0x20) ? n / 2 : static_cast<std::size_t>(trdcomp::RequestSizeBound(head, n, c));
    std::vector<char> out(capacity + 1, 0x5A);
    const trdcomp::PackResult p = trdcomp::PackRequest({out.data(), capacity}, head, in, c);
    CheckWhy(p.error, p.reason);
    Check(out[capacity] == 0x5A);
    if (p.error == trdcomp::Errc::buffer_too_small) Check(p.needed > capacity);
    if (p) {
        Check(p.size <= capacity);
        Check(Restores(trdcomp::RestoreRequest({out.data(), p.size}, o.flag)));
    }

    tagANS_Proc proc{};
    proc.nFuncId = id;
    const trdcomp::Array arrays[] = {trdcomp::Array(msg.get(), count, recordSize), trdcomp::Array(msg.get(), count / 2, recordSize)};
    const std::size_t arrayCount = 1 + (data[1] & 1);
    proc.nArrayCount = static_cast<int>(arrayCount);
    for (std::size_t j = 0; j < arrayCount; ++j) {
        proc.nRecCount[j] = arrays[j].count;
        proc.nRecSize[j] = arrays[j].size;
    }
    const std::size_t ansCapacity = (data[1] & 0x20) ? n / 2 : static_cast<std::size_t>(trdcomp::AnswerSizeBound(proc, c));
    std::vector<char> ans(ansCapacity + 1, 0x5A);
    const trdcomp::PackResult a = trdcomp::PackAnswer({ans.data(), ansCapacity}, proc, {arrays, arrayCount}, c);
    CheckWhy(a.error, a.reason);
    Check(ans[ansCapacity] == 0x5A);
    if (a.error == trdcomp::Errc::buffer_too_small) Check(a.needed > ansCapacity);
    if (a) {
        Check(a.size <= ansCapacity);
        std::int32_t flags = 0;
        std::memcpy(&flags, ans.data() + 8, 4);
        // A raw answer of several arrays in the Fast coding carries no
        // section table: its restore reads records as one.
        const bool rawFastSections = c.IsFast() && !(flags & TRDCOMP_FLAG_CODED) && arrayCount > 1;
        if (!rawFastSections) Check(Restores(trdcomp::RestoreAnswer({ans.data(), a.size}, o.flag)));
    }
    return 0;
}

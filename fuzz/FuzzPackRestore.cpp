// Fuzz target: pack fuzzer-chosen records of any routed function id in either
// coding, then restore the message. A message the library packed itself must
// restore (result 1) unless its description disagrees with the records: a
// head stating more records than the data held (a record size below the
// layout's: the packer codes only the records inside the data), or an answer
// of another array count than its id's codec codes. Nothing may touch memory
// outside the buffers.
//
// Input: byte 0 id selector, byte 1 coding (bit 0: Fast), byte 2 the 2008
// flag, byte 3 record count; the rest is repeated into the records.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "CatalogueTables.h"
#include "trdcomp/TrdCompData.h"
#include "trdcomp/trdcomp.hpp"

namespace {

// Every routed function id, from the catalogue's routing tables.
std::vector<int> RoutedIds() {
    std::vector<int> ids;
    for (const auto& r : trdcomp::generated::kCatalogueRequestRoutes) ids.push_back(r.id);
    for (const auto& r : trdcomp::generated::kCatalogueAnswerRoutes) ids.push_back(r.id);
    return ids;
}
const std::vector<int> kIds = RoutedIds();

// Was the restore refused because the description disagrees with what was
// packed: a head counting more records than the message holds, or an answer
// whose array count is not the one its id's codec codes (no section table
// where the restore reads one)?
bool DescriptionDisagrees(const std::vector<char>& msg, bool request, char flag) {
    const trdcomp::span<const char> in(msg.data(), msg.size());
    const trdcomp::Restored r = request ? trdcomp::RestoreRequest(in, flag) : trdcomp::RestoreAnswer(in, flag);
    return r.Why() == trdcomp::Reason::count_past_message || r.Why() == trdcomp::Reason::section_table_invalid;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size < 5) return 0;
    const int id = kIds[data[0] % kIds.size()];
    const bool fast = data[1] & 1;
    const char flag = static_cast<char>(data[2] % 3);
    const int count = data[3] % 8;
    const std::uint8_t* bytes = data + 4;
    const std::size_t nbytes = size - 4;
    // The record size is taken from the fuzzer too, around the usual sizes.
    const int recordSize = 1 + static_cast<int>((bytes[0] * 131u + nbytes) % 700u);
    std::vector<char> records(static_cast<std::size_t>(count * recordSize));
    for (std::size_t i = 0; i < records.size(); ++i) records[i] = static_cast<char>(bytes[i % nbytes]);

    // Request.
    tagREQ_HEAD head{};
    head.nFuncId = id;
    head.nFlags = fast ? 0x10 : 0;
    head.nRecCount = count;
    head.nRecSize = recordSize;
    std::vector<char> wire(64 + records.size() * 12 + 76 + 4096);
    int len = 0;
    CTrdCompData::PackReq2008(wire.data(), len, &head, records.data(), static_cast<int>(records.size()), flag);
    if (len < 76 || static_cast<std::size_t>(len) > wire.size()) std::abort();
    std::vector<char> msg(wire.begin(), wire.begin() + len);
    char* out = nullptr;
    int outLen = 0;
    if (CTrdCompData::RestoreReq2008(msg.data(), len, &out, outLen, flag) != 1 && !DescriptionDisagrees(msg, true, flag))
        std::abort();
    CTrdCompData::ReleaseAnsData(out);

    // Answer with the same records as its first array (and a second, shorter one).
    tagANS_Proc proc{};
    proc.nFuncId = id;
    proc.nArrayCount = 1 + data[1] % 3;
    for (int j = 0; j < 5; ++j) {
        proc.nRecCount[j] = j == 0 ? count : count / 2;
        proc.nRecSize[j] = recordSize;
    }
    std::vector<char> answer(96 + 64 + 3 * records.size() * 12 + 4096, 0);
    int ansLen = 0;
    CTrdCompData::PackAns2008(answer.data(), static_cast<int>(answer.size()), ansLen, &proc, records.data(), records.data(),
                              records.data(), nullptr, nullptr, flag, fast ? 0x10 : 0);
    if (ansLen > 0) {
        std::vector<char> ans(answer.begin(), answer.begin() + ansLen);
        out = nullptr;
        std::int32_t flags = 0;
        std::memcpy(&flags, ans.data() + 8, 4);
        // A raw answer of several arrays in the Fast coding carries no
        // section table: its restore reads the first record bytes as one.
        const bool rawFastSections = fast && !(flags & TRDCOMP_FLAG_CODED) && proc.nArrayCount > 1;
        if (CTrdCompData::RestoreAns2008(ans.data(), ansLen, &out, outLen, flag) != 1 && !rawFastSections &&
            !DescriptionDisagrees(ans, false, flag))
            std::abort();
        CTrdCompData::ReleaseAnsData(out);
    }
    return 0;
}

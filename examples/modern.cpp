// The modern interface in a dozen lines: pack into a buffer of known size,
// restore into an owning result, read typed records; then restore again into
// a block of the caller's, without allocating.
#include <cstdio>
#include <cstring>
#include <vector>

#include "trdcomp/trdcomp.hpp"

int main() {
    tagREQ_1002 orders[2] = {};
    std::strcpy(orders[0].f3, "ACCT-0042");
    std::strcpy(orders[1].f3, "ACCT-0043");
    tagREQ_HEAD head = {};
    head.nFuncId = 1002;

    const auto coding = trdcomp::Coding::Fast();
    const trdcomp::span<const tagREQ_1002> records(orders, 2);
    std::vector<char> wire(trdcomp::RequestSizeBound(head, records, coding));
    const trdcomp::PackResult packed = trdcomp::PackRequest(wire, head, records, coding);
    if (!packed) return std::printf("pack: %s\n", trdcomp::Message(packed.error)), 1;

    const trdcomp::Restored back = trdcomp::RestoreRequest({wire.data(), packed.size});
    for (const tagREQ_1002& r : back.Records<tagREQ_1002>()) std::printf("%s\n", r.f3);

    const trdcomp::span<const char> msg(wire.data(), packed.size);
    const trdcomp::FrameLength frame = trdcomp::MessageLength(msg);
    char block[512];
    const trdcomp::RestoredView view = trdcomp::RestoreInto(block, msg);
    std::printf("message %zu bytes (from its bytes: %zu), restored into the caller's block: %zu of %zu bytes needed\n",
                packed.size, frame.length, view.Size(), trdcomp::RestoredSize(msg));
    for (const tagREQ_1002& r : view.Records<tagREQ_1002>()) std::printf("%s\n", r.f3);
    const trdcomp::RestoredView small = trdcomp::RestoreInto(trdcomp::span<char>(block, 100), msg);
    std::printf("into 100 bytes: %s (needs %zu)\n", trdcomp::Message(small.Error()), small.Needed());
    return back && back.Records<tagREQ_1002>().size() == 2 && view.Records<tagREQ_1002>().size() == 2 &&
                   std::memcmp(view.Data(), back.Data(), back.Size()) == 0 && !small
               ? 0
               : 1;
}

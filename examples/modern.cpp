// The modern interface in a dozen lines: pack into a buffer of known size,
// restore into an owning result, read typed records.
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
    return back && back.Records<tagREQ_1002>().size() == 2 ? 0 : 1;
}
